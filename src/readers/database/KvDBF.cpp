#include "readers/database/KvDBF.h"

#include "platform/Utf8.h"

#include "platform/AllocationGuard.h"
#include "platform/BinaryReader.h"
#include "platform/ByteReader.h"
#include "platform/DateUtils.h"
#include "platform/FormatError.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>

namespace kv {

namespace {

constexpr const char* kFormat = "DBF";
constexpr const char* kMemoFormat = "DBF memo";
constexpr size_t kMemoHeaderSize = 512;
/// Bytes between the field descriptors and the first record that Visual FoxPro keeps for its backlink.
constexpr int kBacklinkSize = 263;
/// The language driver name and reserved bytes after the 32-byte header of dBase V and VII.
constexpr int kLevel7HeaderExtra = 36;

struct VersionEntry {
    uint8_t Byte;
    const char* Text;
};

// In TDBFVersion order: the first entry holding a byte wins.
constexpr VersionEntry kVersions[] = {
    {0x03, "dBase III"},
    {0x83, "dBase III (memo)"},
    {0x2F, "dBase III Plus"},
    {0x8A, "dBase III Plus (no memo)"},
    {0x05, "FoxPro"},
    {0xF5, "FoxPro (memo)"},
    {0x03, "dBase IV"},
    {0x8B, "dBase IV (memo)"},
    {0x30, "Visual FoxPro 3"},
    {0x04, "dBase V"},
    {0x04, "dBase VII"},
    {0x8C, "dBase VII (memo)"},
    {0x02, "Fox BASE 1"},
    {0xFB, "Fox BASE 2"},
    {0x31, "Visual FoxPro 3 (auto increment)"},
    {0xE5, "Hyper Six"},
    {0x42, "Visual FoxPro 3 (varchar/binary/blob enabled)"},
    {0x62, "dBase IV SQL table files"},
    {0x82, "dBase IV SQL system files"},
    {0xFA, "FoxPro 2.x or earlier (memo)"},
};

struct DriverEntry {
    uint8_t Driver;
    int CodePage;
};

constexpr DriverEntry kDrivers[] = {
    {0x01, 437},  {0x02, 850},  {0x03, 1252}, {0x04, 10000}, {0x08, 865},   {0x09, 437},   {0x0A, 850},
    {0x0B, 437},  {0x0D, 437},  {0x0E, 850},  {0x0F, 437},   {0x10, 850},   {0x11, 437},   {0x12, 850},
    {0x13, 932},  {0x14, 850},  {0x15, 437},  {0x16, 850},   {0x17, 865},   {0x18, 437},   {0x19, 437},
    {0x1A, 850},  {0x1B, 437},  {0x1C, 863},  {0x1D, 850},   {0x1F, 852},   {0x22, 852},   {0x23, 852},
    {0x24, 860},  {0x25, 850},  {0x26, 866},  {0x37, 850},   {0x40, 852},   {0x4D, 936},   {0x4E, 949},
    {0x4F, 950},  {0x50, 874},  {0x57, 1252}, {0x58, 1252},  {0x59, 1252},  {0x64, 852},   {0x65, 866},
    {0x66, 865},  {0x67, 861},  {0x68, 895},  {0x69, 620},   {0x6A, 737},   {0x6B, 857},   {0x6C, 863},
    {0x78, 950},  {0x79, 949},  {0x7A, 936},  {0x7B, 932},   {0x7C, 874},   {0x7D, 1255},  {0x7E, 1256},
    {0x86, 737},  {0x87, 852},  {0x88, 857},  {0x96, 10007}, {0x97, 10029}, {0x98, 10006}, {0xC8, 1250},
    {0xC9, 1251}, {0xCA, 1254}, {0xCB, 1253}, {0xCC, 1257},
};

bool IsLevel7(TDBFVersion v) {
    return v == dBase5 || v == dBase7 || v == dBase7Memo;
}

bool IsMemoType(char type) {
    return type == 'M' || type == 'B' || type == 'G' || type == 'P' || type == 'Q' || type == 'W';
}

bool IsBlank(std::string_view bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](char c) { return c == '\0' || c == ' '; });
}

