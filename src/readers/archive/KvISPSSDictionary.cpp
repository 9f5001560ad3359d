// The dictionary of a system file: the header, the variable records and everything up to the 999 record.
// The records are read raw first and decoded at the end, because the record that names the character
// encoding comes after the names and labels it decodes.

#include "readers/archive/KvISPSSInternal.h"

#include "platform/ByteReader.h"
#include "platform/FormatError.h"
#include "platform/SysUtils.h"
#include "platform/Utf8.h"

#include <algorithm>
#include <cfloat>
#include <charconv>
#include <cmath>
#include <cstring>
#include <optional>

namespace kv::spss {

namespace {

constexpr int kHeaderSize = 176;
constexpr int kMaxWidth = 32767;
/// Bytes of a very long string's width that each of its segments holds.
constexpr int kSegmentWidth = 252;
/// Bytes of data a segment of a very long string gives, whatever its declared width.
constexpr int kSegmentData = 255;

/// One variable record, as read.
struct TRawVariable {
    int32_t Type = 0; ///< 0 number, 1..255 string width, -1 continuation
    std::string Name; ///< raw, trailing blanks removed
    std::string Label;
    int32_t MissingCount = 0;
    std::string Missing[3]; ///< raw 8-byte values
    uint32_t Print = 0, Write = 0;
    uint64_t Offset = 0;
};

/// A value label record with the variable indexes of the record that follows it.
struct TRawLabels {
    std::vector<std::pair<std::string, std::string>> Labels; ///< raw 8-byte value, raw label
    std::vector<int32_t> Indexes;                            ///< 1-based dictionary indexes
    uint64_t Offset = 0;
};

/// An extension record kept for decoding once the encoding is known.
struct TRawExtension {
    int32_t Subtype = 0;
    std::string Data;
    uint64_t Offset = 0; ///< where the data starts
};

std::string_view TrimBlanks(std::string_view s) {
    while (!s.empty() && (s.back() == ' ' || s.back() == '\0')) s.remove_suffix(1);
    return s;
}

TSPSSFormat UnpackFormat(uint32_t packed) {
    return {static_cast<int>((packed >> 16) & 0xFF), static_cast<int>((packed >> 8) & 0xFF),
            static_cast<int>(packed & 0xFF)};
}

// Names of encodings that files carry and the code-page names do not cover.
int EncodingAlias(std::string_view name) {
    static const std::pair<const char*, int> aliases[] = {
        {"us-ascii", 1252},   {"ascii", 1252}, {"ansi_x3.4-1968", 1252}, {"big5", 950},
        {"gbk", 936},         {"gb2312", 936}, {"shift_jis", 932},       {"sjis", 932},
        {"windows-31j", 932}, {"ms932", 932},  {"euc-kr", 949},          {"ks_c_5601-1987", 949},
        {"ebcdic-us", 37},    {"ibm037", 37},
    };
    for (const auto& [alias, codePage] : aliases)
        if (SameText(name, alias)) return CodePageAvailable(codePage) ? codePage : 0;
    return 0;
}

class TDictionaryReader {
public:
    TDictionaryReader(TKvBinaryReader& in, TDictionary& out) : in_(in), out_(out), header_(out.Header) {}

    void Read() {
        ReadHeader();
        ReadRecords();
        ChooseEncoding();
        Decode();
    }

private:
    int32_t I32() { return bigEndian_ ? in_.ReadI32BE() : in_.ReadI32LE(); }
    double F64() { return bigEndian_ ? in_.ReadDoubleBE() : in_.ReadDoubleLE(); }
    [[noreturn]] void Damaged(uint64_t offset, const std::string& what) const { in_.CorruptAt(offset, what); }

