#pragma once
// Little-endian bytes for the spreadsheet tests' builders, compound files built in memory, and property-set
// streams. The compound file's layout is fixed (FAT sectors, DIFAT, directory, mini FAT, mini stream, then
// the large streams in the order added), so that a test can damage one link and know where it lies.

#include "platform/Utf8.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kv::test {

inline std::string Le(uint64_t v, int bytes) {
    std::string s;
    for (int i = 0; i < bytes; ++i) s += static_cast<char>(v >> (8 * i));
    return s;
}
inline const auto U16 = [](uint16_t v) { return Le(v, 2); };
inline const auto U32 = [](uint32_t v) { return Le(v, 4); };
inline const auto U64 = [](uint64_t v) { return Le(v, 8); };
inline const auto F64 = [](double v) { return U64(std::bit_cast<uint64_t>(v)); };
inline const auto PutU32 = [](std::string& bytes, size_t at, uint32_t v) { bytes.replace(at, 4, U32(v)); };

class CompoundFileBuilder {
public:
    static constexpr uint32_t kEnd = 0xFFFFFFFE, kFree = 0xFFFFFFFF;

    /// A stream at `path` ("Dir/Inner"); storages above it are added as needed.
    CompoundFileBuilder& Stream(const std::string& path, std::string bytes) {
        Add(path, 2).Bytes = std::move(bytes);
        return *this;
    }
    CompoundFileBuilder& Storage(const std::string& path) { return Add(path, 1), *this; }
    /// 512 (version 3) or 4096 (version 4).
    CompoundFileBuilder& SetSectorSize(uint32_t size) { return sectorSize_ = size, *this; }
    /// FAT sector ids the header holds (109 at most); fewer gives a small file a DIFAT chain.
    CompoundFileBuilder& SetHeaderFatIds(uint32_t count) {
        return headerFatIds_ = std::min(count, 109u), *this;
    }

    /// The sectors of each structure in the last Build.
    struct Layout {
        std::vector<uint32_t> Fat, Difat, Directory, MiniFat;
    };
    const Layout& Where() const { return layout_; }
    /// The first sector, or mini sector, of the stream at `path` in the last Build.
    uint32_t Start(const std::string& path) const { return nodes_.at(Id(path)).Start; }

    size_t SectorOffset(uint32_t sector) const { return (size_t{sector} + 1) * sectorSize_; }
    size_t FatEntry(uint32_t sector) const { return In(layout_.Fat, size_t{sector} * 4); }
    size_t MiniFatEntry(uint32_t mini) const { return In(layout_.MiniFat, size_t{mini} * 4); }
    /// Where entry `id` (0 the root) starts: +66 type, +68 left, +72 right, +76 child, +116 start, +120 size.
    size_t Entry(uint32_t id) const { return In(layout_.Directory, size_t{id} * 128); }
    size_t Entry(const std::string& path) const { return Entry(Id(path)); }