// The code page of a level 7 language driver name ("DB866RU0", "DBWINUS0"), 0 when it names none.
int DriverNameCodePage(std::string_view name) {
    if (name.starts_with("DBWIN")) return 1252;
    if (!name.starts_with("DB")) return 0;
    int cp = 0;
    const auto [end, ec] =
        std::from_chars(name.data() + 2, name.data() + std::min<size_t>(name.size(), 7), cp);
    return ec == std::errc() && end > name.data() + 2 ? cp : 0;
}

// The leading number of a field's text ("  12.50", "-3e2"), as far as it reads as one; 0 when no digit
// starts it.
double ParseNumber(std::string_view text) {
    size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || text[i] == '\0')) ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    const size_t start = i;
    size_t digits = 0;
    while (i < text.size() && text[i] >= '0' && text[i] <= '9') ++i, ++digits;
    if (i < text.size() && text[i] == '.') {
        ++i;
        while (i < text.size() && text[i] >= '0' && text[i] <= '9') ++i, ++digits;
    }
    if (digits == 0) return 0;
    if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
        size_t e = i + 1;
        if (e < text.size() && (text[e] == '+' || text[e] == '-')) ++e;
        if (e < text.size() && text[e] >= '0' && text[e] <= '9') {
            while (e < text.size() && text[e] >= '0' && text[e] <= '9') ++e;
            i = e;
        }
    }
    const std::string_view number = text.substr(start, i - start);
    double value = 0;
    if (std::from_chars(number.data(), number.data() + number.size(), value).ec ==
        std::errc::result_out_of_range) {
        // The value is left unset: a negative exponent made it too small, anything else too large.
        const bool tiny =
            number.find("e-") != std::string_view::npos || number.find("E-") != std::string_view::npos;
        value = tiny ? 0.0 : HUGE_VAL;
    }
    return negative ? -value : value;
}

// A run of decimal digits as a number, -1 when any character is not a digit.
int Digits(std::string_view text) {
    int value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return -1;
        value = value * 10 + (c - '0');
    }
    return value;
}

// The text of a memo field's block number, as StrToIntDef would read it: the whole text or 0.
int64_t ParseBlockNumber(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\0')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\0')) text.remove_suffix(1);
    if (!text.empty() && text.front() == '+') text.remove_prefix(1);
    int32_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    return ec == std::errc() && end == text.data() + text.size() ? value : 0;
}

// Up to 8 bytes of a field, least significant first, zero where the field is shorter.
uint64_t LoadLE(std::string_view bytes, size_t count) {
    char buffer[8] = {};
    std::memcpy(buffer, bytes.data(), std::min({bytes.size(), count, sizeof buffer}));
    return KvLoadLE<uint64_t>(buffer);
}

uint64_t LoadBE64(std::string_view bytes) {
    char buffer[8] = {};
    std::memcpy(buffer, bytes.data(), std::min(bytes.size(), sizeof buffer));
    return KvLoadBE<uint64_t>(buffer);
}

double BitsToDouble(uint64_t bits) {
    double d;
    std::memcpy(&d, &bits, sizeof d);
    return d;
}

// The days a timestamp may hold: 0001-01-01 to 9999-12-31. Outside them the conversion would overflow.
constexpr int64_t kLastTimeStampDay = 3652059;

Variant StampValue(int64_t days, int64_t msecs) {
    if (days < 1 || days > kLastTimeStampDay || msecs < 0 || msecs >= MSecsPerDay) return Variant::Null();
    TTimeStamp stamp;
    stamp.Date = static_cast<int>(days);
    stamp.Time = static_cast<int>(msecs);
    return Variant::FromDateTime(TimeStampToDateTime(stamp));
}

std::string Hex(uint8_t b) {
    static const char digits[] = "0123456789ABCDEF";
    return std::string("0x") + digits[b >> 4] + digits[b & 15];
}

} // namespace

