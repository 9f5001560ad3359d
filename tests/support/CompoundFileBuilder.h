#pragma once
// Compound files and property-set streams written in memory, for the tests of the compound-file reader,
// the property sets, the summary information and the Excel reader. The layout is plain and known (FAT
// sectors first, then DIFAT, directory, mini FAT, mini stream, then the large streams), so that a test can
// damage one link of a built file and say where.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace kv::test {

inline void PutU16(std::string& bytes, size_t offset, uint16_t v) {
    for (int i = 0; i < 2; ++i) bytes[offset + i] = static_cast<char>(v >> (8 * i));
}
inline void PutU32(std::string& bytes, size_t offset, uint32_t v) {
    for (int i = 0; i < 4; ++i) bytes[offset + i] = static_cast<char>(v >> (8 * i));
}
inline void PutU64(std::string& bytes, size_t offset, uint64_t v) {
    for (int i = 0; i < 8; ++i) bytes[offset + i] = static_cast<char>(v >> (8 * i));
}
inline std::string U16(uint16_t v) {
    std::string s(2, '\0');
    PutU16(s, 0, v);
    return s;
}
inline std::string U32(uint32_t v) {
    std::string s(4, '\0');
    PutU32(s, 0, v);
    return s;
}
inline std::string U64(uint64_t v) {
    std::string s(8, '\0');
    PutU64(s, 0, v);
    return s;
}

class CompoundFileBuilder {
public:
    static constexpr uint32_t kEnd = 0xFFFFFFFE;
    static constexpr uint32_t kFree = 0xFFFFFFFF;

    /// A stream at `path` ("Workbook", "Storage/Inner"); the storages above it are made as needed. Names
    /// are ASCII or UTF-8 (written as UTF-16).
    CompoundFileBuilder& Stream(const std::string& path, std::string bytes) {
        Add(path, 2).Bytes = std::move(bytes);
        return *this;
    }
    CompoundFileBuilder& Storage(const std::string& path) {
        Add(path, 1);
        return *this;
    }
    /// 512 (version 3) or 4096 (version 4).
    CompoundFileBuilder& SetSectorSize(uint32_t size) {
        sectorSize_ = size;
        return *this;
    }
    /// How many FAT sector ids the header holds (109 at most): fewer puts the rest in DIFAT sectors, so
    /// that a small file has a DIFAT chain.
    CompoundFileBuilder& SetHeaderFatIds(uint32_t count) {
        headerFatIds_ = std::min<uint32_t>(count, 109);
        return *this;
    }

    /// Where things landed in the last Build.
    struct Layout {
        std::vector<uint32_t> Fat, Difat, Directory, MiniFat, MiniStream;
        std::map<std::string, uint32_t> Ids;    ///< directory entry id by path
        std::map<std::string, uint32_t> Starts; ///< first sector (or mini sector) of a stream
    };
    const Layout& Where() const { return layout_; }

    uint32_t SectorSize() const { return sectorSize_; }
    size_t SectorOffset(uint32_t sector) const { return (size_t{sector} + 1) * sectorSize_; }
    /// The byte of the FAT entry (the link) of `sector`.
    size_t FatEntry(uint32_t sector) const {
        return SectorOffset(layout_.Fat[sector / (sectorSize_ / 4)]) + sector % (sectorSize_ / 4) * 4;
    }
    size_t MiniFatEntry(uint32_t miniSector) const {
        return SectorOffset(layout_.MiniFat[miniSector / (sectorSize_ / 4)]) +
               miniSector % (sectorSize_ / 4) * 4;
    }
    /// The byte where directory entry `id` starts; its fields: +64 name length, +66 type, +68 left,
    /// +72 right, +76 child, +116 start sector, +120 size.
    size_t Entry(uint32_t id) const {
        const uint32_t per = sectorSize_ / 128;
        return SectorOffset(layout_.Directory[id / per]) + id % per * 128;
    }
    size_t Entry(const std::string& path) const { return Entry(layout_.Ids.at(path)); }

