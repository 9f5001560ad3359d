#include "readers/spreadsheet/KvXLS.h"

#include "platform/DateUtils.h"
#include "platform/Exceptions.h"
#include "platform/Format.h"
#include "platform/SysUtils.h"

#include <algorithm>
#include <cstring>
#include <filesystem>

namespace kv {

std::string strXLSNotExcelFile = "File is not an Excel file";
std::string strXLSNotValidWorkbook = "File is not valid Excel Workbook";
std::string strXLSPasswordProtected = "Could not read the password protected file";
std::string strXLSContinueNotFound = "CONTINUE record is not found in the stream";
std::string strXLSSSTOptionsUnhandled = "String in SST (Options byte is 0x%.2x) can not be processed.";
std::string strXLSXEncrypted =
    "The workbook is encrypted with a password, which this reader cannot remove: save it without one";

namespace {

struct BuiltInFormat {
    int Number;
    const char* Text;
};

constexpr BuiltInFormat kBuiltInFormats[] = {
    {0, "General"},
    {1, "0"},
    {2, "0.00"},
    {3, "#,##0"},
    {4, "#,##0.00"},
    {5, "($#,##0_);($#,##0)"},
    {6, "($#,##0_);[Red]($#,##0)"},
    {7, "($#,##0.00_);($#,##0.00)"},
    {8, "($#,##0.00_);[Red]($#,##0.00)"},
    {9, "0%"},
    {10, "0.00%"},
    {11, "0.00E+00"},
    {12, "# ?/?"},
    {13, "# ?"
         "?/?"
         "?"},
    {14, "m/d/yy"},
    {15, "d-mmm-yy"},
    {16, "d-mmm"},
    {17, "mmm-yy"},
    {18, "h:mm AM/PM"},
    {19, "h:mm:ss AM/PM"},
    {20, "h:mm"},
    {21, "h:mm:ss"},
    {22, "m/d/yy h:mm"},
    {37, "(#,##0_);(#,##0)"},
    {38, "(#,##0_);[Red](#,##0)"},
    {39, "(#,##0.00_);(#,##0.00)"},
    {40, "(#,##0.00_);[Red](#,##0.00)"},
    {41, "_(* #,##0_);_(* (#,##0);_(* \"-\"_);_(@_)"},
    {42, "_($* #,##0_);_($* (#,##0);_($* \"-\"_);_(@_)"},
    {43, "_(* #,##0.00_);_(* (#,##0.00);_(* \"-\"?"
         "?_);_(@_)"},
    {44, "_($* #,##0.00_);_($* (#,##0.00);_($* \"-\"?"
         "?_);_(@_)"},
    {45, "mm:ss"},
    {46, "[h]:mm:ss"},
    {47, "mm:ss.0"},
    {48, "##0.0E+0"},
    {49, "@"},
};

/// LF becomes CR LF, so that a cell reads as the user saw it; a CR LF already there stays as it is.
std::string WithCrLf(const std::string& text) {
    if (text.find('\n') == std::string::npos) return text;
    std::string out;
    out.reserve(text.size() + 8);
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r')) out.push_back('\r');
        out.push_back(text[i]);
    }
    return out;
}

} // namespace

// ---- TCustomMSExcel ----

TCustomMSExcel::TCustomMSExcel(TComponent* owner) : TSpreadSheetFile(owner) {}

TCustomMSExcel::~TCustomMSExcel() = default;

void TCustomMSExcel::ApplyEvents() {
    TSpreadSheetFile::ApplyEvents();
    names_.clear();
    sharedFormulas_.clear();
    sharedObjects_.clear();
    objectsInSheet_.clear();
    vbaItems_.clear();
    formats_.clear();
    xfFormats_.clear();
    xfAligns_.clear();
    xfKinds_.clear();
    EnterBuiltInFormats();
}

void TCustomMSExcel::EnterBuiltInFormats() {
    for (const BuiltInFormat& f : kBuiltInFormats) SetFormat(f.Number, f.Text);
}

void TCustomMSExcel::SetFormat(int number, std::string format) {
    xfKinds_.clear();
    TXLSFormat& entry = formats_[number];
    entry.Number = number;
    entry.Format = std::move(format);
}

const TXLSFormat* TCustomMSExcel::FormatByNumber(int number) const {
    const auto it = formats_.find(number);
    return it == formats_.end() ? nullptr : &it->second;
}

int TCustomMSExcel::FormatNumberOfXF(int xf) const {
    if (xf < 0) return -1;
    return static_cast<size_t>(xf) < xfFormats_.size() ? xfFormats_[static_cast<size_t>(xf)] : xf;
}

std::string TCustomMSExcel::GetErrorText(int code) {
    switch (code) {
    case 0:
        return "#NULL!";
    case 7:
        return "#DIV/0!";
    case 15:
        return "#VALUE!";
    case 23:
        return "#REF!";
    case 29:
        return "#NAME?";
    case 36:
        return "#NUM!";
    case 42:
        return "#N/A";
    default:
        return "Unknown error code " + IntToStr(code);
    }
}