TDBF::TDBF(TComponent* owner) : TSpreadSheetFile(owner) {
    SetRecordMode(true);
    SetNameKind(nkFieldName);
}

TDBF::~TDBF() {
    if (RecordMode()) AfterLoad();
}

TDBFVersion TDBF::VersionOf(uint8_t versionByte) {
    for (size_t i = 0; i < std::size(kVersions); ++i)
        if (kVersions[i].Byte == versionByte) return static_cast<TDBFVersion>(i);
    return dBase3;
}

std::string TDBF::GetStrFileType(uint8_t versionByte) {
    for (const VersionEntry& entry : kVersions)
        if (entry.Byte == versionByte) return entry.Text;
    return "";
}

std::string TDBF::GetStrFieldType(char type) {
    switch (type) {
    case 'C':
        return "String";
    case 'N':
    case 'F':
        return "Number";
    case 'D':
        return "Date";
    case 'L':
        return "Logical";
    case 'M':
        return "MEMO";
    case 'B':
        return "BLOB";
    case 'G':
        return "OLE Object";
    case 'P':
        return "Graphic";
    case 'I':
    case '+':
        return "AutoInc";
    case '2':
        return "Short Integer";
    case '4':
        return "Integer";
    case '8':
        return "Double IEEE";
    case 'O':
        return "Float";
    case '@':
        return "TimeStamp";
    case 'T':
        return "Time";
    case 'Y':
        return "Currency";
    case '0':
        return "Bytes";
    default:
        return "<unknown>";
    }
}

int TDBF::LanguageDriverCodePage(uint8_t driver) {
    for (const DriverEntry& entry : kDrivers)
        if (entry.Driver == driver) return entry.CodePage;
    return 0;
}

void TDBF::LoadFromFile(const std::string& fileName) {
    TSpreadSheetFile::LoadFromFile(fileName);
    auto file = std::make_unique<TFileStream>(fileName, fmOpenRead | fmShareDenyNone);
    file->Seek(0, soBeginning);
    if (RecordMode()) {
        // The records are read after this returns: the reader keeps the file until AfterLoad.
        TStream& stream = *file;
        ownedData_ = std::move(file);
        LoadFromStream(stream);
    } else {
        LoadFromStream(*file);
    }
}

void TDBF::LoadFromStream(TStream& stream) {
    data_.reset();
    if (ownedData_.get() != &stream) ownedData_.reset();
    CloseMemo();
    TSpreadSheetFile::LoadFromStream(stream);
    BeforeLoad();
    ClearWarnings();
    fields_.clear();
    loaded_ = false;
    recordsRead_ = 0;
    try {
        data_ = std::make_unique<TKvBinaryReader>(stream, kFormat);
        ReadHeader();
    } catch (...) {
        data_.reset();
        ownedData_.reset();
        throw;
    }
    loaded_ = true;
    if (OnDimensions)
        OnDimensions(this, 0, 0, static_cast<int>(recordCount_), 0, static_cast<int>(fields_.size()));
    if (OnColumnWidth)
        for (size_t i = 0; i < fields_.size(); ++i)
            OnColumnWidth(this, 0, static_cast<int>(i), fields_[i].Length);
    if (RecordMode()) return;

    try {
        int row = 0;
        for (int64_t i = 0; i < recordCount_ && i <= LoadRange().LastRow; ++i)
            if (LoadRecord(row)) ++row;
    } catch (...) {
        AfterLoad();
        throw;
    }
    AfterLoad();
}