    std::string Build() {
        layout_ = Layout();
        const uint32_t per = sectorSize_ / 4;
        // Directory ids: the root, then the nodes as added.
        for (size_t i = 0; i < nodes_.size(); ++i) layout_.Ids[nodes_[i].Path] = static_cast<uint32_t>(i + 1);
        std::vector<Dir> dir(nodes_.size() + 1);
        dir[0].Name = "Root Entry";
        dir[0].Type = 5;
        for (size_t i = 0; i < nodes_.size(); ++i) {
            dir[i + 1].Name = nodes_[i].Name;
            dir[i + 1].Type = nodes_[i].Type;
        }
        // Each storage's children as a balanced tree, in the order compound files sort names.
        std::map<uint32_t, std::vector<uint32_t>> children;
        for (size_t i = 0; i < nodes_.size(); ++i)
            children[Parent(nodes_[i].Path)].push_back(uint32_t(i + 1));
        for (auto& [parent, kids] : children) {
            std::sort(kids.begin(), kids.end(),
                      [&](uint32_t a, uint32_t b) { return Less(dir[a].Name, dir[b].Name); });
            dir[parent].Child = Balance(dir, kids, 0, kids.size());
        }
        // The mini stream and the large streams.
        std::string mini;
        std::vector<uint32_t> miniFat;
        std::vector<std::pair<size_t, std::string*>> large;
        for (size_t i = 0; i < nodes_.size(); ++i) {
            Node& n = nodes_[i];
            if (n.Type != 2) continue;
            dir[i + 1].Size = n.Bytes.size();
            if (n.Bytes.size() < 4096) {
                const auto first = static_cast<uint32_t>(mini.size() / 64);
                const size_t count = (n.Bytes.size() + 63) / 64;
                dir[i + 1].Start = count ? first : kEnd;
                for (size_t k = 0; k < count; ++k)
                    miniFat.push_back(k + 1 < count ? first + uint32_t(k) + 1 : kEnd);
                mini += n.Bytes;
                mini.resize((mini.size() + 63) / 64 * 64, '\0');
            } else {
                large.emplace_back(i + 1, &n.Bytes);
            }
        }
        const uint32_t dirSectors = Sectors((nodes_.size() + 1) * 128);
        const uint32_t miniFatSectors = Sectors(miniFat.size() * 4);
        const uint32_t miniSectors = Sectors(mini.size());
        uint32_t data = dirSectors + miniFatSectors + miniSectors;
        for (const auto& l : large) data += Sectors(l.second->size());
        uint32_t fatSectors = 1, difatSectors = 0;
        for (;;) {
            difatSectors =
                fatSectors > headerFatIds_ ? (fatSectors - headerFatIds_ + per - 2) / (per - 1) : 0;
            if (fatSectors * per >= data + fatSectors + difatSectors) break;
            ++fatSectors;
        }
        std::vector<uint32_t> fat(fatSectors * per, kFree);
        uint32_t next = 0;
        auto take = [&](uint32_t count, uint32_t mark, std::vector<uint32_t>& ids) {
            for (uint32_t k = 0; k < count; ++k) {
                ids.push_back(next);
                fat[next] = mark ? mark : (k + 1 < count ? next + 1 : kEnd);
                ++next;
            }
        };
        take(fatSectors, 0xFFFFFFFD, layout_.Fat);
        take(difatSectors, 0xFFFFFFFC, layout_.Difat);
        take(dirSectors, 0, layout_.Directory);
        take(miniFatSectors, 0, layout_.MiniFat);
        take(miniSectors, 0, layout_.MiniStream);
        std::string file(SectorOffset(next), '\0');
        dir[0].Start = miniSectors ? layout_.MiniStream[0] : kEnd;
        dir[0].Size = mini.size();
        for (auto& [id, bytes] : large) {
            std::vector<uint32_t> ids;
            take(Sectors(bytes->size()), 0, ids);
            dir[id].Start = ids[0];
            file.resize(SectorOffset(next), '\0');
            for (size_t k = 0; k < ids.size(); ++k)
                file.replace(SectorOffset(ids[k]),
                             std::min<size_t>(sectorSize_, bytes->size() - k * sectorSize_),
                             bytes->substr(k * sectorSize_, sectorSize_));
        }
        for (size_t i = 0; i < nodes_.size(); ++i)
            if (nodes_[i].Type == 2) layout_.Starts[nodes_[i].Path] = dir[i + 1].Start;
        // Header.
        const char signature[] = "\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1";
        file.replace(0, 8, signature, 8);
        PutU16(file, 0x18, 0x3E);
        PutU16(file, 0x1A, sectorSize_ == 4096 ? 4 : 3);
        PutU16(file, 0x1C, 0xFFFE);
        PutU16(file, 0x1E, sectorSize_ == 4096 ? 12 : 9);
        PutU16(file, 0x20, 6);
        PutU32(file, 0x28, sectorSize_ == 4096 ? dirSectors : 0);
        PutU32(file, 0x2C, fatSectors);
        PutU32(file, 0x30, layout_.Directory[0]);
        PutU32(file, 0x38, 4096);
        PutU32(file, 0x3C, miniFatSectors ? layout_.MiniFat[0] : kEnd);
        PutU32(file, 0x40, miniFatSectors);
        PutU32(file, 0x44, difatSectors ? layout_.Difat[0] : kEnd);
        PutU32(file, 0x48, difatSectors);
        for (uint32_t k = 0; k < 109; ++k)
            PutU32(file, 0x4C + k * 4, k < headerFatIds_ && k < fatSectors ? layout_.Fat[k] : kFree);
        for (uint32_t d = 0; d < difatSectors; ++d) {
            const size_t at = SectorOffset(layout_.Difat[d]);
            for (uint32_t k = 0; k + 1 < per; ++k) {
                const uint32_t index = headerFatIds_ + d * (per - 1) + k;
                PutU32(file, at + k * 4, index < fatSectors ? layout_.Fat[index] : kFree);
            }
            PutU32(file, at + (per - 1) * 4, d + 1 < difatSectors ? layout_.Difat[d + 1] : kEnd);
        }
        for (uint32_t k = 0; k < fat.size(); ++k) PutU32(file, FatEntry(k), fat[k]);
        for (uint32_t k = 0; k < miniFatSectors * per; ++k)
            PutU32(file, MiniFatEntry(k), k < miniFat.size() ? miniFat[k] : kFree);
        for (uint32_t k = 0; k < miniSectors; ++k)
            file.replace(
                SectorOffset(layout_.MiniStream[k]), sectorSize_,
                mini.substr(k * sectorSize_, sectorSize_)
                    .append(sectorSize_ - std::min<size_t>(sectorSize_, mini.size() - k * sectorSize_),
                            '\0'));
        for (uint32_t id = 0; id < dir.size(); ++id) {
            const size_t at = Entry(id);
            const std::u16string name = Utf16(dir[id].Name);
            for (size_t k = 0; k < name.size() && k < 31; ++k) PutU16(file, at + k * 2, name[k]);
            PutU16(file, at + 64, static_cast<uint16_t>((std::min<size_t>(name.size(), 31) + 1) * 2));
            file[at + 66] = static_cast<char>(dir[id].Type);
            file[at + 67] = 1; // black
            PutU32(file, at + 68, dir[id].Left);
            PutU32(file, at + 72, dir[id].Right);
            PutU32(file, at + 76, dir[id].Child);
            PutU32(file, at + 116, dir[id].Type == 1 ? 0 : dir[id].Start);
            PutU64(file, at + 120, dir[id].Size);
        }
        // Unused directory slots are empty entries with no links.
        for (uint32_t id = static_cast<uint32_t>(dir.size()); id < dirSectors * (sectorSize_ / 128); ++id) {
            PutU32(file, Entry(id) + 68, kFree);
            PutU32(file, Entry(id) + 72, kFree);
            PutU32(file, Entry(id) + 76, kFree);
        }
        return file;
    }

