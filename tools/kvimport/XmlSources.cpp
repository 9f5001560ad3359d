// XML documents on the command line: one row per repeated element, chosen unless --row-element names
// it, one column per attribute or child element.

#include "CellSources.h"
#include "SourceKinds.h"
#include "platform/StringList.h"
#include "sources/KvI2XML.h"

namespace kv::cli {

namespace {

class XmlSource : public SourceSetup {
public:
    XmlSource(const std::string& file, TComponent& root) : component_(new TKvImportFromXML(&root)) {
        CheckSourceFile(file);
        component_->SetSourceFileName(file);
    }
    TKvImportBaseComponent& Component() override { return *component_; }
    std::vector<std::string> SpecificationLines() const override { return {"SourceKind=XML"}; }
    void Preview(int64_t rows, const PreviewRow& row) override {
        for (const std::vector<std::string>& values :
             component_->PreviewRows(static_cast<int>(std::min<int64_t>(rows, INT32_MAX))))
            row(values);
    }
    std::vector<std::pair<std::string, std::string>> Properties() override {
        return {{"Row element", component_->RowElementUsed()},
                {"Rows", std::to_string(component_->RowCount())},
                {"Encoding", component_->EncodingName()}};
    }
    void ApplyOptions(const ImportOptions& o) override {
        if (const std::string* v = o.SourceValue("row-element")) component_->SetRowElement(*v);
        if (const std::string* v = o.SourceValue("first-row")) component_->SetRowFirst(std::stoi(*v));
        if (const std::string* v = o.SourceValue("last-row")) component_->SetRowLast(std::stoi(*v));
    }

private:
    TKvImportFromXML* component_;
};

std::vector<OptionSpec> XmlOptions() {
    std::vector<OptionSpec> options = {
        {"row-element", "NAME",
         "the element whose occurrences are the rows (default: the one most often with attributes or "
         "children)",
         KeepOption("row-element")},
    };
    for (OptionSpec& o : CellRowOptions(false)) options.push_back(std::move(o));
    return options;
}

const RegisterSourceKind kXml({
    "xml",
    {".xml"},
    "XML",
    "XML documents (.xml): one row per repeated element, one column per attribute or child element",
    false,
    XmlOptions(),
    [](const ImportOptions&, const std::string& file, const TStringList*,
       TComponent& root) -> std::unique_ptr<SourceSetup> { return std::make_unique<XmlSource>(file, root); },
});

} // namespace

} // namespace kv::cli