    void ReadHeader() {
        const uint64_t base = base_ = in_.Position();
        const std::string magic = in_.ReadBytes(static_cast<size_t>(std::min<uint64_t>(4, in_.Remaining())));
        if (magic != "$FL2" && magic != "$FL3")
            Damaged(base, "not an SPSS system file: it does not begin with $FL2 or $FL3");
        if (!in_.Has(kHeaderSize - 4))
            throw EKvFormatError(fekTruncated, kFormat, in_.Size(),
                                 "the file header needs 176 bytes, the file has " +
                                     std::to_string(in_.Size()));
        header_.Magic = magic;
        product_ = in_.ReadBytes(60);
        const std::string layout = in_.ReadBytes(4);
        const uint32_t little = KvLoadLE<uint32_t>(layout.data());
        const uint32_t big = KvLoadBE<uint32_t>(layout.data());
        if (little == 2 || little == 3) {
            header_.LayoutCode = static_cast<int32_t>(little);
        } else if (big == 2 || big == 3) {
            header_.LayoutCode = static_cast<int32_t>(big);
            bigEndian_ = true;
        } else {
            Damaged(base + 64, "the layout code is neither 2 nor 3 in either byte order");
        }
        header_.BigEndian = bigEndian_;
        header_.CaseSize = I32();
        const int32_t compression = I32();
        if (compression < 0 || compression > 2)
            Damaged(base + 72, "unknown compression " + std::to_string(compression));
        header_.Compression = static_cast<TSPSSCompression>(compression);
        if ((header_.Compression == scZlib) != (magic == "$FL3"))
            Damaged(base + 72, magic == "$FL3" ? "a $FL3 file whose data is not zlib-compressed"
                                               : "zlib-compressed data in a $FL2 file");
        header_.WeightIndex = I32();
        const int32_t cases = I32();
        header_.CaseCount = cases < 0 ? -1 : cases;
        header_.Bias = F64();
        date_ = in_.ReadBytes(9);
        time_ = in_.ReadBytes(8);
        label_ = in_.ReadBytes(64);
        in_.Skip(3);
    }

    void ReadRecords() {
        int continuations = 0; // still owed by the last string variable
        for (;;) {
            if (!in_.Has(4))
                throw EKvFormatError(fekTruncated, kFormat, in_.Position(),
                                     "the dictionary has no end record (999)");
            const uint64_t offset = in_.Position();
            const int32_t type = I32();
            if (type != 2) Owed(offset, continuations);
            switch (type) {
            case 2:
                ReadVariable(offset, continuations);
                break;
            case 3:
                ReadValueLabels(offset);
                break;
            case 4:
                Damaged(offset, "variables of value labels (record 4) without the labels (record 3)");
            case 6: {
                const int32_t lines = I32();
                if (lines < 0) Damaged(offset + 4, "a negative document line count");
                in_.CheckedSize(static_cast<uint64_t>(lines), 80, "the document lines");
                for (int32_t i = 0; i < lines; ++i) documents_.push_back(in_.ReadBytes(80));
                break;
            }
            case 7:
                ReadExtension(offset);
                break;
            case 999:
                in_.Skip(std::min<uint64_t>(4, in_.Remaining()));
                out_.DataStart = in_.Position();
                return;
            default:
                Damaged(offset, "unknown record type " + std::to_string(type));
            }
        }
    }

    /// A record that is not a continuation comes while the last string still needs some.
    void Owed(uint64_t offset, int continuations) const {
        if (continuations == 0) return;
        const TRawVariable& v = raw_[static_cast<size_t>(lastString_)];
        Damaged(offset, "string variable " + Text(v.Name) + " of width " + std::to_string(v.Type) +
                            " lacks " + std::to_string(continuations) + " of its continuation records");
    }

