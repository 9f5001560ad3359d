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

/// The message and kind `action` fails with as a format error; "" when it does not fail.
std::string FormatErrorOf(const std::function<void()>& action, TKvFormatErrorKind* kind = nullptr) {
    try {
        action();
    } catch (const EKvFormatError& e) {
        if (kind) *kind = e.Kind();
        return e.what();
    }
    return "";
}

TEST(FormatError, OneShapeForEveryKind) {
    struct Case {
        TKvFormatErrorKind Kind;
        std::string Format;
        uint64_t Offset;
        std::string Detail, Unit, Message;
    } cases[] = {
        {fekTruncated, "DBF", 1234, "reading 4 bytes, 2 left", "file",
         "DBF: unexpected end of file at byte 1234: reading 4 bytes, 2 left"},
        {fekTruncated, "XLS", 7, "reading 2 bytes, 0 left", "record",
         "XLS: unexpected end of record at byte 7: reading 2 bytes, 0 left"},
        {fekDamaged, "DBF", 1234, "the memo block 77 lies beyond the end of the file", "record",
         "DBF: damaged file at byte 1234: the memo block 77 lies beyond the end of the file"},
        {fekDamaged, "", 0, "bad", "file", "damaged file at byte 0: bad"},
        {fekDamaged, "ZIP", UINT64_MAX, "", "file", "ZIP: damaged file at byte 18446744073709551615"},
    };
    for (const auto& c : cases) {
        EKvFormatError e(c.Kind, c.Format, c.Offset, c.Detail, c.Unit);
        EXPECT_EQ(e.what(), c.Message);
        EXPECT_EQ(e.Format(), c.Format);
        EXPECT_EQ(e.Offset(), c.Offset);
        EXPECT_EQ(e.Detail(), c.Detail);
        EXPECT_EQ(e.Kind(), c.Kind);
    }
    EXPECT_STREQ(EKvFormatError::ShortRead("SAV", 3, 1, 0).what(),
                 "SAV: unexpected end of file at byte 3: reading 1 byte, 0 left");
    // Existing catch sites for short stream reads see it.
    EXPECT_THROW(throw EKvFormatError::ShortRead("SAV", 3, 8, 2), EReadError);
}

/// One read of each width, as a function of either cursor.
template <class R> struct Width {
    size_t Bytes;
    std::function<uint64_t(R&)> Read;
};

template <class R> std::vector<Width<R>> Widths() {
    return {
        {1, [](R& r) { return r.ReadU8(); }},
        {1, [](R& r) { return static_cast<uint64_t>(r.ReadI8()); }},
        {2, [](R& r) { return r.ReadU16LE(); }},
        {2, [](R& r) { return r.ReadU16BE(); }},
        {2, [](R& r) { return static_cast<uint64_t>(r.ReadI16LE()); }},
        {2, [](R& r) { return static_cast<uint64_t>(r.ReadI16BE()); }},
        {4, [](R& r) { return r.ReadU32LE(); }},
        {4, [](R& r) { return r.ReadU32BE(); }},
        {4, [](R& r) { return static_cast<uint64_t>(r.ReadI32LE()); }},
        {4, [](R& r) { return static_cast<uint64_t>(r.ReadI32BE()); }},
        {8, [](R& r) { return r.ReadU64LE(); }},
        {8, [](R& r) { return r.ReadU64BE(); }},
        {8, [](R& r) { return static_cast<uint64_t>(r.ReadI64LE()); }},
        {8, [](R& r) { return static_cast<uint64_t>(r.ReadI64BE()); }},
        {8, [](R& r) { return static_cast<uint64_t>(r.ReadDoubleLE()); }},
        {8, [](R& r) { return static_cast<uint64_t>(r.ReadDoubleBE()); }},
    };
}