void TDBF::ReadHeader() {
    TKvBinaryReader& r = *data_;
    const uint64_t base = r.Position();
    header_ = r.ReadBytes(32);
    version_ = VersionOf(static_cast<uint8_t>(header_[0]));
    const uint32_t declaredCount = KvLoadLE<uint32_t>(header_.data() + 4);
    const uint16_t headerSize = KvLoadLE<uint16_t>(header_.data() + 8);
    recordSize_ = KvLoadLE<uint16_t>(header_.data() + 10);
    const bool level7 = IsLevel7(version_);
    std::string driverName;
    if (level7) {
        driverName = r.ReadBytes(32);
        r.Skip(4);
    }
    if (headerSize > r.Size() - base)
        r.CorruptAt(base + 8, "the header size " + std::to_string(headerSize) + " runs past the end of the " +
                                  std::to_string(r.Size() - base) + "-byte file");

    const uint8_t driver = static_cast<uint8_t>(header_[29]);
    int codePage = codePageOverride_;
    if (codePage == 0) codePage = LanguageDriverCodePage(driver);
    if (codePage == 0 && level7) codePage = DriverNameCodePage(driverName.substr(0, driverName.find('\0')));
    if (codePage == 0) {
        // A table that names no code page is Windows-1252, unless its records read as UTF-8 with letters
        // beyond ASCII: such a table was written in UTF-8, and reading it as 1252 would change every one.
        const uint64_t back = r.Position();
        r.Seek(base + headerSize);
        const bool cut = r.Remaining() > 64 * 1024;
        std::string sample = r.ReadBytes(static_cast<size_t>(std::min<uint64_t>(r.Remaining(), 64 * 1024)));
        r.Seek(back);
        // A character the sample's end cuts in two is left out.
        for (int i = 0; cut && i < 4 && !sample.empty() && (static_cast<unsigned char>(sample.back()) & 0x80);
             ++i) {
            const bool lead = (static_cast<unsigned char>(sample.back()) & 0xC0) == 0xC0;
            sample.pop_back();
            if (lead) break;
        }
        codePage = !IsAscii(sample) && IsValidUtf8(sample) ? kCodePageUtf8 : 1252;
    }
    if (!CodePageAvailable(codePage)) {
        // The Polish DOS code pages iconv lacks read best as their neighbour with the same letters.
        const int fallback = codePage == 620 || codePage == 895 ? 852 : 1252;
        AddWarning("code page " + std::to_string(codePage) + " cannot be decoded here; reading the text as " +
                   CodePageDisplayName(fallback));
        codePage = fallback;
    }
    decoder_ = TKvCodePageDecoder(codePage);

    const int extra = version_ == VFP3 ? kBacklinkSize : level7 ? kLevel7HeaderExtra : 0;
    const int descriptorSize = level7 ? 48 : 32;
    const int count = std::max(0, (headerSize - 33 - extra) / descriptorSize);
    r.CheckedSize(static_cast<uint64_t>(count), static_cast<uint64_t>(descriptorSize),
                  "the field descriptors");
    std::string d;
    for (int i = 0; i < count; ++i) {
        r.ReadBytes(static_cast<size_t>(descriptorSize), d);
        // The terminator: versions that keep a backlink area after it would otherwise read it as fields.
        if (d[0] == '\x0D') break;
        TDBFField field;
        std::string_view name = std::string_view(d).substr(0, level7 ? 32 : 11);
        name = name.substr(0, name.find('\0'));
        if (level7) name = name.substr(0, 10);
        field.Name = decoder_.Decode(name);
        field.Type = d[level7 ? 32 : 11];
        field.Length = static_cast<uint8_t>(d[level7 ? 33 : 16]);
        field.Decimals = static_cast<uint8_t>(d[level7 ? 34 : 17]);
        fields_.push_back(std::move(field));
    }

    int64_t need = 1;
    for (const TDBFField& f : fields_) need += f.Length;
    if (need != recordSize_) {
        // Character fields longer than 255 bytes keep the high byte of their length in the decimal count.
        int64_t wide = 1;
        for (const TDBFField& f : fields_) wide += f.Length + (f.Type == 'C' ? 256 * f.Decimals : 0);
        if (wide == recordSize_) {
            for (TDBFField& f : fields_)
                if (f.Type == 'C') {
                    f.Length += 256 * f.Decimals;
                    f.Decimals = 0;
                }
            need = wide;
        }
    }
    if (recordSize_ < need)
        r.CorruptAt(base + 10, "the record size " + std::to_string(recordSize_) + " is less than the " +
                                   std::to_string(need) + " bytes the status byte and the fields need");
    int offset = 1;
    for (TDBFField& f : fields_) {
        f.Offset = offset;
        offset += f.Length;
    }

    dataStart_ = base + headerSize;
    const uint64_t whole = (r.Size() - dataStart_) / static_cast<uint64_t>(recordSize_);
    recordCount_ = declaredCount;
    if (declaredCount > whole) {
        recordCount_ = static_cast<int64_t>(whole);
        AddWarning("the header announces " + std::to_string(declaredCount) + " records, but the file holds " +
                   std::to_string(whole) + "; reading " + std::to_string(whole));
    }
    recordCount_ = std::min<int64_t>(recordCount_, INT32_MAX);
    WarnOfKeptDecodings();
    r.Seek(dataStart_);
}