    void ReadVariable(uint64_t offset, int& continuations) {
        TRawVariable v;
        v.Offset = offset;
        v.Type = I32();
        const int32_t hasLabel = I32();
        v.MissingCount = I32();
        v.Print = static_cast<uint32_t>(I32());
        v.Write = static_cast<uint32_t>(I32());
        v.Name = std::string(TrimBlanks(in_.ReadBytes(8)));
        if (hasLabel != 0) {
            const int32_t length = I32();
            if (length < 0) Damaged(in_.Position() - 4, "a negative variable label length");
            const uint64_t padded = (static_cast<uint64_t>(length) + 3) / 4 * 4;
            in_.CheckedSize(padded, 1, "the variable label");
            v.Label = in_.ReadBytes(static_cast<size_t>(padded)).substr(0, static_cast<size_t>(length));
        }
        const int32_t m = v.MissingCount;
        if (m < -3 || m > 3 || m == -1) Damaged(offset + 12, "missing value code " + std::to_string(m));
        for (int i = 0; i < std::abs(m); ++i) v.Missing[i] = in_.ReadBytes(8);

        if (v.Type == -1) {
            if (continuations == 0)
                Damaged(offset, "a continuation record that follows no string variable wider than 8 bytes");
            --continuations;
            raw_.push_back(std::move(v));
            return;
        }
        Owed(offset, continuations);
        if (v.Type < 0 || v.Type > 255)
            Damaged(offset + 4, "variable " + v.Name + " has width " + std::to_string(v.Type) +
                                    " (a variable record holds 0 for a number, or 1 to 255)");
        if (v.Type > 0) {
            if (m < 0) Damaged(offset + 12, "string variable " + v.Name + " has a missing-value range");
            continuations = (v.Type + 7) / 8 - 1;
            lastString_ = static_cast<int>(raw_.size());
        }
        raw_.push_back(std::move(v));
    }

    void ReadValueLabels(uint64_t offset) {
        TRawLabels labels;
        labels.Offset = offset;
        const int32_t count = I32();
        if (count < 0) Damaged(offset + 4, "a negative value label count");
        // Each label takes at least 16 bytes: the value, the length byte and the padding.
        in_.CheckedSize(static_cast<uint64_t>(count), 16, "the value labels");
        for (int32_t i = 0; i < count; ++i) {
            std::string value = in_.ReadBytes(8);
            const size_t length = in_.ReadU8();
            const size_t padded = (length + 1 + 7) / 8 * 8 - 1;
            std::string label = in_.ReadBytes(padded);
            label.resize(length);
            labels.Labels.emplace_back(std::move(value), std::move(label));
        }
        const uint64_t second = in_.Position();
        if (!in_.Has(4) || I32() != 4)
            Damaged(second, "value labels (record 3) not followed by the variables they label (record 4)");
        const int32_t n = I32();
        if (n < 0) Damaged(second + 4, "a negative count of labelled variables");
        in_.CheckedSize(static_cast<uint64_t>(n), 4, "the labelled variables");
        int strings = 0;
        for (int32_t i = 0; i < n; ++i) {
            const uint64_t at = in_.Position();
            const int32_t index = I32();
            if (index < 1 || index > static_cast<int32_t>(raw_.size()))
                Damaged(at, "value labels for dictionary index " + std::to_string(index) + ", beyond the " +
                                std::to_string(raw_.size()) + " variable records before them");
            const TRawVariable& v = raw_[static_cast<size_t>(index - 1)];
            if (v.Type < 0)
                Damaged(at, "value labels for dictionary index " + std::to_string(index) +
                                ", a continuation record of a string");
            if (v.Type > 8)
                Damaged(at, "value labels (record 3) for " + v.Name + ", a string of width " +
                                std::to_string(v.Type) +
                                ": wider strings keep theirs in record 7, subtype 21");
            strings += v.Type > 0;
            labels.Indexes.push_back(index);
        }
        if (strings != 0 && strings != n)
            Damaged(second, "one value label record for both numeric and string variables");
        labels_.push_back(std::move(labels));
    }

