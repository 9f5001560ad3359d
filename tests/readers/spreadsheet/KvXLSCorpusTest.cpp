// Workbooks written by other programs: every file of the shared corpus loads or fails with its
// documented error, the values others assert are read, and the CSV their writers saved matches.

#include "readers/spreadsheet/KvXLS.h"

#include "TestSupport.h"
#include "platform/DateUtils.h"
#include "platform/Encoding.h"
#include "platform/Streams.h"
#include "platform/SysUtils.h"
#include "platform/Utf8.h"
#include "support/DataFiles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

namespace kv {
namespace {

std::string CorpusFile(const std::string& name) {
    return std::string(KV_SHARED_DIR "/corpus/xls/") + name;
}

bool CorpusHere() {
    return std::filesystem::is_directory(CorpusFile(""));
}

/// "12.345,68" as "12,345.68".
std::string DecimalPoint(std::string text) {
    for (char& ch : text) ch = ch == ',' ? '.' : ch == '.' ? ',' : ch;
    return text;
}

std::string WithoutCr(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
    return text;
}

/// A whole workbook loaded into the cell model.
struct Book {
    TMSExcel X;
    explicit Book(const std::string& name, const std::string& password = "") {
        X.SetPassword(password);
        X.LoadFromFile(CorpusFile(name));
    }
    const TSpreadSheetCells& Cells(int sheet) { return X.SpreadSheets().Spreadsheet(sheet).Cells(); }
    Variant At(int sheet, int row, int col) { return Cells(sheet).GetValue(col, row); }
    std::string Text(int sheet, int row, int col) { return At(sheet, row, col).AsString(); }
    TKvICellType Type(int sheet, int row, int col) {
        const TSpreadSheetRow* r = Cells(sheet).Row(row);
        const TKvICell* c = r ? r->Cols().GetCell(col) : nullptr;
        return c ? c->CellType : ictUnknown;
    }
    /// Every text of the workbook, a cell a line.
    std::string AllText() {
        std::string out;
        for (int s = 0; s < X.SpreadSheets().Count(); ++s) {
            const TSpreadSheetCells& cells = Cells(s);
            for (int r = 0; r < cells.Count(); ++r)
                for (int c = 0; c < cells.ColCount(); ++c) out += cells.GetValue(c, r).AsString() + "\n";
        }
        return out;
    }
};

TEST(XLSCorpus, EveryWorkbookLoadsOrGivesItsDocumentedError) {
    if (!CorpusHere()) GTEST_SKIP() << "the shared corpus is not here";
    // The files that must fail, and how.
    const std::map<std::string, std::string> failing = {
        {"OOM_alloc3.xls", "Compound file: "},
        {"xls2csv_ole_read_MSAT_772.xls",
         "Compound file: damaged file at byte 35072: entry 6 has the left sibling"},
        {"xls2csv_ole_ole2_fread_327.xls", "Compound file: damaged file at byte 56: mini stream cutoff 0"},
        {"too_small.xls", ""},
    };
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(CorpusFile(""))) {
        if (!entry.is_regular_file()) continue;
        const std::string name = entry.path().filename().string();
        SCOPED_TRACE(name);
        ++files;
        const std::map<std::string, std::string> passwords = {
            {"xor-encryption-abc.xls", "abc"},
            {"35897-type4.xls", "freedom"},
            {"xor_password_123456789012345.xls", "123456789012345"},
            {"rc4cryptoapi_password.xls", "Password1234_"}};
        const std::string password = passwords.count(name) ? passwords.at(name) : "password";
        TMSExcel x;
        x.SetPassword(password);
        std::string error;
        try {
            x.LoadFromFile(entry.path().string());
        } catch (const std::exception& e) {
            error = e.what();
        }
        const auto expected = failing.find(name);
        if (expected == failing.end()) {
            EXPECT_EQ(error, "");
            TFileStream file(entry.path().string(), fmOpenRead);
            EXPECT_EQ(test::XlsRecordModeDifference(x, file, password), "");
            for (int s = 0; s < x.SpreadSheets().Count(); ++s)
                for (int r = 0; r < x.SpreadSheets().Spreadsheet(s).Cells().Count(); ++r)
                    for (int c = 0; c < x.SpreadSheets().Spreadsheet(s).Cells().ColCount(); ++c) {
                        const Variant v = x.SpreadSheets().Spreadsheet(s).Cells().GetValue(c, r);
                        if (v.IsString()) {
                            ASSERT_TRUE(IsValidUtf8(v.StringRef()));
                        }
                    }
        } else {
            EXPECT_NE(error, "");
            EXPECT_EQ(error.rfind(expected->second, 0), 0u) << error;
        }
    }
    EXPECT_GE(files, 60);
}

TEST(XLSCorpus, ValuesOthersAssert) {
    if (!CorpusHere()) GTEST_SKIP() << "the shared corpus is not here";
    {
        Book b("1904DateWindowing.xls");
        EXPECT_EQ(b.Type(0, 0, 0), ictDateTime);
        EXPECT_DOUBLE_EQ(b.At(0, 0, 0).AsDouble(), EncodeDate(2000, 1, 1));
        Book c("1900DateWindowing.xls");
        EXPECT_DOUBLE_EQ(c.At(0, 0, 0).AsDouble(), EncodeDate(2000, 1, 1));
    }
    {
        Book b("date_1904.xls");
        EXPECT_DOUBLE_EQ(b.At(0, 0, 0).AsDouble(), EncodeDate(2021, 1, 1));
        Book c("date.xls");
        EXPECT_DOUBLE_EQ(c.At(0, 0, 0).AsDouble(), EncodeDate(2021, 1, 1));
    }
    {
        Book b("Formate.xls");
        ASSERT_GE(b.X.Sheets().size(), 4u);
        EXPECT_EQ(b.X.Sheets()[0].Name, "Bl\xC3\xA4tt1");
        EXPECT_EQ(b.X.Sheets()[1].Name, "\xC3\x96\xC3\x84\xC3\x9C");
        EXPECT_EQ(b.Text(0, 1, 0), "\xC3\x84"
                                   "cker");
        EXPECT_DOUBLE_EQ(b.At(0, 1, 1).AsDouble(), 38406.0);
        EXPECT_NEAR(b.At(0, 6, 1).AsDouble(), 97.4, 1e-9); // a percent, as the user saw it
        EXPECT_EQ(b.Text(1, 2, 2), "MERGED CELLS");
        EXPECT_DOUBLE_EQ(b.At(2, 0, 0).AsDouble(), 100);
    }
    {
        Book b("formula_test_sjmachin.xls");
        EXPECT_EQ(b.Text(0, 1, 1), "\xD0\x9C\xD0\x9E\xD0\xA1\xD0\x9A\xD0\x92\xD0\x90 "
                                   "\xD0\x9C\xD0\xBE\xD1\x81\xD0\xBA\xD0\xB2\xD0\xB0");
        EXPECT_NEAR(b.At(0, 2, 1).AsDouble(), 0.14285714285714285, 1e-15);
        EXPECT_EQ(b.Text(0, 3, 1), "ABCDEF");
        EXPECT_EQ(b.Text(0, 4, 1), "");
        EXPECT_EQ(b.Type(0, 5, 1), ictBoolean);
        EXPECT_EQ(b.Text(0, 6, 1), "#DIV/0!");
    }
    {
        Book b("sst_continue.xls");
        EXPECT_EQ(b.Text(0, 135, 0), "New CONTINUE block");
        EXPECT_EQ(b.Text(0, 0, 0), "This is a long string with a serial number at the end 0001");
    }
    {
        Book b("gh548_incorrect_sst_unique_count.xls");
        const int sheet = b.X.SpreadSheets().SheetIndexByName("System Level Data");
        ASSERT_GE(sheet, 0);
        EXPECT_EQ(b.Text(sheet, 9, 2), "11th May 2023");
    }
    {
        Book b("46368.xls");
        // Counted as written: the CRs put before line feeds are the reader's.
        EXPECT_EQ(Utf8Length(WithoutCr(b.Text(0, 0, 0))), 32770u);
        EXPECT_EQ(Utf8Length(WithoutCr(b.Text(0, 2, 0))), 32766u);
    }
    {
        Book b("StringContinueRecords.xls");
        EXPECT_GT(Utf8Length(b.AllText()), 40960u);
    }
    {
        Book b("any_sheets.xls");
        ASSERT_EQ(b.X.Sheets().size(), 4u);
        EXPECT_EQ(b.X.Sheets()[1].Visibility, 1);
        EXPECT_EQ(b.X.Sheets()[2].Visibility, 2);
        EXPECT_EQ(b.X.Sheets()[3].Type, 2);
    }
    {
        Book b("testEXCEL_4.xls");
        const std::string text = b.AllText();
        for (const char* s : {"Table 10 -- Examination Coverage:", "$100,000 or more",
                              "individual income tax return \xE2\x80\x9Cshort forms.\xE2\x80\x9D"})
            EXPECT_NE(text.find(s), std::string::npos) << s;
        Book five("testEXCEL_5.xls");
        EXPECT_EQ(five.X.Sheets()[2].Name, "Feuil3");
        EXPECT_NE(five.AllText().find("Sample Excel"), std::string::npos);
    }
    {
        Book b("number_format_greek.xls");
        EXPECT_EQ(b.X.CodePage(), 1253);
        Book r("numfmt_1_russian.xls");
        EXPECT_EQ(r.X.CodePage(), 1251);
    }
    {
        Book b("capitalized_wbook_stream.xls");
        EXPECT_GT(b.X.SpreadSheets().Count(), 0);
        Book misc("misc_biff5_parsing.xls");
        EXPECT_EQ(misc.X.Sheets().size(), 11u);
        bool named = false;
        for (const TXLSName& n : misc.X.Names()) named = named || n.Name == "test";
        EXPECT_TRUE(named);
    }
}

TEST(XLSCorpus, EncryptedWorkbooksOpenWithTheirPasswords) {
    if (!CorpusHere()) GTEST_SKIP() << "the shared corpus is not here";
    struct Case {
        std::string File, Password, Contains;
    };
    const Case cases[] = {
        {"xor-encryption-abc.xls", "abc", "1\n2\n3\n"},
        {"password.xls", "password", "A ZIP bomb is a variant of mail-bombing"},
        {"35897-type4.xls", "freedom", "hello there!"},
        {"50833.xls", "", "test cell value"}, // the default password
        {"password_2002_40_xor.xls", "password", "10"},
        {"password_2002_128_strong.xls", "password", "10"},
        {"password_2002_40_basecrypto.xls", "password", "10"},
        {"xor_password_123456789012345.xls", "123456789012345", ""},
        {"rc4cryptoapi_password.xls", "Password1234_", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.File);
        Book b(c.File, c.Password);
        EXPECT_TRUE(b.X.IsEncrypted());
        EXPECT_NE(b.AllText().find(c.Contains), std::string::npos);
        // A wrong password is refused with the reader's message, and asked again while the handler goes on.
        if (c.Password.empty()) continue;
        TMSExcel wrong;
        wrong.SetPassword("not it");
        int asked = 0;
        wrong.OnPassword = [&](TObject*, std::string& password, bool& go) {
            go = ++asked < 3;
            password = "still not";
        };
        EXPECT_EQ(test::ErrorOf([&] { wrong.LoadFromFile(CorpusFile(c.File)); }),
                  "Could not read the password protected file");
        EXPECT_EQ(asked, 3);
    }
}

// ---- the CSV their writers saved ----

std::vector<std::vector<std::string>> ReadCsv(const std::string& path, int codePage, char delimiter) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream buffer;
    buffer << in.rdbuf();
    std::string bytes = buffer.str();
    if (bytes.rfind("\xEF\xBB\xBF", 0) == 0) bytes.erase(0, 3);
    if (!IsValidUtf8(bytes)) bytes = DecodeCodePage(bytes, codePage);
    std::vector<std::vector<std::string>> rows(1);
    std::string field;
    bool quoted = false, wasQuoted = false;
    for (size_t i = 0; i < bytes.size(); ++i) {
        const char ch = bytes[i];
        if (quoted) {
            if (ch == '"' && i + 1 < bytes.size() && bytes[i + 1] == '"') {
                field += '"';
                ++i;
            } else if (ch == '"') {
                quoted = false;
            } else {
                field += ch;
            }
        } else if (ch == '"') {
            quoted = wasQuoted = true;
        } else if (ch == delimiter) {
            rows.back().push_back(field);
            field.clear();
        } else if (ch == '\r' || ch == '\n') {
            if (ch == '\r' && i + 1 < bytes.size() && bytes[i + 1] == '\n') ++i;
            rows.back().push_back(field);
            field.clear();
            rows.emplace_back();
        } else {
            field += ch;
        }
    }
    (void)wasQuoted;
    if (!field.empty() || !rows.back().empty()) rows.back().push_back(field);
    if (rows.back().empty()) rows.pop_back();
    return rows;
}