    /// Names compared as compound files sort them: shorter first, then by upper-cased UTF-16 units.
    static bool Less(const std::string& a, const std::string& b) {
        const std::u16string ua = Utf16(a), ub = Utf16(b);
        if (ua.size() != ub.size()) return ua.size() < ub.size();
        for (size_t i = 0; i < ua.size(); ++i) {
            const char16_t x = Upper(ua[i]), y = Upper(ub[i]);
            if (x != y) return x < y;
        }
        return false;
    }

    static std::u16string Utf16(const std::string& utf8) {
        std::u16string out;
        for (size_t i = 0; i < utf8.size();) {
            const auto c = static_cast<unsigned char>(utf8[i]);
            char32_t cp = c;
            size_t len = 1;
            if (c >= 0xF0)
                cp = c & 0x07, len = 4;
            else if (c >= 0xE0)
                cp = c & 0x0F, len = 3;
            else if (c >= 0xC0)
                cp = c & 0x1F, len = 2;
            for (size_t k = 1; k < len && i + k < utf8.size(); ++k) cp = (cp << 6) | (utf8[i + k] & 0x3F);
            i += len;
            if (cp >= 0x10000) {
                out += static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10));
                out += static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF));
            } else {
                out += static_cast<char16_t>(cp);
            }
        }
        return out;
    }

