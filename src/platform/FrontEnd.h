#pragma once
// What the library asks of a user interface: a progress display, message boxes, a parameter prompt and
// the clipboard's text. The library's default shows nothing and asks nothing; the command-line program
// implements these on the terminal, and a graphical front end can implement them the same way.

#include <string>
#include <vector>

namespace kv {

/// The editor a prompted value is entered with.
enum TPromptEditor : uint8_t {
    peEdit,     ///< one line of text
    peMemo,     ///< several lines of text
    peCheckBox, ///< yes or no
    peComboBox, ///< one of Choices, or free text
    peListBox   ///< one of Choices
};

/// One value asked of the user.
struct TPromptField {
    std::string Caption; ///< label shown beside the editor
    std::string Hint;    ///< longer explanation
    TPromptEditor Editor = peEdit;
    std::vector<std::string> Choices; ///< offered by the list editors
    bool Required = false;            ///< an empty answer is not accepted
    std::string Text;                 ///< in: the current value; out: the answer (edit, memo, lists)
    bool Checked = false;             ///< in and out for the check box
    bool Secret = false;              ///< the answer is not shown as it is typed (a password)
};

/// Counters shown while a run goes on.
struct TProgressState {
    int Processed = 0, Total = 0, Added = 0, Updated = 0, Deleted = 0, Errors = 0, Skipped = 0;
    /// How far through the source the run is, from 0 to 1, while Total is not known (below 0: unknown).
    double Fraction = -1;
};

/// The user interface the library talks to. Every operation has a silent default.
class IKvFrontEnd {
public:
    virtual ~IKvFrontEnd() = default;

    /// Asks the listed values under `caption`; false when the user cancels (or nobody can be asked).
    virtual bool PromptValues(const std::string& caption, std::vector<TPromptField>& fields) {
        (void)caption;
        (void)fields;
        return false;
    }
    /// An information message with one OK button.
    virtual void ShowMessage(const std::string& text) { (void)text; }

    virtual void CreateProgressDlg(const std::string& caption, const std::string& status, bool extended) {
        (void)caption, (void)status, (void)extended;
    }
    virtual void ChangeProgressDlg(const std::string& status) { (void)status; }
    virtual void UpdateProgressDlg(const TProgressState& state) { (void)state; }
    /// The run has ended with `message`; the display shows it with the final counters.
    virtual void FinishProgressDlg(const std::string& message, const TProgressState& state,
                                   bool waitForUser) {
        (void)message, (void)state, (void)waitForUser;
    }
    virtual void DestroyProgressDlg() {}
    /// True once the user asked to stop the run.
    virtual bool ProgressCanceled() { return false; }
};

/// The front end the library uses; never null (the silent default unless one was set).
IKvFrontEnd& FrontEnd();
/// Installs a front end (nullptr restores the silent default); the caller keeps ownership.
void SetFrontEnd(IKvFrontEnd* frontEnd);
/// True when a front end was installed (someone can be asked).
bool HasFrontEnd();

} // namespace kv