/// A number as the CSV shows it ("$1,000.30", "1.20 €", "25%", "(3)"), with the decimals it shows.
bool ShownNumber(std::string text, double& value, int& decimals) {
    // Accounting formats show zero as a dash.
    if (Trim(text).find_first_not_of('-') == std::string::npos) {
        value = 0;
        decimals = 0;
        return true;
    }
    bool negative = false;
    // "(3)" is a negative number in accounting formats, and a plain one in formats such as "(0)": the
    // comparison takes either.
    if (text.size() > 2 && text.front() == '(' && text.back() == ')') {
        negative = true;
        text = text.substr(1, text.size() - 2);
    }
    std::string digits;
    for (char ch : text)
        if ((ch >= '0' && ch <= '9') || ch == '.' || ch == '-' || ch == '+' || ch == 'E' || ch == 'e')
            digits += ch;
    if (digits.empty() || !TryStrToFloat(digits, value, InvariantFormatSettings())) return false;
    // The decimals shown give the precision; in "1.23E+04" they count from the exponent.
    const size_t dot = digits.find('.'), e = digits.find_first_of("eE");
    const size_t end = e == std::string::npos ? digits.size() : e;
    const int mantissa = dot == std::string::npos ? 0 : static_cast<int>(end - dot - 1);
    decimals = e == std::string::npos ? mantissa : mantissa - std::atoi(digits.c_str() + e + 1);
    if (negative) value = -value;
    return true;
}

