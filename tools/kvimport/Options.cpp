#include "Options.h"

#include "platform/Utf8.h"

#include <algorithm>

namespace kv::cli {

std::string OptionHelp(const std::vector<OptionSection>& sections, unsigned command) {
    constexpr size_t kColumn = 30;
    std::string out;
    for (const OptionSection& section : sections) {
        std::string lines;
        for (const OptionSpec& o : *section.Options) {
            if (!(o.Commands & command)) continue;
            std::string left = std::string("  --") + o.Name + (o.Value ? std::string(" ") + o.Value : "");
            left += left.size() + 2 <= kColumn ? std::string(kColumn - left.size(), ' ')
                                               : "\n" + std::string(kColumn, ' ');
            lines += left + o.Help + "\n";
        }
        if (!lines.empty()) out += "\n" + section.Title + ":\n" + lines;
    }
    return out;
}

namespace {

size_t EditDistance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

} // namespace

std::string NearestName(const std::string& name, const std::vector<std::string>& names) {
    std::string best;
    size_t bestDistance = 0;
    for (const std::string& candidate : names) {
        // A prefix is what a user abbreviates; otherwise a typo or two, fewer for short names.
        const size_t distance =
            candidate.rfind(name, 0) == 0 && name.size() >= 3 ? 1 : EditDistance(name, candidate);
        if (best.empty() || distance < bestDistance) best = candidate, bestDistance = distance;
    }
    return !best.empty() && bestDistance <= std::max<size_t>(1, std::min<size_t>(2, name.size() / 3)) ? best
                                                                                                      : "";
}

char32_t OptionChar(const std::string& option, const std::string& value) {
    if (value == "tab") return 9;
    if (value == "space") return U' ';
    if (Utf8Length(value) != 1)
        throw UsageError("--" + option + " expects one character, got '" + value + "'");
    size_t pos = 0;
    return Utf8Decode(value, pos);
}

int OptionNumber(const std::string& option, const std::string& value, int minimum, const char* what) {
    int n;
    if (!TryStrToInt(value, n) || value.find_first_not_of("-0123456789") != std::string::npos)
        throw UsageError("--" + option + " expects a number, got '" + value + "'");
    if (n < minimum) throw UsageError("--" + option + " expects " + what);
    return n;
}

} // namespace kv::cli
