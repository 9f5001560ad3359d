// Excel 2007+ workbooks written by other programs: every one of the shared corpus opens, whole and row by
// row, or gives its documented error; the values others assert are read.

#include "readers/spreadsheet/KvXLS.h"

#include "TestSupport.h"
#include "platform/Streams.h"
#include "platform/Utf8.h"
#include "support/DataFiles.h"

#include <filesystem>
#include <map>

namespace kv {
namespace {

const test::TCorpusFolder CorpusFile("xlsx");

/// What a workbook shows: its file properties by label and each cell that is not empty by "<sheet>!<cell>"
/// ("2!C3", all 1-based), as the data dumps show it.
std::map<std::string, std::string> Shown(TMSExcelX& x) {
    std::map<std::string, std::string> out;
    for (const auto& [label, text] : x.FileProperties()) out[label] = text;
    for (int s = 0; s < x.SpreadSheets().Count(); ++s) {
        const TSpreadSheetCells& cells = x.SpreadSheets().Spreadsheet(s).Cells();
        for (int r = 0; r < cells.Count(); ++r)
            for (int c = 0; c < cells.ColCount(); ++c)
                if (const Variant v = cells.GetValue(c, r); !v.IsNullOrEmpty())
                    out[std::to_string(s + 1) + "!" + GetSpreadSheetColByID(c + 1) + std::to_string(r + 1)] =
                        test::DumpCellValue(v);
    }
    return out;
}

std::string ErrorLoading(TMSExcelX& x, const std::string& name) {
    return test::ErrorOf([&] { x.LoadFromFile(CorpusFile(name)); });
}

const char* const kEncrypted =
    "The workbook is encrypted with a password, which this reader cannot remove: save it without one";

TEST(XLSXCorpus, EveryWorkbookOpensWholeAndRowByRowOrGivesItsDocumentedError) {
    if (!CorpusFile.Here()) GTEST_SKIP() << "the shared corpus is not here";
    const std::map<std::string, std::string> failing = {
        {"pass_protected.xlsx", kEncrypted},
        {"protect.xlsx", kEncrypted},
        {"protected_passtika.xlsx", kEncrypted},
        // one shared string of 1 MiB repeated by 12000 cells (the bound is lowered below, to spare memory)
        {"poc-shared-strings.xlsx",
         "Excel workbook: part xl/worksheets/sheet1.xml: sheet 1 gives more than 64 MiB of text (a shared "
         "string repeated without end?)"},
    };
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(CorpusFile(""))) {
        const std::string name = entry.path().filename().string();
        const std::string extension = entry.path().extension().string();
        if (!entry.is_regular_file() || (extension != ".xlsx" && extension != ".xlsm")) continue;
        SCOPED_TRACE(name);
        ++files;
        TMSExcelX x;
        x.SetMaxSheetText(uint64_t{64} << 20);
        const std::string error = ErrorLoading(x, name);
        if (failing.count(name)) {
            EXPECT_EQ(error, failing.at(name));
            continue;
        }
        ASSERT_EQ(error, "");
        for (const auto& [key, text] : Shown(x)) ASSERT_TRUE(IsValidUtf8(text)) << key;
        TFileStream file(entry.path().string(), fmOpenRead);
        EXPECT_EQ(test::XlsxRecordModeDifference(x, file), "");
    }
    EXPECT_GE(files, 26);
}

TEST(XLSXCorpus, EncryptedPackagesSaySo) {
    if (!CorpusFile.Here()) GTEST_SKIP() << "the shared corpus is not here";
    TMSExcelX x;
    EXPECT_EQ(ErrorLoading(x, "pass_protected.xlsx"), kEncrypted);
    EXPECT_TRUE(x.IsEncrypted());
}

TEST(XLSXCorpus, ValuesOthersAssert) {
    if (!CorpusFile.Here()) GTEST_SKIP() << "the shared corpus is not here";
    const std::string kFirstSheet = "Test spreadsheet";
    // clang-format off
    const std::map<std::string, std::map<std::string, std::string>> values = {
        {"date.xlsx", {{"1!A1", "2021-01-01"}, {"1!A3", "1900-01-09 15:10:10"}}},
        {"date_1904.xlsx", {{"1!A1", "2021-01-01"}, {"Date system", "1904"}}},
        {"1904.xlsx", {{"Date system", "1904"}}},
        {"date_iso.xlsx", {{"1!A1", "2021-01-01"}, {"1!A2", "2021-01-01 10:10:10"}, {"1!A3", "1899-12-30 10:10:10"}}},
        {"any_sheets.xlsx", {{"Sheet 1", "Visible (5 rows, 2 columns)"}, {"Sheet 2", "Hidden (0 rows, 0 columns, hidden)"},
                             {"Sheet 3", "VeryHidden (0 rows, 0 columns, very hidden)"}, {"Sheet 4", "Chart (chart)"}}},
        {"errors.xlsx", {{"1!A1", "#DIV/0!"}, {"1!A2", "#NAME?"}, {"1!A3", "#VALUE!"}, {"1!A4", "#NULL!"},
                         {"1!A5", "#REF!"}, {"1!A6", "#NUM!"}, {"1!A7", "#N/A"}}},
        {"has_x000D_.xlsx", {{"1!A1", "ABC\\r\\nDEF"}}},
        {"inlineStr_with_value.xlsx", {{"1!E1", "ID"}, {"1!E2", "RQ11610"}, {"1!D2", "1."}}},
        {"empty_shared_string.xlsx", {{"1!A1", "abc"}, {"1!A2", ""}}},
        {"issue_419.xlsx", {{"1!A1", "Hello"}}},
        {"nonstandard-xml-ns-prefix.xlsx", {{"1!A1", "a"}, {"1!B1", "b"}, {"1!A2", "1"}, {"1!B2", "3"},
                                            {"1!A3", "2"}, {"1!B3", "4"}}},
        {"issue221.xlsm", {{"1!A1", "Cell_A1"}, {"1!B1", "Cell_B1"}, {"1!A2", "Cell_A2"}, {"1!B2", "Cell_B2"}}},
        {"RkNumber.xlsx", {{"1!A1", "fX100"}, {"1!C2", "1e+07"}, {"1!C4", "0.01"}, {"1!C5", "12004.55"}}},
        {"SampleSS.xlsx", {{"Sheet 1", "First Sheet (4 rows, 2 columns)"}, {"1!A1", kFirstSheet},
                           {"1!A2", "2nd row"}, {"1!B2", "2nd row 2nd column"}, {"1!A4", "This one is red"}}},
        {"SampleSS.strict.xlsx", {{"Sheet 1", "First Sheet (4 rows, 2 columns)"}, {"1!A1", kFirstSheet},
                                  {"1!B2", "2nd row 2nd column"}}},
    };
    // clang-format on
    for (const auto& [file, expected] : values) {
        TMSExcelX x;
        ASSERT_EQ(ErrorLoading(x, file), "") << file;
        auto shown = Shown(x);
        for (const auto& [key, text] : expected) EXPECT_EQ(shown[key], text) << file << " " << key;
    }
    // issues.xlsx's sheet "issue2" is [[1, "a"], [2, "b"], [3, "c"]].
    TMSExcelX x;
    ASSERT_EQ(ErrorLoading(x, "issues.xlsx"), "");
    const int sheet = x.SpreadSheets().SheetIndexByName("issue2");
    ASSERT_GE(sheet, 0);
    const TSpreadSheetCells& cells = x.SpreadSheets().Spreadsheet(sheet).Cells();
    std::string rows;
    for (int r = 0; r < cells.Count(); ++r)
        rows +=
            test::DumpCellValue(cells.GetValue(0, r)) + "," + test::DumpCellValue(cells.GetValue(1, r)) + ";";
    EXPECT_EQ(rows, "1,a;2,b;3,c;");
}

TEST(XLSXCorpus, MacroModulesAreListedWhenAskedFor) {
    if (!CorpusFile.Here()) GTEST_SKIP() << "the shared corpus is not here";
    TMSExcelX x;
    x.SetParseVBA(true);
    ASSERT_EQ(ErrorLoading(x, "vba.xlsm"), "");
    std::string names;
    for (const TVBAProjectItem& item : x.VBAProject()) names += item.Name + ",";
    EXPECT_NE(names.find("testVBA,"), std::string::npos) << names;
    EXPECT_EQ(x.Warnings(), std::vector<std::string>());
}

TEST(XLSXCorpus, EntitiesAreNeverExpanded) {
    if (!CorpusFile.Here()) GTEST_SKIP() << "the shared corpus is not here";
    // The shared string is "test123" and references to an entity that would grow to megabytes: they stay as
    // written.
    TMSExcelX x;
    ASSERT_EQ(ErrorLoading(x, "poc-xmlbomb.xlsx"), "");
    const std::string text = x.SpreadSheets().Spreadsheet(0).Cells().GetValue(0, 0).AsString();
    EXPECT_EQ(text.substr(0, 11), "test123&a5;");
    EXPECT_LT(text.size(), size_t(1) << 20);
}

} // namespace
} // namespace kv