/// The CSV of an 8-bit code page shows a character it lacks as "_" or "?".
bool SameShownText(const std::string& text, const std::string& shown) {
    const std::u32string a = Utf8ToU32(text), b = Utf8ToU32(shown);
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (a[i] != b[i] && !((b[i] == U'_' || b[i] == U'?') && a[i] > 0x7F)) return false;
    return true;
}

struct Twin {
    std::string Csv, Workbook;
    int Sheet = 0;
    std::string Password = "";
    int CodePage = 1252;
    int Rows = INT32_MAX;   ///< the rows both hold
    int Row0 = 0, Col0 = 0; ///< where the CSV starts in the sheet (a writer that saves the used area only)
    char Delimiter = ',';   ///< ';' also means decimal commas
};

TEST(XLSCorpus, CellsMatchTheCsvTheirWritersSaved) {
    if (!CorpusHere()) GTEST_SKIP() << "the shared corpus is not here";
    const Twin twins[] = {
        {"RkNumber.xls.0.csv", "RkNumber.xls", 0},
        {"RkNumber.xls.0.csv", "RkNumber_biff5.xls", 0},
        {"apachepoi_48026.xls.0.csv", "48026.xls", 0},
        {"apachepoi_48026.xls.1.csv", "48026.xls", 1},
        {"apachepoi_50833.xls.0.csv", "50833.xls", 0},
        {"apachepoi_SampleSS.xls.0.csv", "SampleSS.xls", 0},
        {"apachepoi_SampleSS.xls.1.csv", "SampleSS.xls", 1},
        {"apachepoi_StringFormulas.xls.0.csv", "StringFormulas.xls", 0},
        {"apachepoi_password.xls.0.csv", "password.xls", 0, "password", 1252, INT32_MAX, 4, 3},
        {"apachepoi_rk.xls.0.csv", "rk.xls", 0},
        {"apachepoi_testEXCEL_3.xls.0.csv", "testEXCEL_3.xls", 0},
        {"apachepoi_testEXCEL_4.xls.0.csv", "testEXCEL_4.xls", 0},
        {"apachepoi_testEXCEL_5.xls.0.csv", "testEXCEL_5.xls", 0},
        {"apachepoi_testEXCEL_95.xls.0.csv", "testEXCEL_95.xls", 0},
        {"crlf.csv", "crlf.xls", 0},
        {"crlf.csv", "crlf5.xls", 0},
        {"crlf.csv", "CRLFX5_2.XLS", 0, "", 1252, 2},
        {"crlf.csv", "CRLFX5_3.XLS", 0, "", 1252, 2},
        {"crlf.csv", "CRLFX5_4.XLS", 0, "", 1252, 2},
        {"crlf.csv", "CRLFX5_5.XLS", 0, "", 1252, 2},
        {"number_format_greek.xls.0.csv", "number_format_greek.xls", 0, "", 1253, INT32_MAX, 0, 0, ';'},
        {"password_2002_128_strong.xls.0.csv", "password_2002_128_strong.xls", 0, "password"},
        {"password_2002_40_xor.xls.0.csv", "password_2002_40_xor.xls", 0, "password"},
        {"xlrd_Formate.xls.0.csv", "Formate.xls", 0},
        {"xlrd_formula_test_names.xls.0.csv", "formula_test_names.xls", 0},
    };
    for (const Twin& t : twins) {
        SCOPED_TRACE(t.Workbook + " sheet " + std::to_string(t.Sheet));
        const auto rows = ReadCsv(CorpusFile("expected/" + t.Csv), t.CodePage, t.Delimiter);
        Book b(t.Workbook, t.Password);
        int compared = 0;
        for (size_t r = 0; r < rows.size() && static_cast<int>(r) < t.Rows; ++r) {
            for (size_t c = 0; c < rows[r].size(); ++c) {
                std::string shown = rows[r][c];
                const int row = t.Row0 + static_cast<int>(r), col = t.Col0 + static_cast<int>(c);
                const Variant v = b.At(t.Sheet, row, col);
                const TKvICellType type = b.Type(t.Sheet, row, col);
                SCOPED_TRACE("row " + std::to_string(r + 1) + ", column " + std::to_string(c + 1) + ": '" +
                             shown + "'");
                if (shown.empty()) {
                    EXPECT_TRUE(v.IsNullOrEmpty() || v.AsString().empty()) << v.AsString();
                    continue;
                }
                ++compared;
                double number = 0;
                int decimals = 0;
                if (type == ictDateTime || (type == ictDecimal && shown.find('/') != std::string::npos)) {
                    // Dates and fractions are shown in the writer's own format: only that there is a value
                    // is checked.
                    EXPECT_FALSE(v.IsNullOrEmpty());
                } else if (type == ictDecimal &&
                           ShownNumber(t.Delimiter == ';' ? DecimalPoint(shown) : shown, number, decimals)) {
                    const double read = shown.front() == '(' ? std::fabs(v.AsDouble()) : v.AsDouble();
                    EXPECT_NEAR(read, shown.front() == '(' ? std::fabs(number) : number,
                                0.5 * std::pow(10.0, -decimals) + 1e-9 * std::fabs(number));
                } else if (type == ictBoolean) {
                    EXPECT_EQ(v.AsBoolean() ? "TRUE" : "FALSE", shown);
                } else {
                    // A format may pad what it shows with blanks.
                    EXPECT_TRUE(SameShownText(Trim(WithoutCr(v.AsString())), Trim(WithoutCr(shown))))
                        << "read: '" << v.AsString() << "'";
                }
            }
        }
        EXPECT_GT(compared, 0);
    }
}

} // namespace
} // namespace kv
