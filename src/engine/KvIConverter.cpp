#include "engine/KvIConverter.h"

#include "engine/Impcnst.h"
#include "engine/KvIMIME.h"
#include "expression/KvIPars.h"
#include "platform/DateUtils.h"
#include "platform/Exceptions.h"
#include "platform/Format.h"
#include "platform/SysUtils.h"
#include "platform/Utf8.h"

namespace kv {

namespace {

std::string CharText(char32_t c) {
    return c ? Utf8Encode(c) : std::string();
}

bool IsIntegerType(TFieldType t) {
    return t == ftSmallint || t == ftInteger || t == ftWord || t == ftAutoInc || t == ftLargeint;
}

// The reader of `mask`, made again only when the separators it was made with have changed.
const TKvDateMask& MaskReader(std::unique_ptr<TKvDateMask>& reader, const std::string& mask,
                              char32_t dateSeparator, char32_t timeSeparator) {
    if (!reader || reader->DateSeparator() != dateSeparator || reader->TimeSeparator() != timeSeparator)
        reader = std::make_unique<TKvDateMask>(mask, dateSeparator, timeSeparator);
    return *reader;
}

} // namespace

TKvIValueConverter::TKvIValueConverter(const TKvIDataFormats& formats) : formats_(formats) {}

TKvIValueConverter::~TKvIValueConverter() = default;

std::string TKvIValueConverter::TimeMask(bool withT) const {
    const std::string sep = CharText(formats_.TimeSeparator);
    return std::string(withT ? "T" : "") + "HH" + sep + "NN" + sep + "SS";
}

std::string TKvIValueConverter::DateTimeMask(bool withT) const {
    if (!formats_.CustomDateTimeFormat.empty()) return Utf8UpperCase(formats_.CustomDateTimeFormat);
    const std::string sep = CharText(formats_.DateSeparator);
    const std::string y = formats_.FourDigitYear ? "YYYY" : "YY";
    const char* order[6][3] = {{"MM", "DD", "Y"}, {"DD", "MM", "Y"}, {"Y", "MM", "DD"},
                               {"Y", "DD", "MM"}, {"DD", "Y", "MM"}, {"MM", "Y", "DD"}};
    std::string date;
    for (int i = 0; i < 3; ++i) {
        const std::string part = order[formats_.DateOrder][i];
        if (i) date += sep;
        date += part == "Y" ? y : part;
    }
    return date + " " + TimeMask(withT);
}

void TKvIValueConverter::Start(bool withT, bool mime, bool keepUnconverted, bool isoDatesAsText) {
    withT_ = withT;
    mime_ = mime;
    keepUnconverted_ = keepUnconverted;
    isoDatesAsText_ = isoDatesAsText;
    maskReadsIso_ = -1;
    dateMask_.clear();
    timeMask_.clear();
    dateReader_.reset();
    timeReader_.reset();
}

const TKvDateMask& TKvIValueConverter::DateReader() {
    if (dateMask_.empty()) dateMask_ = DateTimeMask(withT_);
    return MaskReader(dateReader_, dateMask_, formats_.DateSeparator, formats_.TimeSeparator);
}

bool TKvIValueConverter::KeepsIsoDate(TFieldType type, const std::string& text) {
    // Years before 1000 are left to the readers, which may take a small year for one of this century.
    return isoDatesAsText_ && type == ftDate && IsIsoDate(text) && text[0] != '0' && MaskReadsIsoDates();
}

bool TKvIValueConverter::MaskReadsIsoDates() {
    // A mask reads by the places of the digits, so two dates that differ in every place tell whether it
    // reads every "yyyy-mm-dd" as that day.
    if (maskReadsIso_ < 0) {
        static const struct {
            const char* Text;
            int Year, Month, Day;
        } probes[] = {{"2001-02-03", 2001, 2, 3}, {"1987-11-28", 1987, 11, 28}};
        maskReadsIso_ = 1;
        for (const auto& probe : probes) {
            TDateTime read, expected;
            if (!DateReader().TryRead(probe.Text, read) ||
                !TryEncodeDate(probe.Year, probe.Month, probe.Day, expected) || read != expected)
                maskReadsIso_ = 0;
        }
    }
    return maskReadsIso_ == 1;
}

void TKvIValueConverter::Finish(Variant& value, TKvITrimSpaces trim, std::optional<TFieldType> type) {
    if (value.IsString() && trim != tsNoTrim) {
        const std::string& text = value.StringRef();
        const std::string_view trimmed = trim == tsTrimRight  ? TrimRightView(text)
                                         : trim == tsTrimLeft ? TrimLeftView(text)
                                                              : TrimView(text);
        if (trimmed.size() != text.size()) value.AssignText(trimmed);
    }
    // Only texts (and byte strings) can have an empty text; a number or a date never does.
    const bool textual = value.IsString() || value.VarType() == varBytes;
    if (value.IsNullOrEmpty() || (textual && value.StringRef().empty())) {
        value = Variant::Null();
        return;
    }
    if (type) Convert(*type, value);
}

void TKvIValueConverter::Convert(TFieldType type, Variant& value) {
    if (value.IsString()) {
        const std::string& s = value.StringRef();
        if (!mime_) {
            if (s.starts_with("[CDATA["))
                value = Variant(s.size() >= 9 ? s.substr(7, s.size() - 9) : std::string());
        } else if (s.starts_with("[CDATA[")) {
            value = Variant::FromBytes(
                Decode64(s.size() >= 9 ? std::string_view(s).substr(7, s.size() - 9) : ""));
        } else if (IsBlobType(type)) {
            value = Variant::FromBytes(Decode64(s));
        }
    }
    if (!value.IsString()) return;

    // Every branch reads the text before it replaces the value, and never after. Text that fits no value
    // of the field's type is a row error, or stays the text it is for a destination that keeps it.
    const std::string& text = value.StringRef();
    const std::string_view trimmed = TrimView(text);
    const auto unconverted = [&](const std::string& message) {
        if (!keepUnconverted_) throw EConvertError(Format(message, text));
    };
    if (type == ftBoolean) {
        using namespace std::string_view_literals; // compared by length first, with no strlen
        const std::string_view t = text;
        if (t == formats_.BooleanTrue || t == "True"sv || t == "1"sv || t == "T"sv || t == "Y"sv)
            value = Variant(true);
        else if (t == formats_.BooleanFalse || t == "False"sv || t == "0"sv || t == "F"sv || t == "N"sv)
            value = Variant(false);
        else if (t == "-1"sv)
            value = Variant::Null(); // deliberately: "-1" is no answer
        else if (t == "true"sv || t == "false"sv || (t.size() == 4 && SameText(t, "True"sv)) ||
                 (t.size() == 5 && SameText(t, "False"sv)))
            value = Variant(t.size() == 4); // as the field itself reads them, in any case
    } else if (IsIntegerType(type) || type == ftFloat || type == ftCurrency || type == ftBCD) {
        if (trimmed.empty()) {
            value = Variant::Null(); // blanks are no number
            return;
        }
        TDecimalText format;
        format.DecimalSeparator = formats_.DecimalSeparator;
        format.ThousandSeparator = formats_.ThousandSeparator;
        format.CurrencyString = formats_.CurrencyString;
        if (IsIntegerType(type)) {
            int64_t n;
            if (TryReadDecimalInt64(trimmed, n, format))
                value = Variant::FromInt(n);
            else
                unconverted(strNotAnInteger);
            return;
        }
        double d;
        if (TryReadDecimalFloat(trimmed, d, format))
            value = Variant(d);
        else if (SameText(trimmed, "NULL"))
            value = Variant::Null();
        else
            unconverted(strNotAFloat);
    } else if (type == ftDate || type == ftDateTime) {
        bool onlySeparators = true;
        for (size_t pos = 0; pos < text.size() && onlySeparators;) {
            const char32_t c = Utf8Decode(text, pos);
            onlySeparators = c <= U' ' || c == U'/' || c == U':' || c == formats_.DateSeparator ||
                             c == formats_.TimeSeparator;
        }
        if (onlySeparators) {
            value = Variant::Null();
            return;
        }
        // A zone is no part of a date-time value: the text goes on whole, to be stored as it is.
        if (trimmed.size() > 10 && IsIsoDateTimeWithZone(trimmed)) return; // a date alone has no zone
        if (KeepsIsoDate(type, text)) return;
        TDateTime dt;
        if (DateReader().TryRead(trimmed, dt) || TryISO8601ToDateTime(trimmed, dt))
            value = Variant::FromDateTime(dt);
        else
            unconverted(strNotADate);
    } else if (type == ftTime) {
        if (trimmed.empty()) {
            value = Variant::Null();
            return;
        }
        if (timeMask_.empty()) timeMask_ = TimeMask(false);
        TDateTime dt;
        if (!MaskReader(timeReader_, timeMask_, formats_.DateSeparator, formats_.TimeSeparator)
                 .TryRead(trimmed, dt))
            dt = 0; // unreadable time text is midnight, unlike dates
        value = Variant::FromDateTime(dt);
    }
}

TKvIColumnFinisher::TKvIColumnFinisher(const TKvIDataFormats& formats, TKvITrimSpaces trim)
    : formats_(formats), trim_(trim) {}

void TKvIColumnFinisher::SetColumn(int handle, std::optional<TFieldType> type) {
    if (handle < 0) return;
    const auto index = static_cast<size_t>(handle);
    if (types_.size() <= index) {
        types_.resize(index + 1);
        set_.resize(index + 1);
    }
    types_[index] = type;
    set_[index] = 1;
}

void TKvIColumnFinisher::Finish(int handle, Variant& value, std::exception_ptr& error) {
    error = nullptr;
    try {
        converter_.Finish(value, trim_, Has(handle) ? types_[static_cast<size_t>(handle)] : std::nullopt);
    } catch (...) {
        error = std::current_exception();
        value.SetNull();
    }
}

} // namespace kv
