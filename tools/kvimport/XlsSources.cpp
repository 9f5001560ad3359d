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
    std::vector<OptionSpec> options = SheetOptions();
    options.push_back({"password", "TEXT",
                       "the password of an encrypted workbook (asked on a terminal when needed)",
                       KeepOption("password")});
    return options;
}

class XlsSource : public SheetSource {
public:
    XlsSource(const ImportOptions& o, const std::string& file, TComponent& root)
        : SheetSource(new TKvImportFromXLS(&root), "XLS", file) {
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
};

const RegisterSourceKind kXls({
    "xls",
    {".xls", ".xlsx", ".xlsm", ".xlsb", ".xltx", ".xltm"},
    "XLS",
    "Excel workbooks (.xls: Excel 2 to 2003, encrypted ones too; .xlsx, .xlsm, .xltx, .xltm: Excel 2007+; "
    "one sheet per run)",
    false,
    XlsOptions(),
    [](const ImportOptions& o, const std::string& file, const TStringList*, TComponent& root)
        -> std::unique_ptr<SourceSetup> { return std::make_unique<XlsSource>(o, file, root); },
});

} // namespace

} // namespace kv::cli
