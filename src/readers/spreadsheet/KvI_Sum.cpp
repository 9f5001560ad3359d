#include "readers/spreadsheet/KvI_Sum.h"

#include "platform/FormatError.h"
#include "platform/SysUtils.h"
#include "readers/spreadsheet/KvCompoundFile.h"
#include "readers/spreadsheet/KvPropertySet.h"

#include <ctime>

namespace kv {

namespace {

// The FMTIDs of the summary and document summary property sets, as the 16 bytes a stream holds.
const std::string_view kSummaryFormatId("\xE0\x85\x9F\xF2\xF9\x4F\x68\x10\xAB\x91\x08\x00\x2B\x27\xB3\xD9",
                                        16);
const std::string_view kDocSummaryFormatId("\x02\xD5\xCD\xD5\x9C\x2E\x1B\x10\x93\x97\x08\x00\x2B\x2C\xF9\xAE",
                                           16);

/// 100-ns intervals from 1601-01-01 to 1970-01-01.
constexpr uint64_t kUnixEpochFileTime = 116444736000000000ULL;
constexpr uint64_t kFileTimePerSecond = 10000000;

// A value of the wrong kind (a blob where a count belongs) stores "" or 0 rather than failing the load.
std::string AsText(const Variant& v) {
    try {
        return v.AsString();
    } catch (const Exception&) {
        return {};
    }
}
int AsCount(const Variant& v) {
    try {
        return v.AsInteger();
    } catch (const Exception&) {
        return 0;
    }
}
TDateTime AsDate(const Variant& v) {
    try {
        return v.AsDouble();
    } catch (const Exception&) {
        return 0;
    }
}

/// `count` characters from the 1-based position `start`, as an integer; 0 for bad text.
int Field(std::string_view text, size_t start, size_t count) {
    return start - 1 < text.size() ? StrToIntDef(text.substr(start - 1, count), 0) : 0;
}

/// The broken-down local time of a file time; false when the C library cannot give it.
bool LocalFields(uint64_t fileTime, std::tm& out) {
    const auto seconds = static_cast<int64_t>(fileTime / kFileTimePerSecond) -
                         static_cast<int64_t>(kUnixEpochFileTime / kFileTimePerSecond);
    const auto t = static_cast<std::time_t>(seconds);
    return localtime_r(&t, &out) != nullptr;
}

} // namespace

void TKvISummaryInformation::Clear() {
    *this = TKvISummaryInformation();
}

void TKvISummaryInformation::Assign(const TPersistent& source) {
    const auto* s = dynamic_cast<const TKvISummaryInformation*>(&source);
    if (!s) return TPersistent::Assign(source);
    *this = *s;
}

void TKvISummaryInformation::ParseProperty(uint32_t id, const Variant& value, bool isDocumentSet) {
    if (isDocumentSet) return ParseDocProperty(id, value);
    switch (id) {
    case 2:
        title_ = AsText(value);
        break;
    case 3:
        subject_ = AsText(value);
        break;
    case 4:
        author_ = AsText(value);
        break;
    case 5:
        keywords_ = AsText(value);
        break;
    case 6:
        comments_ = AsText(value);
        break;
    case 7:
        template_ = AsText(value);
        break;
    case 8:
        lastAuthor_ = AsText(value);
        break;
    case 9:
        revNumber_ = AsText(value);
        break;
    case 10:
        editTime_ = AsCount(value);
        break;
    case 11:
        lastPrinted_ = AsDate(value);
        break;
    case 12:
        created_ = AsDate(value);
        break;
    case 13:
        lastSaved_ = AsDate(value);
        break;
    case 14:
        pageCount_ = AsCount(value);
        break;
    case 15:
        wordCount_ = AsCount(value);
        break;
    case 16:
        charCount_ = AsCount(value);
        break;
    case 18:
        appName_ = AsText(value);
        break;
    default:
        break;
    }
}

void TKvISummaryInformation::ParseDocProperty(uint32_t id, const Variant& value) {
    switch (id) {
    case 2:
        category_ = AsText(value);
        break;
    case 3:
        presentationTarget_ = AsText(value);
        break;
    case 4:
        byteCount_ = AsCount(value);
        break;
    case 5:
        lineCount_ = AsCount(value);
        break;
    case 6:
        paragraphCount_ = AsCount(value);
        break;
    case 7:
        slideCount_ = AsCount(value);
        break;
    case 8:
        noteCount_ = AsCount(value);
        break;
    case 9:
        hiddenSlideCount_ = AsCount(value);
        break;
    case 10:
        mmClipCount_ = AsCount(value);
        break;
    case 14:
        manager_ = AsText(value);
        break;
    case 15:
        company_ = AsText(value);
        break;
    case 17:
        charCount2_ = AsCount(value);
        break;
    default:
        break;
    }
}

void TKvISummaryInformation::ParseXMLPair(std::string_view name, std::string_view value) {
    const std::string text(value);
    const int count = StrToIntDef(value, 0);
    if (name == "Application")
        appName_ = text;
    else if (name == "dc:creator")
        author_ = text;
    else if (name == "Characters")
        charCount_ = count;
    else if (name == "dc:description")
        comments_ = text;
    else if (name == "dcterms:created")
        created_ = XMLDateToDateTime(value);
    else if (name == "TotalTime")
        editTime_ = count;
    else if (name == "cp:keywords")
        keywords_ = text;
    else if (name == "cp:lastModifiedBy")
        lastAuthor_ = text;
    else if (name == "dcterms:modified")
        lastSaved_ = XMLDateToDateTime(value);
    else if (name == "Pages")
        pageCount_ = count;
    else if (name == "cp:revision")
        revNumber_ = text;
    else if (name == "dc:subject")
        subject_ = text;
    else if (name == "Template")
        template_ = text;
    else if (name == "dc:title")
        title_ = text;
    else if (name == "Words")
        wordCount_ = count;
    else if (name == "Lines")
        lineCount_ = count;
    else if (name == "Paragraphs")
        paragraphCount_ = count;
    else if (name == "Company")
        company_ = text;
    else if (name == "CharactersWithSpaces")
        charCount2_ = count;
}

TDateTime TKvISummaryInformation::XMLDateToDateTime(std::string_view text) {
    const int year = Field(text, 1, 4), month = Field(text, 6, 2), day = Field(text, 9, 2);
    const int hour = Field(text, 12, 2), minute = Field(text, 15, 2), second = Field(text, 18, 2);
    TDateTime date = 0, time = 0;
    if (month < 1 || month > 12 || day < 1 || day > 31 || !TryEncodeDate(year, month, day, date)) date = 0;
    if (!TryEncodeTime(hour, minute, second, 0, time)) time = 0;
    return CombineDateTime(date, time);
}

TDateTime TKvISummaryInformation::FileTimeToDateTime(uint64_t fileTime) {
    std::tm tm{};
    if (!LocalFields(fileTime, tm)) return 0;
    // The packed date and time of the file system hold years 1980 to 2107 and seconds in steps of two.
    const int year = tm.tm_year + 1900;
    if (year < 1980 || year > 2107) return 0;
    TDateTime date, time;
    if (!TryEncodeDate(year, tm.tm_mon + 1, tm.tm_mday, date) ||
        !TryEncodeTime(tm.tm_hour, tm.tm_min, std::min(tm.tm_sec, 59) / 2 * 2, 0, time))
        return 0;
    return date + time;
}

int TKvISummaryInformation::FileTimeToElapsedTime(uint64_t fileTime) {
    std::tm tm{};
    return LocalFields(fileTime, tm) ? tm.tm_min : 0;
}

std::string TKvISummaryInformation::ReadPropertySets(const TKvCompoundFile& file) {
    std::string warnings;
    for (const bool documentSet : {false, true}) {
        const char* name = documentSet ? "\x05"
                                         "DocumentSummaryInformation"
                                       : "\x05"
                                         "SummaryInformation";
        const TKvCompoundEntry* entry = file.Find(name);
        if (!entry || entry->Type != cetStream) continue;
        try {
            const std::vector<TKvPropertySection> sections = KvReadPropertySet(file.ReadStream(*entry));
            for (size_t i = 0; i < sections.size(); ++i) {
                // The document set's second section holds user-defined properties, whose IDs mean nothing
                // here.
                const bool wanted = documentSet ? i == 0 && sections[i].FormatId == kDocSummaryFormatId
                                                : sections[i].FormatId == kSummaryFormatId;
                if (!wanted) continue;
                for (const TKvPropertyValue& p : sections[i].Properties) {
                    switch (p.Kind) {
                    case pkEmpty:
                        ParseProperty(p.Id, Variant(), documentSet);
                        break;
                    case pkInteger:
                    case pkBoolean:
                        ParseProperty(p.Id, Variant(static_cast<long long>(p.Integer)), documentSet);
                        break;
                    case pkDouble:
                        ParseProperty(p.Id, Variant(p.Double), documentSet);
                        break;
                    case pkString:
                        ParseProperty(p.Id, Variant(p.Text), documentSet);
                        break;
                    case pkFileTime:
                        ParseProperty(p.Id, Variant(FileTimeToDateTime(p.FileTime)), documentSet);
                        break;
                    case pkOther:
                        break;
                    }
                }
            }
        } catch (const EKvFormatError& e) {
            warnings += std::string(warnings.empty() ? "" : "\n") + "The document properties in " +
                        (documentSet ? "DocumentSummaryInformation" : "SummaryInformation") +
                        " could not be read: " + e.what();
        }
    }
    return warnings;
}

} // namespace kv
