// Text sources on the command line: a file, standard input or the clipboard, read the way their first
// lines suggest, so that a common file needs no options.

#include "Sources.h"

#include "platform/Clipboard.h"
#include "platform/Streams.h"
#include "platform/SysUtils.h"
#include "sources/KvI2TXT.h"

#include <iostream>
#include <iterator>

namespace kv::cli {

namespace {

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
        component_->DetectFormat(o.Delimiter.value_or(0));
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