    void ReadExtension(uint64_t offset) {
        const int32_t subtype = I32();
        const int32_t size = I32();
        const int32_t count = I32();
        if (size < 0 || count < 0)
            Damaged(offset + 8, "extension record (subtype " + std::to_string(subtype) + ") of " +
                                    std::to_string(count) + " × " + std::to_string(size) + " bytes");
        const uint64_t bytes = in_.CheckedSize(static_cast<uint64_t>(count), static_cast<uint64_t>(size),
                                               "the data of extension record " + std::to_string(subtype));
        TRawExtension e;
        e.Subtype = subtype;
        e.Offset = in_.Position();
        e.Data = in_.ReadBytes(static_cast<size_t>(bytes));
        const auto expect = [&](int32_t wantSize, int32_t wantCount) {
            if (size == wantSize && count == wantCount) return true;
            out_.Warnings.push_back("extension record " + std::to_string(subtype) +
                                    " has an unexpected size (" + std::to_string(count) + " × " +
                                    std::to_string(size) + "); ignored");
            return false;
        };
        switch (subtype) {
        case 3: // machine integers: version (3), machine, floating point, compression, endianness, code
            if (expect(4, 8)) {
                TByteReader r(e.Data, kFormat, e.Offset);
                r.Skip(16);
                const int32_t floating = bigEndian_ ? r.ReadI32BE() : r.ReadI32LE();
                if (floating != 1)
                    Damaged(e.Offset + 16, "floating-point format " + std::to_string(floating) +
                                               " (only IEEE 754, format 1, is read)");
                r.Skip(8);
                header_.CharacterCode = bigEndian_ ? r.ReadI32BE() : r.ReadI32LE();
            }
            break;
        case 4: // machine floating point: system-missing, highest, lowest
            if (expect(8, 3)) {
                floats_ = true;
                header_.SystemMissing = GetNumber(e.Data.data(), bigEndian_);
                header_.Highest = GetNumber(e.Data.data() + 8, bigEndian_);
                header_.Lowest = GetNumber(e.Data.data() + 16, bigEndian_);
            }
            break;
        case 16: // the case count in 64 bits
            if (expect(8, 2)) {
                const uint64_t bits = bigEndian_ ? KvLoadBE<uint64_t>(e.Data.data() + 8)
                                                 : KvLoadLE<uint64_t>(e.Data.data() + 8);
                cases64_ = static_cast<int64_t>(bits);
            }
            break;
        case 20:
            header_.EncodingName = std::string(TrimBlanks(e.Data));
            break;
        case 13:
        case 14:
        case 21:
        case 22:
            extensions_.push_back(std::move(e));
            break;
        default: // display parameters, attributes, multiple-response sets...: nothing a cell needs
            break;
        }
    }

    void ChooseEncoding() {
        int codePage = 0;
        if (!header_.EncodingName.empty()) {
            const std::optional<int> named = ParseCodePageName(header_.EncodingName);
            codePage = named ? *named : EncodingAlias(header_.EncodingName);
            if (codePage == 0)
                out_.Warnings.push_back("the character encoding \"" + Utf8Sanitize(header_.EncodingName) +
                                        "\" cannot be decoded here");
        }
        if (codePage == 0) {
            const int32_t code = header_.CharacterCode;
            if (code == 1)
                codePage = 37; // EBCDIC
            else if (code == 2 || code == 3 || code == 0)
                codePage = 1252; // 7- and 8-bit ASCII: 1252 is their widest reading
            else if (code == kCodePageUtf8 || CodePageAvailable(code))
                codePage = code;
            else
                out_.Warnings.push_back("character code " + std::to_string(code) + " cannot be decoded here");
        }
        if (codePage == 0) {
            codePage = 1252;
            out_.Warnings.back() += "; reading the text as cp1252";
        }
        out_.CodePage = codePage;
        decoder_ = TKvCodePageDecoder(codePage);
    }

    /// A string value as the cases' values are compared with it.
    std::string Key(std::string_view raw) const {
        return std::string(TrimValue(raw, out_.CodePage == kCodePageUtf8));
    }
    std::string Text(std::string_view raw) const {
        return decoder_.Decode(TrimValue(raw, out_.CodePage == kCodePageUtf8));
    }

