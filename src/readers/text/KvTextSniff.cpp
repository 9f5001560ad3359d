#include "readers/text/KvTextSniff.h"

#include "platform/SysUtils.h"
#include "readers/text/KvTextFields.h"
#include "readers/text/KvTextTypes.h"

#include <vector>

namespace kv {

namespace {

constexpr size_t kSniffRecords = 20;
constexpr char kCandidates[] = {'\t', ';', ',', '|'};

bool IsBlank(std::string_view record) {
    for (char c : record)
        if (c != ' ' && c != '\t') return false;
    return true;
}

// The first records of the sample, blank ones left out; quotes may hold line breaks. A record the end of
// a cut sample runs into is left out too: it may be incomplete.
std::vector<std::string_view> SampleRecords(std::string_view sample, bool cut) {
    std::vector<std::string_view> records;
    bool quoted = false;
    size_t start = 0;
    for (size_t i = 0; i < sample.size() && records.size() < kSniffRecords; ++i) {
        const char c = sample[i];
        if (c == '"') {
            quoted = !quoted;
        } else if (!quoted && (c == '\n' || c == '\r')) {
            const std::string_view record = sample.substr(start, i - start);
            if (c == '\r' && i + 1 < sample.size() && sample[i + 1] == '\n') ++i;
            if (!IsBlank(record)) records.push_back(record);
            start = i + 1;
        }
    }
    if (!cut && records.size() < kSniffRecords && start < sample.size() && !IsBlank(sample.substr(start)))
        records.push_back(sample.substr(start));
    return records;
}

size_t CountOutsideQuotes(std::string_view record, char delimiter) {
    size_t count = 0;
    bool quoted = false;
    for (char c : record) {
        if (c == '"')
            quoted = !quoted;
        else if (!quoted && c == delimiter)
            ++count;
    }
    return count;
}

// The candidate that splits the most records into as many fields as the first; more fields break a tie.
char32_t ChooseDelimiter(const std::vector<std::string_view>& records, char32_t fallback) {
    char32_t best = fallback;
    size_t bestScore = 0, bestCount = 0;
    for (char candidate : kCandidates) {
        const size_t first = CountOutsideQuotes(records[0], candidate);
        if (first == 0) continue;
        size_t score = 0;
        for (std::string_view record : records) score += CountOutsideQuotes(record, candidate) == first;
        if (score > bestScore || (score == bestScore && first > bestCount)) {
            best = static_cast<unsigned char>(candidate);
            bestScore = score;
            bestCount = first;
        }
    }
    return best;
}

// A header's values are names: where the data below is numbers, dates or booleans, a first record of the
// same kinds is data. Each such column votes; a tie keeps the usual header.
bool LooksLikeHeader(const std::vector<std::string_view>& records, char32_t delimiter) {
    if (records.size() < 2) return true;
    TKvTextFields fields;
    fields.SetDelimiter(delimiter);
    fields.SetQualifier(U'"');
    TKvTextTypeOptions options;
    options.ThousandSeparator = 0; // a grouped number in a header is unlikely, and its comma ambiguous
    TKvTextTypeGuesser guesser(options);
    std::string value;
    for (size_t r = 1; r < records.size(); ++r) {
        fields.SetLine(records[r]);
        for (int i = 1; i <= fields.Count(); ++i) {
            fields.FieldValue(i, value);
            guesser.Add(static_cast<size_t>(i - 1), value, false);
        }
    }
    const std::vector<TKvTextColumnType> columns = guesser.Columns();
    fields.SetLine(records[0]);
    int votes = 0;
    for (int i = 1; i <= fields.Count() && static_cast<size_t>(i) <= columns.size(); ++i) {
        fields.FieldValue(i, value);
        const std::string_view v = TrimView(value);
        if (v.empty()) continue;
        bool fits = false;
        switch (columns[static_cast<size_t>(i - 1)].Kind) {
        case tckInteger:
            fits = guesser.IsInteger(v);
            break;
        case tckFloat:
            fits = guesser.IsFloat(v, false);
            break;
        case tckDateTime:
            fits = guesser.IsDateTime(v);
            break;
        case tckBoolean:
            fits = guesser.IsBoolean(v);
            break;
        case tckString:
            continue;
        }
        votes += fits ? -1 : 1;
    }
    return votes >= 0;
}

} // namespace

char32_t TextDelimiterForExtension(std::string_view extension) {
    if (SameText(extension, ".tsv") || SameText(extension, ".tab")) return U'\t';
    if (SameText(extension, ".csv")) return U',';
    return 0;
}

TKvTextDialect SniffTextDialect(std::string_view sample, char32_t fallbackDelimiter,
                                char32_t fixedDelimiter) {
    if (sample.substr(0, 3) == "\xEF\xBB\xBF") sample.remove_prefix(3);
    const std::vector<std::string_view> records = SampleRecords(sample, sample.size() >= KvTextSniffBytes);
    TKvTextDialect dialect;
    dialect.Delimiter = fixedDelimiter ? fixedDelimiter : fallbackDelimiter;
    if (records.empty()) return dialect;
    if (!fixedDelimiter) dialect.Delimiter = ChooseDelimiter(records, fallbackDelimiter);
    dialect.HasHeader = LooksLikeHeader(records, dialect.Delimiter);
    return dialect;
}

} // namespace kv