    std::string Build() {
        layout_ = Layout();
        const uint32_t per = sectorSize_ / 4;
        // Each storage's children as a balanced tree in the order of names: shorter first, then upper-cased.
        std::map<uint32_t, std::vector<uint32_t>> children;
        for (uint32_t id = 1; id < nodes_.size(); ++id) {
            const size_t slash = nodes_[id].Path.rfind('/');
            children[slash == std::string::npos ? 0 : Id(nodes_[id].Path.substr(0, slash))].push_back(id);
        }
        auto key = [&](uint32_t id) {
            return std::pair(Utf8ToU32(nodes_[id].Name).size(), Utf8UpperCase(nodes_[id].Name));
        };
        for (auto& [parent, kids] : children) {
            std::sort(kids.begin(), kids.end(), [&](uint32_t a, uint32_t b) { return key(a) < key(b); });
            nodes_[parent].Child = Balance(kids, 0, kids.size());
        }
        // Small streams go to the mini stream, which the root holds; the others, and it, to sectors.
        std::string mini, miniFat;
        std::vector<Node*> large{&nodes_[0]};
        for (Node& n : nodes_) {
            if (n.Type != 2) continue;
            if (n.Bytes.size() >= 4096) {
                large.push_back(&n);
                continue;
            }
            const auto first = static_cast<uint32_t>(mini.size() / 64), count = Count(n.Bytes.size(), 64);
            n.Start = count ? first : kEnd;
            for (uint32_t k = 1; k <= count; ++k) miniFat += U32(k < count ? first + k : kEnd);
            mini += n.Bytes;
            mini.resize(size_t{Count(mini.size(), 64)} * 64, '\0');
        }
        nodes_[0].Bytes = mini;
        const uint32_t dirSectors = Count(nodes_.size() * 128), miniFatSectors = Count(miniFat.size());
        uint32_t data = dirSectors + miniFatSectors, fatSectors = 0, difatSectors = 0;
        for (const Node* n : large) data += Count(n->Bytes.size());
        do {
            ++fatSectors;
            difatSectors =
                fatSectors > headerFatIds_ ? (fatSectors - headerFatIds_ + per - 2) / (per - 1) : 0;
        } while (fatSectors * per < data + fatSectors + difatSectors);

        // Every chain is a run of sectors, in the order they are written.
        std::vector<uint32_t> fat;
        auto chain = [&](uint32_t count, std::vector<uint32_t>* ids = nullptr, uint32_t mark = 0) {
            const auto first = static_cast<uint32_t>(fat.size());
            for (uint32_t k = 0; k < count; ++k) {
                if (ids) ids->push_back(first + k);
                fat.push_back(mark ? mark : k + 1 < count ? first + k + 1 : kEnd);
            }
            return count ? first : kEnd;
        };
        Layout& lo = layout_;
        chain(fatSectors, &lo.Fat, 0xFFFFFFFD);
        chain(difatSectors, &lo.Difat, 0xFFFFFFFC);
        chain(dirSectors, &lo.Directory);
        chain(miniFatSectors, &lo.MiniFat);
        for (Node* n : large) n->Start = chain(Count(n->Bytes.size()));
        fat.resize(size_t{fatSectors} * per, kFree);

        const bool v4 = sectorSize_ == 4096;
        std::string file = std::string("\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1", 8) + std::string(16, '\0') +
                           U16(0x3E) + U16(v4 ? 4 : 3) + U16(0xFFFE) + U16(v4 ? 12 : 9) + U16(6) +
                           std::string(6, '\0') + U32(v4 ? dirSectors : 0) + U32(fatSectors) +
                           U32(lo.Directory[0]) + U32(0) + U32(4096) +
                           U32(lo.MiniFat.empty() ? kEnd : lo.MiniFat[0]) + U32(miniFatSectors) +
                           U32(lo.Difat.empty() ? kEnd : lo.Difat[0]) + U32(difatSectors);
        auto fatId = [&](size_t k) { return U32(k < fatSectors ? lo.Fat[k] : kFree); };
        for (uint32_t k = 0; k < 109; ++k) file += k < headerFatIds_ ? fatId(k) : U32(kFree);
        file.resize(sectorSize_, '\0');
        for (uint32_t link : fat) file += U32(link);
        for (uint32_t d = 0; d < difatSectors; ++d) {
            for (uint32_t k = 0; k + 1 < per; ++k) file += fatId(headerFatIds_ + size_t{d} * (per - 1) + k);
            file += U32(d + 1 < difatSectors ? lo.Difat[d + 1] : kEnd);
        }
        std::vector<Node> dir = nodes_;
        dir.resize(size_t{dirSectors} * (sectorSize_ / 128)); // unused slots: empty entries with no links
        for (const Node& e : dir) {
            const std::u32string name = Utf8ToU32(e.Name).substr(0, 31);
            std::string entry;
            for (char32_t c : name) entry += U16(static_cast<uint16_t>(c));
            entry.resize(64, '\0');
            entry += U16(name.empty() ? 0 : static_cast<uint16_t>((name.size() + 1) * 2)) +
                     static_cast<char>(e.Type) + '\1' + U32(e.Left) + U32(e.Right) + U32(e.Child);
            entry.resize(116, '\0');
            file += entry + U32(e.Type == 2 || e.Type == 5 ? e.Start : 0) + U64(e.Bytes.size());
        }
        file += Padded(miniFat, '\xFF');
        for (const Node* n : large) file += Padded(n->Bytes);
        return file;
    }

private:
    struct Node {
        std::string Path, Name;
        uint8_t Type = 0; ///< 1 storage, 2 stream, 5 root
        std::string Bytes;
        uint32_t Left = kFree, Right = kFree, Child = kFree, Start = kEnd;
    };

