#pragma once
// An SPSS system file written in memory, for the reader's tests, the command line's and the fuzz seeds:
// the dictionary with the records real writers emit, and the cases uncompressed, bytecode-compressed or
// in zlib blocks, in either byte order.

#include <zlib.h>

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kv::test {

/// A value of a case: a number, the system-missing value, or text.
struct SavValue {
    bool IsText = false;
    bool Sysmis = false;
    double Number = 0;
    std::string Text;

    SavValue(double n) : Number(n) {}
    SavValue(int n) : Number(n) {}
    SavValue(const char* t) : IsText(true), Text(t) {}
    SavValue(std::string t) : IsText(true), Text(std::move(t)) {}
    static SavValue Missing() {
        SavValue v(0.0);
        v.Sysmis = true;
        return v;
    }
};

struct SavVar {
    std::string Name;    ///< written as the long name; the short name is V<n>
    int Width = 0;       ///< 0 for a number; over 255 makes a very long string
    uint32_t Format = 0; ///< packed print and write format; 0: F8.2 for numbers, A<width> for strings
    std::string Label{};
    int MissingCode = 0; ///< as the variable record has it: 0 to 3, -2 (range), -3 (range and one)
    std::vector<double> Missing{};
    std::vector<std::string> MissingTexts{}; ///< strings' missing values (record 22 for strings over 8)
    std::vector<std::pair<SavValue, std::string>> Labels{};
};

/// Format codes, packed as (type << 16) | (width << 8) | decimals.
constexpr uint32_t SavFormat(int type, int width, int decimals = 0) {
    return static_cast<uint32_t>((type << 16) | (width << 8) | decimals);
}

struct SavFile {
    std::vector<SavVar> Vars;
    std::vector<std::vector<SavValue>> Cases;
    int Compression = 1; ///< 0 none, 1 bytecode, 2 zlib
    bool BigEndian = false;
    bool EndCode = true;                        ///< bytecode: the end code after the last case
    bool DeclareCount = true;                   ///< false: the header says -1 and there is no record 16
    std::optional<int32_t> CaseCount, CaseSize; ///< values for the header that disagree with the rest
    std::string Encoding = "UTF-8";             ///< record 20; "" for none
    int32_t CharacterCode = 65001;
    std::vector<std::string> Documents;
    std::string Records;      ///< raw records written just before the 999 record
    bool End = true;          ///< write the 999 record
    size_t ZBlock = 0x3ff000; ///< uncompressed bytes per zlib block

    /// The file; `dataStart`, when given, receives the offset where the data follows the dictionary.
    std::string Build(size_t* dataStart = nullptr) const {
        std::string out = Header();
        std::string names, veryLong, longLabels, longMissing;
        for (size_t i = 0; i < Vars.size(); ++i) {
            const SavVar& v = Vars[i];
            const std::string shortName = "V" + std::to_string(i + 1);
            names += (names.empty() ? "" : "\t") + shortName + "=" + v.Name;
            const int segments = v.Width > 255 ? (v.Width + 251) / 252 : 1;
            if (segments > 1)
                veryLong += shortName + "=" + std::to_string(v.Width) + std::string(1, '\0') + "\t";
            for (int s = 0; s < segments; ++s) {
                const int width = segments == 1      ? v.Width
                                  : s < segments - 1 ? 255
                                                     : v.Width - (segments - 1) * 252;
                const uint32_t format = v.Format  ? v.Format
                                        : v.Width ? SavFormat(1, std::min(width, 255))
                                                  : SavFormat(5, 8, 2);
                const bool first = s == 0;
                const bool shortMissing = first && v.MissingCode != 0 && v.Width <= 8;
                out += I32(2) + I32(width) + I32(first && !v.Label.empty()) +
                       I32(shortMissing ? v.MissingCode : 0) + I32(static_cast<int32_t>(format)) +
                       I32(static_cast<int32_t>(format)) +
                       Padded(first ? shortName : shortName + "S" + std::to_string(s), 8);
                if (first && !v.Label.empty())
                    out += I32(static_cast<int32_t>(v.Label.size())) +
                           Padded(v.Label, (v.Label.size() + 3) / 4 * 4);
                if (shortMissing) {
                    for (double m : v.Missing) out += F64(m);
                    for (const std::string& m : v.MissingTexts) out += Padded(m, 8);
                }
                for (int c = 1; c < (width + 7) / 8; ++c)
                    out += I32(2) + I32(-1) + I32(0) + I32(0) + I32(0) + I32(0) + std::string(8, ' ');
            }
            if (v.Width > 8 && v.MissingCode) {
                longMissing +=
                    Counted(v.Name) + std::string(1, static_cast<char>(v.MissingTexts.size())) + I32(8);
                for (const std::string& m : v.MissingTexts) longMissing += Padded(m, 8);
            }
            if (!v.Labels.empty() && v.Width > 8) {
                longLabels += Counted(v.Name) + I32(v.Width) + I32(static_cast<int32_t>(v.Labels.size()));
                for (const auto& [value, label] : v.Labels)
                    longLabels += Counted(value.Text) + Counted(label);
            }
        }
        for (size_t i = 0; i < Vars.size(); ++i) {
            const SavVar& v = Vars[i];
            if (v.Labels.empty() || v.Width > 8) continue;
            out += I32(3) + I32(static_cast<int32_t>(v.Labels.size()));
            for (const auto& [value, label] : v.Labels) {
                out += value.IsText ? Padded(value.Text, 8) : F64(value.Number);
                std::string counted = std::string(1, static_cast<char>(label.size())) + label;
                out += Padded(counted, (counted.size() + 7) / 8 * 8);
            }
            out += I32(4) + I32(1) + I32(Index(i));
        }
        if (!Documents.empty()) {
            out += I32(6) + I32(static_cast<int32_t>(Documents.size()));
            for (const std::string& d : Documents) out += Padded(d, 80);
        }
        out += Extension(3, 4,
                         I32(1) + I32(0) + I32(0) + I32(-1) + I32(1) + I32(Compression) +
                             I32(BigEndian ? 1 : 2) + I32(CharacterCode));
        out += Extension(4, 8, F64(-DBL_MAX) + F64(DBL_MAX) + F64(std::nextafter(-DBL_MAX, 0.0)));
        out += Extension(13, 1, names);
        if (!veryLong.empty()) out += Extension(14, 1, veryLong);
        if (DeclareCount) out += Extension(16, 8, I64(1) + I64(static_cast<int64_t>(Cases.size())));
        if (!Encoding.empty()) out += Extension(20, 1, Encoding);
        if (!longLabels.empty()) out += Extension(21, 1, longLabels);
        if (!longMissing.empty()) out += Extension(22, 1, longMissing);
        out += Records;
        if (End) out += I32(999) + I32(0);
        if (dataStart) *dataStart = out.size();
        const std::string data = Data();
        if (Compression != 2) return out + data;
        return out + Zlib(data, out.size());
    }

    // ---- pieces, in the file's byte order ----

    std::string I32(int32_t v) const { return Bytes(static_cast<uint32_t>(v)); }
    std::string I64(int64_t v) const { return Bytes(static_cast<uint64_t>(v)); }
    std::string F64(double v) const {
        uint64_t bits;
        std::memcpy(&bits, &v, 8);
        return Bytes(bits);
    }
    template <class T> std::string Bytes(T v) const {
        std::string out(sizeof v, '\0');
        for (size_t i = 0; i < sizeof v; ++i)
            out[BigEndian ? sizeof v - 1 - i : i] = static_cast<char>((v >> (8 * i)) & 0xFF);
        return out;
    }
    static std::string Padded(std::string s, size_t size) {
        s.resize(std::max(s.size(), size), ' ');
        return s;
    }
    std::string Counted(const std::string& s) const { return I32(static_cast<int32_t>(s.size())) + s; }
    std::string Extension(int32_t subtype, int32_t size, const std::string& data) const {
        return I32(7) + I32(subtype) + I32(size) +
               I32(static_cast<int32_t>(data.size() / static_cast<size_t>(size))) + data;
    }

    /// The 1-based dictionary index of variable `var`.
    int32_t Index(size_t var) const {
        int32_t index = 1;
        for (size_t i = 0; i < var; ++i) index += Slots(Vars[i]);
        return index;
    }
    static int32_t Slots(const SavVar& v) {
        if (v.Width == 0) return 1;
        if (v.Width <= 255) return (v.Width + 7) / 8;
        const int segments = (v.Width + 251) / 252;
        return (segments - 1) * 32 + (v.Width - (segments - 1) * 252 + 7) / 8;
    }
    int32_t SlotCount() const {
        int32_t n = 0;
        for (const SavVar& v : Vars) n += Slots(v);
        return n;
    }

private:
    std::string Header() const {
        std::string h = Compression == 2 ? "$FL3" : "$FL2";
        h += Padded("@(#) SPSS DATA FILE kvimport test", 60);
        h += I32(2) + I32(CaseSize.value_or(SlotCount())) + I32(Compression) + I32(0);
        h += I32(CaseCount.value_or(DeclareCount ? static_cast<int32_t>(Cases.size()) : -1));
        h += F64(100.0) + "01 Jan 24" + "10:00:00" + Padded("test file", 64) + std::string(3, '\0');
        return h;
    }

    /// One case as 8-byte elements, each marked text or number (a number's bytes are its value).
    std::vector<std::pair<std::string, const SavValue*>> Elements(const std::vector<SavValue>& values) const {
        std::vector<std::pair<std::string, const SavValue*>> out;
        for (size_t i = 0; i < Vars.size(); ++i) {
            const SavVar& v = Vars[i];
            const SavValue& value = values[i];
            if (v.Width == 0) {
                out.emplace_back(F64(value.Sysmis ? -DBL_MAX : value.Number), &value);
                continue;
            }
            const int segments = v.Width > 255 ? (v.Width + 251) / 252 : 1;
            const std::string text = Padded(value.Text, static_cast<size_t>(segments) * 256);
            for (int s = 0; s < segments; ++s) {
                const int width = segments == 1      ? v.Width
                                  : s < segments - 1 ? 255
                                                     : v.Width - (segments - 1) * 252;
                std::string bytes =
                    Padded(text.substr(static_cast<size_t>(s) * 255, static_cast<size_t>(width)),
                           static_cast<size_t>((width + 7) / 8 * 8));
                for (size_t k = 0; k < bytes.size(); k += 8) out.emplace_back(bytes.substr(k, 8), nullptr);
            }
        }
        return out;
    }

    std::string Data() const {
        std::string out, commands, values;
        const auto code = [&](unsigned char c, const std::string& value = {}) {
            commands += static_cast<char>(c);
            values += value;
            if (commands.size() == 8) {
                out += commands + values;
                commands.clear();
                values.clear();
            }
        };
        for (const std::vector<SavValue>& c : Cases)
            for (const auto& [bytes, number] : Elements(c)) {
                if (Compression == 0)
                    out += bytes;
                else if (number && number->Sysmis)
                    code(255);
                else if (number && number->Number == std::floor(number->Number) && number->Number >= -99 &&
                         number->Number <= 151)
                    code(static_cast<unsigned char>(number->Number + 100));
                else if (!number && bytes == std::string(8, ' '))
                    code(254);
                else
                    code(253, bytes);
            }
        if (Compression != 0) {
            if (EndCode) code(252);
            if (!commands.empty()) {
                commands.resize(8, '\0');
                out += commands + values;
            }
        }
        return out;
    }

    std::string Zlib(const std::string& data, size_t start) const {
        std::string blocks, index;
        int32_t count = 0;
        for (size_t at = 0; at < data.size(); at += ZBlock) {
            const std::string piece = data.substr(at, ZBlock);
            uLongf size = compressBound(static_cast<uLong>(piece.size()));
            std::string packed(size, '\0');
            compress2(reinterpret_cast<Bytef*>(packed.data()), &size,
                      reinterpret_cast<const Bytef*>(piece.data()), static_cast<uLong>(piece.size()), 6);
            packed.resize(size);
            index += I64(static_cast<int64_t>(start + at)) +
                     I64(static_cast<int64_t>(start + 24 + blocks.size())) +
                     I32(static_cast<int32_t>(piece.size())) + I32(static_cast<int32_t>(packed.size()));
            blocks += packed;
            ++count;
        }
        const size_t trailer = start + 24 + blocks.size();
        return I64(static_cast<int64_t>(start)) + I64(static_cast<int64_t>(trailer)) + I64(24 + 24 * count) +
               blocks + I64(-100) + I64(0) + I32(static_cast<int32_t>(ZBlock)) + I32(count) + index;
    }
};

} // namespace kv::test
