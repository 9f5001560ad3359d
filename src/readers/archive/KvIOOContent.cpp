// The walk of an OpenDocument part: sheets, rows, cells and the text of cells.

#include "readers/archive/KvIOOInternal.h"

#include "platform/DateUtils.h"
#include "platform/Exceptions.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace kv::oo {

namespace {

// A cell's text may grow by spaces and tabs that its elements count (text:s text:c="N") up to this;
// literal text is what the document holds.
constexpr size_t kMaxExpanded = size_t(1) << 20;

enum TValueType : uint8_t { vtNone, vtFloat, vtPercent, vtDate, vtTime, vtBoolean, vtString, vtOther };

TValueType ValueTypeOf(std::string_view type) {
    if (type == "float" || type == "currency") return vtFloat;
    if (type == "percentage") return vtPercent;
    if (type == "string") return vtString;
    if (type == "date") return vtDate;
    if (type == "time") return vtTime;
    if (type == "boolean") return vtBoolean;
    return type.empty() ? vtNone : vtOther;
}

bool IsBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

/// A duration of a day or more (or below zero) as hours, minutes and seconds.
std::string DurationText(double seconds) {
    const auto msecs = static_cast<int64_t>(std::llround(std::fabs(seconds) * 1000));
    char text[64];
    int n = std::snprintf(text, sizeof text, "%s%02lld:%02lld:%02lld", seconds < 0 ? "-" : "",
                          static_cast<long long>(msecs / 3600000), static_cast<long long>(msecs / 60000 % 60),
                          static_cast<long long>(msecs / 1000 % 60));
    if (msecs % 1000)
        std::snprintf(text + n, sizeof text - static_cast<size_t>(n), ".%03lld",
                      static_cast<long long>(msecs % 1000));
    return text;
}

int Digits(std::string_view text, size_t at, size_t count) {
    if (at + count > text.size()) return -1;
    int value = 0;
    for (size_t i = at; i < at + count; ++i) {
        if (text[i] < '0' || text[i] > '9') return -1;
        value = value * 10 + (text[i] - '0');
    }
    return value;
}

} // namespace

void Fail(const std::string& part, int64_t line, const std::string& what) {
    std::string message = std::string(kFormat) + ": " + part;
    if (line > 0) message += ", line " + std::to_string(line);
    throw Exception(message + ": " + what);
}

// ---- values ----

bool ParseNumber(std::string_view text, double& out) {
    while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
    while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
    if (!text.empty() && text.front() == '+') text.remove_prefix(1);
    if (text.empty()) return false;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
    return ec == std::errc() && end == text.data() + text.size() && std::isfinite(out);
}

int64_t ParseCount(std::string_view text, int64_t limit) {
    int64_t value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') return 1;
        // Checked before the multiplication: a run of digits must saturate, not overflow.
        value = value > (limit - 9) / 10 ? limit : std::min(value * 10 + (c - '0'), limit);
    }
    return std::clamp<int64_t>(value, 1, limit);
}

bool ParseDate(std::string_view text, TDateTime& out) {
    const int year = Digits(text, 0, 4), month = Digits(text, 5, 2), day = Digits(text, 8, 2);
    if (year < 1 || text.size() < 10 || text[4] != '-' || text[7] != '-') return false;
    TDateTime date = 0;
    if (!TryEncodeDate(year, month, day, date)) return false;
    if (text.size() == 10 || text[10] != 'T') {
        out = date;
        return text.size() == 10;
    }
    const int hour = Digits(text, 11, 2), minute = Digits(text, 14, 2), second = Digits(text, 17, 2);
    if (hour < 0 || hour > 23 || minute < 0 || minute > 59 || second < 0 || second > 59 || text[13] != ':' ||
        text[16] != ':')
        return false;
    double fraction = 0;
    size_t i = 19;
    if (i < text.size() && (text[i] == '.' || text[i] == ',')) {
        double scale = 0.1;
        for (++i; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i, scale /= 10)
            fraction += (text[i] - '0') * scale;
    }
    // A zone ("Z", "+01:00") is ignored: the time is taken as written, as the sheet shows it.
    if (i < text.size() && text[i] != 'Z' && text[i] != '+' && text[i] != '-') return false;
    const double seconds = hour * 3600.0 + minute * 60.0 + second + fraction;
    out = CombineDateTime(date, seconds / 86400.0);
    return true;
}

