// Excel workbooks on the command line (binary ones and Excel 2007+ packages): the sheet by number or name,
// the first row as column names unless told otherwise, and the password of an encrypted binary workbook
// given, asked on the terminal, or missing with a clear message.

#include "CellSources.h"
#include "CommandLine.h"
#include "TerminalFrontEnd.h"
#include "platform/Exceptions.h"
#include "platform/SysUtils.h"
#include "sources/KvI2XLS.h"

#include <filesystem>
#include <iostream>

namespace kv::cli {

namespace {

std::vector<OptionSpec> XlsOptions() {
    std::vector<OptionSpec> options = CellRowOptions(true);
    for (OptionSpec& o : options)
        if (std::string(o.Name) == "names-row")
            o.Help = "the row holding the column names, 0 for none (default: 1)";
    options.push_back({"password", "TEXT",
                       "the password of an encrypted workbook (asked on a terminal when needed)",
                       KeepOption("password")});
    return options;
}

std::string TypeNote(TKvIDataType type) {
    switch (type) {
    case itInteger:
        return "whole number";
    case itFloat:
        return "number";
    case itDate:
        return "date";
    case itDateTime:
        return "date-time";
    case itBoolean:
        return "boolean";
    default:
        return "text";
    }
}

class XlsSource : public CellSource {
public:
    XlsSource(const ImportOptions& o, const std::string& file, TComponent& root)
        : CellSource(new TKvImportFromXLS(&root), "XLS", file) {
        if (UpperCase(std::filesystem::path(file).extension().string()) == ".XLSB")
            throw UsageError(file + ": binary workbooks (.xlsb) cannot be read yet; save the sheet as .xlsx, "
                                    ".xls or CSV");
        auto& xls = static_cast<TKvImportFromXLS&>(*component_);
        const std::string* given = o.SourceValue("password");
        if (given) xls.SetPassword(*given);
        const std::string name = std::filesystem::path(file).filename().string();
        xls.OnPassword = [name, fromOption = given != nullptr, asked = false](TObject*, std::string& password,
                                                                              bool& go) mutable {
            if (!CanAskOnTerminal()) {
                throw Exception(fromOption ? "the password given with --password does not open the workbook"
                                           : "the workbook is encrypted: give its password with --password");
            }
            std::cerr << (asked ? "Wrong password. " : "") << "Password for " << name << ": " << std::flush;
            asked = true;
            go = ReadSecretLine(password) && !password.empty();
        };
    }

    void ApplyOptions(const ImportOptions& o) override {
        CellSource::ApplyOptions(o);
        TKvImportFromCell& c = *component_;
        // Most sheets name their columns in the first row: a row of text over more rows is taken as names.
        if (!o.SourceValue("names-row"))
            c.SetGuessFieldNamesRow(true);
        else if (!o.SourceValue("first-row"))
            c.SetRowFirst(c.RowFieldNames() + 1);
    }

    std::string ColumnNote(int index) const override {
        if (index < 0 || index >= component_->Columns().Count()) return {};
        return TypeNote(component_->Columns().Columns(index).DataType);
    }
};

const RegisterSourceKind kXls({
    "xls",
    {".xls", ".xlsx", ".xlsm", ".xlsb", ".xltx", ".xltm"},
    "XLS",
    "Excel workbooks (.xls: Excel 2 to 2003, encrypted ones too; .xlsx, .xlsm, .xltx, .xltm: Excel 2007+; "
    "one "
    "sheet per run)",
    false,
    XlsOptions(),
    [](const ImportOptions& o, const std::string& file, const TStringList*, TComponent& root)
        -> std::unique_ptr<SourceSetup> { return std::make_unique<XlsSource>(o, file, root); },
});

} // namespace

} // namespace kv::cli
