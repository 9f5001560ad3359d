// Text sources on the command line: a file, standard input or the clipboard, with defaults that fit a
// common CSV file without options.

#include "Sources.h"

#include "platform/Clipboard.h"
#include "platform/Streams.h"
#include "platform/SysUtils.h"
#include "sources/KvI2TXT.h"

#include <filesystem>
#include <iostream>
#include <iterator>

namespace kv::cli {

namespace {

// The delimiter a first line most likely uses: the most frequent of tab, ";", "," and "|" outside
// quotes, or `fallback` when none occurs.
char32_t SniffDelimiter(std::string_view line, char32_t fallback) {
    int counts[4] = {0, 0, 0, 0};
    const char candidates[4] = {'\t', ';', ',', '|'};
    bool quoted = false;
    for (char c : line) {
        if (c == '"') quoted = !quoted;
        if (quoted) continue;
        for (int i = 0; i < 4; ++i)
            if (c == candidates[i]) ++counts[i];
    }
    int best = -1;
    for (int i = 0; i < 4; ++i)
        if (counts[i] > 0 && (best < 0 || counts[i] > counts[best])) best = i;
    return best < 0 ? fallback : static_cast<char32_t>(candidates[best]);
}

std::string FirstLine(const std::string& bytes) {
    const size_t end = bytes.find_first_of("\r\n");
    return bytes.substr(0, std::min<size_t>(end, 65536));
}

class TextSource : public SourceSetup {
public:
    TextSource(const ImportOptions& o, const std::string& file, TComponent& root)
        : component_(o.Clipboard ? new TKvImportFromClipboard(&root) : new TKvImportFromText(&root)) {
        std::string sample;
        if (o.Clipboard) {
            component_->SetSourceText(kv::Clipboard().GetText());
            sample = FirstLine(*component_->SourceText());
        } else if (file == "-") {
            // Standard input can be read once: keep it for describing the columns and for the run.
            std::string bytes((std::istreambuf_iterator<char>(std::cin)), std::istreambuf_iterator<char>());
            sample = FirstLine(bytes);
            component_->SetSourceText(std::move(bytes));
            component_->SetSourceFileName("-");
        } else {
            CheckSourceFile(file);
            TFileStream stream(file, fmOpenRead | fmShareDenyNone);
            sample = FirstLine(stream.ReadString(65536));
            component_->SetSourceFileName(file);
        }
        const std::string ext = LowerCase(std::filesystem::path(file).extension().string());
        // Tab-separated files say so by their name; others are judged by their first line.
        component_->SetFieldDelimiterCustom(
            ext == ".tsv" ? U'\t' : SniffDelimiter(sample, ext == ".csv" ? U',' : U'\t'));
        component_->SetTextQualifierCustom(U'"');
        // Names in the first row, data from the second: a common file needs no options.
        component_->SetRowFieldNames(1);
        component_->SetRowFirst(2);
        if (o.LineLength) component_->SetFixedLineLength(*o.LineLength);
        if (o.KeepEmptyRows) component_->SetKeepEmptyRows(true);
        if (o.Encoding && *o.Encoding != "auto")
            component_->SetEncoding(*o.Encoding == "utf-8"          ? encUtf8
                                    : *o.Encoding == "windows-1252" ? encAnsi
                                    : *o.Encoding == "utf-16le"     ? encUtf16LE
                                                                    : encUtf16BE);
    }
    TKvImportBaseComponent& Component() override { return *component_; }
    std::vector<std::string> SpecificationLines() const override { return {"SourceKind=Text"}; }
    std::vector<std::vector<std::string>> Preview(int rows) override { return component_->PreviewRows(rows); }
    TKvImportFromText& Text() { return *component_; }

private:
    TKvImportFromText* component_;
};

} // namespace

std::unique_ptr<SourceSetup> OpenTextSource(const ImportOptions& o, const std::string& file,
                                            TComponent& root) {
    auto source = std::make_unique<TextSource>(o, file, root);
    // Without a names row the data starts at the first row, unless told otherwise.
    if (o.NamesRow && *o.NamesRow == 0 && !o.FirstRow) source->Component().SetRowFirst(1);
    if (o.NamesRow && *o.NamesRow > 0 && !o.FirstRow) source->Component().SetRowFirst(*o.NamesRow + 1);
    return source;
}

} // namespace kv::cli
