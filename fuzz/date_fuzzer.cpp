// Fuzz target: the date readers. The first byte picks the separators and a mask, the next eight a
// date-time, the rest is text. A date-time written in ISO form or by a mask's own pattern reads back to
// the same millisecond; what the ISO reader accepts decodes to the parts written in the text, and the
// mask "yyyy-mm-dd hh:nn:ss" reads it alike; a text with a zone is never a plain ISO date-time, and
// without its zone it is one; a mask reads the same once or twice.

#include "expression/KvIPars.h"
#include "platform/DateUtils.h"
#include "platform/FormatSettings.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

// The line of a failed check goes with the crash report.
void Check(bool condition, int line = __builtin_LINE()) {
    if (condition) return;
    std::fprintf(stderr, "check failed at line %d\n", line);
    std::abort();
}

int64_t MSecsOf(kv::TDateTime value) {
    return kv::TimeStampToMSecs(kv::DateTimeToTimeStamp(value));
}

bool Near(kv::TDateTime a, kv::TDateTime b) {
    return std::llabs(MSecsOf(a) - MSecsOf(b)) <= 1;
}

bool Digits(std::string_view s, size_t pos, size_t width, int& out) {
    if (pos + width > s.size()) return false;
    out = 0;
    for (size_t i = pos; i < pos + width; ++i) {
        if (s[i] < '0' || s[i] > '9') return false;
        out = out * 10 + (s[i] - '0');
    }
    return true;
}

// The milliseconds since 0001-01-01 that an ISO text "yyyy-mm-dd[(T|t| )hh:nn[:ss[(.|,)f...]]]" names,
// worked out here from its digits; -1 when it is not of that form.
int64_t IsoMSecs(std::string_view s) {
    int year, month, day, hour = 0, minute = 0, second = 0;
    if (!Digits(s, 0, 4, year) || s.size() < 10 || s[4] != '-' || !Digits(s, 5, 2, month) || s[7] != '-' ||
        !Digits(s, 8, 2, day))
        return -1;
    kv::TDateTime date;
    if (!kv::TryEncodeDate(year, month, day, date)) return -1;
    int64_t msec = 0;
    size_t pos = 10;
    if (pos < s.size()) {
        if (s[pos] != 'T' && s[pos] != 't' && s[pos] != ' ') return -1;
        if (!Digits(s, pos + 1, 2, hour) || pos + 3 >= s.size() || s[pos + 3] != ':' ||
            !Digits(s, pos + 4, 2, minute))
            return -1;
        pos += 6;
        if (pos < s.size()) {
            if (s[pos] != ':' || !Digits(s, pos + 1, 2, second)) return -1;
            pos += 3;
            if (pos < s.size()) {
                if ((s[pos] != '.' && s[pos] != ',') || pos + 1 == s.size()) return -1;
                // Rounded to the millisecond by the fourth digit.
                int digits = 0;
                for (++pos; pos < s.size(); ++pos, ++digits) {
                    if (s[pos] < '0' || s[pos] > '9') return -1;
                    if (digits < 3)
                        msec = msec * 10 + (s[pos] - '0');
                    else if (digits == 3 && s[pos] >= '5')
                        ++msec;
                }
                for (; digits < 3; ++digits) msec *= 10;
            }
        }
        if (hour > 23 || minute > 59 || second > 59) return -1;
    }
    const int64_t days = static_cast<int64_t>(std::llround(date)) + kv::DateDelta;
    return days * kv::MSecsPerDay + ((hour * 60LL + minute) * 60 + second) * 1000 + msec;
}