TCustomMSExcel::TXFKind TCustomMSExcel::KindOfXF(int xf) const {
    if (xf < 0) return xkPlain;
    // Asked for every number cell: each style's answer is kept until a format or style is added.
    if (static_cast<size_t>(xf) < xfKinds_.size() && xfKinds_[static_cast<size_t>(xf)] != xkUnknown)
        return xfKinds_[static_cast<size_t>(xf)];
    TXFKind kind = xkPlain;
    const int number = FormatNumberOfXF(xf);
    const TXLSFormat* format = number >= 1 ? FormatByNumber(number) : nullptr;
    if (format) {
        const std::string lower = LowerCase(format->Format);
        if (lower.find("dd") != std::string::npos || lower.find("mm") != std::string::npos ||
            lower.find("yy") != std::string::npos)
            kind = xkDate;
        else if (format->Format.find('%') != std::string::npos)
            kind = xkPercent;
        else
            kind = xkPlain;
        if (kind == xkDate && format->Format.find('%') != std::string::npos) kind = xkDatePercent;
    }
    if (xf < 65536) {
        if (static_cast<size_t>(xf) >= xfKinds_.size())
            xfKinds_.resize(static_cast<size_t>(xf) + 1, xkUnknown);
        xfKinds_[static_cast<size_t>(xf)] = kind;
    }
    return kind;
}

bool TCustomMSExcel::ValueIsDateTime(int xf) const {
    const TXFKind kind = KindOfXF(xf);
    return kind == xkDate || kind == xkDatePercent;
}

bool TCustomMSExcel::ValueIsPercent(int xf) const {
    const TXFKind kind = KindOfXF(xf);
    return kind == xkPercent || kind == xkDatePercent;
}

TAlignment TCustomMSExcel::GetXLSAlignment(uint8_t attribute) {
    switch (attribute & 0x07) {
    case 2:
        return taCenter;
    case 3:
        return taRightJustify;
    default:
        return taLeftJustify;
    }
}

void TCustomMSExcel::ReportCell(int row, int column, int xf, Variant value, TAlignment alignment,
                                TKvICellType type) {
    highestRow_ = std::max(highestRow_, row);
    highestColumn_ = std::max(highestColumn_, column);
    if (route_ != crReport) {
        // Record mode deals in what a loaded sheet would keep (TSpreadSheetFile's storing handler).
        if (column > LoadRange().LastCol || row > LoadRange().LastRow || column < 0 || row < 0 ||
            value.IsNullOrEmpty())
            return;
        if (route_ == crCount) {
            SpreadSheets().Spreadsheet(sheetIndex_).Cells().CountValue(column, row, value);
            return;
        }
        if (row != recordRow_) return;
    }
    if (type == ictString && value.IsString() && value.StringRef().find('\n') != std::string::npos)
        value = Variant(WithCrLf(value.StringRef()));
    if (OnCellValue) OnCellValue(this, sheetIndex_, row, column, xf, value, alignment, type);
}

void TCustomMSExcel::ReportNumber(int row, int column, int xf, double value, const TAlignment* alignment) {
    const TAlignment align = alignment ? *alignment
                             : xf >= 0 && static_cast<size_t>(xf) < xfAligns_.size()
                                 ? xfAligns_[static_cast<size_t>(xf)]
                                 : taLeftJustify;
    if (ValueIsDateTime(xf)) {
        ReportCell(row, column, xf, Variant::FromDateTime(value + dateOffset_), align, ictDateTime);
    } else {
        // Deliberately what the user saw: 25 for a cell shown as 25%.
        if (ValueIsPercent(xf)) value *= 100;
        ReportCell(row, column, xf, Variant(value), align, ictDecimal);
    }
}

std::vector<std::pair<std::string, std::string>> TCustomMSExcel::FileProperties() const {
    std::vector<std::pair<std::string, std::string>> out;
    const auto add = [&](const char* label, const std::string& text) {
        if (!text.empty()) out.emplace_back(label, text);
    };
    const auto addDate = [&](const char* label, TDateTime value) {
        if (value != 0) out.emplace_back(label, FormatDateTime("yyyy-mm-dd hh:nn:ss", value));
    };
    add("Title", summary_.Title());
    add("Subject", summary_.Subject());
    add("Author", summary_.Author());
    add("Last saved by", summary_.LastAuthor());
    add("Company", summary_.Company());
    add("Application", summary_.AppName());
    addDate("Created", summary_.Created());
    addDate("Last saved", summary_.LastSaved());
    return out;
}

void TCustomMSExcel::AddSheetProperties(const std::vector<TXLSSheetInfo>& sheets,
                                        std::vector<std::pair<std::string, std::string>>& out) {
    static const char* const kVisibility[] = {"", ", hidden", ", very hidden", ""};
    for (size_t i = 0; i < sheets.size(); ++i) {
        const TXLSSheetInfo& s = sheets[i];
        std::string text = s.Name + " (";
        text += s.Type == 2 ? "chart" : s.Type == 1 ? "macro sheet" : s.Type == 6 ? "macro module" : "";
        if (s.Type == 0 || s.Type == 1) {
            text += s.Rows < 0 ? "size not read"
                               : IntToStr(s.Rows) + " rows, " + IntToStr(s.Columns) + " columns";
        }
        text += kVisibility[s.Visibility & 3];
        out.emplace_back("Sheet " + IntToStr(static_cast<int64_t>(i + 1)), text + ")");
    }
}

// ---- helpers shared by both ----

double KvDecodeRK(uint32_t rk) {
    double value;
    if (rk & 0x02) {
        value = static_cast<double>(static_cast<int32_t>(rk & 0xFFFFFFFC) >> 2);
    } else {
        const uint64_t bits = static_cast<uint64_t>(rk & 0xFFFFFFFC) << 32;
        std::memcpy(&value, &bits, sizeof value);
    }
    return rk & 0x01 ? value / 100 : value;
}

} // namespace kv
