#pragma once
// A dBase table written in memory, for the reader's tests and the command line's.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace kv::test {

struct Field {
    std::string Name;
    char Type = 'C';
    int Length = 10;
    int Decimals = 0;
};

/// Writes a table in memory: header, descriptors, records, end-of-file byte.
struct Table {
    uint8_t Version = 0x03;
    uint8_t Driver = 0;
    std::vector<Field> Fields{};
    std::vector<std::string> Records{};
    std::optional<uint32_t> Count{};      ///< the header's record count, when it should lie
    std::optional<uint16_t> HeaderSize{}; ///< likewise
    std::optional<uint16_t> RecordSize{};
    std::string DriverName = "DBWINUS0"; ///< level 7 only
    bool Pad = true;                     ///< fill the header up to its size

    bool Level7() const { return Version == 0x04 || Version == 0x8C; }

    /// A record of `values`, each padded with spaces to its field's length; `status` '*' deletes it.
    Table& Add(std::vector<std::string> values, char status = ' ') {
        std::string record(1, status);
        for (size_t i = 0; i < Fields.size(); ++i) {
            std::string v = i < values.size() ? values[i] : "";
            v.resize(static_cast<size_t>(Fields[i].Length), ' ');
            record += v;
        }
        Records.push_back(record);
        return *this;
    }

    std::string Build() const {
        const size_t descriptor = Level7() ? 48 : 32;
        const size_t extra = Level7() ? 36 : 0;
        const size_t backlink = Version == 0x30 ? 263 : 0;
        int recordSize = 1;
        for (const Field& f : Fields) recordSize += f.Length;
        std::string out(32, '\0');
        out[0] = static_cast<char>(Version);
        const uint32_t count = Count.value_or(static_cast<uint32_t>(Records.size()));
        const uint16_t header = HeaderSize.value_or(
            static_cast<uint16_t>(32 + extra + descriptor * Fields.size() + 1 + backlink));
        const uint16_t size = RecordSize.value_or(static_cast<uint16_t>(recordSize));
        std::memcpy(&out[4], &count, 4);
        std::memcpy(&out[8], &header, 2);
        std::memcpy(&out[10], &size, 2);
        out[29] = static_cast<char>(Driver);
        if (Level7()) {
            std::string name = DriverName;
            name.resize(32, '\0');
            out += name + std::string(4, '\0');
        }
        for (const Field& f : Fields) {
            std::string d(descriptor, '\0');
            d.replace(0, std::min(f.Name.size(), Level7() ? size_t{32} : size_t{11}), f.Name);
            const size_t type = Level7() ? 32 : 11;
            d[type] = f.Type;
            d[Level7() ? 33 : 16] = static_cast<char>(f.Length);
            d[Level7() ? 34 : 17] = static_cast<char>(f.Decimals);
            out += d;
        }
        out += '\x0D';
        out += std::string(backlink, '\0');
        if (Pad) out.resize(std::max<size_t>(out.size(), header), '\0');
        for (const std::string& r : Records) out += r;
        return out + '\x1A';
    }
};

} // namespace kv::test