bool ParseDuration(std::string_view text, double& seconds) {
    bool negative = false;
    if (!text.empty() && text.front() == '-') {
        negative = true;
        text.remove_prefix(1);
    }
    if (text.size() < 2 || text.front() != 'P') return false;
    text.remove_prefix(1);
    double total = 0;
    bool inTime = false, any = false;
    while (!text.empty()) {
        if (text.front() == 'T') {
            if (inTime) return false;
            inTime = true;
            text.remove_prefix(1);
            continue;
        }
        size_t n = 0;
        while (n < text.size() && ((text[n] >= '0' && text[n] <= '9') || text[n] == '.' || text[n] == ','))
            ++n;
        if (n == 0 || n == text.size() || n > 40) return false;
        std::string number(text.substr(0, n));
        std::replace(number.begin(), number.end(), ',', '.');
        double value = 0;
        if (!ParseNumber(number, value)) return false;
        const char unit = text[n];
        text.remove_prefix(n + 1);
        any = true;
        if (!inTime && unit == 'D')
            total += value * 86400;
        else if (inTime && unit == 'H')
            total += value * 3600;
        else if (inTime && unit == 'M')
            total += value * 60;
        else if (inTime && unit == 'S')
            total += value;
        else
            return false; // years and months have no length in seconds
    }
    if (!any || !std::isfinite(total)) return false;
    seconds = negative ? -total : total;
    return true;
}

// ---- the walk ----

void TDocumentReader::Open(TStream& stream, std::string part, const TDocumentSinks& sinks) {
    part_ = std::move(part);
    sinks_ = sinks;
    decoder_.Open(stream);
    scanner_.Open(decoder_);
    bodySeen_ = spreadsheetSeen_ = endedInTable_ = inTable_ = rootSeen_ = false;
    bodyDepth_ = -1;
    tableDepth_ = 0;
}

std::vector<std::string> TDocumentReader::Warnings() const {
    std::vector<std::string> out;
    for (const auto* list : {&decoder_.Warnings(), &scanner_.Warnings()})
        for (const TKvXMLWarning& w : *list)
            out.push_back(part_ + (w.Line > 0 ? ", line " + std::to_string(w.Line) : std::string()) + ": " +
                          w.Message);
    return out;
}

void TDocumentReader::SkipElement() {
    const int64_t depth = scanner_.Depth();
    while (scanner_.Next())
        if (scanner_.Kind() == xtkEndTag && scanner_.Depth() < depth) return;
}

bool TDocumentReader::NextTable(std::string& name, std::string& styleName) {
    if (inTable_) {
        // The rest of the current sheet.
        while (scanner_.Next())
            if (scanner_.Kind() == xtkEndTag && scanner_.Depth() < tableDepth_) break;
        inTable_ = false;
    }
    while (scanner_.Next()) {
        if (scanner_.Kind() == xtkEndTag) {
            if (bodySeen_ && scanner_.Depth() < bodyDepth_) bodyDepth_ = INT64_MAX; // left the body
            continue;
        }
        if (scanner_.Kind() != xtkStartTag) continue;
        const std::string_view element = scanner_.Name();
        if (!rootSeen_) {
            rootSeen_ = true;
            if (sinks_.Version)
                ForEachAttribute(scanner_.Attributes(), [this](std::string_view n, std::string_view v) {
                    if (n == "office:version") sinks_.Version->assign(v);
                });
        }
        const bool inBody = bodySeen_ && scanner_.Depth() > bodyDepth_;
        if (element == "office:meta" && !inBody) {
            if (sinks_.Summary)
                ReadMeta();
            else
                SkipElement();
        } else if ((element == "office:styles" || element == "office:automatic-styles") && !inBody) {
            // Styles count before the body only: a sheet read again must find what its first reading found.
            if (sinks_.Styles && !bodySeen_)
                ReadStyles();
            else
                SkipElement();
        } else if (element == "office:master-styles" || element == "office:settings" ||
                   element == "office:scripts" || element == "office:font-face-decls") {
            SkipElement();
        } else if (element == "office:body" && !bodySeen_) {
            bodySeen_ = true;
            bodyDepth_ = scanner_.Depth();
        } else if (element == "office:spreadsheet" && inBody) {
            spreadsheetSeen_ = true;
        } else if (element == "table:null-date" && sinks_.NullDate) {
            ForEachAttribute(scanner_.Attributes(), [this](std::string_view n, std::string_view v) {
                if (n == "table:date-value") sinks_.NullDate->assign(v.substr(0, 10));
            });
        } else if (element == "table:table" && inBody && spreadsheetSeen_) {
            name.clear();
            styleName.clear();
            ForEachAttribute(scanner_.Attributes(), [&](std::string_view n, std::string_view v) {
                if (n == "table:name") {
                    name.assign(v);
                    DecodeXMLEntities(name);
                } else if (n == "table:style-name") {
                    styleName.assign(v);
                }
            });
            inTable_ = true;
            tableDepth_ = scanner_.Depth();
            return true;
        }
    }
    return false;
}

