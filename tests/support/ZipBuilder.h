#pragma once
// Zip archives written in memory, for the zip readers' tests and the command line's. Each member may be
// stored or deflated, carry a data descriptor or Zip64 fields; the archive may have a comment, bytes
// before and after it and a Zip64 end record. Where every header lies is kept, so that a test can damage
// one field and know where it is.

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>
#include <zlib.h>

namespace kv::test {

/// Raw deflate data (no zlib header) of `data`.
inline std::string Deflate(std::string_view data, int level = Z_DEFAULT_COMPRESSION) {
    z_stream z{};
    if (deflateInit2(&z, level, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        throw std::runtime_error("deflateInit2");
    std::string out(deflateBound(&z, static_cast<uLong>(data.size())), '\0');
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
    z.avail_in = static_cast<uInt>(data.size());
    z.next_out = reinterpret_cast<Bytef*>(out.data());
    z.avail_out = static_cast<uInt>(out.size());
    deflate(&z, Z_FINISH);
    out.resize(z.total_out);
    deflateEnd(&z);
    return out;
}

struct ZipMember {
    std::string Name;
    std::string Data;                       ///< the content
    uint16_t Method = 8;                    ///< 0 stores Data, 8 deflates it; other methods store Stored
    std::optional<std::string> Stored = {}; ///< the bytes stored, when not made from Data
    std::optional<uint32_t> Crc = {};       ///< when not that of Data
    std::optional<uint64_t> Size = {};      ///< the declared size, when not Data's
    bool Descriptor = false;                ///< sizes and CRC in a data descriptor after the data
    bool Zip64 = false;                     ///< sizes and offset in Zip64 fields
    uint16_t Flags = 0;                     ///< more general purpose bits (1: encrypted, 0x800: UTF-8)
    std::string Extra = {};                 ///< added to both extra fields
    std::string Comment = {};
    uint16_t DosTime = 14 << 11 | 30 << 5 | 10; ///< 14:30:20
    uint16_t DosDate = 44 << 9 | 3 << 5 | 5;    ///< 2024-03-05
};

class ZipBuilder {
public:
    static std::string Le(uint64_t v, int bytes) {
        std::string s;
        for (int i = 0; i < bytes; ++i) s += static_cast<char>(v >> (8 * i));
        return s;
    }
    static void Put16(std::string& bytes, size_t at, uint16_t v) { bytes.replace(at, 2, Le(v, 2)); }
    static void Put32(std::string& bytes, size_t at, uint32_t v) { bytes.replace(at, 4, Le(v, 4)); }

    ZipBuilder& Add(ZipMember member) {
        members_.push_back(std::move(member));
        return *this;
    }
    ZipBuilder& Add(std::string name, std::string data, uint16_t method = 8) {
        return Add(ZipMember{std::move(name), std::move(data), method});
    }
    ZipBuilder& Comment(std::string comment) { return comment_ = std::move(comment), *this; }
    /// Bytes before the archive (a self-extracting program), whose offsets do not count them.
    ZipBuilder& Prefix(std::string bytes) { return prefix_ = std::move(bytes), *this; }
    ZipBuilder& Suffix(std::string bytes) { return suffix_ = std::move(bytes), *this; }
    /// A Zip64 end record and locator before the end record, whose fields then hold 0xFFFF(FFFF).
    ZipBuilder& Zip64End(bool on = true) { return zip64End_ = on, *this; }

    /// Where the last Build put each part, as offsets in its bytes.
    struct Layout {
        std::vector<size_t> Local, Data, Central;
        size_t Directory = 0, End = 0;
    };
    const Layout& Where() const { return layout_; }

    std::string Build() {
        layout_ = {};
        std::string out = prefix_;
        const size_t base = prefix_.size();
        std::vector<std::string> stored;
        for (const ZipMember& m : members_) {
            stored.push_back(m.Stored ? *m.Stored : m.Method == 8 ? Deflate(m.Data) : m.Data);
            const std::string& data = stored.back();
            layout_.Local.push_back(out.size());
            const uint32_t crc = Crc(m);
            const uint64_t size = m.Size.value_or(m.Data.size());
            const uint32_t flags = m.Flags | (m.Descriptor ? 8 : 0);
            std::string extra = m.Extra;
            if (m.Zip64) extra += Le(1, 2) + Le(16, 2) + Le(size, 8) + Le(data.size(), 8);
            out += Le(0x04034B50, 4) + Le(m.Zip64 ? 45 : 20, 2) + Le(flags, 2) + Le(m.Method, 2) +
                   Le(m.DosTime, 2) + Le(m.DosDate, 2) + Le(m.Descriptor ? 0 : crc, 4) +
                   Le(m.Descriptor ? 0
                      : m.Zip64    ? 0xFFFFFFFF
                                   : data.size(),
                      4) +
                   Le(m.Descriptor ? 0
                      : m.Zip64    ? 0xFFFFFFFF
                                   : size,
                      4) +
                   Le(m.Name.size(), 2) + Le(extra.size(), 2) + m.Name + extra;
            layout_.Data.push_back(out.size());
            out += data;
            if (m.Descriptor)
                out += Le(0x08074B50, 4) + Le(crc, 4) + Le(data.size(), m.Zip64 ? 8 : 4) +
                       Le(size, m.Zip64 ? 8 : 4);
        }
        layout_.Directory = out.size();
        for (size_t i = 0; i < members_.size(); ++i) {
            const ZipMember& m = members_[i];
            const uint64_t size = m.Size.value_or(m.Data.size());
            const uint64_t offset = layout_.Local[i] - base;
            std::string extra = m.Extra;
            if (m.Zip64)
                extra += Le(1, 2) + Le(24, 2) + Le(size, 8) + Le(stored[i].size(), 8) + Le(offset, 8);
            layout_.Central.push_back(out.size());
            out += Le(0x02014B50, 4) + Le(0x031E, 2) + Le(m.Zip64 ? 45 : 20, 2) +
                   Le(m.Flags | (m.Descriptor ? 8 : 0), 2) + Le(m.Method, 2) + Le(m.DosTime, 2) +
                   Le(m.DosDate, 2) + Le(Crc(m), 4) + Le(m.Zip64 ? 0xFFFFFFFF : stored[i].size(), 4) +
                   Le(m.Zip64 ? 0xFFFFFFFF : size, 4) + Le(m.Name.size(), 2) + Le(extra.size(), 2) +
                   Le(m.Comment.size(), 2) + Le(0, 2) + Le(0, 2) + Le(0100644u << 16, 4) +
                   Le(m.Zip64 ? 0xFFFFFFFF : offset, 4) + m.Name + extra + m.Comment;
        }
        const uint64_t directorySize = out.size() - layout_.Directory, count = members_.size();
        const uint64_t directoryOffset = layout_.Directory - base;
        if (zip64End_) {
            const uint64_t record = out.size() - base;
            out += Le(0x06064B50, 4) + Le(44, 8) + Le(45, 2) + Le(45, 2) + Le(0, 4) + Le(0, 4) +
                   Le(count, 8) + Le(count, 8) + Le(directorySize, 8) + Le(directoryOffset, 8);
            out += Le(0x07064B50, 4) + Le(0, 4) + Le(record, 8) + Le(1, 4);
        }
        layout_.End = out.size();
        out += Le(0x06054B50, 4) + Le(0, 2) + Le(0, 2) + Le(zip64End_ ? 0xFFFF : count, 2) +
               Le(zip64End_ ? 0xFFFF : count, 2) + Le(zip64End_ ? 0xFFFFFFFF : directorySize, 4) +
               Le(zip64End_ ? 0xFFFFFFFF : directoryOffset, 4) + Le(comment_.size(), 2) + comment_;
        return out + suffix_;
    }

private:
    static uint32_t Crc(const ZipMember& m) {
        if (m.Crc) return *m.Crc;
        return static_cast<uint32_t>(
            crc32(0, reinterpret_cast<const Bytef*>(m.Data.data()), static_cast<uInt>(m.Data.size())));
    }

    std::vector<ZipMember> members_;
    std::string comment_, prefix_, suffix_;
    bool zip64End_ = false;
    Layout layout_;
};

} // namespace kv::test
