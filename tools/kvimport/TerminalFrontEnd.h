#pragma once
// The library's user interface on a terminal: a progress line on stderr (when it is a terminal),
// Ctrl-C as the Cancel button, and parameter prompts on stdin/stderr.

#include "platform/FrontEnd.h"

#include <chrono>
#include <set>
#include <string>

namespace kv::cli {

/// Standard input and standard error are a terminal: someone can be asked.
bool CanAskOnTerminal();
/// Reads a line from standard input without showing it; false at the end of input.
bool ReadSecretLine(std::string& answer);

class TerminalFrontEnd : public IKvFrontEnd {
public:
    /// `quiet` silences the progress line; prompts still appear when stdin is a terminal.
    explicit TerminalFrontEnd(bool quiet);
    ~TerminalFrontEnd() override;

    /// Captions whose values were given on the command line: never asked.
    std::set<std::string> Preset;

    bool PromptValues(const std::string& caption, std::vector<TPromptField>& fields) override;
    void ShowMessage(const std::string& text) override;
    void CreateProgressDlg(const std::string& caption, const std::string& status, bool extended) override;
    void UpdateProgressDlg(const TProgressState& state) override;
    void FinishProgressDlg(const std::string& message, const TProgressState& state,
                           bool waitForUser) override;
    void DestroyProgressDlg() override;
    bool ProgressCanceled() override;

    /// Removes the progress line so that a message can be printed in its place.
    void ClearLine();

private:
    bool showProgress_;
    bool interactive_;
    bool lineShown_ = false;
    std::chrono::steady_clock::time_point started_, lastDrawn_;
};

} // namespace kv::cli