private:
    struct Node {
        std::string Path, Name;
        uint8_t Type = 2;
        std::string Bytes;
    };
    struct Dir {
        std::string Name;
        uint8_t Type = 0;
        uint32_t Left = kFree, Right = kFree, Child = kFree, Start = kEnd;
        uint64_t Size = 0;
    };

    Node& Add(const std::string& path, uint8_t type) {
        const size_t slash = path.rfind('/');
        if (slash != std::string::npos && !Has(path.substr(0, slash))) Storage(path.substr(0, slash));
        nodes_.push_back({path, slash == std::string::npos ? path : path.substr(slash + 1), type, {}});
        return nodes_.back();
    }
    bool Has(const std::string& path) const {
        return std::any_of(nodes_.begin(), nodes_.end(), [&](const Node& n) { return n.Path == path; });
    }
    uint32_t Parent(const std::string& path) const {
        const size_t slash = path.rfind('/');
        if (slash == std::string::npos) return 0;
        for (size_t i = 0; i < nodes_.size(); ++i)
            if (nodes_[i].Path == path.substr(0, slash)) return static_cast<uint32_t>(i + 1);
        return 0;
    }
    static uint32_t Balance(std::vector<Dir>& dir, const std::vector<uint32_t>& kids, size_t from,
                            size_t to) {
        if (from >= to) return kFree;
        const size_t mid = (from + to) / 2;
        dir[kids[mid]].Left = Balance(dir, kids, from, mid);
        dir[kids[mid]].Right = Balance(dir, kids, mid + 1, to);
        return kids[mid];
    }
    static char16_t Upper(char16_t c) {
        if ((c >= u'a' && c <= u'z') || (c >= 0xE0 && c <= 0xFE && c != 0xF7))
            return static_cast<char16_t>(c - 0x20);
        return c;
    }
    uint32_t Sectors(size_t bytes) const {
        return static_cast<uint32_t>((bytes + sectorSize_ - 1) / sectorSize_);
    }

    std::vector<Node> nodes_;
    uint32_t sectorSize_ = 512;
    uint32_t headerFatIds_ = 109;
    Layout layout_;
};

// ---- property-set streams ----

/// The FMTIDs of the two summary property sets, as the 16 bytes a stream holds.
inline const std::string kSummaryFormatId("\xE0\x85\x9F\xF2\xF9\x4F\x68\x10\xAB\x91\x08\x00\x2B\x27\xB3\xD9",
                                          16);
inline const std::string
    kDocSummaryFormatId("\x02\xD5\xCD\xD5\x9C\x2E\x1B\x10\x93\x97\x08\x00\x2B\x2C\xF9\xAE", 16);

/// One property as written: its ID and its typed value (type word, padding, value, padded to 4 bytes).
struct RawProperty {
    uint32_t Id;
    std::string Value;
};

inline std::string Padded(std::string s) {
    s.resize((s.size() + 3) / 4 * 4, '\0');
    return s;
}
inline RawProperty PropI2(uint32_t id, int16_t v) {
    return {id, Padded(U32(2) + U16(static_cast<uint16_t>(v)))};
}
inline RawProperty PropI4(uint32_t id, int32_t v) {
    return {id, U32(3) + U32(static_cast<uint32_t>(v))};
}
inline RawProperty PropBool(uint32_t id, bool v) {
    return {id, Padded(U32(11) + U16(v ? 0xFFFF : 0))};
}
inline RawProperty PropR8(uint32_t id, double v) {
    uint64_t bits;
    std::memcpy(&bits, &v, 8);
    return {id, U32(5) + U64(bits)};
}
inline RawProperty PropFileTime(uint32_t id, uint64_t v) {
    return {id, U32(64) + U64(v)};
}
/// VT_LPSTR: `bytes` in the section's code page; a NUL is added unless `terminate` is false.
inline RawProperty PropString(uint32_t id, std::string bytes, bool terminate = true) {
    if (terminate) bytes += '\0';
    return {id, Padded(U32(30) + U32(static_cast<uint32_t>(bytes.size())) + bytes)};
}
/// VT_LPWSTR from UTF-8 text.
inline RawProperty PropWString(uint32_t id, const std::string& text) {
    std::u16string units = CompoundFileBuilder::Utf16(text) + u'\0';
    std::string bytes;
    for (char16_t u : units) bytes += U16(u);
    return {id, Padded(U32(31) + U32(static_cast<uint32_t>(units.size())) + bytes)};
}

struct PropertySection {
    std::string FormatId;
    std::vector<RawProperty> Properties;
};

/// A property-set stream holding `sections` (one or two), each property's offset pointing at its value.
inline std::string PropertySetStream(const std::vector<PropertySection>& sections) {
    std::string out = U16(0xFFFE) + U16(0) + U32(0x00020006) + std::string(16, '\0') +
                      U32(static_cast<uint32_t>(sections.size()));
    const size_t headerEnd = out.size() + sections.size() * 20;
    std::string body;
    for (const PropertySection& s : sections) {
        out += s.FormatId + U32(static_cast<uint32_t>(headerEnd + body.size()));
        std::string table, values;
        const size_t valuesStart = 8 + s.Properties.size() * 8;
        for (const RawProperty& p : s.Properties) {
            table += U32(p.Id) + U32(static_cast<uint32_t>(valuesStart + values.size()));
            values += p.Value;
        }
        body += U32(static_cast<uint32_t>(valuesStart + values.size())) +
                U32(static_cast<uint32_t>(s.Properties.size())) + table + values;
    }
    return out + body;
}

} // namespace kv::test
