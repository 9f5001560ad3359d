// The bounds-checked readers over memory and over streams, their errors, and the allocation guard.

#include "platform/BinaryReader.h"
#include "TestSupport.h"
#include "platform/AllocationGuard.h"
#include "platform/ByteReader.h"
#include "platform/FormatError.h"

#include <functional>
#include <random>

namespace kv {
namespace {

std::string Counting(size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(i * 7 + 1);
    return s;
}

/// The message `action` fails with as a format error; "" when it does not fail.
std::string FormatErrorOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const EKvFormatError& e) {
        return e.what();
    }
    return "";
}

/// One read of each width and byte order, for either cursor; the signed reads only cast these.
template <class R> struct Width {
    size_t Bytes;
    std::function<uint64_t(R&)> Read;
};

template <class R> std::vector<Width<R>> Widths() {
    return {
        {1, [](R& r) { return r.ReadU8(); }},    {2, [](R& r) { return r.ReadU16LE(); }},
        {2, [](R& r) { return r.ReadU16BE(); }}, {4, [](R& r) { return r.ReadU32LE(); }},
        {4, [](R& r) { return r.ReadU32BE(); }}, {8, [](R& r) { return r.ReadU64LE(); }},
        {8, [](R& r) { return r.ReadU64BE(); }},
    };
}

TEST(BinaryReader, TruncatedReadsOfEveryWidthFailWhereTheyStartAndMoveNothing) {
    const auto streamWidths = Widths<TKvBinaryReader>();
    const auto memoryWidths = Widths<TByteReader>();
    for (size_t i = 0; i < streamWidths.size(); ++i) {
        const size_t n = streamWidths[i].Bytes;
        for (size_t left = 0; left < n; ++left) {
            const std::string reading = "reading " + std::to_string(n) + (n == 1 ? " byte, " : " bytes, ") +
                                        std::to_string(left) + " left";
            // 21 bytes before the read, so the failure crosses a 16-byte block boundary too.
            const std::string bytes = Counting(21 + left);
            TMemoryStream stream(bytes);
            TKvBinaryReader r(stream, "DBF", 16);
            TByteReader m(bytes, "XLS", 1000, "record"), plain(bytes);
            r.Skip(21), m.Skip(21), plain.Skip(21);
            EXPECT_EQ(FormatErrorOf([&] { streamWidths[i].Read(r); }),
                      "DBF: unexpected end of file at byte 21: " + reading);
            EXPECT_EQ(FormatErrorOf([&] { memoryWidths[i].Read(m); }),
                      "XLS: unexpected end of record at byte 1021: " + reading);
            EXPECT_EQ(test::ErrorOf([&] { memoryWidths[i].Read(plain); }), "Stream read error");
            EXPECT_EQ(r.Position(), 21u);
            EXPECT_EQ(m.Position(), 21u);
            EXPECT_EQ(plain.Position(), 21u);
            if (left) {
                EXPECT_EQ(r.ReadU8(), static_cast<uint8_t>(21 * 7 + 1)); // still readable after it
            }
        }
    }
}

TEST(BinaryReader, ValuesDecodeInBothByteOrders) {
    const std::string bytes("\x01\x02\x03\x04\x05\x06\x07\x08\xFE\xFF\x00\x00\x00\x00\x00\x00\xF0\x3F", 18);
    TMemoryStream stream(bytes);
    TKvBinaryReader r(stream, "T", 16);
    EXPECT_EQ(r.ReadU64LE(), 0x0807060504030201u);
    EXPECT_EQ(r.ReadU64BE(), 0xFEFF000000000000u);
    r.Seek(10);
    EXPECT_EQ(r.ReadDoubleLE(), 1.0); // the 8 bytes cross the block boundary
}