// Binary integers and doubles are decoded by the rule this reader has always had, which dBase 7 and
// Visual FoxPro tables do not follow: their values then differ from the table's. The user hears of it.
void TDBF::WarnOfKeptDecodings() {
    const bool foxPro = version_ == FoxPro || version_ == FoxProMemo || version_ == VFP3;
    std::string names;
    for (const TDBFField& f : fields_) {
        const bool differs =
            (f.Type == 'I' && !foxPro) || (IsLevel7(version_) && (f.Type == '+' || f.Type == 'O'));
        if (differs) names += (names.empty() ? "" : ", ") + f.Name + " (" + f.Type + ")";
    }
    if (!names.empty())
        AddWarning(
            "the binary number fields " + names +
            " are read by the xBase rule kept for compatibility (little-endian, 0x80000000 taken off an "
            "integer); this table's writer may have stored other values");
}

void TDBF::BeforeLoad() {
    TSpreadSheetFile::BeforeLoad();
    if (!FileName().empty())
        SpreadSheets().Spreadsheet(0).SetName(std::filesystem::path(FileName()).filename().string());
}

void TDBF::AfterLoad() {
    data_.reset();
    ownedData_.reset();
    CloseMemo();
    TSpreadSheetFile::AfterLoad();
}

bool TDBF::LoadRecord(int index) {
    const bool result = TSpreadSheetFile::LoadRecord(index);
    if (!data_) return false;
    UpdateProgress(index, recordCount_);
    const int64_t number = ++recordsRead_;
    try {
        data_->ReadBytes(static_cast<size_t>(recordSize_), record_);
    } catch (const EKvFormatError& e) {
        throw EKvFormatError(e.Kind(), e.Format(), e.Offset(),
                             "record " + std::to_string(number) + ": " + e.Detail());
    }
    const TKvIRowStatus status = record_[0] == '*' ? rsDeleted : rsNormal;
    if (!LoadRowStatutes().Contains(status)) return false;
    if (!OnCellValue) return result;
    DecodeRecord(index, record_);
    SetRowStatus(0, index, status);
    return result;
}

