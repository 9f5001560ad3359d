#include "readers/archive/KvISPSS.h"

#include "readers/archive/KvISPSSInternal.h"

#include "platform/DateUtils.h"
#include "platform/FormatError.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>

namespace kv {

namespace {

using spss::kFormat;

/// Days from 1582-10-14, where the file's seconds count from, to 1899-12-30, where TDateTime does.
constexpr int64_t kDaysTo1899 = 115859;
/// The days a date-time may hold: 0001-01-01 to 9999-12-31, counted from 0001-01-01 as day 1.
constexpr int64_t kLastDay = 3652059;

constexpr const char* kFormatNames[] = {
    "",         "A",     "AHEX",  "COMMA", "DOLLAR", "F",     "IB",    "PIBHEX", "P",     "PIB",  "PK",
    "RB",       "RBHEX", "",      "",      "Z",      "N",     "E",     "",       "",      "DATE", "TIME",
    "DATETIME", "ADATE", "JDATE", "DTIME", "WKDAY",  "MONTH", "MOYR",  "QYR",    "WKYR",  "PCT",  "DOT",
    "CCA",      "CCB",   "CCC",   "CCD",   "CCE",    "EDATE", "SDATE", "MTIME",  "YMDHMS"};

/// A number of seconds since 1582-10-14 as a date-time, or a duration as a time of day. What neither can
/// hold whole comes as it would be shown rather than changed: a duration of a day or more (or below 0) as
/// its hours, minutes and seconds ("25:10:10"), a date outside the years 1 to 9999 as its number.
Variant SecondsToDateTime(double seconds, TSPSSValueKind kind) {
    if (!(std::fabs(seconds) < 1e12)) return Variant(seconds);
    const auto msecs = static_cast<int64_t>(std::llround(seconds * 1000));
    if (kind == svkTime) {
        if (msecs >= 0 && msecs < MSecsPerDay)
            return Variant::FromDateTime(static_cast<double>(msecs) / MSecsPerDay);
        const int64_t total = msecs < 0 ? -msecs : msecs;
        char text[48];
        std::snprintf(text, sizeof text, "%s%02lld:%02lld:%02lld", msecs < 0 ? "-" : "",
                      static_cast<long long>(total / 3600000), static_cast<long long>(total / 60000 % 60),
                      static_cast<long long>(total / 1000 % 60));
        std::string shown = text;
        if (total % 1000) {
            std::snprintf(text, sizeof text, ".%03lld", static_cast<long long>(total % 1000));
            shown += text;
        }
        return Variant(shown);
    }
    int64_t days = msecs / MSecsPerDay;
    int64_t rest = msecs % MSecsPerDay;
    if (rest < 0) {
        rest += MSecsPerDay;
        --days;
    }
    days -= kDaysTo1899;
    if (days + DateDelta < 1 || days + DateDelta > kLastDay) return Variant(seconds);
    return Variant::FromDateTime(
        CombineDateTime(static_cast<double>(days), static_cast<double>(rest) / MSecsPerDay));
}

} // namespace

TSPSSValueKind TSPSSFormat::Kind() const {
    switch (Type) {
    case 1: // A
    case 2: // AHEX
        return svkString;
    case 20: // DATE
    case 23: // ADATE
    case 24: // JDATE
    case 28: // MOYR
    case 29: // QYR
    case 30: // WKYR
    case 38: // EDATE
    case 39: // SDATE
        return svkDate;
    case 22: // DATETIME
    case 41: // YMDHMS
        return svkDateTime;
    case 21: // TIME
    case 25: // DTIME
    case 40: // MTIME
        return svkTime;
    default:
        return svkNumber;
    }
}

const char* TSPSSFormat::TypeName(int type) {
    return type >= 0 && static_cast<size_t>(type) < std::size(kFormatNames) ? kFormatNames[type] : "";
}

std::string TSPSSFormat::Text() const {
    const std::string name = TypeName(Type);
    std::string out = (name.empty() ? "FORMAT" + std::to_string(Type) : name) + std::to_string(Width);
    const bool text = Type == 1 || Type == 2;
    const bool dateOrTime = Kind() != svkNumber;
    if (!text && (Decimals > 0 || !dateOrTime)) out += "." + std::to_string(Decimals);
    return out;
}

TSPSSFile::TSPSSFile(TComponent* owner) : TSpreadSheetFile(owner) {
    SetRecordMode(true);
    SetNameKind(nkFieldName);
}

TSPSSFile::~TSPSSFile() {
    AfterLoad();
}

void TSPSSFile::LoadFromFile(const std::string& fileName) {
    TSpreadSheetFile::LoadFromFile(fileName);
    auto file = std::make_unique<TFileStream>(fileName, fmOpenRead | fmShareDenyNone);
    file->Seek(0, soBeginning);
    if (RecordMode()) {
        // The cases are read after this returns: the reader keeps the file until AfterLoad.
        TStream& stream = *file;
        ownedStream_ = std::move(file);
        LoadFromStream(stream);
    } else {
        LoadFromStream(*file);
    }
}

void TSPSSFile::LoadFromStream(TStream& stream) {
    data_.reset();
    in_.reset();
    if (ownedStream_.get() != &stream) ownedStream_.reset();
    TSpreadSheetFile::LoadFromStream(stream);
    loaded_ = false;
    BeforeLoad();
    ClearWarnings();
    header_ = TSPSSHeader();
    variables_.clear();
    documents_.clear();
    labels_.clear();
    try {
        in_ = std::make_unique<TKvBinaryReader>(stream, kFormat);
        spss::TDictionary dictionary;
        spss::ReadDictionary(*in_, dictionary);
        data_ = std::make_unique<TSPSSData>(*in_, dictionary);
        header_ = std::move(dictionary.Header);
        variables_ = std::move(dictionary.Variables);
        documents_ = std::move(dictionary.Documents);
        decoder_ = TKvCodePageDecoder(dictionary.CodePage);
        for (std::string& warning : dictionary.Warnings) AddWarning(std::move(warning));
        caseBuffer_.assign(static_cast<size_t>(dictionary.Slots) * 8, '\0');
        caseCount_ = header_.CaseCount;
        if (caseCount_ < 0 && header_.Compression == scNone) {
            // Uncompressed cases have one size: their number is what the file holds.
            const uint64_t caseBytes = static_cast<uint64_t>(dictionary.Slots) * 8;
            caseCount_ =
                caseBytes == 0 ? 0 : static_cast<int64_t>((in_->Size() - dictionary.DataStart) / caseBytes);
        }
    } catch (...) {
        data_.reset();
        in_.reset();
        ownedStream_.reset();
        throw;
    }
    for (const TSPSSVariable& v : variables_) {
        TLabels& labels = labels_.emplace_back();
        for (const auto& [value, label] : v.NumberLabels) labels.Numbers.emplace(value, label);
        for (const auto& [value, label] : v.TextLabels) labels.Texts.emplace(value, label);
    }
    loaded_ = true;
    Rewind();
    const int columns = static_cast<int>(variables_.size());
    if (OnDimensions)
        OnDimensions(this, 0, 0, static_cast<int>(std::min<int64_t>(caseCount_, INT32_MAX)), 0, columns);
    if (OnColumnWidth)
        for (int i = 0; i < columns; ++i)
            OnColumnWidth(this, 0, i, variables_[static_cast<size_t>(i)].Print.Width);
    if (RecordMode()) return;

    try {
        for (int row = 0; row <= LoadRange().LastRow && LoadNextCase(); ++row) {
        }
    } catch (...) {
        AfterLoad();
        throw;
    }
    AfterLoad();
}

void TSPSSFile::BeforeLoad() {
    TSpreadSheetFile::BeforeLoad();
    if (!FileName().empty())
        SpreadSheets().Spreadsheet(0).SetName(std::filesystem::path(FileName()).filename().string());
    if (loaded_) Rewind();
}

void TSPSSFile::Rewind() {
    if (data_) data_->Rewind();
    casesRead_ = 0;
    pending_ = false;
    ended_ = false;
    error_ = nullptr;
}

void TSPSSFile::AfterLoad() {
    data_.reset();
    in_.reset();
    ownedStream_.reset();
    TSpreadSheetFile::AfterLoad();
}

bool TSPSSFile::FetchCase() {
    if (error_) std::rethrow_exception(std::exchange(error_, nullptr));
    if (ended_ || !data_) return false;
    if (caseCount_ >= 0 && casesRead_ >= caseCount_) {
        // Whatever follows the cases counted is not theirs.
        ended_ = true;
        return false;
    }
    try {
        if (data_->Next(caseBuffer_.data(), casesRead_ + 1)) {
            pending_ = true;
            return true;
        }
        ended_ = true;
        const int64_t declared = caseCount_;
        caseCount_ = casesRead_;
        if (declared > casesRead_)
            throw EKvFormatError(fekTruncated, kFormat, data_->Offset(),
                                 "the header announces " + std::to_string(declared) +
                                     " cases, the data ends after " + std::to_string(casesRead_));
        return false;
    } catch (const EKvFormatError& e) {
        ended_ = true;
        caseCount_ = casesRead_;
        // A failure among the cases reaches the user beside a row number: the file is named too.
        if (FileName().empty() || !RecordMode()) throw;
        throw EKvFormatError(e.Kind(), FileName() + ": " + e.Format(), e.Offset(), e.Detail());
    }
}

bool TSPSSFile::LoadNextCase() {
    if (!pending_ && !FetchCase()) return false;
    pending_ = false;
    const int64_t row = casesRead_++;
    UpdateProgress(static_cast<int64_t>(data_->Offset()), static_cast<int64_t>(in_->Size()));
    if (OnCellValue) DeliverCase(static_cast<int>(std::min<int64_t>(row, INT32_MAX)));
    return true;
}

bool TSPSSFile::LoadRecord(int index) {
    const bool result = TSpreadSheetFile::LoadRecord(index);
    if (!data_) return false;
    if (index < casesRead_) Rewind();
    while (casesRead_ < index) {
        if (!pending_ && !FetchCase()) return false;
        pending_ = false;
        ++casesRead_;
    }
    return LoadNextCase() && result;
}

bool TSPSSFile::HasRecord(int index) {
    if (!data_) return false;
    if (caseCount_ >= 0) return index < caseCount_;
    if (index < casesRead_ || pending_) return true;
    // The count is not known: the next case is read ahead. A failure is kept for the read that wants it,
    // so that the caller asking whether more follows does not meet it.
    try {
        return FetchCase();
    } catch (...) {
        error_ = std::current_exception();
        return true;
    }
}

bool TSPSSFile::IsMissing(const TSPSSVariable& v, double number) {
    const TSPSSMissingValues& m = v.Missing;
    if (m.HasRange && number >= m.Low && number <= m.High) return true;
    return std::find(m.Numbers.begin(), m.Numbers.end(), number) != m.Numbers.end();
}

void TSPSSFile::DeliverCase(int row) {
    const bool bigEndian = header_.BigEndian;
    const bool nullMissing = userMissing_ == umNull;
    const bool utf8 = decoder_.CodePage() == kCodePageUtf8;
    for (size_t i = 0; i < variables_.size(); ++i) {
        const TSPSSVariable& v = variables_[i];
        const TLabels& labels = labels_[i];
        TAlignment alignment = taLeftJustify;
        TKvICellType type = ictString;
        if (v.IsString()) {
            text_.clear();
            for (const auto& [slot, bytes] : v.Segments)
                text_.append(caseBuffer_.data() + static_cast<size_t>(slot) * 8, static_cast<size_t>(bytes));
            const std::string_view raw =
                spss::TrimValue(std::string_view(text_).substr(0, static_cast<size_t>(v.Width)), utf8);
            const auto label = valueLabels_ && !labels.Texts.empty() ? labels.Texts.find(std::string(raw))
                                                                     : labels.Texts.end();
            if (nullMissing && !v.Missing.Texts.empty() &&
                std::find(v.Missing.Texts.begin(), v.Missing.Texts.end(), raw) != v.Missing.Texts.end()) {
                value_.SetNull();
            } else if (label != labels.Texts.end()) {
                value_ = label->second;
            } else {
                std::string decoded;
                decoder_.Append(decoded, raw);
                value_ = std::move(decoded);
            }
        } else {
            const double number =
                spss::GetNumber(caseBuffer_.data() + static_cast<size_t>(v.Slot) * 8, bigEndian);
            alignment = taRightJustify;
            type = v.Kind == svkDate       ? ictDate
                   : v.Kind == svkDateTime ? ictDateTime
                   : v.Kind == svkTime     ? ictTime
                                           : ictDecimal;
            const auto label =
                valueLabels_ && !labels.Numbers.empty() ? labels.Numbers.find(number) : labels.Numbers.end();
            if (number == header_.SystemMissing || std::isnan(number) ||
                (nullMissing && IsMissing(v, number))) {
                value_.SetNull();
            } else if (label != labels.Numbers.end()) {
                value_ = label->second;
                alignment = taLeftJustify;
                type = ictString;
            } else if (type != ictDecimal) {
                value_ = SecondsToDateTime(number, v.Kind);
                if (value_.IsString())
                    type = ictString;
                else if (value_.VarType() != varDate)
                    type = ictDecimal;
            } else if (v.Print.Decimals == 0 && number == std::trunc(number) && std::fabs(number) < 9.0e15) {
                value_ = Variant::FromInt(static_cast<int64_t>(number));
                type = ictInteger;
            } else {
                value_ = number;
            }
        }
        const int32_t format = (v.Print.Type << 16) | (std::min(v.Print.Width, 255) << 8) | v.Print.Decimals;
        OnCellValue(this, 0, row, static_cast<int>(i), format, value_, alignment, type);
    }
}

std::vector<TKvIDeclaredField> TSPSSFile::DeclaredFields() const {
    std::vector<TKvIDeclaredField> out;
    out.reserve(variables_.size());
    for (const TSPSSVariable& v : variables_) {
        TKvIDeclaredField d;
        d.Name = captions_ == spcLabels && !v.Label.empty() ? v.Label : v.Name;
        d.TypeName = v.Print.Text();
        d.Size = v.IsString() ? v.Width : v.Print.Width;
        d.Decimals = v.IsString() ? 0 : v.Print.Decimals;
        const bool labelled = valueLabels_ && !(v.NumberLabels.empty() && v.TextLabels.empty());
        switch (v.Kind) {
        case svkDate:
            d.CellType = ictDate;
            break;
        case svkDateTime:
            d.CellType = ictDateTime;
            break;
        case svkTime:
            d.CellType = ictTime;
            break;
        case svkString:
            d.CellType = ictString;
            break;
        default:
            d.CellType = v.Print.Decimals == 0 ? ictInteger : ictDecimal;
            break;
        }
        if (labelled) d.CellType = ictString;
        out.push_back(std::move(d));
    }
    return out;
}

std::vector<std::pair<std::string, std::string>> TSPSSFile::FileProperties() const {
    static const char* const compressions[] = {"none", "bytecode", "zlib"};
    std::vector<std::pair<std::string, std::string>> out = {
        {"Product", header_.Product},
        {"Created", header_.CreationDate + " " + header_.CreationTime},
    };
    if (!header_.FileLabel.empty()) out.emplace_back("File label", header_.FileLabel);
    out.emplace_back("Cases", header_.CaseCount >= 0 ? std::to_string(header_.CaseCount) : "unknown");
    out.emplace_back("Variables", std::to_string(variables_.size()));
    out.emplace_back("Compression", compressions[header_.Compression]);
    out.emplace_back("Encoding", CodePageDisplayName(CodePage()));
    out.emplace_back("Byte order", header_.BigEndian ? "big-endian" : "little-endian");
    if (header_.WeightIndex > 0)
        for (const TSPSSVariable& v : variables_)
            if (v.Slot == header_.WeightIndex - 1) out.emplace_back("Weight", v.Name);
    for (const std::string& line : documents_) out.emplace_back("Document", line);
    return out;
}

} // namespace kv