TEST(BinaryReader, TruncatedReadsOfEveryWidthFailWhereTheyStartAndMoveNothing) {
    for (const auto& w : Widths<TKvBinaryReader>()) {
        for (size_t left = 0; left < w.Bytes; ++left) {
            // 21 bytes before the read, so the failure crosses a 16-byte block boundary too.
            TMemoryStream stream(Counting(21 + left));
            TKvBinaryReader r(stream, "DBF", 16);
            r.Skip(21);
            TKvFormatErrorKind kind = fekDamaged;
            EXPECT_EQ(FormatErrorOf([&] { w.Read(r); }, &kind),
                      "DBF: unexpected end of file at byte 21: reading " + std::to_string(w.Bytes) +
                          (w.Bytes == 1 ? " byte, " : " bytes, ") + std::to_string(left) + " left");
            EXPECT_EQ(kind, fekTruncated);
            EXPECT_EQ(r.Position(), 21u);
            if (left) {
                EXPECT_EQ(r.ReadU8(), static_cast<uint8_t>(21 * 7 + 1)); // still readable after it
            }
        }
    }
    for (const auto& w : Widths<TByteReader>()) {
        for (size_t left = 0; left < w.Bytes; ++left) {
            const std::string bytes = Counting(3 + left);
            TByteReader r(bytes, "XLS", 1000, "record");
            r.Skip(3);
            EXPECT_EQ(FormatErrorOf([&] { w.Read(r); }),
                      "XLS: unexpected end of record at byte 1003: reading " + std::to_string(w.Bytes) +
                          (w.Bytes == 1 ? " byte, " : " bytes, ") + std::to_string(left) + " left");
            EXPECT_EQ(r.Position(), 3u);
            TByteReader plain(bytes);
            plain.Skip(3);
            EXPECT_EQ(test::ErrorOf([&] { w.Read(plain); }), "Stream read error");
        }
    }
}

