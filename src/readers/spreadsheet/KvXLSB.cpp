#include "readers/spreadsheet/KvXLSB.h"

#include "cells/KvCells.h"
#include "platform/Format.h"
#include "platform/Utf8.h"
#include "readers/spreadsheet/KvXLS.h"
#include "readers/spreadsheet/KvXLSXStrings.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace kv {

// ---- TKvXLSBRecordReader ----

bool TKvXLSBRecordReader::ReadNumber(int groups, const char* what, uint32_t& value, bool mayEnd) {
    value = 0;
    for (int i = 0; i < groups; ++i) {
        char byte = 0;
        if (Read(&byte, 1) != 1) {
            if (i == 0 && mayEnd) return false;
            throw Exception(Format("the part ends inside a record's %s", what));
        }
        value |= static_cast<uint32_t>(byte & 0x7F) << (7 * i);
        if ((static_cast<uint8_t>(byte) & 0x80) == 0) return true;
    }
    throw Exception(Format("a record's %s has more than %d bytes", what, groups));
}

size_t TKvXLSBRecordReader::Read(char* out, size_t count) {
    if (!buffered_) return stream_.ReadUpTo(out, count);
    constexpr size_t kBlock = size_t(1) << 16;
    size_t done = 0;
    while (done < count) {
        if (at_ == end_) {
            if (buffer_.empty()) buffer_.resize(kBlock);
            at_ = 0;
            end_ = stream_.ReadUpTo(buffer_.data(), kBlock);
            if (end_ == 0) break;
        }
        const size_t step = std::min(count - done, end_ - at_);
        std::memcpy(out + done, buffer_.data() + at_, step);
        at_ += step;
        done += step;
    }
    return done;
}

bool TKvXLSBRecordReader::Next() {
    uint32_t type = 0, size = 0;
    if (!ReadNumber(2, "type", type, true)) return false;
    ReadNumber(4, "size", size, false);
    type_ = static_cast<int>(type);
    // Read in steps, so that a size the part does not hold costs no more than the part.
    constexpr size_t kStep = size_t(1) << 20;
    data_.clear();
    while (data_.size() < size) {
        const size_t have = data_.size(), step = std::min<size_t>(kStep, size - have);
        data_.resize(have + step);
        if (Read(data_.data() + have, step) != step)
            throw Exception(Format("record %d of %u bytes runs past the end of the part", type_, size));
    }
    return true;
}

// ---- TKvXLSBData ----

const char* TKvXLSBData::Take(size_t count) {
    if (count > data_.size() - at_)
        throw Exception(Format("record %d is too short for what it holds", type_));
    const char* p = data_.data() + at_;
    at_ += count;
    return p;
}

std::string TKvXLSBData::WideString(size_t maxBytes, bool* cut) {
    const uint32_t count = ReadU32LE();
    if (count > (data_.size() - at_) / 2)
        throw Exception(Format("record %d holds a string longer than the record", type_));
    const std::string_view units(data_.data() + at_, size_t{count} * 2);
    at_ += units.size();
    // Each unit gives at least one byte: units beyond the bound are not converted at all.
    bool wasCut = units.size() / 2 > maxBytes;
    std::string text = Utf16ToUtf8(wasCut ? units.substr(0, maxBytes * 2) : units, false);
    if (text.size() > maxBytes) {
        size_t end = maxBytes;
        while (end > 0 && (static_cast<uint8_t>(text[end]) & 0xC0) == 0x80) --end;
        text.resize(end);
        wasCut = true;
    }
    if (cut && wasCut) *cut = true;
    return text;
}

std::string TKvXLSBData::NullableWideString() {
    const size_t at = at_;
    if (ReadU32LE() == 0xFFFFFFFF) return std::string();
    at_ = at;
    return WideString();
}

namespace {

/// Reads every record of a part through `record`.
template <class F> void ForEachRecord(TStream& part, F&& record) {
    TKvXLSBRecordReader records(part);
    while (records.Next()) record(records.Type(), TKvXLSBData(records.Data(), records.Type()));
}

std::string NumberText(double value) {
    char text[32];
    const auto [end, ec] = std::to_chars(text, text + sizeof text, value);
    return ec == std::errc() ? std::string(text, end) : std::string("0");
}

} // namespace

