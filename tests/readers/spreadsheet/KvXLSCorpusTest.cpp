// Workbooks written by other programs: every file of the shared corpus opens (its compound file, every stream
// and property set in it, its sheets whole and row by row) or fails with its documented error; the values
// others assert are read; encrypted workbooks open with their passwords only and decrypt like their plain
// twins; and the CSV their writers saved matches.

#include "readers/spreadsheet/KvXLS.h"

#include "TestSupport.h"
#include "platform/ByteReader.h"
#include "platform/Encoding.h"
#include "platform/Exceptions.h"
#include "platform/Streams.h"
#include "platform/SysUtils.h"
#include "platform/Utf8.h"
#include "readers/spreadsheet/KvCompoundFile.h"
#include "readers/spreadsheet/KvXLSCrypt.h"
#include "support/DataFiles.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <map>

namespace kv {
namespace {

const test::TCorpusFolder CorpusFile("xls");

struct EncryptedCase {
    const char* File;
    const char* Password;
    const char* Description;
    std::vector<std::string> Sheets;
    const char *Shown, *Value; ///< a cell or property and the start of what it shows
};

void PrintTo(const EncryptedCase& c, std::ostream* os) {
    *os << c.File;
}

const std::vector<std::string> kSheets123 = {"Sheet1", "Sheet2", "Sheet3"};
const char *kXor = "XOR obfuscation", *kRC4 = "RC4, 40-bit key", *kApi128 = "RC4 CryptoAPI, 128-bit key";

// clang-format off
const EncryptedCase kEncrypted[] = {
    {"xor-encryption-abc.xls", "abc", kXor, {"Sheet1"}, "1!A3", "3"},
    {"password_2002_40_xor.xls", "password", kXor, kSheets123, "1!B2", "10"},
    {"password_2002_40_xor_biff5.xls", "password", kXor, kSheets123, "1!B2", "10"},
    {"60284.xls", "VelvetSweatshop", kXor,
     {"Pipad", "Tpad", "Standard Value Pipads", "Standard Value T Pads", "Notes", "Module1"}, "1!B3",
     "PI PAD Attenuator (ver 3.2)"},
    {"xor_password_123456789012345.xls", "123456789012345", kXor, {"420"}, "1!A1", "1"},
    {"password.xls", "password", kRC4, {"Лист1", "Лист2", "Лист3"}, "1!D5",
     "A ZIP bomb is a variant of mail-bombing"},
    {"50833.xls", "VelvetSweatshop", kRC4, kSheets123, "1!A1", "test cell value"},
    {"issue_385.xls", "VelvetSweatshop", kRC4, {"Sheet1"}, "Sheet 1", "Sheet1 (0 rows, 0 columns)"},
    {"password_2002_40_972000.xls", "password", kRC4, kSheets123, "1!B2", "10"},
    {"35897-type4.xls", "freedom", kApi128, {"Sheet1"}, "1!A1", "hello there!"},
    {"rc4cryptoapi_password.xls", "Password1234_", kApi128, {"Sheet1"}, "1!A1", "lorem ipsum"},
    {"password_2002_40_basecrypto.xls", "password", "RC4 CryptoAPI, 40-bit key", kSheets123,
     "1!B2", "10"},
    {"password_2002_128_strong.xls", "password", kApi128, kSheets123, "1!B2", "10"},
};
// clang-format on

/// The password a corpus workbook opens with: none for the default one.
std::string PasswordOf(const std::string& name) {
    for (const EncryptedCase& c : kEncrypted)
        if (name == c.File && c.Password != std::string("VelvetSweatshop")) return c.Password;
    return "";
}

/// A corpus workbook loaded whole with its password.
std::unique_ptr<TMSExcel> Load(const std::string& name) {
    auto x = std::make_unique<TMSExcel>();
    x->SetPassword(PasswordOf(name));
    x->LoadFromFile(CorpusFile(name));
    return x;
}

std::string WithoutCr(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
    return text;
}

const TKvICell* CellAt(TMSExcel& x, int sheet, int row, int col) {
    const TSpreadSheetRow* r = x.SpreadSheets().Spreadsheet(sheet).Cells().Row(row);
    return r ? r->Cols().GetCell(col) : nullptr;
}

/// What a workbook shows: its file properties by label, "Names" (its defined names), and each cell that is
/// not empty by "<sheet>!<cell>" ("2!C3", all 1-based), as the data dumps show it.
std::map<std::string, std::string> Shown(TMSExcel& x) {
    std::map<std::string, std::string> out;
    for (const auto& [label, text] : x.FileProperties()) out[label] = text;
    for (const TXLSName& n : x.Names()) out["Names"] += (out["Names"].empty() ? "" : ",") + n.Name;
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

TEST(XLSCorpus, EveryWorkbookOpensWholeAndRowByRowOrGivesItsDocumentedError) {
    if (!CorpusFile.Here()) GTEST_SKIP() << "the shared corpus is not here";
    // The files damaged on purpose. Two others must read: phpexcel_bad_cfb_dir.xls, all of whose entries are
    // red (balancing rules a reader needs nothing of), and corrupted_error.xls, whose streams' chains
    // overlap, each sound and as long as its size (checking that chains are disjoint would lose it for
    // nothing).
    const std::map<std::string, std::string> failing = {
        // a tree link of the root's child reaches garbage in the directory's short last sector
        {"OOM_alloc3.xls",
         "Compound file: damaged file at byte 124976: sector 268 links to sector 4294967039, "
         "out of range (270 sectors, in the chain from sector 1)"},
        // the mini stream cutoff is 0 and the FAT sector count 8389121: nothing else is read
        {"xls2csv_ole_ole2_fread_327.xls",
         "Compound file: damaged file at byte 56: mini stream cutoff 0, not 4096"},
        {"xls2csv_ole_read_MSAT_772.xls", // a link made of text's bytes
         "Compound file: damaged file at byte 35072: entry 6 has the left sibling 1634890867, past the 8 "
         "entries"},
        {"too_small.xls", "File is not an Excel file"}, // 68 bytes of text
    };
    int files = 0, compound = 0;
    for (const auto& entry : std::filesystem::directory_iterator(CorpusFile(""))) {
        if (!entry.is_regular_file()) continue;
        const std::string name = entry.path().filename().string();
        SCOPED_TRACE(name);
        ++files;
        TMSExcel x;
        x.SetPassword(PasswordOf(name));
        const std::string error = test::ErrorOf([&] { x.LoadFromFile(entry.path().string()); });
        if (failing.count(name)) {
            EXPECT_EQ(error, failing.at(name));
            continue;
        }
        ASSERT_EQ(error, "");
        EXPECT_EQ(x.Warnings(), std::vector<std::string>());
        for (const auto& [key, text] : Shown(x)) ASSERT_TRUE(IsValidUtf8(text)) << key;
        TFileStream file(entry.path().string(), fmOpenRead);
        EXPECT_EQ(test::XlsRecordModeDifference(x, file, PasswordOf(name)), "");
        // Every stream reads; the property sets did without a warning.
        if (!TKvCompoundFile::IsCompoundFile(file)) continue;
        ++compound;
        TKvCompoundFile cf(file);
        for (const TKvCompoundEntry& e : cf.Entries())
            if (e.Type == cetStream) cf.ReadStream(e);
    }
    EXPECT_GE(files, 60);
    EXPECT_GE(compound, 55);
}

TEST(XLSCorpus, ValuesOthersAssert) {
    if (!CorpusFile.Here()) GTEST_SKIP() << "the shared corpus is not here";
    // Cells the CSV twins show are compared below.
    // clang-format off
    const std::map<std::string, std::map<std::string, std::string>> values = {
        {"1904DateWindowing.xls", {{"1!A1", "2000-01-01"}, {"Date system", "1904"}}},
        {"1900DateWindowing.xls", {{"1!A1", "2000-01-01"}}},
        {"date_1904.xls", {{"1!A1", "2021-01-01"}}},
        {"date.xls", {{"1!A1", "2021-01-01"}}},
        {"Formate.xls", {{"Sheet 1", "Blätt1 (10 rows, 3 columns)"}, {"Sheet 2", "ÖÄÜ (5 rows, 5 columns)"},
                         {"1!B2", "2005-02-23"}, {"2!C3", "MERGED CELLS"}, {"3!A1", "100"}}},
        {"formula_test_sjmachin.xls", {{"1!B2", "МОСКВА Москва"}, {"1!B3", "0.14285714285714285"},
                                       {"1!B4", "ABCDEF"}, {"1!B5", ""}, {"1!B6", "true"}, {"1!B7", "#DIV/0!"}}},
        {"sst_continue.xls", {{"1!A1", "This is a long string with a serial number at the end 0001"},
                              {"1!A136", "New CONTINUE block"}}},
        {"gh548_incorrect_sst_unique_count.xls", {{"Sheet 1", "System Level Data (62 rows, 28 columns)"},
                                                  {"1!C10", "11th May 2023"}}},
        {"any_sheets.xls", {{"Sheet 2", "Hidden (0 rows, 0 columns, hidden)"},
                            {"Sheet 3", "VeryHidden (0 rows, 0 columns, very hidden)"}, {"Sheet 4", "Chart (chart)"}}},
        {"testEXCEL_5.xls", {{"Sheet 3", "Feuil3 (0 rows, 0 columns)"}}},
        {"number_format_greek.xls", {{"Code page", "cp1253"}}},
        {"numfmt_1_russian.xls", {{"Code page", "cp1251"}}},
        {"misc_biff5_parsing.xls", {{"Sheet 11", "Sheet11 (0 rows, 0 columns)"}, {"Names", "test"}}},
        {"capitalized_wbook_stream.xls", {{"Sheet 1", "Sheet1 (0 rows, 0 columns)"}}}, // its stream is "BOOK"
        {"StringFormulas.xls", {{"Author", "Avik Sengupta"}, {"Company", "Dresdner Kleinwort Benson"}}},
    };
    // clang-format on
    for (const auto& [file, expected] : values) {
        auto shown = Shown(*Load(file));
        for (const auto& [key, text] : expected) EXPECT_EQ(shown[key], text) << file << " " << key;
    }
    // Strings that run on through CONTINUE records, counted as written (the CRs before line feeds are ours).
    for (const auto& [file, row, col, length] : {std::tuple("46368.xls", 0, 0, 32770u),
                                                 {"46368.xls", 2, 0, 32766u},
                                                 {"StringContinueRecords.xls", 142, 40, 24732u}}) {
        EXPECT_EQ(Utf8Length(WithoutCr(CellAt(*Load(file), 0, row, col)->Value.AsString())), length) << file;
    }
}

// ---- encrypted workbooks ----

struct Record {
    uint16_t Type = 0;
    uint64_t Offset = 0; ///< of the data, after the 4-byte header
    std::string Data;
};
using Records = std::vector<Record>;

/// The records of a corpus file's workbook stream, a tail too short for a header left out; none when the
/// file is absent.
Records CorpusRecords(const std::string& name) {
    if (!std::filesystem::exists(CorpusFile(name))) return {};
    TFileStream file(CorpusFile(name), fmOpenRead | fmShareDenyNone);
    TKvCompoundFile cf(file);
    const std::string stream = cf.ReadStream(cf.Find("Workbook") ? *cf.Find("Workbook") : *cf.Find("Book"));
    Records out;
    for (TByteReader r(stream); r.Remaining() >= 4;) {
        const uint16_t type = r.ReadU16LE(), size = r.ReadU16LE();
        if (!r.Has(size)) break;
        out.push_back({type, r.Position(), std::string(r.ReadBytes(size))});
    }
    return out;
}

size_t FilePassIndex(const Records& records) {
    return std::find_if(records.begin(), records.end(), [](const Record& r) { return r.Type == 0x002F; }) -
           records.begin();
}

std::unique_ptr<TKvBIFFDecryptor> DecryptorOf(const Records& records) {
    const Record& fp = records.at(FilePassIndex(records));
    return TKvBIFFDecryptor::FromFilePass(fp.Data, TByteReader(records.at(0).Data).ReadU16LE() == 0x0600,
                                          fp.Offset);
}

/// The data of `records` with everything after FILEPASS decrypted, in stream order or last record first.
std::vector<std::string> Decrypt(Records records, TKvBIFFDecryptor& d, bool backwards = false) {
    const size_t first = FilePassIndex(records) + 1;
    for (size_t k = first; k < records.size(); ++k) {
        Record& rec = records[backwards ? records.size() - 1 - (k - first) : k];
        d.DecryptRecord(rec.Type, rec.Offset, rec.Data.data(), rec.Data.size());
    }
    std::vector<std::string> data;
    for (const Record& rec : records) data.push_back(rec.Data);
    return data;
}

class XLSEncrypted : public ::testing::TestWithParam<EncryptedCase> {};

TEST_P(XLSEncrypted, OpensWithItsPasswordOnly) {
    const EncryptedCase& t = GetParam();
    const Records records = CorpusRecords(t.File);
    if (records.empty()) GTEST_SKIP() << t.File << " is not in the shared corpus";
    auto d = DecryptorOf(records);
    ASSERT_TRUE(d);
    const std::string right = t.Password;
    std::string otherFirst = right, upper = right;
    otherFirst[0] ^= 1;
    std::transform(upper.begin(), upper.end(), upper.begin(), [](char ch) { return std::toupper(ch); });
    // The last is longer than either scheme takes: a decryptor that cut passwords short would accept it.
    std::vector<std::string> wrongs = {
        "", otherFirst, right + "1", right.substr(1), right + "ü", right + std::string(300, 'a')};
    if (upper != right) wrongs.push_back(upper);
    for (const std::string& wrong : wrongs) EXPECT_FALSE(d->Verify(wrong)) << "'" << wrong << "'";
    EXPECT_THROW(Decrypt(records, *d), Exception) << "decrypting before a password is verified";
    ASSERT_TRUE(d->Verify(right));
    EXPECT_FALSE(d->Verify(otherFirst)); // a wrong try afterwards keeps the key
    // Random access: a fresh decryptor fed the records last first gives the same bytes.
    auto again = DecryptorOf(records);
    ASSERT_TRUE(again->Verify(right));
    EXPECT_TRUE(Decrypt(records, *d) == Decrypt(records, *again, true));

    // BOF, FILEPASS, USREXCL, FILELOCK, INTERFACEHDR, RRDINFO, RRDHEAD stay plain, and so does the sheet
    // position that begins BOUNDSHEET.
    const std::string x(12, 'x');
    for (uint16_t type : {0x0809, 0x002F, 0x0194, 0x0195, 0x00E1, 0x0196, 0x0138, 0x0085, 0x0042}) {
        std::string data = x;
        d->DecryptRecord(type, 100, data.data(), data.size());
        EXPECT_EQ(data.substr(0, 4) == x.substr(0, 4), type != 0x0042) << type;
        EXPECT_EQ(data.substr(4) == x.substr(4), type != 0x0085 && type != 0x0042) << type;
    }

    // Through the reader: the sheets, a value and the scheme.
    auto book = Load(t.File);
    auto shown = Shown(*book);
    EXPECT_TRUE(book->IsEncrypted());
    EXPECT_EQ(shown["Encryption"], t.Description);
    std::vector<std::string> sheets;
    for (const TXLSSheetInfo& s : book->Sheets()) sheets.push_back(s.Name);
    EXPECT_EQ(sheets, t.Sheets);
    EXPECT_EQ(shown[t.Shown].rfind(t.Value, 0), 0u) << shown[t.Shown];
    // A wrong password is refused with the reader's message, and asked again while the handler goes on. The
    // default password opens the others unasked.
    if (right == "VelvetSweatshop") return;
    TMSExcel wrong;
    wrong.SetPassword("not it");
    int asked = 0;
    wrong.OnPassword = [&](TObject*, std::string& password, bool& go) {
        go = ++asked < 3;
        password = "still not";
    };
    EXPECT_EQ(test::ErrorOf([&] { wrong.LoadFromFile(CorpusFile(t.File)); }),
              "Could not read the password protected file");
    EXPECT_EQ(asked, 3);
}

INSTANTIATE_TEST_SUITE_P(Corpus, XLSEncrypted, ::testing::ValuesIn(kEncrypted),
                         [](const ::testing::TestParamInfo<EncryptedCase>& p) {
                             std::string name = p.param.File;
                             name.resize(name.find('.'));
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

TEST(XLSEncrypted, DecryptsLikeItsPlainTwins) {
    if (!CorpusFile.Here()) GTEST_SKIP() << "the shared corpus is not here";
    // This twin keeps the stream as it was, with a record of type 0 and FILEPASS's size in FILEPASS's place:
    // every other record must match byte for byte, sheet positions included.
    const Records records = CorpusRecords("rc4cryptoapi_password.xls"),
                  plain = CorpusRecords("expected/rc4cryptoapi_password_plain.xls");
    auto d = DecryptorOf(records);
    ASSERT_TRUE(d->Verify("Password1234_"));
    const std::vector<std::string> ours = Decrypt(records, *d);
    ASSERT_EQ(ours.size(), plain.size());
    for (size_t i = 0; i < ours.size(); ++i) {
        ASSERT_EQ(records[i].Offset, plain[i].Offset) << "record " << i;
        ASSERT_TRUE(records[i].Type == 0x002F || ours[i] == plain[i].Data) << "record " << i;
    }
    // Both twins show the sheets and cells of their workbooks. xor_password's was written anew, without
    // FILEPASS and with a NUMBER record for each value the original holds in MULRK runs.
    const auto sheetsAndCells = [](const std::string& file) {
        auto shown = Shown(*Load(file));
        std::erase_if(shown, [](const auto& p) {
            return !p.first.starts_with("Sheet ") && p.first.find('!') == std::string::npos;
        });
        return shown;
    };
    for (const auto& [file, count] :
         {std::pair("rc4cryptoapi_password", 3), {"xor_password_123456789012345", 10921}}) {
        const auto theirs = sheetsAndCells("expected/" + std::string(file) + "_plain.xls");
        EXPECT_EQ(theirs.size(), count);
        EXPECT_TRUE(sheetsAndCells(file + std::string(".xls")) == theirs) << file;
    }
}

// ---- the CSV their writers saved ----

/// The fields of a CSV file, its records ended by CR LF, LF or CR.
std::vector<std::vector<std::string>> ReadCsv(const std::string& path, int codePage, char delimiter) {
    std::string bytes = test::ReadFile(path);
    if (bytes.rfind("\xEF\xBB\xBF", 0) == 0) bytes.erase(0, 3);
    if (!IsValidUtf8(bytes)) bytes = DecodeCodePage(bytes, codePage);
    std::vector<std::vector<std::string>> rows{{""}};
    bool quoted = false;
    for (size_t i = 0; i < bytes.size(); ++i) {
        const char ch = bytes[i], next = i + 1 < bytes.size() ? bytes[i + 1] : '\0';
        if (ch == '"' && quoted && next == '"')
            rows.back().back() += bytes[++i];
        else if (ch == '"')
            quoted = !quoted;
        else if (quoted || (ch != delimiter && ch != '\r' && ch != '\n'))
            rows.back().back() += ch;
        else if (ch == delimiter)
            rows.back().emplace_back();
        else if (ch == '\n' || next != '\n')
            rows.push_back({""});
    }
    if (rows.back() == std::vector<std::string>{""}) rows.pop_back();
    return rows;
}

/// A number as the CSV shows it ("$1,000.30", "1.20 €", "25%", "(3)", "-" for zero), with the decimals it
/// shows.
bool ShownNumber(const std::string& text, double& value, int& decimals) {
    std::string digits;
    for (char ch : text)
        if ((ch >= '0' && ch <= '9') || ch == '.' || ch == '+' || ch == 'E' || ch == 'e' || ch == '-')
            digits += ch;
    if (digits.find_first_not_of('-') == std::string::npos && Trim(text) == digits) digits = "0";
    if (digits.empty() || !TryStrToFloat(digits, value, InvariantFormatSettings())) return false;
    // The decimals shown give the precision; in "1.23E+04" they count from the exponent.
    const size_t dot = digits.find('.'), e = digits.find_first_of("eE");
    const int mantissa =
        dot == std::string::npos ? 0 : static_cast<int>(std::min(e, digits.size()) - dot - 1);
    decimals = e == std::string::npos ? mantissa : mantissa - std::atoi(digits.c_str() + e + 1);
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
    int CodePage = 1252;
    int Rows = INT32_MAX;   ///< the rows both hold
    int Row0 = 0, Col0 = 0; ///< where the CSV starts in the sheet (a writer that saves the used area only)
    char Delimiter = ',';   ///< ';' also means decimal commas
};

TEST(XLSCorpus, CellsMatchTheCsvTheirWritersSaved) {
    if (!CorpusFile.Here()) GTEST_SKIP() << "the shared corpus is not here";
    // clang-format off
    const Twin twins[] = {
        {"RkNumber.xls.0.csv", "RkNumber.xls"}, {"RkNumber.xls.0.csv", "RkNumber_biff5.xls"},
        {"apachepoi_48026.xls.0.csv", "48026.xls"}, {"apachepoi_48026.xls.1.csv", "48026.xls", 1},
        {"apachepoi_50833.xls.0.csv", "50833.xls"}, {"apachepoi_SampleSS.xls.0.csv", "SampleSS.xls"},
        {"apachepoi_SampleSS.xls.1.csv", "SampleSS.xls", 1},
        {"apachepoi_StringFormulas.xls.0.csv", "StringFormulas.xls"},
        {"apachepoi_password.xls.0.csv", "password.xls", 0, 1252, INT32_MAX, 4, 3},
        {"apachepoi_rk.xls.0.csv", "rk.xls"}, {"apachepoi_testEXCEL_3.xls.0.csv", "testEXCEL_3.xls"},
        {"apachepoi_testEXCEL_4.xls.0.csv", "testEXCEL_4.xls"}, {"apachepoi_testEXCEL_5.xls.0.csv", "testEXCEL_5.xls"},
        {"apachepoi_testEXCEL_95.xls.0.csv", "testEXCEL_95.xls"},
        {"crlf.csv", "crlf.xls"}, {"crlf.csv", "crlf5.xls"},
        {"crlf.csv", "CRLFX5_2.XLS", 0, 1252, 2}, {"crlf.csv", "CRLFX5_3.XLS", 0, 1252, 2},
        {"crlf.csv", "CRLFX5_4.XLS", 0, 1252, 2}, {"crlf.csv", "CRLFX5_5.XLS", 0, 1252, 2},
        {"number_format_greek.xls.0.csv", "number_format_greek.xls", 0, 1253, INT32_MAX, 0, 0, ';'},
        {"password_2002_128_strong.xls.0.csv", "password_2002_128_strong.xls"},
        {"password_2002_40_xor.xls.0.csv", "password_2002_40_xor.xls"},
        {"xlrd_Formate.xls.0.csv", "Formate.xls"}, {"xlrd_formula_test_names.xls.0.csv", "formula_test_names.xls"},
    };
    // clang-format on
    for (const Twin& t : twins) {
        SCOPED_TRACE(t.Workbook + " sheet " + std::to_string(t.Sheet));
        const auto rows = ReadCsv(CorpusFile("expected/" + t.Csv), t.CodePage, t.Delimiter);
        auto x = Load(t.Workbook);
        int compared = 0;
        for (size_t r = 0; r < rows.size() && static_cast<int>(r) < t.Rows; ++r) {
            for (size_t c = 0; c < rows[r].size(); ++c) {
                const std::string& shown = rows[r][c];
                const TKvICell* cell =
                    CellAt(*x, t.Sheet, t.Row0 + static_cast<int>(r), t.Col0 + static_cast<int>(c));
                const Variant v = cell ? cell->Value : Variant();
                const TKvICellType type = cell ? cell->CellType : ictUnknown;
                SCOPED_TRACE("row " + std::to_string(r + 1) + ", column " + std::to_string(c + 1) + ": '" +
                             shown + "'");
                if (shown.empty()) {
                    EXPECT_TRUE(v.IsNullOrEmpty() || v.AsString().empty()) << v.AsString();
                    continue;
                }
                ++compared;
                double number = 0;
                int decimals = 0;
                std::string decimalPoint = shown;
                if (t.Delimiter == ';') // "12.345,68" as "12,345.68"
                    for (char& ch : decimalPoint) ch = ch == ',' ? '.' : ch == '.' ? ',' : ch;
                if (type == ictDateTime || (type == ictDecimal && shown.find('/') != std::string::npos)) {
                    // Dates and fractions are shown in the writer's own format: only that there is a value
                    // is checked.
                    EXPECT_FALSE(v.IsNullOrEmpty());
                } else if (type == ictDecimal && ShownNumber(decimalPoint, number, decimals)) {
                    // Accounting parentheses: the sign is the format's.
                    const double read = shown.front() == '(' ? std::fabs(v.AsDouble()) : v.AsDouble();
                    EXPECT_NEAR(read, number, 0.5 * std::pow(10.0, -decimals) + 1e-9 * std::fabs(number));
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
