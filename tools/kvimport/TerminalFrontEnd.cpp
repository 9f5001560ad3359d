#include "TerminalFrontEnd.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <termios.h>
#include <unistd.h>

namespace kv::cli {

namespace {

std::atomic<bool> interrupted{false};

extern "C" void OnInterrupt(int) {
    interrupted = true;
    std::signal(SIGINT, SIG_DFL); // a second Ctrl-C ends the program at once
}

std::string Grouped(long long n) {
    std::string digits = std::to_string(n < 0 ? -n : n), out;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i && (digits.size() - i) % 3 == 0) out += ',';
        out += digits[i];
    }
    return n < 0 ? "-" + out : out;
}

} // namespace

bool CanAskOnTerminal() {
    return isatty(STDIN_FILENO) && isatty(STDERR_FILENO);
}

bool ReadSecretLine(std::string& answer) {
    termios saved{};
    const bool terminal = tcgetattr(STDIN_FILENO, &saved) == 0;
    if (terminal) {
        termios quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
    }
    const bool read = static_cast<bool>(std::getline(std::cin, answer));
    if (terminal) {
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
        std::cerr << '\n';
    }
    return read;
}

TerminalFrontEnd::TerminalFrontEnd(bool quiet)
    : showProgress_(!quiet && isatty(STDERR_FILENO)), interactive_(CanAskOnTerminal()) {
    interrupted = false;
    std::signal(SIGINT, OnInterrupt);
}

TerminalFrontEnd::~TerminalFrontEnd() {
    std::signal(SIGINT, SIG_DFL);
}

bool TerminalFrontEnd::PromptValues(const std::string& caption, std::vector<TPromptField>& fields) {
    bool titleShown = false;
    for (TPromptField& field : fields) {
        if (Preset.count(field.Caption)) continue;
        if (!interactive_) {
            // Nobody to ask: the offered value stands, unless one is required and there is none.
            if (field.Required && field.Text.empty() && field.Editor != peCheckBox) return false;
            continue;
        }
        if (!titleShown) {
            std::cerr << caption << '\n';
            titleShown = true;
        }
        for (;;) {
            std::cerr << "  " << field.Caption;
            if (!field.Hint.empty()) std::cerr << " (" << field.Hint << ")";
            if (field.Editor == peCheckBox) {
                std::cerr << " [" << (field.Checked ? "Y/n" : "y/N") << "]: ";
            } else {
                if (!field.Choices.empty()) {
                    std::cerr << " {";
                    for (size_t i = 0; i < field.Choices.size(); ++i)
                        std::cerr << (i ? ", " : "") << field.Choices[i];
                    std::cerr << "}";
                }
                std::cerr << (field.Secret ? std::string(": ") : " [" + field.Text + "]: ");
            }
            std::string answer;
            if (field.Secret ? !ReadSecretLine(answer) : !std::getline(std::cin, answer))
                return false; // end of input: canceled
            if (field.Editor == peCheckBox) {
                if (!answer.empty()) field.Checked = answer[0] == 'y' || answer[0] == 'Y' || answer == "1";
                break;
            }
            if (!answer.empty()) field.Text = answer;
            if (field.Required && field.Text.empty()) {
                std::cerr << "  a value is required\n";
                continue;
            }
            break;
        }
    }
    return true;
}

void TerminalFrontEnd::ShowMessage(const std::string& text) {
    ClearLine();
    std::cerr << text << '\n';
}

void TerminalFrontEnd::CreateProgressDlg(const std::string&, const std::string&, bool) {
    started_ = lastDrawn_ = std::chrono::steady_clock::now();
}

void TerminalFrontEnd::UpdateProgressDlg(const TProgressState& state) {
    if (!showProgress_) return;
    const auto now = std::chrono::steady_clock::now();
    if (lineShown_ && now - lastDrawn_ < std::chrono::milliseconds(200)) return;
    lastDrawn_ = now;
    const double seconds = std::chrono::duration<double>(now - started_).count();
    std::string line = "\r" + Grouped(state.Processed);
    char percent[16];
    if (state.Total > 0) {
        std::snprintf(percent, sizeof percent, "%.0f%%", 100.0 * state.Processed / state.Total);
        line += " of " + Grouped(state.Total) + " rows (" + percent + ")";
    } else if (state.Fraction >= 0) {
        // The rows are not counted ahead: how far through the source they are.
        std::snprintf(percent, sizeof percent, "%.0f%%", 100.0 * state.Fraction);
        line += std::string(" rows (") + percent + ")";
    } else {
        line += " rows";
    }
    if (seconds > 0.05) line += ", " + Grouped(static_cast<long long>(state.Processed / seconds)) + " rows/s";
    if (state.Errors) line += ", " + Grouped(state.Errors) + " errors";
    line += "\x1b[K";
    std::cerr << line << std::flush;
    lineShown_ = true;
}

void TerminalFrontEnd::FinishProgressDlg(const std::string&, const TProgressState&, bool) {
    ClearLine();
}

void TerminalFrontEnd::DestroyProgressDlg() {
    ClearLine();
}

bool TerminalFrontEnd::ProgressCanceled() {
    return interrupted.load(std::memory_order_relaxed);
}

void TerminalFrontEnd::ClearLine() {
    if (!lineShown_) return;
    std::cerr << "\r\x1b[K" << std::flush;
    lineShown_ = false;
}

} // namespace kv::cli