void TDBF::DecodeRecord(int row, std::string_view record) {
    // One 32-bit slot per record, shared by the integer fields and the memo block numbers: a field
    // shorter than 4 bytes overwrites only its low bytes and keeps the rest of the last value.
    uint32_t work = 0;
    const auto overwrite = [&work](std::string_view bytes) {
        const size_t n = std::min<size_t>(bytes.size(), 4);
        for (size_t b = 0; b < n; ++b) {
            work &= ~(uint32_t{0xFF} << (8 * b));
            work |= uint32_t{static_cast<unsigned char>(bytes[b])} << (8 * b);
        }
    };
    std::string text;
    for (size_t i = 0; i < fields_.size(); ++i) {
        const TDBFField& f = fields_[i];
        const std::string_view bytes =
            record.substr(static_cast<size_t>(f.Offset), static_cast<size_t>(f.Length));
        Variant value;
        TAlignment alignment = taLeftJustify;
        TKvICellType type = ictString;
        if (IsBlank(bytes)) {
            value = Variant::Null();
            type = ictEmpty;
        } else {
            switch (f.Type) {
            case 'N':
            case 'F': {
                double number = ParseNumber(bytes);
                if (f.Decimals == 0) number = std::round(number);
                value = number;
                alignment = taRightJustify;
                type = ictDecimal;
                break;
            }
            case 'D': {
                TDateTime date = 0;
                const bool valid =
                    bytes.size() >= 8 && TryEncodeDate(Digits(bytes.substr(0, 4)), Digits(bytes.substr(4, 2)),
                                                       Digits(bytes.substr(6, 2)), date);
                value = valid ? Variant::FromDateTime(date) : Variant::Null();
                type = ictDateTime;
                break;
            }
            case 'L':
                value = bytes == "T";
                type = ictBoolean;
                break;
            case 'M':
            case 'B':
            case 'G':
            case 'P':
            case 'Q':
            case 'W': {
                if (version_ == VFP3 || version_ == HyperSix)
                    overwrite(bytes);
                else
                    work = static_cast<uint32_t>(ParseBlockNumber(bytes));
                const int32_t block = static_cast<int32_t>(work);
                if (ParseBLOB()) {
                    text.clear();
                    ReadBLOBValue(block, f.Length, text);
                    value = text;
                    type = ictMemo;
                } else {
                    value = block;
                    type = ictInteger;
                }
                break;
            }
            case 'I': {
                overwrite(bytes);
                uint32_t v = work;
                if (version_ != FoxPro && version_ != FoxProMemo && version_ != VFP3 && v != 0)
                    v -= 0x80000000u;
                value = static_cast<int32_t>(v);
                alignment = taRightJustify;
                type = ictInteger;
                break;
            }
            case '+':
            case '2':
            case '4':
                overwrite(bytes);
                value = static_cast<int32_t>(work);
                alignment = taRightJustify;
                type = ictInteger;
                break;
            case '8':
                value = BitsToDouble(LoadLE(bytes, 8));
                alignment = taRightJustify;
                type = ictDecimal;
                break;
            case 'O': {
                const uint64_t bits = LoadBE64(bytes);
                // The complement of a positive result is delivered as the integer it makes, on purpose.
                if (static_cast<int64_t>(bits) > 0)
                    value = Variant::FromInt(static_cast<int64_t>(~bits));
                else
                    value = -BitsToDouble(bits);
                alignment = taRightJustify;
                type = ictDecimal;
                break;
            }
            case '@': {
                const double msecs = std::round(BitsToDouble(LoadBE64(bytes)));
                value = Variant::Null();
                // Only milliseconds whose day fits a timestamp: the conversion keeps the day in an int.
                if (msecs >= 0 && msecs < static_cast<double>((kLastTimeStampDay + 1) * MSecsPerDay)) {
                    const TTimeStamp stamp = MSecsToTimeStamp(static_cast<int64_t>(msecs));
                    value = StampValue(stamp.Date, stamp.Time);
                }
                type = ictDateTime;
                break;
            }
            case 'T':
                type = ictDateTime;
                if (bytes[0] == ' ') {
                    value = Variant::Null();
                } else if (f.Length == 6) {
                    TDateTime time = 0;
                    const bool valid = TryEncodeTime(Digits(bytes.substr(0, 2)), Digits(bytes.substr(2, 2)),
                                                     Digits(bytes.substr(4, 2)), 0, time);
                    value = valid ? Variant::FromDateTime(time) : Variant::Null();
                } else {
                    const auto julian = static_cast<int32_t>(LoadLE(bytes, 4));
                    const auto msecs =
                        static_cast<int32_t>(LoadLE(bytes.substr(std::min<size_t>(bytes.size(), 4)), 4));
                    value = StampValue(int64_t{julian} - 1721425, msecs);
                }
                break;
            case 'Y':
                value = static_cast<double>(static_cast<int64_t>(LoadLE(bytes, 8))) / 10000.0;
                alignment = taRightJustify;
                type = ictDecimal;
                break;
            case '0':
                value = Variant::Null();
                type = ictEmpty;
                break;
            default:
                value = decoder_.Decode(bytes);
                break;
            }
        }
        OnCellValue(this, 0, row, static_cast<int>(i), 0, value, alignment, type);
    }
}