// The stream reader must give exactly what the memory reader gives over the same bytes, for any mix of
// reads, skips and seeks, whatever its block size.
TEST(BinaryReader, MatchesTheMemoryReaderForAnyMixOfOperations) {
    const std::string bytes = Counting(300);
    std::mt19937 random(7);
    const auto widths = Widths<TKvBinaryReader>();
    const auto memoryWidths = Widths<TByteReader>();
    for (size_t block : {16u, 17u, 64u, 1024u}) {
        TMemoryStream stream(bytes);
        TKvBinaryReader r(stream, "T", block);
        TByteReader m(bytes);
        for (int step = 0; step < 2000; ++step) {
            SCOPED_TRACE("block " + std::to_string(block) + ", step " + std::to_string(step));
            const unsigned op = random() % 4;
            if (op == 0) {
                const size_t to = random() % 310;
                EXPECT_EQ(FormatErrorOf([&] { r.Seek(to); }).empty(), to <= bytes.size());
                if (to <= bytes.size()) m.Seek(to);
            } else if (op == 1) {
                const size_t n = random() % 40;
                std::string got;
                EXPECT_EQ(FormatErrorOf([&] { got = r.ReadBytes(n); }).empty(), m.Has(n));
                if (m.Has(n)) {
                    EXPECT_EQ(got, m.ReadBytes(n));
                }
            } else if (op == 2) {
                const size_t n = random() % 5;
                EXPECT_EQ(FormatErrorOf([&] { r.Skip(n); }).empty(), m.Has(n));
                if (m.Has(n)) m.Skip(n);
            } else {
                const size_t i = random() % widths.size();
                if (m.Has(widths[i].Bytes)) {
                    EXPECT_EQ(widths[i].Read(r), memoryWidths[i].Read(m));
                } else {
                    EXPECT_THROW(widths[i].Read(r), EKvFormatError);
                }
            }
            ASSERT_EQ(r.Position(), m.Position());
            ASSERT_EQ(r.Remaining(), m.Remaining());
        }
    }
}

/// A stream whose size claims more than it holds, like a file cut short while it is read.
class TShrunkStream : public TMemoryStream {
public:
    TShrunkStream(std::string bytes, int64_t claimed) : TMemoryStream(std::move(bytes)), claimed_(claimed) {}
    int64_t Size() override { return claimed_; }

private:
    int64_t claimed_;
};