    void Decode() {
        if (!floats_) {
            header_.SystemMissing = -DBL_MAX;
            header_.Highest = DBL_MAX;
            header_.Lowest = std::nextafter(-DBL_MAX, 0.0);
        }
        header_.Product = Text(product_);
        header_.CreationDate = Text(date_);
        header_.CreationTime = Text(time_);
        header_.FileLabel = Text(label_);
        if (header_.CaseCount < 0 && cases64_ >= 0) header_.CaseCount = cases64_;
        for (const std::string& line : documents_) out_.Documents.push_back(Text(line));

        out_.Slots = static_cast<int>(raw_.size());
        if (header_.CaseSize >= 0 && header_.CaseSize != out_.Slots)
            Damaged(base_ + 68, "the header counts " + std::to_string(header_.CaseSize) +
                                    " 8-byte elements per case, the variable records " +
                                    std::to_string(out_.Slots));

        // One variable per record that is not a continuation; `bySlot` finds it by its first element.
        std::vector<TSPSSVariable> vars;
        std::vector<int> bySlot(raw_.size(), -1);
        for (size_t i = 0; i < raw_.size(); ++i) {
            const TRawVariable& r = raw_[i];
            if (r.Type < 0) continue;
            TSPSSVariable v;
            v.ShortName = r.Name;
            v.Name = Text(r.Name);
            v.Label = Text(r.Label);
            v.Width = r.Type;
            v.Print = UnpackFormat(r.Print);
            v.Write = UnpackFormat(r.Write);
            // A string is text whatever its format says; a number's format says what it is.
            v.Kind = r.Type > 0 ? svkString : v.Print.Kind() == svkString ? svkNumber : v.Print.Kind();
            v.Slot = static_cast<int>(i);
            if (r.Type > 0) v.Segments.emplace_back(v.Slot, r.Type);
            const int m = r.MissingCount;
            for (int k = 0; k < std::abs(m); ++k) {
                if (r.Type > 0) {
                    v.Missing.Texts.emplace_back(Key(r.Missing[k]));
                    continue;
                }
                const double number = GetNumber(r.Missing[k].data(), bigEndian_);
                if (m < 0 && k < 2) {
                    (k == 0 ? v.Missing.Low : v.Missing.High) = number;
                    v.Missing.HasRange = true;
                } else {
                    v.Missing.Numbers.push_back(number);
                }
            }
            bySlot[i] = static_cast<int>(vars.size());
            vars.push_back(std::move(v));
        }

        for (const TRawLabels& labels : labels_)
            for (int32_t index : labels.Indexes) {
                TSPSSVariable& v = vars[static_cast<size_t>(bySlot[static_cast<size_t>(index - 1)])];
                for (const auto& [value, label] : labels.Labels) {
                    if (v.IsString())
                        v.TextLabels.emplace_back(Key(value), decoder_.Decode(label));
                    else
                        v.NumberLabels.emplace_back(GetNumber(value.data(), bigEndian_),
                                                    decoder_.Decode(label));
                }
            }

        for (const TRawExtension& e : extensions_)
            if (e.Subtype == 13) LongNames(e, vars);
        for (const TRawExtension& e : extensions_)
            if (e.Subtype == 14) vars = VeryLongStrings(e, std::move(vars));
        for (const TRawExtension& e : extensions_) {
            if (e.Subtype == 21) LongStringLabels(e, vars);
            if (e.Subtype == 22) LongStringMissing(e, vars);
        }
        out_.Variables = std::move(vars);
    }

    /// The "KEY=VALUE" pairs of a text record, split at tabs (and the NULs that end very long string widths).
    static std::vector<std::pair<std::string_view, std::string_view>> Pairs(std::string_view text) {
        std::vector<std::pair<std::string_view, std::string_view>> pairs;
        size_t start = 0;
        while (start < text.size()) {
            size_t end = text.find_first_of(std::string_view("\t\0", 2), start);
            if (end == std::string_view::npos) end = text.size();
            const std::string_view item = text.substr(start, end - start);
            const size_t eq = item.find('=');
            if (eq != std::string_view::npos) pairs.emplace_back(item.substr(0, eq), item.substr(eq + 1));
            start = end + 1;
        }
        return pairs;
    }

