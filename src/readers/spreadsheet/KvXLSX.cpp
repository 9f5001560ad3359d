// TMSExcelX: the cells of Excel 2007+ workbooks. The package gives the parts, the styles part the date
// formats, the shared strings part the text; each sheet part is read as a stream of rows and its cells
// go out through the same cell routine, whether the parts are XML or binary records.

#include "platform/DateUtils.h"
#include "platform/Format.h"
#include "platform/SysUtils.h"
#include "readers/spreadsheet/KvCompoundFile.h"
#include "readers/spreadsheet/KvXLS.h"
#include "readers/spreadsheet/KvXLSB.h"
#include "readers/spreadsheet/KvXLSXPackage.h"
#include "readers/spreadsheet/KvXLSXSheet.h"
#include "readers/spreadsheet/KvXLSXStrings.h"
#include "readers/spreadsheet/KvXLSXStyles.h"

#include <algorithm>
#include <charconv>
#include <filesystem>

namespace kv {

namespace {

/// The rows of a sheet part, XML or binary.
class TSheetRows {
public:
    virtual ~TSheetRows() = default;
    virtual bool NextRow(TXLSXRow& row) = 0;
    virtual std::string ReadDimension() = 0;
    virtual int64_t CellsLeftOut() const = 0;
    virtual int64_t TextsCut() const = 0;
    virtual bool EndedEarly() const = 0;
};

template <class TReader> class TSheetRowsOf final : public TSheetRows {
public:
    TSheetRowsOf(std::unique_ptr<TStream> part, const std::string& name) : reader_(std::move(part), name) {}
    bool NextRow(TXLSXRow& row) override { return reader_.NextRow(row); }
    std::string ReadDimension() override { return reader_.ReadDimension(); }
    int64_t CellsLeftOut() const override { return reader_.CellsLeftOut(); }
    int64_t TextsCut() const override { return reader_.TextsCut(); }
    bool EndedEarly() const override { return reader_.EndedEarly(); }

private:
    TReader reader_;
};

std::unique_ptr<TSheetRows> OpenSheetRows(const TKvXLSXPackage& package, const std::string& part,
                                          bool binary) {
    if (binary) return std::make_unique<TSheetRowsOf<TKvXLSBSheetReader>>(package.OpenPart(part), part);
    return std::make_unique<TSheetRowsOf<TKvXLSXSheetReader>>(package.OpenPart(part), part);
}

} // namespace

/// Where LoadRecord reads on from.
struct TMSExcelX::TRecordState {
    int Sheet = -1;
    std::unique_ptr<TSheetRows> Reader;
    TXLSXRow Pending; ///< the row read last, not yet asked for
    bool HavePending = false;
    bool Ended = false;
    int LastAsked = -1;
    /// A sheet whose rows come out of order is loaded whole and served from here.
    std::unique_ptr<TSpreadSheetCells> Whole;
};

TMSExcelX::TMSExcelX(TComponent* owner) : TCustomMSExcel(owner) {}

TMSExcelX::~TMSExcelX() = default;

bool TMSExcelX::ServesExtension(std::string_view extension) {
    static const char* const kExtensions[] = {".XLSX", ".XLSM", ".XLTX", ".XLTM", ".XLAX",
                                              ".XLAM", ".XLSB", ".XLTB", ".XLAB"};
    const std::string upper = UpperCase(extension);
    return std::any_of(std::begin(kExtensions), std::end(kExtensions),
                       [&](const char* e) { return upper == e; });
}

void TMSExcelX::EnterBuiltInFormats() {
    TCustomMSExcel::EnterBuiltInFormats();
    // This reader's format 8 has no opening parenthesis; kept, since saved results depend on it.
    SetFormat(8, "$#,##0.00_);[Red]($#,##0.00)");
}

void TMSExcelX::LoadFromFile(const std::string& fileName) {
    TSpreadSheetFile::LoadFromFile(fileName);
    const std::string extension = UpperCase(std::filesystem::path(fileName).extension().string());
    SetVersion(extension == ".XLSB" || extension == ".XLTB" || extension == ".XLAB" ? evExcel12Bin
                                                                                    : evExcel12);
    auto file = std::make_unique<TFileStream>(fileName, fmOpenRead | fmShareDenyWrite);
    file->Seek(0, soBeginning);
    file_.reset();
    LoadFromStream(*file);
    if (RecordMode()) file_ = std::move(file); // read on by LoadRecord
}

void TMSExcelX::LoadFromStream(TStream& stream) {
    TSpreadSheetFile::LoadFromStream(stream);
    loaded_ = false;
    records_.reset();
    package_.reset();
    strings_.reset();
    ClearWarnings();
    summary_.Clear();
    sheets_.clear();
    sheetParts_.clear();
    rowsInOrder_.clear();
    format_.clear();
    encrypted_ = binary_ = false;
    binaryRow_ = 0;
    dateOffset_ = 0;
    sheetIndex_ = 0;
    highestRow_ = highestColumn_ = -1;
    route_ = RecordMode() ? crCount : crReport;
    Load(stream);
    loaded_ = RecordMode() && package_ != nullptr;
}

void TMSExcelX::Load(TStream& stream) {
    if (TKvCompoundFile::IsCompoundFile(stream)) {
        // A password-protected package is a compound file holding the encrypted zip.
        const TKvCompoundFile file(stream);
        if (file.Find("EncryptionInfo") || file.Find("EncryptedPackage")) {
            encrypted_ = true;
            throw Exception(strXLSXEncrypted);
        }
        throw Exception(strXLSNotValidWorkbook +
                        ": it is a compound file (a binary .xls workbook?), not a zip "
                        "package");
    }
    package_ = std::make_unique<TKvXLSXPackage>(stream);
    const std::string main = package_->MainPart();
    const std::string problem = package_->ReadProperties(summary_);
    if (!problem.empty()) AddWarning("The document properties could not be read: " + problem);
    binary_ = main.size() >= 4 && SameText(std::string_view(main).substr(main.size() - 4), ".bin");
    if (binary_)
        version_ = evExcel12Bin;
    else if (version_ != evExcel12Bin)
        version_ = evExcel12;
    format_ = binary_ ? "Excel binary workbook (Excel 2007+)" : "Office Open XML workbook (Excel 2007+)";
    const TXLSXWorkbookInfo workbook =
        binary_ ? KvReadXLSBWorkbook(*package_, main) : KvReadXLSXWorkbook(*package_, main);
    if (workbook.Date1904) dateOffset_ = EncodeDate(1904, 1, 1);
    if (!workbook.StylesPart.empty()) {
        if (package_->FindPart(workbook.StylesPart))
            ReadStyles(workbook.StylesPart);
        else
            AddWarning("The styles part " + workbook.StylesPart + " is missing: no cell is read as a date");
    }
    if (ParseVBA() && !workbook.VBAProjectPart.empty()) ReadVBAProject(workbook.VBAProjectPart);
    strings_ = std::make_unique<TKvXLSXSharedStrings>();
    if (!workbook.SharedStringsPart.empty()) {
        if (!package_->FindPart(workbook.SharedStringsPart)) {
            AddWarning("The shared strings part " + workbook.SharedStringsPart + " is missing");
        } else {
            try {
                if (binary_)
                    KvReadXLSBSharedStrings(package_->OpenPart(workbook.SharedStringsPart), *strings_);
                else
                    strings_->Load(package_->OpenPart(workbook.SharedStringsPart));
            } catch (const std::exception& e) {
                FailInPart(workbook.SharedStringsPart, e);
            }
        }
    }
    for (size_t i = 0; i < workbook.Sheets.size(); ++i) {
        const TXLSXSheetEntry& entry = workbook.Sheets[i];
        TXLSSheetInfo info;
        info.Name = entry.Name;
        info.Visibility = entry.Visibility;
        info.Type = entry.Kind == "chartsheet" ? 2 : entry.Kind == "macrosheet" ? 1 : 0;
        sheets_.push_back(info);
        sheetParts_.push_back(info.Type == 2 ? std::string() : entry.Part);
        rowsInOrder_.push_back(true);
        if (entry.Part.empty())
            AddWarning(Format("Sheet %d (%s) has no part in the package: it is left empty",
                              static_cast<int>(i + 1), entry.Name.c_str()));
        bool skip = false;
        if (OnSheet) OnSheet(this, entry.Name, static_cast<int>(i), skip);
        if (skip)
            MeasureSkippedSheet(static_cast<int>(i));
        else
            ReadSheet(static_cast<int>(i));
    }
}

void TMSExcelX::ReadVBAProject(const std::string& part) {
    // A project is a small compound file; one far larger is not read, and a damaged one costs only its list.
    constexpr uint64_t kMaxProject = uint64_t{64} << 20;
    const TKvZipEntry* entry = package_->FindPart(part);
    try {
        if (!entry) throw Exception("the package has no such part");
        if (entry->UncompressedSize > kMaxProject) throw Exception("it is larger than 64 MiB");
        TMemoryStream bytes(package_->OpenPart(part)->ReadAll());
        ReadVBA(TKvCompoundFile(bytes), "");
    } catch (const std::exception& e) {
        AddWarning("The macro project " + part + " could not be read: " + e.what());
    }
}

void TMSExcelX::ReadStyles(const std::string& part) {
    TXLSXStyles styles;
    try {
        styles =
            binary_ ? KvReadXLSBStyles(package_->OpenPart(part)) : KvReadXLSXStyles(package_->OpenPart(part));
    } catch (const std::exception& e) {
        FailInPart(part, e);
    }
    for (auto& [number, text] : styles.Formats) SetFormat(number, std::move(text));
    for (const TXLSXStyles::TCellStyle& style : styles.CellStyles) AddXF(style.Format, style.Alignment);
}

void TMSExcelX::FailInPart(const std::string& part, const std::exception& e) const {
    const std::string what = e.what();
    // The package's own errors name the part already.
    if (StartsText(std::string(TKvXLSXPackage::kFormat) + ": part ", what)) throw Exception(what);
    throw TKvXLSXPackage::PartError(part, what);
}

void TMSExcelX::MeasureSkippedSheet(int index) {
    // The size a sheet announces, for the preview; its cells are not read.
    const std::string& part = sheetParts_[static_cast<size_t>(index)];
    if (part.empty() || !package_->FindPart(part)) return;
    try {
        const std::string dimension = OpenSheetRows(*package_, part, binary_)->ReadDimension();
        const size_t colon = dimension.find(':');
        int column = -1, row = -1;
        KvParseXLSXReference(colon == std::string::npos ? dimension : dimension.substr(colon + 1), column,
                             row);
        if (column >= 0 && column < TKvXLSXSheetReader::kMaxColumns && row >= 0) {
            sheets_[static_cast<size_t>(index)].Rows = row + 1;
            sheets_[static_cast<size_t>(index)].Columns = column + 1;
        }
    } catch (const std::exception&) {
        // A sheet not read may be damaged: that is said when it is read.
    }
}

void TMSExcelX::ReadSheet(int index) {
    const std::string& part = sheetParts_[static_cast<size_t>(index)];
    TXLSSheetInfo& info = sheets_[static_cast<size_t>(index)];
    sheetIndex_ = index;
    highestRow_ = highestColumn_ = -1;
    sheetText_ = 0;
    warnedString_ = warnedStyle_ = false;
    if (!part.empty()) {
        try {
            const std::unique_ptr<TSheetRows> reader = OpenSheetRows(*package_, part, binary_);
            TXLSXRow row;
            int last = -1;
            while (reader->NextRow(row)) {
                if (row.Index <= last) rowsInOrder_[static_cast<size_t>(index)] = false;
                last = std::max(last, row.Index);
                for (size_t i = 0; i < row.Count; ++i) {
                    if (route_ == crCount)
                        CountXLSXCell(row.Index, row.Cells[i]);
                    else
                        ReportXLSXCell(row.Index, row.Cells[i]);
                }
            }
            if (reader->CellsLeftOut() > 0)
                AddWarning(Format("Sheet %d holds cells beyond the last row or column a workbook can have: "
                                  "%d were left out",
                                  index + 1,
                                  static_cast<int>(std::min<int64_t>(reader->CellsLeftOut(), INT32_MAX))));
            if (reader->TextsCut() > 0)
                AddWarning(Format("Sheet %d holds texts longer than %d MiB, or rows of more than %d MiB of "
                                  "text: they were cut",
                                  index + 1, static_cast<int>(TKvXLSXSheetReader::kMaxCellText >> 20),
                                  static_cast<int>(TKvXLSXSheetReader::kMaxRowText >> 20)));
            if (reader->EndedEarly())
                AddWarning(Format("The part of sheet %d (%s) ends inside its cells: its last rows may be "
                                  "missing",
                                  index + 1, part.c_str()));
        } catch (const std::exception& e) {
            FailInPart(part, e);
        }
    }
    if (info.Type != 2) {
        info.Rows = highestRow_ + 1;
        info.Columns = highestColumn_ + 1;
    }
    if (OnDimensions) OnDimensions(this, index, 0, highestRow_ + 1, 0, highestColumn_ + 1);
}

int TMSExcelX::StyleOf(const TXLSXCell& cell) {
    const int xf = cell.Style;
    if (xf >= 0 && static_cast<size_t>(xf) < xfFormats_.size()) return xf;
    // A style the workbook does not hold would read as a format number: the cell gets none.
    if (xf != 0 && !warnedStyle_ && !records_) {
        warnedStyle_ = true;
        AddWarning(
            Format("Sheet %d uses cell style %d, which the workbook does not hold: such cells are read "
                   "without a style",
                   sheetIndex_ + 1, xf));
    }
    return -1;
}

const std::string_view* TMSExcelX::SharedStringOf(const TXLSXCell& cell) {
    size_t index = 0;
    const std::string& t = cell.Text;
    const auto [at, ec] = std::from_chars(t.data(), t.data() + t.size(), index);
    if (ec == std::errc() && at == t.data() + t.size() && strings_ && index < strings_->Count()) {
        sharedString_ = strings_->Item(index);
        return &sharedString_;
    }
    if (!warnedString_ && !records_) {
        warnedString_ = true;
        AddWarning(Format("Sheet %d refers to shared string %s, which the workbook does not hold: such cells "
                          "are left empty",
                          sheetIndex_ + 1, t.substr(0, 32).c_str()));
    }
    return nullptr;
}

void TMSExcelX::CountText(size_t bytes) {
    sheetText_ += bytes;
    if (sheetText_ > maxSheetText_)
        throw Exception(
            Format("sheet %d gives more than %d MiB of text (a shared string repeated without end?)",
                   sheetIndex_ + 1, static_cast<int>(maxSheetText_ >> 20)));
}

void TMSExcelX::CountXLSXCell(int row, const TXLSXCell& cell) {
    // What ReportXLSXCell would report, without making the values: the first pass of a record-mode load
    // only needs the sheet's size, the warnings and the text bound.
    StyleOf(cell);
    if (!cell.HasValue && !LoadNULLs()) return;
    highestRow_ = std::max(highestRow_, row);
    highestColumn_ = std::max(highestColumn_, cell.Column);
    if (!cell.HasValue) return;
    if (cell.Kind == xvSharedString) {
        const std::string_view* text = SharedStringOf(cell);
        CountText(text ? text->size() : 0);
    } else if (cell.Kind != xvNumber && cell.Kind != xvBoolean && cell.Kind != xvDate) {
        CountText(cell.Text.size());
    }
    if (cell.Column > LoadRange().LastCol || row > LoadRange().LastRow) return;
    static const Variant kAny(true);
    SpreadSheets().Spreadsheet(sheetIndex_).Cells().CountValue(cell.Column, row, kAny);
}

void TMSExcelX::ReportXLSXCell(int row, const TXLSXCell& cell) {
    const int xf = StyleOf(cell);
    const TAlignment align = xf >= 0 ? xfAligns_[static_cast<size_t>(xf)] : taLeftJustify;
    const auto text = [&](Variant value) {
        CountText(value.StringRef().size());
        ReportCell(row, cell.Column, xf, std::move(value), align, ictString);
    };
    if (!cell.HasValue) {
        if (LoadNULLs()) ReportCell(row, cell.Column, xf, Variant::Null(), align, ictEmpty);
        return;
    }
    const std::string& t = cell.Text;
    switch (cell.Kind) {
    case xvNumber: {
        double value = 0;
        const char* end = t.data() + t.size();
        const char* first = t.data();
        while (first < end && (*first == ' ' || *first == '\t' || *first == '\r' || *first == '\n')) ++first;
        if (first < end && *first == '+') ++first;
        const auto [at, ec] = std::from_chars(first, end, value);
        if (ec != std::errc() || at != end || first == end) {
            text(Variant(t)); // not a number: kept as the text it is
            return;
        }
        ReportNumber(row, cell.Column, xf, value, nullptr);
        return;
    }
    case xvSharedString: {
        const std::string_view* shared = SharedStringOf(cell);
        text(shared ? Variant(*shared) : Variant(""));
        return;
    }
    case xvBoolean:
        ReportCell(row, cell.Column, xf, Variant(t == "1" || SameText(t, "true")), align, ictBoolean);
        return;
    case xvDate: {
        TDateTime value = 0;
        if (TryISO8601ToDateTime(t, value) || TryISO8601ToTime(t, value))
            ReportCell(row, cell.Column, xf, Variant::FromDateTime(value), align, ictDateTime);
        else
            text(Variant(t));
        return;
    }
    default: // inline, formula and error texts
        text(Variant(t));
        return;
    }
}

void TMSExcelX::ProcessBIFF12Record(TStream& stream) {
    TKvXLSBRecordReader record(stream, false);
    if (!record.Next()) return;
    if (record.Type() == xbRowHeader) {
        const uint32_t index = TKvXLSBData(record.Data(), record.Type()).ReadU32LE();
        binaryRow_ = index < TKvXLSXSheetReader::kMaxRows ? static_cast<int>(index) : -1;
        return;
    }
    TXLSXCell cell;
    if (!KvDecodeXLSBCell(record.Type(), record.Data(), cell) || binaryRow_ < 0 ||
        cell.Column >= TKvXLSXSheetReader::kMaxColumns)
        return;
    if (route_ == crCount)
        CountXLSXCell(binaryRow_, cell);
    else
        ReportXLSXCell(binaryRow_, cell);
}

void TMSExcelX::BeforeLoad() {
    TCustomMSExcel::BeforeLoad();
    if (loaded_) StartRecords();
}

void TMSExcelX::StartRecords() {
    records_ = std::make_unique<TRecordState>();
    TRecordState& r = *records_;
    r.Sheet = SheetFilter();
    route_ = crRecord;
    sheetText_ = 0;
    if (r.Sheet < 0 || static_cast<size_t>(r.Sheet) >= sheets_.size() ||
        sheetParts_[static_cast<size_t>(r.Sheet)].empty()) {
        r.Ended = true;
        return;
    }
    sheetIndex_ = r.Sheet;
    const std::string& part = sheetParts_[static_cast<size_t>(r.Sheet)];
    try {
        r.Reader = OpenSheetRows(*package_, part, binary_);
        if (rowsInOrder_[static_cast<size_t>(r.Sheet)]) return;
        // Rows out of order cannot be read on one by one: the sheet is kept whole for this run.
        r.Whole = std::make_unique<TSpreadSheetCells>();
        TXLSXRow row;
        TCellValueEvent report = std::move(OnCellValue);
        OnCellValue = [&](TObject*, int, int rowIndex, int column, int32_t formatIndex, const Variant& value,
                          TAlignment alignment, TKvICellType type) {
            r.Whole->SetValue(column, rowIndex, value, alignment, formatIndex, type);
        };
        route_ = crReport;
        try {
            while (r.Reader->NextRow(row))
                for (size_t i = 0; i < row.Count; ++i) ReportXLSXCell(row.Index, row.Cells[i]);
        } catch (...) {
            OnCellValue = std::move(report);
            route_ = crRecord;
            throw;
        }
        OnCellValue = std::move(report);
        route_ = crRecord;
        r.Reader.reset();
    } catch (const std::exception& e) {
        // Nothing more is read from this sheet until it is started again.
        r.Ended = true;
        r.Reader.reset();
        r.Whole.reset();
        FailInPart(part, e);
    }
}

bool TMSExcelX::LoadRecord(int index) {
    TCustomMSExcel::LoadRecord(index);
    if (!loaded_) return true;
    if (!records_ || index < records_->LastAsked) StartRecords(); // rows are read forwards only
    TRecordState& r = *records_;
    r.LastAsked = index;
    recordRow_ = index;
    if (r.Whole) {
        const TSpreadSheetRow* row = r.Whole->Row(index);
        for (int col = 0; row && OnCellValue && col < row->Cols().Count(); ++col)
            if (const TKvICell* cell = row->Cols().GetCell(col))
                OnCellValue(this, r.Sheet, index, col, cell->FormatIndex, cell->Value, cell->Alignment,
                            cell->CellType);
        return true;
    }
    const std::string& part = r.Sheet >= 0 && static_cast<size_t>(r.Sheet) < sheetParts_.size()
                                  ? sheetParts_[static_cast<size_t>(r.Sheet)]
                                  : std::string();
    try {
        while (!r.Ended) {
            if (!r.HavePending) {
                if (!r.Reader->NextRow(r.Pending)) {
                    r.Ended = true;
                    break;
                }
                r.HavePending = true;
            }
            if (r.Pending.Index > index) break;
            r.HavePending = false;
            if (r.Pending.Index < index) continue;
            sheetIndex_ = r.Sheet;
            for (size_t i = 0; i < r.Pending.Count; ++i) ReportXLSXCell(index, r.Pending.Cells[i]);
        }
    } catch (const std::exception& e) {
        r.Ended = true;
        const std::string where = FileName().empty() ? std::string() : FileName() + ": ";
        try {
            FailInPart(part, e);
        } catch (const Exception& inPart) {
            throw Exception(where + inPart.what());
        }
    }
    return true;
}

std::vector<std::pair<std::string, std::string>> TMSExcelX::FileProperties() const {
    std::vector<std::pair<std::string, std::string>> out;
    if (!format_.empty()) out.emplace_back("Format", format_);
    AddSheetProperties(sheets_, out);
    if (dateOffset_ != 0) out.emplace_back("Date system", "1904");
    for (auto& p : TCustomMSExcel::FileProperties()) out.push_back(std::move(p));
    return out;
}

} // namespace kv