TEST(BinaryReader, ReadsSeeksAndSkipsPastTheEndFailWithoutAllocating) {
    TMemoryStream stream(Counting(100));
    TKvBinaryReader r(stream, "DBF", 16);
    r.Seek(100); // the end itself is a position
    EXPECT_TRUE(r.AtEnd());
    r.Seek(40);
    // A stream holding less than its size says fails like any short read.
    TShrunkStream shrunk(Counting(20), 100);
    TKvBinaryReader s(shrunk, "DBF", 16);
    std::string out;
    struct Case {
        TKvBinaryReader& Reader;
        std::function<void()> Action;
        uint64_t At; ///< where it fails, and where the reader stays
        std::string Detail;
    } cases[] = {
        {r, [&] { r.Seek(101); }, 40, "seeking to byte 101 of 100"},
        {r, [&] { r.Seek(UINT64_MAX); }, 40, "seeking to byte 18446744073709551615 of 100"},
        {r, [&] { r.Skip(61); }, 40, "reading 61 bytes, 60 left"},
        {r, [&] { out = r.ReadBytes(SIZE_MAX); }, 40, "reading 18446744073709551615 bytes, 60 left"},
        {s, [&] { s.Seek(18), s.ReadU32LE(); }, 18, "reading 4 bytes, 2 left"},
        {s, [&] { s.Seek(0), s.ReadBytes(30, out); }, 0, "reading 30 bytes, 20 left"},
        {s, [&] { s.Seek(0), s.ReadBytes(10, out), s.ReadBytes(15, out); }, 10, "reading 15 bytes, 10 left"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(FormatErrorOf(c.Action),
                  "DBF: unexpected end of file at byte " + std::to_string(c.At) + ": " + c.Detail);
        EXPECT_EQ(c.Reader.Position(), c.At);
    }
    EXPECT_LT(out.capacity(), 1000u);

    const std::string bytes = Counting(10);
    TByteReader m(bytes, "XLS", 500);
    EXPECT_EQ(FormatErrorOf([&] { m.Seek(11); }),
              "XLS: unexpected end of data at byte 500: seeking to byte 511 of 510");
    EXPECT_THROW(m.ReadBytes(SIZE_MAX), EKvFormatError);
    TByteReader plain(bytes);
    EXPECT_THROW(plain.Seek(11), EReadError);
    EXPECT_THROW(plain.ReadBytes(SIZE_MAX), EReadError);
}

TEST(BinaryReader, ReadsFilesFromWhereTheyStandAndAcrossBlocks) {
    test::TempDir dir;
    const std::string bytes = Counting(200000);
    test::WriteFile(dir.File("big.bin"), bytes);
    TFileStream file(dir.File("big.bin"), fmOpenRead);
    TKvBinaryReader r(file, "ZIP"); // default block size: reads cross 64 KiB blocks
    r.Seek(65530);
    EXPECT_EQ(r.ReadU64LE(), KvLoadLE<uint64_t>(bytes.data() + 65530));
    std::string out;
    r.Seek(10);
    r.ReadBytes(150000, out); // bigger than a block: part from the buffer, the rest straight from the file
    EXPECT_EQ(out, bytes.substr(10, 150000));
    EXPECT_EQ(r.Position(), 150010u);
    // A reader starts where the stream stands, and the whole stream stays reachable.
    file.SetPosition(20);
    TKvBinaryReader second(file, "ZIP");
    EXPECT_EQ(second.Remaining(), bytes.size() - 20);
    EXPECT_EQ(second.ReadU8(), static_cast<uint8_t>(bytes[20]));
    second.Seek(0);
    EXPECT_EQ(second.ReadU8(), 1);
}

// Damage and oversized counts are reported at the reader's offset in the file, whatever the reader.
TEST(FormatError, ReadersReportDamageWhereTheyStand) {
    TMemoryStream stream(Counting(100));
    TKvBinaryReader r(stream, "SAV");
    r.Seek(68);
    const std::string bytes = Counting(10);
    TByteReader m(bytes, r.Format(), 1000);
    m.Skip(2);
    const std::pair<std::function<void()>, std::string> cases[] = {
        {[&] { r.Corrupt("bad header"); }, "SAV: damaged file at byte 68: bad header"},
        {[&] { r.CorruptAt(12, "bad block"); }, "SAV: damaged file at byte 12: bad block"},
        {[&] { m.Corrupt("bad record"); }, "SAV: damaged file at byte 1002: bad record"},
        {[&] { m.CorruptAt(0, "bad type"); }, "SAV: damaged file at byte 1000: bad type"},
        {[&] { r.CheckedSize(5, 8, "the variables"); },
         "SAV: damaged file at byte 68: the variables need 40 bytes, more than the 32 there are (5 × 8)"},
        {[&] { m.CheckedSize(3, 3, "the cells"); },
         "SAV: damaged file at byte 1002: the cells need 9 bytes, more than the 8 there are (3 × 3)"},
        {[] { throw EKvFormatError(fekDamaged, "", 0, "bad"); }, "damaged file at byte 0: bad"},
        {[] { throw EKvFormatError(fekDamaged, "ZIP", UINT64_MAX, ""); },
         "ZIP: damaged file at byte 18446744073709551615"},
    };
    for (const auto& [action, message] : cases) EXPECT_EQ(FormatErrorOf(action), message);
    EXPECT_EQ(r.CheckedSize(4, 8, "the variables"), 32u);
    EXPECT_EQ(r.CheckedSize(1000, 8, 8000, "the decompressed rows"), 8000u); // a bound of the format's own
    // Existing catch sites for short stream reads see it.
    EXPECT_THROW(throw EKvFormatError::ShortRead("SAV", 3, 8, 2), EReadError);
}

TEST(AllocationGuard, RefusesSizesTheFileCannotHold) {
    struct Case {
        uint64_t Count, Size, Available, Total;
        std::string Error; ///< after "the fields need "
    } cases[] = {
        {10, 32, 320, 320, ""},    // an exact fit
        {UINT64_MAX, 0, 0, 0, ""}, // nothing to allocate; a loop over it needs its own bound
        {kKvMaxAllocation, 1, UINT64_MAX, kKvMaxAllocation, ""},
        {11, 32, 320, 0, "352 bytes, more than the 320 there are (11 × 32)"},
        {uint64_t{1} << 60, 16, UINT64_MAX, 0, "more than 2^64 bytes (1152921504606846976 × 16)"},
        {uint64_t{1} << 32, 1, UINT64_MAX, 0,
         "4294967296 bytes, more than the 2147483648 a reader takes at once (4294967296 × 1)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.Count) + " × " + std::to_string(c.Size));
        uint64_t total = 0;
        EXPECT_EQ(FormatErrorOf(
                      [&] { total = KvCheckedSize("DBF", 64, c.Count, c.Size, c.Available, "the fields"); }),
                  c.Error.empty() ? "" : "DBF: damaged file at byte 64: the fields need " + c.Error);
        EXPECT_EQ(total, c.Total);
    }
}

} // namespace
} // namespace kv
