// Text sources on the command line: a file, standard input or the clipboard, read the way their first
// lines suggest, so that a common file needs no options.

#include "SourceKinds.h"
#include "platform/Clipboard.h"
#include "platform/Streams.h"
#include "platform/SysUtils.h"
#include "platform/Utf8.h"
#include "sources/KvI2TXT.h"

#include <iostream>
#include <iterator>

namespace kv::cli {

namespace {

// Options of text sources, kept as the text of their checked value ("" for a character that is none).
auto Keep(const char* name) {
    return [name](ImportOptions& o, const std::string& v) { o.SourceValues[name] = v; };
}

auto KeepChar(const char* name, std::initializer_list<std::pair<const char*, char32_t>> words) {
    std::vector<std::pair<std::string, char32_t>> named;
    for (const auto& w : words) named.emplace_back(w.first, w.second);
    return [name, named](ImportOptions& o, const std::string& v) {
        char32_t c = 0;
        bool isWord = false;
        for (const auto& [word, ch] : named)
            if (v == word) c = ch, isWord = true;
        if (!isWord) c = OptionChar(name, v);
        o.SourceValues[name] = c ? Utf8Encode(c) : std::string();
    };
}

auto KeepNumber(const char* name, int minimum, const char* what) {
    return [=](ImportOptions& o, const std::string& v) {
        o.SourceValues[name] = std::to_string(OptionNumber(name, v, minimum, what));
    };
}

char32_t CharOf(const std::string& text) {
    size_t pos = 0;
    return text.empty() ? 0 : Utf8Decode(text, pos);
}

std::optional<int> NumberOf(const ImportOptions& o, const char* name) {
    const std::string* v = o.SourceValue(name);
    return v ? std::optional<int>(std::stoi(*v)) : std::nullopt;
}

class TextSource : public SourceSetup {
public:
    TextSource(const ImportOptions& o, const std::string& file, TComponent& root)
        : component_(o.Clipboard ? new TKvImportFromClipboard(&root) : new TKvImportFromText(&root)) {
        if (o.Clipboard) {
            component_->SetSourceText(kv::Clipboard().GetText());
        } else if (file == "-") {
            // Standard input can be read once: keep it for describing the columns and for the run.
            std::string bytes((std::istreambuf_iterator<char>(std::cin)), std::istreambuf_iterator<char>());
            component_->SetSourceText(std::move(bytes));
            component_->SetSourceFileName("-");
        } else {
            CheckSourceFile(file);
            component_->SetSourceFileName(file);
        }
        // The delimiter and whether row 1 names the columns, guessed as the library guesses them; options
        // given on the command line override them afterwards.
        const std::string* delimiter = o.SourceValue("delimiter");
        component_->DetectFormat(delimiter ? CharOf(*delimiter) : 0);
        if (std::optional<int> length = NumberOf(o, "line-length")) component_->SetFixedLineLength(*length);
        if (o.SourceValue("keep-empty-rows")) component_->SetKeepEmptyRows(true);
        if (const std::string* encoding = o.SourceValue("encoding"); encoding && *encoding != "auto")
            component_->SetEncoding(*encoding == "utf-8"          ? encUtf8
                                    : *encoding == "windows-1252" ? encAnsi
                                    : *encoding == "utf-16le"     ? encUtf16LE
                                                                  : encUtf16BE);
        // Without a names row the data starts at the first row, unless told otherwise.
        const std::optional<int> names = NumberOf(o, "names-row");
        if (names && !o.SourceValue("first-row")) component_->SetRowFirst(*names + 1);
    }
    TKvImportBaseComponent& Component() override { return *component_; }
    std::vector<std::string> SpecificationLines() const override { return {"SourceKind=Text"}; }
    void Preview(int64_t rows, const PreviewRow& row) override {
        for (const std::vector<std::string>& values :
             component_->PreviewRows(static_cast<int>(std::min<int64_t>(rows, INT32_MAX))))
            row(values);
    }
    void ApplyOptions(const ImportOptions& o) override {
        TKvImportFromText& c = *component_;
        if (const std::string* v = o.SourceValue("delimiter")) c.SetFieldDelimiterCustom(CharOf(*v));
        if (const std::string* v = o.SourceValue("qualifier")) c.SetTextQualifierCustom(CharOf(*v));
        if (const std::string* v = o.SourceValue("record-separator")) c.SetRecordSeparatorCustom(*v);
        if (o.SourceValue("fixed")) c.SetFixed(true);
        if (std::optional<int> n = NumberOf(o, "first-row")) c.SetRowFirst(*n);
        if (std::optional<int> n = NumberOf(o, "last-row")) c.SetRowLast(*n);
        if (std::optional<int> n = NumberOf(o, "names-row")) c.SetRowFieldNames(*n);
        if (std::optional<int> n = NumberOf(o, "max-scan-rows")) c.SetMaxScanRows(*n);
    }

private:
    TKvImportFromText* component_;
};

const RegisterSourceKind kText({
    "text",
    {".csv", ".tsv", ".txt", ".dat", ".prn", ".tab", ".asc"},
    "Text",
    "Text sources (.csv .tsv .txt .dat .prn .tab .asc, '-' for standard input, --clipboard)",
    true,
    {
        {"delimiter", "tab|comma|semicolon|space|none|C",
         "between fields (default: guessed from the first lines)",
         KeepChar("delimiter", {{"comma", U','}, {"semicolon", U';'}, {"none", 0}})},
        {"qualifier", "quot|apos|none|C", "around fields that hold delimiters or line breaks",
         KeepChar("qualifier", {{"quot", U'"'}, {"apos", U'\''}, {"none", 0}})},
        {"record-separator", "crlf|cr|lf|TEXT", "between records (default: any line end)",
         [](ImportOptions& o, const std::string& v) {
             const std::string text = v == "crlf" ? "\r\n" : v == "cr" ? "\r" : v == "lf" ? "\n" : v;
             if (text.empty()) throw UsageError("--record-separator expects crlf, cr, lf or a text");
             o.SourceValues["record-separator"] = text;
         }},
        {"fixed", nullptr, "fixed-width columns, mapped as Text<a>-<b>", Keep("fixed")},
        {"line-length", "N", "records of N characters, without separators",
         KeepNumber("line-length", 0, "a length, 0 or more")},
        {"first-row", "N", "the first row imported",
         KeepNumber("first-row", 1, "a row number of at least 1")},
        {"last-row", "N", "the last row imported", KeepNumber("last-row", 1, "a row number of at least 1")},
        {"names-row", "N", "the row holding the column names, 0 for none (default: guessed)",
         KeepNumber("names-row", 0, "a row number, 0 for none")},
        {"max-scan-rows", "N", "rows read to guess column types (default 1000, -1 every row)",
         KeepNumber("max-scan-rows", -1, "a number of rows, -1 for every row")},
        {"encoding", "auto|utf-8|windows-1252|utf-16le|utf-16be", "the text's encoding (default: recognised)",
         [](ImportOptions& o, const std::string& v) {
             o.SourceValues["encoding"] = OptionChoice<std::string>("encoding", v,
                                                                    {{"auto", "auto"},
                                                                     {"utf-8", "utf-8"},
                                                                     {"utf8", "utf-8"},
                                                                     {"windows-1252", "windows-1252"},
                                                                     {"cp1252", "windows-1252"},
                                                                     {"latin1", "windows-1252"},
                                                                     {"utf-16le", "utf-16le"},
                                                                     {"utf-16be", "utf-16be"}});
         }},
        {"keep-empty-rows", nullptr, "blank lines are rows too", Keep("keep-empty-rows")},
    },
    [](const ImportOptions& o, const std::string& file, const TStringList*, TComponent& root)
        -> std::unique_ptr<SourceSetup> { return std::make_unique<TextSource>(o, file, root); },
});

} // namespace

} // namespace kv::cli