std::string TDBF::MemoFileName(std::string_view hyperSixExtension) const {
    if (FileName().empty()) return "";
    const std::string ext = version_ == FoxPro || version_ == FoxProMemo || memoType_ == dmFPT ? ".fpt"
                            : memoType_ == dmKvT                                               ? ".kvt"
                                                                                               : ".dbt";
    const auto cased = [](std::string s, bool upper) {
        for (char& c : s)
            c = static_cast<char>(upper ? std::toupper(static_cast<unsigned char>(c))
                                        : std::tolower(static_cast<unsigned char>(c)));
        return s;
    };
    // Names are case-sensitive here, and tables travel as "calls.dbf" with "calls.FPT": the table's own
    // case first, then either.
    const std::string tableExt = std::filesystem::path(FileName()).extension().string();
    const bool upperTable =
        !tableExt.empty() && tableExt == cased(tableExt, true) && tableExt != cased(tableExt, false);
    for (const std::string& candidate : {cased(ext, upperTable), cased(ext, true), cased(ext, false)}) {
        const std::string name = std::filesystem::path(FileName()).replace_extension(candidate).string();
        if (FileExists(name)) return name;
    }
    if (version_ == HyperSix && !hyperSixExtension.empty()) {
        const std::string name =
            std::filesystem::path(FileName()).replace_extension(hyperSixExtension).string();
        if (FileExists(name)) return name;
    }
    return "";
}

bool TDBF::OpenMemo(std::string_view hyperSixExtension) {
    if (memoTried_) return memo_ != nullptr;
    memoTried_ = true;
    TStream* stream = memoOverride_;
    if (!stream) {
        const std::string name = MemoFileName(hyperSixExtension);
        if (name.empty()) return false;
        try {
            memoFile_ = std::make_unique<TFileStream>(name, fmOpenRead | fmShareDenyNone);
        } catch (const std::exception&) {
            return false; // unreadable counts as missing: the memos are empty
        }
        stream = memoFile_.get();
    }
    stream->Seek(0, soBeginning);
    memo_ = std::make_unique<TKvBinaryReader>(*stream, kMemoFormat);
    // A memo file shorter than its header reads as if the rest were zeros.
    std::string header =
        memo_->ReadBytes(static_cast<size_t>(std::min<uint64_t>(memo_->Size(), kMemoHeaderSize)));
    header.resize(kMemoHeaderSize, '\0');
    const bool fpt = version_ == FoxPro || version_ == FoxProMemo || memoType_ == dmFPT;
    const uint16_t declared =
        fpt ? KvLoadBE<uint16_t>(header.data() + 6) : KvLoadLE<uint16_t>(header.data() + 20);
    memoBlockSize_ = declared == 0 ? 512 : declared;
    // dBase III memo files leave this word undefined: only its low byte is tested, as before.
    if (version_ == dBase3Memo && (declared & 0xFF) != 0) memoBlockSize_ = 512;
    return true;
}

void TDBF::CloseMemo() {
    memo_.reset();
    memoFile_.reset();
    memoTried_ = false;
}