// Date-times read back through FormatDateTime and a mask of the same layout ("/" and ":" are the
// separators in both), to the unit the mask holds.
struct TMaskCase {
    const char* Pattern;
    const char* Mask;
    int64_t Unit; ///< milliseconds
};
const TMaskCase kMasks[] = {
    {"dd/mm/yyyy", "dd/mm/yyyy", kv::MSecsPerDay},
    {"mm/dd/yyyy hh:nn:ss", "mm/dd/yyyy hh:nn:ss", 1000},
    {"yyyy/mm/dd hh:nn", "yyyy/mm/dd hh:nn", 60000},
    {"yyyymmddhhnnss", "yyyymmddhhnnss", 1000},
    {"dd/mmm/yyyy", "dd/mmm/yyyy", kv::MSecsPerDay},
    {"yyyy/mm/dd hh:nn:ss.zzz", "yyyy/mm/dd hh:nn:ss", 1},
    {"hh:nn:ss.zzz", "hh:nn:ss", 1},
    {"dd/mm/yyyy\"T\"hh:nn:ss", "dd/mm/yyyy hh:nn:ss", 1000},
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 9 || size > 4096) return 0;
    static const char32_t dateSeparators[] = {U'-', U'/', U'.', U'\u00B7'};
    static const char32_t timeSeparators[] = {U':', U'.', U'h', U' '};
    const char32_t dateSep = dateSeparators[data[0] & 3];
    const char32_t timeSep = timeSeparators[(data[0] >> 2) & 3];
    kv::TFormatSettings fs = kv::InvariantFormatSettings();
    fs.DateSeparator = dateSep;
    fs.TimeSeparator = timeSep == U'.' ? U'.' : U':'; // a letter or a blank would stand in the patterns
    const std::string_view text(reinterpret_cast<const char*>(data) + 9, size - 9);

    // A date-time from eight bytes, every part in range.
    const int year = 1 + (data[1] | data[2] << 8) % 9999;
    const int month = 1 + data[3] % 12, day = 1 + data[4] % kv::DaysInMonth(year, month);
    const int hour = data[5] % 24, minute = data[6] % 60, second = data[7] % 60, msec = data[8] * 4 % 1000;
    const kv::TDateTime value = kv::EncodeDateTime(year, month, day, hour, minute, second, msec);
    const kv::TDateTimeParts parts = kv::DecodeDateTime(value);
    Check(parts.Year == year && parts.Month == month && parts.Day == day && parts.Hour == hour &&
          parts.Minute == minute && parts.Second == second && parts.MSec == msec);

    // Written in ISO form, it reads back.
    const std::string iso = kv::DateTimeToISO8601(value);
    kv::TDateTime read = 0;
    Check(kv::TryISO8601ToDateTime(iso, read) && Near(read, value));
    Check(kv::TryISO8601ToDateTime(kv::DateToISO8601(value), read) && Near(read, std::trunc(value)));
    Check(kv::TryISO8601ToTime(kv::TimeToISO8601(value), read) &&
          MSecsOf(read) - kv::DateDelta * kv::MSecsPerDay == MSecsOf(value) % kv::MSecsPerDay);
    Check(!kv::IsIsoDateTimeWithZone(iso) && kv::IsIsoDateTimeWithZone(iso + "Z") &&
          kv::IsIsoDateTimeWithZone(" " + iso + "+05:30 ") && !kv::TryISO8601ToDateTime(iso + "Z", read));

    // Written by a pattern, it reads back by the mask of the same layout (from the year 100 on: a
    // two-digit year would be placed in the century window).
    const TMaskCase& maskCase = kMasks[(data[0] >> 4) % (sizeof kMasks / sizeof kMasks[0])];
    if (year >= 100) {
        const kv::TKvDateMask mask(maskCase.Mask, fs.DateSeparator, fs.TimeSeparator);
        int64_t expected = MSecsOf(value) / maskCase.Unit * maskCase.Unit;
        if (maskCase.Mask[0] == 'h') expected = expected % kv::MSecsPerDay + kv::DateDelta * kv::MSecsPerDay;
        const std::string written = kv::FormatDateTime(maskCase.Pattern, value, fs);
        Check(mask.TryRead(written, read) && std::llabs(MSecsOf(read) - expected) <= 1);
    }

    // The ISO readers on any text.
    if (kv::TryISO8601ToDateTime(text, read)) {
        const int64_t expected = IsoMSecs(text);
        Check(expected >= 0 && std::llabs(MSecsOf(read) - expected) <= 1);
        Check(!kv::IsIsoDateTimeWithZone(text));
        // Written again, it reads back.
        kv::TDateTime again;
        Check(kv::TryISO8601ToDateTime(kv::DateTimeToISO8601(read), again) && Near(again, read));
        // The mask of that layout reads it alike (from the year 100 on: a smaller one is a two-digit year).
        if (text.substr(0, 2) != "00") {
            const kv::TKvDateMask mask("yyyy-mm-dd hh:nn:ss", U'-', U':');
            Check(mask.TryRead(text, again) && Near(again, read));
        }
    }
    if (kv::IsIsoDateTimeWithZone(text)) {
        Check(!kv::TryISO8601ToDateTime(text, read));
        // Without its zone, the rest is a plain ISO date-time with a time.
        std::string_view plain = text;
        while (!plain.empty() && static_cast<unsigned char>(plain.front()) <= ' ') plain.remove_prefix(1);
        while (!plain.empty() && static_cast<unsigned char>(plain.back()) <= ' ') plain.remove_suffix(1);
        const size_t zone = plain.find_last_of("Zz+-");
        Check(zone != std::string_view::npos && zone > 10);
        Check(kv::TryISO8601ToDateTime(plain.substr(0, zone), read));
    }
    if (kv::TryISO8601ToTime(text, read)) {
        Check(read >= 0 && read <= 1);
        const int64_t expected = IsoMSecs("1899-12-30 " + std::string(text));
        Check(std::llabs(MSecsOf(read) - expected) <= 1);
        kv::TDateTime again;
        if (read < 1) Check(kv::TryISO8601ToTime(kv::TimeToISO8601(read), again) && Near(again, read));
    }

    // A mask of any text, and the value after the first "|" (or the whole text by the table's mask).
    const size_t bar = text.find('|');
    const std::string_view maskText = bar == std::string_view::npos ? maskCase.Mask : text.substr(0, bar);
    const std::string_view valueText = bar == std::string_view::npos ? text : text.substr(bar + 1);
    const kv::TKvDateMask mask(maskText, dateSep, timeSep);
    const kv::TDateTime once = mask.Read(valueText);
    kv::TDateTime tried;
    const bool found = mask.TryRead(valueText, tried);
    Check(std::isfinite(once) && once == tried && once == mask.Read(valueText));
    Check(once == kv::GetDTByMask(valueText, maskText, dateSep, timeSep));
    if (found) Check(kv::DecodeDateTime(once).Year >= 1 || once < 1); // a date, or a time of day alone
    return 0;
}
