#include "CommandLine.h"

namespace kv::cli {

bool ArgReader::NextIsOption() {
    if (AtEnd() || optionsEnded_) return false;
    const std::string& a = args_[pos_];
    if (a == "--") {
        optionsEnded_ = true;
        ++pos_;
        return false;
    }
    if (a.size() >= 3 && a[0] == '-' && a[1] == '-') return true;
    // "-h" is an option, "-5" or "-(a)" is an expression.
    return a.size() == 2 && a[0] == '-' && ((a[1] >= 'a' && a[1] <= 'z') || (a[1] >= 'A' && a[1] <= 'Z'));
}

std::string ArgReader::TakeOption() {
    std::string a = args_[pos_++];
    inlineValue_.reset();
    a.erase(0, a[1] == '-' ? 2 : 1);
    if (size_t eq = a.find('='); eq != std::string::npos) {
        inlineValue_ = a.substr(eq + 1);
        a.erase(eq);
    }
    return a;
}

std::string ArgReader::TakeValue(const std::string& option) {
    if (inlineValue_) {
        std::string v = *inlineValue_;
        inlineValue_.reset();
        return v;
    }
    if (AtEnd()) throw UsageError("option --" + option + " needs a value");
    return args_[pos_++];
}

} // namespace kv::cli