    static TSPSSVariable* ByShortName(std::vector<TSPSSVariable>& vars, std::string_view name) {
        name = TrimBlanks(name);
        for (TSPSSVariable& v : vars)
            if (v.ShortName == name) return &v;
        for (TSPSSVariable& v : vars)
            if (SameText(v.ShortName, name)) return &v;
        return nullptr;
    }

    /// Records 21 and 22 name a variable by its long name; some writers give the short one.
    TSPSSVariable* ByName(std::vector<TSPSSVariable>& vars, std::string_view raw) const {
        const std::string name = Text(raw);
        for (TSPSSVariable& v : vars)
            if (SameText(v.Name, name)) return &v;
        return ByShortName(vars, raw);
    }

    void LongNames(const TRawExtension& e, std::vector<TSPSSVariable>& vars) const {
        for (const auto& [shortName, longName] : Pairs(e.Data))
            if (TSPSSVariable* v = ByShortName(vars, shortName))
                if (!TrimBlanks(longName).empty()) v->Name = Text(longName);
    }

    std::vector<TSPSSVariable> VeryLongStrings(const TRawExtension& e,
                                               std::vector<TSPSSVariable> vars) const {
        for (const auto& [shortName, digits] : Pairs(e.Data)) {
            int width = -1;
            const std::string_view trimmed = TrimBlanks(digits);
            const auto [end, ec] = std::from_chars(trimmed.data(), trimmed.data() + trimmed.size(), width);
            if (ec != std::errc() || end != trimmed.data() + trimmed.size() || width < 1 || width > kMaxWidth)
                Damaged(e.Offset, "very long string " + Text(shortName) + " has width \"" + Text(digits) +
                                      "\" (1 to 32767)");
            if (width <= 255) continue; // a width the variable record already holds
            TSPSSVariable* first = ByShortName(vars, shortName);
            if (!first) continue;
            const size_t at = static_cast<size_t>(first - vars.data());
            const size_t segments = static_cast<size_t>((width + kSegmentWidth - 1) / kSegmentWidth);
            if (at + segments > vars.size() ||
                !std::all_of(vars.begin() + static_cast<ptrdiff_t>(at),
                             vars.begin() + static_cast<ptrdiff_t>(at + segments),
                             [](const TSPSSVariable& v) { return v.IsString() && v.Segments.size() == 1; }))
                Damaged(e.Offset, "very long string " + first->Name + " of width " + std::to_string(width) +
                                      " needs " + std::to_string(segments) +
                                      " string variables as its segments, and the dictionary lacks them");
            TSPSSVariable& v = vars[at];
            for (size_t s = 1; s < segments; ++s) v.Segments.push_back(vars[at + s].Segments.front());
            for (auto& [slot, bytes] : v.Segments) bytes = std::min(bytes, kSegmentData);
            v.Width = width;
            v.Print.Width = v.Write.Width = width;
            vars.erase(vars.begin() + static_cast<ptrdiff_t>(at + 1),
                       vars.begin() + static_cast<ptrdiff_t>(at + segments));
        }
        return vars;
    }

    /// The records of subtypes 21 and 22 are read within their own bytes.
    struct TFieldReader {
        TByteReader R;
        bool BigEndian;
        int32_t I32() { return BigEndian ? R.ReadI32BE() : R.ReadI32LE(); }
        std::string_view Bytes(const char* what) {
            const int32_t length = I32();
            if (length < 0 || static_cast<size_t>(length) > R.Remaining())
                R.CorruptAt(R.Position() - 4, std::string(what) + " of " + std::to_string(length) +
                                                  " bytes where " + std::to_string(R.Remaining()) +
                                                  " remain");
            return R.ReadBytes(static_cast<size_t>(length));
        }
    };