void TDBF::ReadBLOBValue(int64_t offset, int64_t, std::string& text) {
    if (offset < 1) return;
    if (!OpenMemo(text)) {
        text.clear();
        return;
    }
    TKvBinaryReader& m = *memo_;
    text.clear();
    // A block past the end of the memo file is an empty memo.
    if (static_cast<uint64_t>(offset) >= (m.Size() + memoBlockSize_ - 1) / memoBlockSize_) return;
    const uint64_t start = static_cast<uint64_t>(offset) * memoBlockSize_;
    if (start >= m.Size()) return;
    m.Seek(start);

    const bool fpt = version_ == FoxPro || version_ == FoxProMemo || memoType_ == dmFPT;
    const bool lengthUnknown = version_ == dBase3 || version_ == dBase3Memo;
    uint64_t chunk = memoBlockSize_;
    uint64_t remaining = 0;
    if (!lengthUnknown) {
        if (!m.Has(8)) return;
        const uint32_t signature = m.ReadU32LE();
        uint32_t length = fpt ? m.ReadU32BE() : m.ReadU32LE();
        // A dBase IV and later block begins FF FF 08 00 and counts these 8 bytes in its length: its text
        // follows at once. Read by the older rule (8 more bytes skipped, the length taken as the text's),
        // every such memo would lose its first 8 characters and gain 8 bytes of what follows it.
        const bool counted = !fpt && signature == 0x0008FFFF;
        if (counted) {
            if (length <= 8) return;
            length -= 8;
        }
        if (length > 0 && length < memoBlockSize_) chunk = length;
        remaining = length;
        if (chunk == 0) return;
        if (!counted && (version_ == dBase4 || version_ == dBase4Memo)) {
            if (!m.Has(8)) return;
            m.Skip(8);
        }
    }
    std::string raw;
    while (!m.AtEnd()) {
        uint64_t want = lengthUnknown ? chunk : std::min(chunk, remaining);
        want = std::min(want, m.Remaining());
        if (want == 0 || raw.size() + want > kKvMaxAllocation) break;
        const size_t at = raw.size();
        raw.resize(at + static_cast<size_t>(want));
        m.ReadBuffer(raw.data() + at, static_cast<size_t>(want));
        if (lengthUnknown) {
            const std::string_view piece(raw.data() + at, static_cast<size_t>(want));
            size_t cut = piece.find("\x1A\x1A");
            if (cut == std::string_view::npos) cut = piece.find('\x1A');
            if (cut != std::string_view::npos) {
                raw.resize(at + cut);
                break;
            }
        } else {
            if (want >= remaining) break;
            remaining -= want;
        }
    }
    decoder_.Append(text, raw);
}

std::vector<TKvIDeclaredField> TDBF::DeclaredFields() const {
    std::vector<TKvIDeclaredField> out;
    out.reserve(fields_.size());
    for (const TDBFField& f : fields_) {
        TKvIDeclaredField d;
        d.Name = f.Name;
        d.Size = f.Length;
        d.Decimals = f.Decimals;
        d.TypeName = GetStrFieldType(f.Type);
        switch (f.Type) {
        case 'N':
        case 'F':
            d.CellType = f.Decimals == 0 ? ictInteger : ictDecimal;
            break;
        case 'D':
            d.CellType = ictDate; // declared a date alone, though its cells carry date-times
            break;
        case '@':
        case 'T':
            d.CellType = ictDateTime;
            break;
        case 'L':
            d.CellType = ictBoolean;
            break;
        case 'I':
        case '+':
        case '2':
        case '4':
            d.CellType = ictInteger;
            break;
        case '8':
        case 'O':
        case 'Y':
            d.CellType = ictDecimal;
            break;
        case '0':
            d.CellType = ictEmpty;
            break;
        default:
            d.CellType = IsMemoType(f.Type) ? (ParseBLOB() ? ictMemo : ictInteger) : ictString;
            break;
        }
        out.push_back(std::move(d));
    }
    return out;
}

std::vector<std::pair<std::string, std::string>> TDBF::FileProperties() const {
    const uint8_t versionByte = static_cast<uint8_t>(header_[0]);
    std::string version = GetStrFileType(versionByte);
    if (version.empty()) version = "unknown (" + Hex(versionByte) + ")";
    std::string memo = "none";
    if (std::any_of(fields_.begin(), fields_.end(), [](const TDBFField& f) { return IsMemoType(f.Type); })) {
        if (memoOverride_) {
            memo = "(stream)";
        } else {
            const std::string name = MemoFileName();
            if (!name.empty()) memo = std::filesystem::path(name).filename().string();
        }
    }
    return {{"Version", version},
            {"Records", std::to_string(std::max<int64_t>(recordCount_, 0))},
            {"Code page", CodePageDisplayName(CodePage())},
            {"Memo file", memo}};
}

} // namespace kv