bool TDocumentReader::NextRow(TRow& row) {
    if (!inTable_) return false;
    while (scanner_.Next()) {
        switch (scanner_.Kind()) {
        case xtkStartTag:
            if (scanner_.Name() == "table:table-row") {
                ReadRow(row);
                return true;
            }
            // Rows are found inside row groups and header rows; nothing else of a sheet holds any.
            if (scanner_.Name() != "table:table-header-rows" && scanner_.Name() != "table:table-row-group" &&
                scanner_.Name() != "table:table-rows")
                SkipElement();
            break;
        case xtkEndTag:
            if (scanner_.Depth() < tableDepth_) {
                inTable_ = false;
                return false;
            }
            break;
        default:
            break;
        }
    }
    endedInTable_ = true;
    inTable_ = false;
    return false;
}

void TDocumentReader::ReadRow(TRow& row) {
    row.Count = 0;
    row.Repeat = 1;
    row.CutColumns = false;
    ForEachAttribute(scanner_.Attributes(), [&](std::string_view n, std::string_view v) {
        if (n == "table:number-rows-repeated") row.Repeat = ParseCount(v, INT64_MAX / 2);
    });
    const int64_t depth = scanner_.Depth();
    int64_t column = 0;
    while (scanner_.Next()) {
        if (scanner_.Kind() == xtkStartTag) {
            const std::string_view element = scanner_.Name();
            // A covered cell (under a merged one) takes its place like any other; what it holds is read too.
            if (scanner_.Depth() == depth + 1 &&
                (element == "table:table-cell" || element == "table:covered-table-cell"))
                ReadCell(row, column);
            else
                SkipElement();
        } else if (scanner_.Kind() == xtkEndTag && scanner_.Depth() < depth) {
            return;
        }
    }
}

void TDocumentReader::ReadCell(TRow& row, int64_t& column) {
    int64_t repeat = 1;
    TValueType type = vtNone;
    bool error = false, hasString = false;
    number_.clear();
    date_.clear();
    time_.clear();
    boolean_.clear();
    style_.clear();
    ForEachAttribute(scanner_.Attributes(), [&](std::string_view n, std::string_view v) {
        if (n == "table:number-columns-repeated")
            repeat = ParseCount(v, INT64_MAX / 2);
        else if (n == "office:value-type")
            type = ValueTypeOf(v);
        else if (n == "office:value")
            number_.assign(v);
        else if (n == "office:date-value")
            date_.assign(v);
        else if (n == "office:time-value")
            time_.assign(v);
        else if (n == "office:boolean-value")
            boolean_.assign(v);
        else if (n == "office:string-value") {
            stringValue_.assign(v);
            hasString = true;
        } else if (n == "table:style-name")
            style_.assign(v);
        else if (n == "calcext:value-type")
            error = v == "error";
    });

    Variant value;
    TKvICellType cellType = ictString;
    double number = 0;
    TDateTime date = 0;
    // The value attribute decides; a cell whose attribute is missing or bad gives its text.
    bool needText = true;
    if (error) {
        needText = true; // the error's text, as the sheet shows it ("#DIV/0!")
    } else if ((type == vtFloat || type == vtPercent) && ParseNumber(number_, number)) {
        // A percentage is the number the sheet shows, as the Excel readers give it: 25 for 25%.
        value = Variant(type == vtPercent ? number * 100 : number);
        cellType = ictDecimal;
        needText = false;
    } else if (type == vtDate && ParseDate(date_, date)) {
        value = Variant::FromDateTime(date);
        cellType = ictDateTime;
        needText = false;
    } else if (type == vtTime && ParseDuration(time_, number)) {
        if (number >= 0 && number < 86400) {
            value = Variant::FromDateTime(number / 86400);
            cellType = ictTime;
        } else {
            value = Variant(DurationText(number));
        }
        needText = false;
    } else if (type == vtBoolean &&
               (boolean_ == "true" || boolean_ == "false" || boolean_ == "1" || boolean_ == "0")) {
        value = Variant(boolean_ == "true" || boolean_ == "1");
        cellType = ictBoolean;
        needText = false;
    } else if (type == vtString && hasString) {
        DecodeXMLEntities(stringValue_);
        text_ = stringValue_;
        needText = false;
    }
    if (needText) {
        ReadCellText();
    } else {
        SkipElement();
        if (cellType != ictString) text_.clear();
    }
    if (value.IsEmpty() && !text_.empty()) {
        // Line breaks as the Excel readers give them.
        if (text_.find('\n') != std::string::npos) {
            raw_.clear();
            for (size_t i = 0; i < text_.size(); ++i) {
                if (text_[i] == '\n' && (i == 0 || text_[i - 1] != '\r')) raw_ += '\r';
                raw_ += text_[i];
            }
            text_.swap(raw_);
        }
        value = Variant(text_);
    }

    if (!value.IsEmpty() && column < TKvIOpenOfficeSpreadsheet::MaxColumns) {
        if (row.Count == row.Runs.size()) row.Runs.emplace_back();
        TCellRun& run = row.Runs[row.Count++];
        run.Column = static_cast<int>(column);
        run.Count =
            static_cast<int>(std::min<int64_t>(repeat, TKvIOpenOfficeSpreadsheet::MaxColumns - column));
        run.Type = cellType;
        run.Bytes = value.IsString() ? value.StringRef().size() : 0;
        run.Value = std::move(value);
        run.Style = -1;
        run.Alignment = taLeftJustify;
        if (!style_.empty() && sinks_.Index) {
            if (const auto it = sinks_.Index->Cells.find(style_); it != sinks_.Index->Cells.end()) {
                run.Style = it->second;
                run.Alignment = sinks_.Index->Align[static_cast<size_t>(it->second)];
            }
        }
        if (column + repeat > TKvIOpenOfficeSpreadsheet::MaxColumns) row.CutColumns = true;
    } else if (!value.IsEmpty()) {
        row.CutColumns = true;
    }
    column = std::min(column + repeat, INT64_MAX / 2);
}