    void LongStringLabels(const TRawExtension& e, std::vector<TSPSSVariable>& vars) const {
        TFieldReader f{TByteReader(e.Data, kFormat, e.Offset, "record"), bigEndian_};
        while (!f.R.AtEnd()) {
            TSPSSVariable* v = ByName(vars, f.Bytes("a variable name"));
            f.I32(); // the width
            const int32_t count = f.I32();
            if (count < 0) f.R.CorruptAt(f.R.Position() - 4, "a negative value label count");
            f.R.CheckedSize(static_cast<uint64_t>(count), 8, "the long string value labels");
            for (int32_t i = 0; i < count; ++i) {
                const std::string_view value = f.Bytes("a labelled value");
                const std::string_view label = f.Bytes("a value label");
                if (v && v->IsString()) v->TextLabels.emplace_back(Key(value), decoder_.Decode(label));
            }
        }
    }

    void LongStringMissing(const TRawExtension& e, std::vector<TSPSSVariable>& vars) const {
        TFieldReader f{TByteReader(e.Data, kFormat, e.Offset, "record"), bigEndian_};
        while (!f.R.AtEnd()) {
            TSPSSVariable* v = ByName(vars, f.Bytes("a variable name"));
            const uint64_t at = f.R.Position();
            const int count = f.R.ReadU8();
            if (count < 1 || count > 3)
                f.R.CorruptAt(at, "a long string with " + std::to_string(count) + " missing values (1 to 3)");
            const int32_t length = f.I32();
            if (length < 0) f.R.CorruptAt(f.R.Position() - 4, "a negative missing value length");
            f.R.CheckedSize(static_cast<uint64_t>(count), static_cast<uint64_t>(length),
                            "the missing values");
            for (int i = 0; i < count; ++i) {
                const std::string_view value = f.R.ReadBytes(static_cast<size_t>(length));
                if (v && v->IsString()) v->Missing.Texts.emplace_back(Key(value));
            }
        }
    }

    TKvBinaryReader& in_;
    TDictionary& out_;
    TSPSSHeader& header_;
    uint64_t base_ = 0; ///< where the header starts
    bool bigEndian_ = false;
    bool floats_ = false;
    int64_t cases64_ = -1;
    std::string product_, date_, time_, label_;
    std::vector<TRawVariable> raw_;
    int lastString_ = 0;
    std::vector<TRawLabels> labels_;
    std::vector<std::string> documents_;
    std::vector<TRawExtension> extensions_;
    TKvCodePageDecoder decoder_;
};

} // namespace

std::string_view TrimValue(std::string_view raw, bool utf8) {
    raw = TrimBlanks(raw);
    if (!utf8 || raw.empty() || !(static_cast<unsigned char>(raw.back()) & 0x80)) return raw;
    // Back to the byte that starts the last character: the sequence it announces must be whole.
    size_t start = raw.size();
    while (start > 0 && raw.size() - start < 4 && (static_cast<unsigned char>(raw[start - 1]) & 0xC0) == 0x80)
        --start;
    if (start == 0) return raw;
    const auto lead = static_cast<unsigned char>(raw[start - 1]);
    const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
    return raw.size() - (start - 1) < length ? raw.substr(0, start - 1) : raw;
}

void PutNumber(char* out, double number, bool bigEndian) {
    uint64_t bits;
    std::memcpy(&bits, &number, sizeof bits);
    for (int i = 0; i < 8; ++i) out[bigEndian ? 7 - i : i] = static_cast<char>((bits >> (8 * i)) & 0xFF);
}

double GetNumber(const char* bytes, bool bigEndian) {
    const uint64_t bits = bigEndian ? KvLoadBE<uint64_t>(bytes) : KvLoadLE<uint64_t>(bytes);
    double number;
    std::memcpy(&number, &bits, sizeof number);
    return number;
}

void ReadDictionary(TKvBinaryReader& in, TDictionary& out) {
    TDictionaryReader(in, out).Read();
}

} // namespace kv::spss
