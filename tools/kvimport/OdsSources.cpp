// OpenDocument spreadsheets on the command line: the package (.ods, .ots) and the flat document (.fods),
// the sheet by number or name, the first row as column names unless told otherwise.

#include "CellSources.h"
#include "sources/KvI2OO.h"

namespace kv::cli {

namespace {

const RegisterSourceKind kOds({
    "ods",
    {".ods", ".fods", ".ots", ".fots"},
    "ODS",
    "OpenDocument spreadsheets (.ods, and flat .fods; one sheet per run)",
    false,
    SheetOptions(),
    [](const ImportOptions&, const std::string& file, const TStringList*,
       TComponent& root) -> std::unique_ptr<SourceSetup> {
        return std::make_unique<SheetSource>(new TKvImportFromOpenOfficeCalc(&root), "ODS", file);
    },
});

} // namespace

} // namespace kv::cli
