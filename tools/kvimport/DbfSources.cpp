// dBase and FoxPro tables on the command line: the memo file found beside the table, the table's code page
// or --encoding, and deleted records skipped unless --include-deleted.

#include "CellSources.h"
#include "platform/Encoding.h"
#include "platform/StringList.h"
#include "platform/SysUtils.h"
#include "sources/KvI2DBF.h"

#include <filesystem>

namespace kv::cli {

namespace {

// The memo file beside a table, whatever the case of its extension.
bool MemoFileBeside(const std::string& table, const char* extension) {
    std::filesystem::path path(table);
    for (std::string ext : {std::string(extension), UpperCase(extension)}) {
        path.replace_extension(ext);
        if (FileExists(path.string())) return true;
    }
    return false;
}

std::vector<OptionSpec> DbfOptions() {
    std::vector<OptionSpec> options = CellRowOptions(false);
    options.push_back(
        {"memo-type", "dbt|fpt|kvt", "the memo file's layout (default: the memo file found beside)",
         [](ImportOptions& o, const std::string& v) {
             o.SourceValues["memo-type"] =
                 OptionChoice<std::string>("memo-type", v, {{"dbt", "dbt"}, {"fpt", "fpt"}, {"kvt", "kvt"}});
         }});
    options.push_back(
        {"encoding", "CODEPAGE", "the table's code page, e.g. cp1251 (default: as the table declares)",
         [](ImportOptions& o, const std::string& v) {
             const std::optional<int> codePage = ParseCodePageName(v);
             if (!codePage)
                 throw UsageError("--encoding expects a code page such as cp1252, cp866 or utf-8; got '" + v +
                                  "'");
             o.SourceValues["encoding"] = std::to_string(*codePage);
         }});
    options.push_back({"include-deleted", nullptr, "import the records marked deleted too (default: skipped)",
                       KeepOption("include-deleted")});
    return options;
}

class DbfSource : public CellSource {
public:
    DbfSource(const ImportOptions& o, const std::string& file, const TStringList* saved, TComponent& root)
        : CellSource(new TKvImportFromDBF(&root), "DBF", file) {
        auto& dbf = static_cast<TKvImportFromDBF&>(*component_);
        // Character fields are padded with blanks to their length: nobody wants the padding (--trim none
        // keeps it).
        dbf.SetTrimSpaces(tsTrimRight);
        std::string memo = saved ? LowerCase(saved->Values("MemoType")) : std::string();
        if (const std::string* given = o.SourceValue("memo-type")) memo = *given;
        if (memo.empty())
            memo = MemoFileBeside(file, ".fpt") ? "fpt" : MemoFileBeside(file, ".kvt") ? "kvt" : "dbt";
        dbf.SetDBFMemoType(memo == "fpt" ? dmFPT : memo == "kvt" ? dmKvT : dmDBT);
        int codePage = 0;
        if (saved) TryStrToInt(saved->Values("CodePage"), codePage);
        if (const std::string* given = o.SourceValue("encoding")) codePage = std::stoi(*given);
        dbf.SetCodePage(codePage);
    }
    std::vector<std::string> SpecificationLines() const override {
        const auto& dbf = static_cast<const TKvImportFromDBF&>(*component_);
        const TDBFMemoType memo = dbf.DBFMemoType();
        return {"SourceKind=DBF",
                std::string("MemoType=") + (memo == dmFPT   ? "fpt"
                                            : memo == dmKvT ? "kvt"
                                                            : "dbt"),
                "CodePage=" + std::to_string(dbf.CodePage())};
    }
};

const RegisterSourceKind kDbf({
    "dbf",
    {".dbf"},
    "DBF",
    "dBase and FoxPro tables (.dbf, with their .dbt or .fpt memo file)",
    false,
    DbfOptions(),
    [](const ImportOptions& o, const std::string& file, const TStringList* saved, TComponent& root)
        -> std::unique_ptr<SourceSetup> { return std::make_unique<DbfSource>(o, file, saved, root); },
});

} // namespace

} // namespace kv::cli