void TDocumentReader::ReadCellText() {
    text_.clear();
    raw_.clear();
    expanded_ = 0;
    skipBelow_ = 0;
    const int64_t cellDepth = scanner_.Depth();
    bool inParagraph = false;
    int paragraphs = 0;
    while (scanner_.Next()) {
        const TKvXMLTokenKind kind = scanner_.Kind();
        if (kind == xtkText) {
            if (inParagraph && skipBelow_ == 0) raw_ += scanner_.Text();
            continue;
        }
        FlushText();
        if (kind == xtkEndTag) {
            const int64_t depth = scanner_.Depth();
            if (skipBelow_ && depth < skipBelow_) skipBelow_ = 0;
            if (depth == cellDepth) inParagraph = false;
            if (depth < cellDepth) return;
        } else if (kind == xtkCData) {
            if (inParagraph && skipBelow_ == 0) AppendText(scanner_.Text());
        } else if (kind == xtkStartTag && skipBelow_ == 0) {
            const std::string_view element = scanner_.Name();
            const int64_t depth = scanner_.Depth();
            if (depth == cellDepth + 1) {
                if (element == "text:p" || element == "text:h") {
                    // Paragraphs are lines of the cell's text.
                    if (paragraphs++ > 0) text_ += "\r\n";
                    inParagraph = true;
                    paraStart_ = true;
                    lastBlank_ = false;
                } else {
                    skipBelow_ = depth; // an annotation, a drawing: not the cell's text
                }
            } else if (!inParagraph) {
                skipBelow_ = depth;
            } else if (element == "text:s") {
                int64_t count = 1;
                ForEachAttribute(scanner_.Attributes(), [&](std::string_view n, std::string_view v) {
                    if (n == "text:c") count = ParseCount(v, int64_t{1} << 30);
                });
                AppendSpaces(count, ' ');
            } else if (element == "text:tab") {
                AppendSpaces(1, '\t');
            } else if (element == "text:line-break") {
                text_ += "\r\n";
                paraStart_ = true;
                lastBlank_ = false;
            } else if (element == "office:annotation" || element == "text:note" ||
                       element.starts_with("draw:")) {
                skipBelow_ = depth;
            }
            // Spans, links and the like are flattened: their text is the paragraph's.
        }
    }
}

void TDocumentReader::FlushText() {
    if (raw_.empty()) return;
    DecodeXMLEntities(raw_);
    AppendText(raw_);
    raw_.clear();
}

void TDocumentReader::AppendText(std::string_view text) {
    // White space as a paragraph shows it: a run of blanks, tabs and line ends is one blank, and none at
    // the paragraph's start. Spaces meant as written are text:s elements.
    for (const char c : text) {
        if (IsBlank(c)) {
            if (paraStart_ || lastBlank_) continue;
            text_ += ' ';
            lastBlank_ = true;
        } else {
            text_ += c;
            lastBlank_ = paraStart_ = false;
        }
    }
}

void TDocumentReader::AppendSpaces(int64_t count, char c) {
    const auto n =
        static_cast<size_t>(std::min<int64_t>(count, static_cast<int64_t>(kMaxExpanded - expanded_)));
    text_.append(n, c);
    expanded_ += n;
    paraStart_ = lastBlank_ = false;
}

} // namespace kv::oo
