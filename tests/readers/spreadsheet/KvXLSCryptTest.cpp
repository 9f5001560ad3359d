// Decryption of password-protected workbooks: every scheme on the shared corpus (records after FILEPASS
// must come out plausible, with the known sheets, strings and numbers, read forwards or backwards, and like
// the plain twins), wrong passwords, FILEPASS data cut short, damaged or of no scheme we know.

#include "readers/spreadsheet/KvXLSCrypt.h"

#include "platform/ByteReader.h"
#include "platform/FormatError.h"
#include "platform/Streams.h"
#include "platform/Utf8.h"
#include "readers/spreadsheet/KvCompoundFile.h"

#include "support/CompoundFileBuilder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <filesystem>
#include <map>
#include <set>
#include <tuple>

namespace kv {
namespace {

constexpr uint16_t kBOF = 0x0809, kFilePass = 0x002F, kBoundSheet = 0x0085;

struct Record {
    uint16_t Type = 0;
    uint64_t Offset = 0; ///< of the data, after the 4-byte header
    std::string Data;
};
using Records = std::vector<Record>;

/// The records of a corpus file's workbook stream, a tail too short for a header left out; none when the
/// file is absent.
Records CorpusRecords(const std::string& name) {
    const std::string path = KV_SHARED_DIR "/corpus/xls/" + name;
    if (!std::filesystem::exists(path)) return {};
    TFileStream file(path, fmOpenRead | fmShareDenyNone);
    TKvCompoundFile cf(file);
    const TKvCompoundEntry* entry = cf.Find("Workbook") ? cf.Find("Workbook") : cf.Find("Book");
    if (!entry) throw Exception(name + " holds no workbook stream");
    const std::string stream = cf.ReadStream(*entry);
    Records out;
    for (TByteReader r(stream); r.Remaining() >= 4;) {
        const uint16_t type = r.ReadU16LE(), size = r.ReadU16LE();
        if (!r.Has(size)) break;
        out.push_back({type, r.Position(), std::string(r.ReadBytes(size))});
    }
    return out;
}

bool IsBiff8(const Records& records) {
    return TByteReader(records.at(0).Data).ReadU16LE() == 0x0600;
}

size_t FilePassIndex(const Records& records) {
    return std::find_if(records.begin(), records.end(), [](const Record& r) { return r.Type == kFilePass; }) -
           records.begin();
}

std::unique_ptr<TKvBIFFDecryptor> DecryptorOf(const Records& records) {
    const Record& fp = records.at(FilePassIndex(records));
    return TKvBIFFDecryptor::FromFilePass(fp.Data, IsBiff8(records), fp.Offset);
}

/// `records` with everything after FILEPASS decrypted, in stream order or last record first.
Records Decrypt(Records records, TKvBIFFDecryptor& d, bool backwards = false) {
    const size_t first = FilePassIndex(records) + 1;
    for (size_t k = first; k < records.size(); ++k) {
        Record& rec = records[backwards ? records.size() - 1 - (k - first) : k];
        d.DecryptRecord(rec.Type, rec.Offset, rec.Data.data(), rec.Data.size());
    }
    return records;
}

double RkValue(uint32_t rk) {
    const double v =
        (rk & 2) ? static_cast<int32_t>(rk) >> 2 : std::bit_cast<double>(uint64_t(rk & ~3u) << 32);
    return (rk & 1) ? v / 100 : v;
}

/// What a decrypted workbook shows: sheet names, the strings of the SST record itself, number cells by
/// substream, row and column, and the first thing that looks wrong. Short records raise.
struct Contents {
    std::vector<std::string> Sheets, Strings;
    std::map<std::tuple<int, int, int>, double> Numbers;
    std::string Problem;
};

Contents Inspect(const Records& records) {
    Contents c;
    const bool biff8 = IsBiff8(records);
    std::set<uint64_t> bofs;
    for (const Record& rec : records)
        if (rec.Type == kBOF) bofs.insert(rec.Offset - 4);
    int substream = -1;
    for (const Record& rec : records) {
        TByteReader r(rec.Data);
        auto fail = [&](const char* what) {
            if (c.Problem.empty()) c.Problem = what + (" in the record at " + std::to_string(rec.Offset));
        };
        // `count` characters, 8-bit or UTF-16LE, that must be readable text.
        auto text = [&](size_t count, bool wide, std::vector<std::string>& into) {
            std::u32string s;
            for (size_t i = 0; i < count; ++i) s += wide ? char32_t(r.ReadU16LE()) : char32_t(r.ReadU8());
            if (std::any_of(s.begin(), s.end(), [](char32_t ch) { return ch < 0x20 && ch != '\n'; }))
                fail("unreadable text");
            into.push_back(U32ToUtf8(s));
        };
        const bool cell = std::set<uint16_t>{0x0203, 0x027E, 0x00BD, 0x00FD, 0x0201, 0x0006}.count(rec.Type);
        const int row = cell ? r.ReadU16LE() : 0, column = cell ? r.ReadU16LE() : 0;
        if (column >= 256) fail("column");
        auto number = [&](double v, int offset = 0) { c.Numbers[{substream, row, column + offset}] = v; };
        if (rec.Type == kBOF) ++substream;
        if (rec.Type == kBoundSheet) {
            if (!bofs.count(r.ReadU32LE())) fail("sheet position");
            r.Skip(2);
            const size_t count = r.ReadU8();
            text(count, biff8 && (r.ReadU8() & 1), c.Sheets);
        }
        if (rec.Type == 0x00FC) // SST: the strings wholly in the record
            for (r.Skip(8); r.Remaining() >= 3;) {
                const size_t count = r.ReadU16LE(), flags = r.ReadU8();
                const size_t runs = (flags & 8) ? r.ReadU16LE() : 0, ext = (flags & 4) ? r.ReadU32LE() : 0;
                if (!r.Has(count * (flags & 1 ? 2 : 1) + runs * 4 + ext)) break;
                text(count, flags & 1, c.Strings);
                r.Skip(runs * 4 + ext);
            }
        if (cell && rec.Type != 0x00BD) r.Skip(2); // the format
        if (rec.Type == 0x0203) number(r.ReadDoubleLE());
        if (rec.Type == 0x027E) number(RkValue(r.ReadU32LE()));
        for (int i = 0; rec.Type == 0x00BD && r.Remaining() > 2; ++i) // MULRK: (format, RK) pairs
            r.Skip(2), number(RkValue(r.ReadU32LE()), i);
        if (rec.Type == 0x0006) { // FORMULA: a value whose top two bytes are 0xFFFF is not a number
            const uint64_t bits = r.ReadU64LE();
            if (bits >> 48 != 0xFFFF) number(std::bit_cast<double>(bits));
        }
    }
    return c;
}

struct CorpusCase {
    const char* File;
    const char* Password;
    TKvBIFFEncryption Kind;
    const char* Description;
    std::vector<std::string> Sheets;
    std::vector<std::string> Strings; ///< each begins one of the workbook's shared strings
    std::vector<double> Numbers;
};

void PrintTo(const CorpusCase& c, std::ostream* os) {
    *os << c.File;
}

const std::vector<std::string> kSheets123 = {"Sheet1", "Sheet2", "Sheet3"};
const std::vector<double> k2002Numbers = {1, 2, 3, 4, 10};
const char *kXor = "XOR obfuscation", *kRC4 = "RC4, 40-bit key", *kApi128 = "RC4 CryptoAPI, 128-bit key";

// clang-format off
const CorpusCase kCorpus[] = {
    {"xor-encryption-abc.xls", "abc", beXor, kXor, {"Sheet1"}, {}, {1, 2, 3}},
    {"password_2002_40_xor.xls", "password", beXor, kXor, kSheets123, {}, k2002Numbers},
    {"password_2002_40_xor_biff5.xls", "password", beXor, kXor, kSheets123, {}, k2002Numbers},
    {"60284.xls", "VelvetSweatshop", beXor, kXor,
     {"Pipad", "Tpad", "Standard Value Pipads", "Standard Value T Pads", "Notes", "Module1"}, {}, {}},
    {"xor_password_123456789012345.xls", "123456789012345", beXor, kXor, {"420"}, {}, {1, 420}},
    {"password.xls", "password", beRC4, kRC4, {"Лист1", "Лист2", "Лист3"},
     {"A ZIP bomb is a variant of mail-bombing"}, {}},
    {"50833.xls", "VelvetSweatshop", beRC4, kRC4, kSheets123, {"test cell value"}, {}},
    {"issue_385.xls", "VelvetSweatshop", beRC4, kRC4, {"Sheet1"}, {}, {}},
    {"password_2002_40_972000.xls", "password", beRC4, kRC4, kSheets123, {}, k2002Numbers},
    {"35897-type4.xls", "freedom", beRC4CryptoAPI, kApi128, {"Sheet1"}, {"hello there!"}, {}},
    {"rc4cryptoapi_password.xls", "Password1234_", beRC4CryptoAPI, kApi128, {"Sheet1"}, {"lorem ipsum"}, {}},
    {"password_2002_40_basecrypto.xls", "password", beRC4CryptoAPI, "RC4 CryptoAPI, 40-bit key", kSheets123, {},
     k2002Numbers},
    {"password_2002_128_strong.xls", "password", beRC4CryptoAPI, kApi128, kSheets123, {}, k2002Numbers},
};
// clang-format on

class CorpusTest : public ::testing::TestWithParam<CorpusCase> {};

TEST_P(CorpusTest, DecryptsEveryRecordWithItsPasswordOnly) {
    const CorpusCase& t = GetParam();
    const Records records = CorpusRecords(t.File);
    if (records.empty()) GTEST_SKIP() << t.File << " is not in the shared corpus";
    auto d = DecryptorOf(records);
    ASSERT_TRUE(d);
    EXPECT_EQ(d->Kind(), t.Kind);
    EXPECT_EQ(d->Description(), t.Description);

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
    const Records plain = Decrypt(records, *d);
    const Contents c = Inspect(plain);
    EXPECT_EQ(c.Problem, "");
    EXPECT_EQ(c.Sheets, t.Sheets);
    for (const std::string& s : t.Strings)
        EXPECT_TRUE(std::any_of(c.Strings.begin(), c.Strings.end(), [&](auto& x) {
            return x.starts_with(s);
        })) << s;
    for (double n : t.Numbers)
        EXPECT_TRUE(std::any_of(c.Numbers.begin(), c.Numbers.end(), [&](auto& x) { return x.second == n; }))
            << n;

    // BOF, FILEPASS, USREXCL, FILELOCK, INTERFACEHDR, RRDINFO, RRDHEAD stay plain, and so does the sheet
    // position that begins BOUNDSHEET.
    const std::string x(12, 'x');
    for (uint16_t type : {0x0809, 0x002F, 0x0194, 0x0195, 0x00E1, 0x0196, 0x0138, 0x0085, 0x0042}) {
        std::string data = x;
        d->DecryptRecord(type, 100, data.data(), data.size());
        EXPECT_EQ(data.substr(0, 4) == x.substr(0, 4), type != 0x0042) << type;
        EXPECT_EQ(data.substr(4) == x.substr(4), type != 0x0085 && type != 0x0042) << type;
    }

    // Random access: a fresh decryptor fed the records last first gives the same bytes.
    auto again = DecryptorOf(records);
    ASSERT_TRUE(again->Verify(right));
    const Records backwards = Decrypt(records, *again, true);
    for (size_t i = 0; i < plain.size(); ++i) ASSERT_EQ(plain[i].Data, backwards[i].Data) << "record " << i;
}

INSTANTIATE_TEST_SUITE_P(Xls, CorpusTest, ::testing::ValuesIn(kCorpus),
                         [](const ::testing::TestParamInfo<CorpusCase>& p) {
                             std::string name = p.param.File;
                             name.resize(name.find('.'));
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

/// The records of a corpus file decrypted with `password`, and those of its plain twin; none when either
/// file is absent.
std::pair<Records, Records> WithTwin(const char* file, const char* password, const char* twin) {
    Records records = CorpusRecords(file), plain = CorpusRecords(std::string("expected/") + twin);
    if (records.empty() || plain.empty()) return {};
    auto d = DecryptorOf(records);
    EXPECT_TRUE(d->Verify(password));
    return {Decrypt(std::move(records), *d), std::move(plain)};
}

// This twin keeps the stream as it was, with a record of type 0 and FILEPASS's size in FILEPASS's place:
// every other record must match byte for byte, sheet positions included.
TEST(XLSCryptTest, DecryptsLikeItsPlainTwinByteForByte) {
    const auto [ours, theirs] =
        WithTwin("rc4cryptoapi_password.xls", "Password1234_", "rc4cryptoapi_password_plain.xls");
    if (ours.empty()) GTEST_SKIP() << "the file or its plain twin is not in the shared corpus";
    ASSERT_EQ(ours.size(), theirs.size());
    for (size_t i = 0; i < ours.size(); ++i) {
        ASSERT_EQ(ours[i].Offset, theirs[i].Offset) << "record " << i;
        if (ours[i].Type != kFilePass) {
            ASSERT_EQ(ours[i].Data, theirs[i].Data) << "record " << i;
        }
    }
}

// This twin was written anew, without FILEPASS and with a NUMBER record for each value the original holds
// in MULRK runs: the sheets, strings and every number cell must match.
TEST(XLSCryptTest, DecryptsLikeItsPlainTwinCellForCell) {
    const auto [ours, theirs] = WithTwin("xor_password_123456789012345.xls", "123456789012345",
                                         "xor_password_123456789012345_plain.xls");
    if (ours.empty()) GTEST_SKIP() << "the file or its plain twin is not in the shared corpus";
    const Contents mine = Inspect(ours), twin = Inspect(theirs);
    EXPECT_EQ(mine.Problem, "");
    EXPECT_EQ(mine.Sheets, twin.Sheets);
    EXPECT_EQ(mine.Strings, twin.Strings);
    EXPECT_EQ(mine.Numbers.size(), 10920u);
    EXPECT_TRUE(mine.Numbers == twin.Numbers);
}

// ---- FILEPASS data made here ----

using test::U16, test::U32;

std::string CryptoApiFilePass(uint32_t algorithm, uint32_t hash, uint32_t keyBits, uint32_t saltSize = 16,
                              int headerSizeChange = 0) {
    const std::string header = U32(0x0C) + U32(0) + U32(algorithm) + U32(hash) + U32(keyBits) + U32(1) +
                               U32(0) + U32(0) + U16('X') + U16(0);
    return U16(1) + U16(4) + U16(2) + U32(0x0C) +
           U32(static_cast<uint32_t>(header.size() + headerSizeChange)) + header + U32(saltSize) +
           std::string(32, 'Z') + U32(20) + std::string(20, 'Z');
}

TEST(XLSCryptTest, FilePassLayouts) {
    const std::string api = CryptoApiFilePass(0x6801, 0x8004, 128),
                      rc4 = U16(1) + U16(1) + U16(1) + std::string(48, 'Z');
    // The outcome: "truncated", "damaged", "none" (no scheme we know) or the description.
    const std::vector<std::tuple<const char*, bool, std::string, std::string>> cases = {
        {"BIFF5 XOR cut", false, "\x4A\x51\x1A", "truncated"},
        {"BIFF8 empty", true, "", "truncated"},
        {"BIFF8 XOR type only", true, U16(0), "truncated"},
        {"RC4 verifier hash cut", true, rc4.substr(0, 53), "truncated"},
        {"RC4 version 1.2", true, U16(1) + U16(1) + U16(2) + std::string(48, 'Z'), "none"},
        {"unknown type", true, U16(2) + std::string(60, 'Z'), "none"},
        {"CryptoAPI key size 0", true, CryptoApiFilePass(0x6801, 0x8004, 0), "RC4 CryptoAPI, 40-bit key"},
        {"CryptoAPI 56-bit", true, CryptoApiFilePass(0x6801, 0x8004, 56), "RC4 CryptoAPI, 56-bit key"},
        {"CryptoAPI default algorithms", true, CryptoApiFilePass(0, 0, 128), kApi128},
        {"CryptoAPI AES", true, CryptoApiFilePass(0x660E, 0x8004, 128), "none"},
        {"CryptoAPI header beyond the record", true, CryptoApiFilePass(0x6801, 0x8004, 128, 16, 1000),
         "truncated"},
        {"CryptoAPI verifier hash cut", true, api.substr(0, api.size() - 1), "truncated"},
        {"CryptoAPI header of 16 bytes", true, CryptoApiFilePass(0x6801, 0x8004, 128, 16, -20), "damaged"},
        {"CryptoAPI 200-bit key", true, CryptoApiFilePass(0x6801, 0x8004, 200), "damaged"},
        {"CryptoAPI salt of 8 bytes", true, CryptoApiFilePass(0x6801, 0x8004, 128, 8), "damaged"},
    };
    constexpr uint64_t kAt = 1000;
    for (const auto& [name, biff8, data, expected] : cases) {
        SCOPED_TRACE(name);
        std::string outcome;
        try {
            auto d = TKvBIFFDecryptor::FromFilePass(data, biff8, kAt);
            outcome = d ? d->Description() : "none";
        } catch (const EKvFormatError& e) {
            outcome = e.Kind() == fekTruncated ? "truncated" : "damaged";
            EXPECT_EQ(e.Format(), "Excel");
            EXPECT_GE(e.Offset(), kAt);
            EXPECT_LE(e.Offset(), kAt + data.size());
        }
        EXPECT_EQ(outcome, expected);
    }
}

TEST(XLSCryptTest, XorPasswordsAreTakenInWindows1252) {
    // The key and verifier of the bytes "Gr\xFC\xDF" "e\x80": the euro sign is 0x80 there, not in Latin-1.
    auto d = TKvBIFFDecryptor::FromFilePass(U16(0) + U16(0x7E23) + U16(0xE9BB), true, 0);
    EXPECT_FALSE(d->Verify("Grüße"));
    EXPECT_FALSE(d->Verify("Grusse€"));
    EXPECT_TRUE(d->Verify("Grüße€"));
}

} // namespace
} // namespace kv