    Node& Add(const std::string& path, uint8_t type) {
        const size_t slash = path.rfind('/');
        if (slash != std::string::npos && Id(path.substr(0, slash)) == nodes_.size())
            Storage(path.substr(0, slash));
        nodes_.push_back({path, path.substr(slash + 1), type, {}}); // npos + 1 is 0: the whole path
        return nodes_.back();
    }
    uint32_t Id(const std::string& path) const {
        const auto it =
            std::find_if(nodes_.begin() + 1, nodes_.end(), [&](const Node& n) { return n.Path == path; });
        return static_cast<uint32_t>(it - nodes_.begin());
    }
    uint32_t Balance(const std::vector<uint32_t>& kids, size_t from, size_t to) {
        if (from >= to) return kFree;
        const size_t mid = (from + to) / 2;
        nodes_[kids[mid]].Left = Balance(kids, from, mid);
        nodes_[kids[mid]].Right = Balance(kids, mid + 1, to);
        return kids[mid];
    }
    size_t In(const std::vector<uint32_t>& sectors, size_t byte) const {
        return SectorOffset(sectors.at(byte / sectorSize_)) + byte % sectorSize_;
    }
    uint32_t Count(size_t bytes, size_t unit = 0) const {
        unit = unit ? unit : sectorSize_;
        return static_cast<uint32_t>((bytes + unit - 1) / unit);
    }
    std::string Padded(std::string s, char fill = '\0') const {
        s.resize(size_t{Count(s.size())} * sectorSize_, fill);
        return s;
    }

    std::vector<Node> nodes_{{"", "Root Entry", 5, {}}};
    uint32_t sectorSize_ = 512, headerFatIds_ = 109;
    Layout layout_;
};

// ---- property-set streams ----

/// The FMTIDs of the two summary property sets, as the 16 bytes a stream holds.
inline const std::string kSummaryFormatId("\xE0\x85\x9F\xF2\xF9\x4F\x68\x10\xAB\x91\x08\x00\x2B\x27\xB3\xD9",
                                          16);
inline const std::string
    kDocSummaryFormatId("\x02\xD5\xCD\xD5\x9C\x2E\x1B\x10\x93\x97\x08\x00\x2B\x2C\xF9\xAE", 16);

/// One property as written: its ID and its typed value (type word, value, padded to 4 bytes).
using RawProperty = std::pair<uint32_t, std::string>;
inline RawProperty Prop(uint32_t id, uint32_t type, std::string value) {
    value = U32(type) + value;
    value.resize((value.size() + 3) / 4 * 4, '\0');
    return {id, value};
}
inline const auto PropI2 = [](uint32_t id, int16_t v) { return Prop(id, 2, U16(static_cast<uint16_t>(v))); };
inline const auto PropI4 = [](uint32_t id, int32_t v) { return Prop(id, 3, U32(static_cast<uint32_t>(v))); };
/// VT_LPSTR: `bytes` in the section's code page; a NUL is added unless `terminate` is false.
inline RawProperty PropString(uint32_t id, std::string bytes, bool terminate = true) {
    if (terminate) bytes += '\0';
    return Prop(id, 30, U32(static_cast<uint32_t>(bytes.size())) + bytes);
}
/// VT_LPWSTR from UTF-8 text (of the Basic Multilingual Plane).
inline RawProperty PropWString(uint32_t id, const std::string& text) {
    std::string units;
    for (char32_t c : Utf8ToU32(text) + U'\0') units += U16(static_cast<uint16_t>(c));
    return Prop(id, 31, U32(static_cast<uint32_t>(units.size() / 2)) + units);
}

/// A section: its FMTID and properties.
using PropertySection = std::pair<std::string, std::vector<RawProperty>>;

/// A property-set stream holding `sections`, each property's offset pointing at its value.
inline std::string PropertySetStream(const std::vector<PropertySection>& sections) {
    std::string out = U16(0xFFFE) + U16(0) + U32(0x00020006) + std::string(16, '\0') +
                      U32(static_cast<uint32_t>(sections.size()));
    const size_t headerEnd = out.size() + sections.size() * 20;
    std::string body;
    for (const auto& [formatId, properties] : sections) {
        out += formatId + U32(static_cast<uint32_t>(headerEnd + body.size()));
        std::string table, values;
        const size_t valuesStart = 8 + properties.size() * 8;
        for (const auto& [id, value] : properties) {
            table += U32(id) + U32(static_cast<uint32_t>(valuesStart + values.size()));
            values += value;
        }
        body += U32(static_cast<uint32_t>(valuesStart + values.size())) +
                U32(static_cast<uint32_t>(properties.size())) + table + values;
    }
    return out + body;
}

} // namespace kv::test