// ---- the workbook, styles and shared strings parts ----

TXLSXWorkbookInfo KvReadXLSBWorkbook(const TKvXLSXPackage& package, const std::string& part) {
    TXLSXWorkbookInfo info;
    const std::vector<TXLSXRelationship> relationships = package.Relationships(part);
    for (const TXLSXRelationship& r : relationships) {
        std::string* target = r.Type == "sharedStrings" ? &info.SharedStringsPart
                              : r.Type == "styles"      ? &info.StylesPart
                              : r.Type == "vbaProject"  ? &info.VBAProjectPart
                                                        : nullptr;
        if (target && target->empty() && !r.External) *target = r.Target;
    }
    // As for the XML form: a bound on the sheets, and names cut to a size a name can have.
    constexpr size_t kMaxSheets = 65536, kMaxName = 1024;
    const auto read = [&](int type, TKvXLSBData data) {
        if (type == xbWorkbookProperties) {
            info.Date1904 = data.ReadU32LE() & 1;
        } else if (type == xbSheet && info.Sheets.size() < kMaxSheets) {
            TXLSXSheetEntry sheet;
            const uint32_t state = data.ReadU32LE();
            sheet.Visibility = state <= 2 ? static_cast<uint8_t>(state) : 0;
            data.ReadU32LE(); // the tab id
            const std::string id = data.NullableWideString();
            sheet.Name = data.WideString(kMaxName);
            const auto r =
                std::find_if(relationships.begin(), relationships.end(),
                             [&](const TXLSXRelationship& e) { return e.Id == id && !e.External; });
            if (!id.empty() && r != relationships.end()) sheet.Part = r->Target, sheet.Kind = r->Type;
            info.Sheets.push_back(std::move(sheet));
        }
    };
    const std::unique_ptr<TStream> stream = package.OpenPart(part);
    try {
        ForEachRecord(*stream, read);
    } catch (const Exception& e) {
        throw TKvXLSXPackage::PartError(part, e.what());
    }
    return info;
}

TXLSXStyles KvReadXLSBStyles(std::unique_ptr<TStream> part) {
    // The bounds of the XML form's styles.
    constexpr size_t kMaxStyles = 1 << 20, kMaxFormats = 1 << 16, kMaxFormatBytes = 1024;
    TXLSXStyles styles;
    bool inCellStyles = false;
    ForEachRecord(*part, [&](int type, TKvXLSBData data) {
        if (type == xbFormat && styles.Formats.size() < kMaxFormats) {
            const int number = data.ReadU16LE();
            styles.Formats.emplace_back(number, data.WideString(kMaxFormatBytes));
        } else if (type == xbBeginCellStyles || type == xbEndCellStyles) {
            inCellStyles = type == xbBeginCellStyles;
        } else if (type == xbCellStyle && inCellStyles && styles.CellStyles.size() < kMaxStyles) {
            data.ReadU16LE(); // the parent style
            const int format = data.ReadU16LE();
            data.Skip(8); // font, fill, border, rotation, indent
            const int horizontal = data.ReadU8() & 7;
            styles.CellStyles.push_back({format, horizontal == 2 || horizontal == 6 ? taCenter
                                                 : horizontal == 3                  ? taRightJustify
                                                                                    : taLeftJustify});
        }
    });
    return styles;
}

void KvReadXLSBSharedStrings(std::unique_ptr<TStream> part, TKvXLSXSharedStrings& strings) {
    strings.Clear();
    ForEachRecord(*part, [&](int type, TKvXLSBData data) {
        if (type != xbStringItem) return;
        data.ReadU8(); // whether runs and phonetic text follow: they are not read
        strings.Add(data.WideString());
    });
}

// ---- cells ----