TEST(BinaryReader, ValuesDecodeInBothByteOrders) {
    const std::string bytes("\x01\x02\x03\x04\x05\x06\x07\x08\xFE\xFF\x00\x00\x00\x00\x00\x00\xF0\x3F", 18);
    TMemoryStream stream(bytes);
    TKvBinaryReader r(stream, "T", 16);
    EXPECT_EQ(r.ReadU16LE(), 0x0201u);
    EXPECT_EQ(r.ReadU16BE(), 0x0304u);
    EXPECT_EQ(r.ReadU32BE(), 0x05060708u);
    EXPECT_EQ(r.ReadI16LE(), -2);
    r.Seek(0);
    EXPECT_EQ(r.ReadU64LE(), 0x0807060504030201u);
    EXPECT_EQ(r.ReadU64BE(), 0xFEFF000000000000u);
    r.Seek(10);
    EXPECT_EQ(r.ReadDoubleLE(), 1.0); // the 8 bytes cross the block boundary
    EXPECT_TRUE(r.AtEnd());
    r.Seek(8);
    EXPECT_EQ(r.ReadI8(), -2);
    EXPECT_EQ(r.ReadI32BE(), static_cast<int32_t>(0xFF000000));
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
                const bool ok = to <= bytes.size();
                EXPECT_EQ(FormatErrorOf([&] { r.Seek(to); }).empty(), ok);
                if (ok) m.Seek(to);
            } else if (op == 1) {
                const size_t n = random() % 40;
                const bool ok = m.Has(n);
                std::string got;
                EXPECT_EQ(FormatErrorOf([&] { got = r.ReadBytes(n); }).empty(), ok);
                if (ok) {
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

TEST(BinaryReader, SeeksAndSkipsPastTheEndFail) {
    TMemoryStream stream(Counting(100));
    TKvBinaryReader r(stream, "DBF", 16);
    r.Seek(100); // the end itself is a position
    EXPECT_TRUE(r.AtEnd());
    r.Seek(40);
    EXPECT_EQ(FormatErrorOf([&] { r.Seek(101); }),
              "DBF: unexpected end of file at byte 40: seeking to byte 101 of 100");
    EXPECT_EQ(FormatErrorOf([&] { r.Seek(UINT64_MAX); }),
              "DBF: unexpected end of file at byte 40: seeking to byte 18446744073709551615 of 100");
    EXPECT_EQ(FormatErrorOf([&] { r.Skip(61); }),
              "DBF: unexpected end of file at byte 40: reading 61 bytes, 60 left");
    EXPECT_EQ(r.Position(), 40u);
    EXPECT_FALSE(r.Has(61));
    EXPECT_TRUE(r.Has(60));

    const std::string bytes = Counting(10);
    TByteReader m(bytes, "XLS", 500);
    EXPECT_EQ(FormatErrorOf([&] { m.Seek(11); }),
              "XLS: unexpected end of data at byte 500: seeking to byte 511 of 510");
    TByteReader plain(bytes);
    EXPECT_EQ(test::ErrorOf([&] { plain.Seek(11); }), "Stream read error");
}

TEST(BinaryReader, HugeCountsFailBeforeAllocating) {
    TMemoryStream stream(Counting(10));
    TKvBinaryReader r(stream, "SAV");
    std::string out;
    EXPECT_EQ(FormatErrorOf([&] { out = r.ReadBytes(SIZE_MAX); }),
              "SAV: unexpected end of file at byte 0: reading 18446744073709551615 bytes, 10 left");
    EXPECT_EQ(FormatErrorOf([&] { r.ReadBytes(11, out); }),
              "SAV: unexpected end of file at byte 0: reading 11 bytes, 10 left");
    EXPECT_LT(out.capacity(), 1000u);
    const std::string bytes = Counting(10);
    TByteReader m(bytes, "SAV");
    EXPECT_THROW(m.ReadBytes(SIZE_MAX), EKvFormatError);
}

TEST(BinaryReader, LargeReadsAcrossBlocksAndFromFiles) {
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
    char tail[5];
    r.Seek(bytes.size() - 5);
    r.ReadBuffer(tail, 5);
    EXPECT_EQ(std::string(tail, 5), bytes.substr(bytes.size() - 5));
    EXPECT_EQ(FormatErrorOf([&] { r.ReadBuffer(tail, 1); }),
              "ZIP: unexpected end of file at byte 200000: reading 1 byte, 0 left");
}

TEST(BinaryReader, StartsWhereTheStreamStands) {
    TMemoryStream stream(Counting(50));
    stream.SetPosition(20);
    TKvBinaryReader r(stream, "T", 16);
    EXPECT_EQ(r.Position(), 20u);
    EXPECT_EQ(r.Remaining(), 30u);
    EXPECT_EQ(r.ReadU8(), static_cast<uint8_t>(20 * 7 + 1));
    r.Seek(0); // the whole stream stays reachable
    EXPECT_EQ(r.ReadU8(), 1);
}

/// A stream whose size claims more than it holds, like a file cut short while it is read.
class TShrunkStream : public TMemoryStream {
public:
    TShrunkStream(std::string bytes, int64_t claimed) : TMemoryStream(std::move(bytes)), claimed_(claimed) {}
    int64_t Size() override { return claimed_; }

private:
    int64_t claimed_;
};

TEST(BinaryReader, AStreamHoldingLessThanItsSizeIsATruncation) {
    TShrunkStream stream(Counting(20), 100);
    TKvBinaryReader r(stream, "DBF", 16);
    r.Seek(18);
    EXPECT_EQ(FormatErrorOf([&] { r.ReadU32LE(); }),
              "DBF: unexpected end of file at byte 18: reading 4 bytes, 2 left");
    EXPECT_EQ(r.Position(), 18u);
    std::string out;
    r.Seek(0);
    EXPECT_EQ(FormatErrorOf([&] { r.ReadBytes(30, out); }),
              "DBF: unexpected end of file at byte 0: reading 30 bytes, 20 left");
    EXPECT_EQ(r.Position(), 0u);
    EXPECT_EQ(FormatErrorOf([&] {
                  r.ReadBytes(10, out);
                  r.ReadBytes(15, out);
              }),
              "DBF: unexpected end of file at byte 10: reading 15 bytes, 10 left");
}

TEST(BinaryReader, CorruptionChecksReportAlike) {
    TMemoryStream stream(Counting(40));
    TKvBinaryReader r(stream, "DBF");
    r.Seek(12);
    const uint64_t at = r.Position();
    r.ReadU32LE();
    try {
        r.CorruptAt(at, "the memo block 77 lies beyond the end of the file");
    } catch (const EKvFormatError& e) {
        EXPECT_STREQ(e.what(),
                     "DBF: damaged file at byte 12: the memo block 77 lies beyond the end of the file");
        EXPECT_EQ(e.Kind(), fekDamaged);
        EXPECT_EQ(e.Offset(), 12u);
        EXPECT_EQ(e.Format(), "DBF");
    }
    EXPECT_EQ(FormatErrorOf([&] { r.Corrupt("bad header"); }), "DBF: damaged file at byte 16: bad header");
    const std::string bytes = Counting(8);
    TByteReader m(bytes, r.Format(), 300);
    m.Skip(2);
    EXPECT_EQ(FormatErrorOf([&] { m.Corrupt("bad record"); }), "DBF: damaged file at byte 302: bad record");
    EXPECT_EQ(FormatErrorOf([&] { m.CorruptAt(0, "bad type"); }), "DBF: damaged file at byte 300: bad type");
}

TEST(AllocationGuard, RefusesSizesTheFileCannotHold) {
    struct Case {
        uint64_t Count, Size, Available, Total;
        std::string Error;
    } cases[] = {
        {10, 32, 320, 320, ""}, // an exact fit
        {0, 32, 0, 0, ""},
        {UINT64_MAX, 0, 0, 0, ""}, // nothing to allocate; a loop over it needs its own bound
        {11, 32, 320, 0,
         "DBF: damaged file at byte 64: the fields need 352 bytes, more than the 320 there are (11 × 32)"},
        {uint64_t{1} << 60, 16, UINT64_MAX, 0,
         "DBF: damaged file at byte 64: the fields need more than 2^64 bytes (1152921504606846976 × 16)"},
        {UINT64_MAX, UINT64_MAX, UINT64_MAX, 0,
         "DBF: damaged file at byte 64: the fields need more than 2^64 bytes (18446744073709551615 × "
         "18446744073709551615)"},
        {uint64_t{1} << 32, 1, UINT64_MAX, 0,
         "DBF: damaged file at byte 64: the fields need 4294967296 bytes, more than the 2147483648 a reader "
         "takes at once (4294967296 × 1)"},
        {kKvMaxAllocation, 1, UINT64_MAX, kKvMaxAllocation, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.Count) + " × " + std::to_string(c.Size));
        uint64_t total = 0;
        EXPECT_EQ(FormatErrorOf(
                      [&] { total = KvCheckedSize("DBF", 64, c.Count, c.Size, c.Available, "the fields"); }),
                  c.Error);
        if (c.Error.empty()) {
            EXPECT_EQ(total, c.Total);
        }
    }
}

TEST(AllocationGuard, ReadersCheckAgainstWhatRemains) {
    TMemoryStream stream(Counting(100));
    TKvBinaryReader r(stream, "SAV");
    r.Seek(68);
    EXPECT_EQ(r.CheckedSize(4, 8, "the variables"), 32u);
    EXPECT_EQ(
        FormatErrorOf([&] { r.CheckedSize(5, 8, "the variables"); }),
        "SAV: damaged file at byte 68: the variables need 40 bytes, more than the 32 there are (5 × 8)");
    EXPECT_EQ(r.CheckedSize(1000, 8, 8000, "the decompressed rows"), 8000u); // a bound of the format's own
    const std::string bytes = Counting(10);
    TByteReader m(bytes, "XLS", 1000);
    m.Skip(2);
    EXPECT_EQ(FormatErrorOf([&] { m.CheckedSize(3, 3, "the cells"); }),
              "XLS: damaged file at byte 1002: the cells need 9 bytes, more than the 8 there are (3 × 3)");
}

} // namespace
} // namespace kv