bool KvDecodeXLSBCell(int type, std::string_view bytes, TXLSXCell& cell, bool* cut) {
    if (type < xbCellBlank || (type > xbFormulaError && type != xbCellRichString)) return false;
    TKvXLSBData data(bytes, type);
    const uint32_t column = data.ReadU32LE();
    cell.Column =
        column < TKvXLSXSheetReader::kMaxColumns ? static_cast<int>(column) : TKvXLSXSheetReader::kMaxColumns;
    cell.Style = static_cast<int>(data.ReadU32LE() & 0xFFFFFF);
    cell.HasValue = type != xbCellBlank;
    cell.Kind = xvNumber;
    cell.Text.clear();
    switch (type) {
    case xbCellRK:
        cell.Text = NumberText(KvDecodeRK(data.ReadU32LE()));
        break;
    case xbCellError:
    case xbFormulaError:
        cell.Kind = xvError;
        cell.Text = TCustomMSExcel::GetErrorText(data.ReadU8());
        break;
    case xbCellBoolean:
    case xbFormulaBoolean:
        cell.Kind = xvBoolean;
        cell.Text = data.ReadU8() ? "1" : "0";
        break;
    case xbCellReal:
    case xbFormulaNumber:
        cell.Text = NumberText(data.ReadDoubleLE());
        break;
    case xbCellRichString:
        data.ReadU8(); // whether runs follow
        [[fallthrough]];
    case xbCellString:
    case xbFormulaString:
        cell.Kind = type == xbFormulaString ? xvFormulaString : xvInlineString;
        cell.Text = data.WideString(TKvXLSXSheetReader::kMaxCellText, cut);
        break;
    case xbCellSharedString:
        cell.Kind = xvSharedString;
        cell.Text = std::to_string(data.ReadU32LE());
        break;
    default:
        break;
    }
    return true;
}

// ---- TKvXLSBSheetReader ----

TKvXLSBSheetReader::TKvXLSBSheetReader(std::unique_ptr<TStream> part, const std::string&)
    : part_(std::move(part)), records_(*part_) {}

std::string TKvXLSBSheetReader::ReadDimension() {
    while (!inData_ && !ended_) {
        if (!records_.Next()) {
            ended_ = true;
            break;
        }
        if (records_.Type() == xbBeginSheetData) inData_ = true;
        if (records_.Type() != xbDimension) continue;
        TKvXLSBData data(records_.Data(), records_.Type());
        data.ReadU32LE(); // the first row
        const uint32_t lastRow = data.ReadU32LE();
        data.ReadU32LE(); // the first column
        const uint32_t lastColumn = data.ReadU32LE();
        if (lastRow < TKvXLSXSheetReader::kMaxRows && lastColumn < TKvXLSXSheetReader::kMaxColumns)
            dimension_ =
                "A1:" + GetSpreadSheetColByID(static_cast<int>(lastColumn) + 1) + std::to_string(lastRow + 1);
    }
    return dimension_;
}

bool TKvXLSBSheetReader::NextRow(TXLSXRow& row) {
    row.Count = 0;
    size_t rowText = 0;
    ReadDimension(); // up to the cell data
    while (!ended_) {
        if (!havePending_ && !records_.Next()) {
            ended_ = endedEarly_ = true;
            break;
        }
        havePending_ = false;
        const int type = records_.Type();
        if (type == xbEndSheetData) {
            ended_ = true;
            break;
        }
        if (type == xbRowHeader) {
            if (row.Count > 0) { // the row read is complete; this header starts the next
                havePending_ = true;
                break;
            }
            const uint32_t index = TKvXLSBData(records_.Data(), type).ReadU32LE();
            row_ = index < TKvXLSXSheetReader::kMaxRows ? static_cast<int>(index) : -1;
            continue;
        }
        if (row.Count >= row.Cells.size()) row.Cells.resize(std::max<size_t>(16, row.Cells.size() * 2));
        TXLSXCell& cell = row.Cells[row.Count];
        bool cut = false;
        if (!KvDecodeXLSBCell(type, records_.Data(), cell, &cut)) continue;
        if (row_ < 0 || cell.Column >= TKvXLSXSheetReader::kMaxColumns ||
            row.Count >= TKvXLSXSheetReader::kMaxRowCells) {
            ++leftOut_;
            continue;
        }
        if (rowText + cell.Text.size() > TKvXLSXSheetReader::kMaxRowText) {
            cell.Text.resize(0);
            cut = true;
        }
        rowText += cell.Text.size();
        textsCut_ += cut;
        row.Index = row_;
        ++row.Count;
    }
    return row.Count > 0;
}

} // namespace kv
