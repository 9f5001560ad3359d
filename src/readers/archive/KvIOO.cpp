#include "readers/archive/KvIOO.h"

#include "platform/Exceptions.h"
#include "platform/Format.h"
#include "platform/SysUtils.h"
#include "readers/archive/KvIOOInternal.h"
#include "readers/archive/KvZipReader.h"

#include <algorithm>
#include <iterator>

namespace kv {

std::string strOONotSpreadsheet = "File is not an OpenDocument spreadsheet";
std::string strOOEncrypted =
    "The document is encrypted with a password, which this reader cannot open: save it again without one";

// ---- TKvIOOStyles ----

TKvIOOStyle* TKvIOOStyles::Add(std::unique_ptr<TKvIOOStyle> style) {
    styles_.push_back(std::move(style));
    return styles_.back().get();
}

TKvIOOStyle* TKvIOOStyles::GetStyle(int index) const {
    return index < 0 || index >= Count() ? nullptr : styles_[static_cast<size_t>(index)].get();
}

TKvIOOStyle* TKvIOOStyles::FindByStyleName(std::string_view name) const {
    for (const auto& style : styles_)
        if (style->StyleName() == name) return style.get();
    return nullptr;
}

void TKvIOOStyles::ClearStyles() {
    while (!styles_.empty()) styles_.pop_back();
}

// ---- the load ----

namespace {

constexpr const char* kSpreadsheetTypes[] = {"application/vnd.oasis.opendocument.spreadsheet",
                                             "application/vnd.oasis.opendocument.spreadsheet-template"};

/// The first 4 KiB of a small part, enough for a media type.
std::string Head(const TKvZipReader& zip, const TKvZipEntry& entry) {
    std::unique_ptr<TStream> member = zip.OpenMember(entry);
    std::string bytes(static_cast<size_t>(std::min<uint64_t>(entry.UncompressedSize, 4096)), '\0');
    bytes.resize(static_cast<size_t>(member->Read(bytes.data(), static_cast<int64_t>(bytes.size()))));
    return bytes;
}

} // namespace

/// What a load reads from: the package and its content part, or the flat document; and, in record mode,
/// where LoadRecord has got to in the sheet it reads.
struct TKvIOpenOfficeSpreadsheet::TLoad {
    TKvIOpenOfficeSpreadsheet& Owner;
    TStream& Stream;
    int64_t Start;
    std::unique_ptr<TKvZipReader> Zip;
    const TKvZipEntry* Content = nullptr;
    std::unique_ptr<TStream> Member;
    oo::TStyleIndex Styles;
    oo::TDocumentReader Reader;
    oo::TRow Row;
    int64_t RepeatedCells = 0, RepeatedBytes = 0;
    bool WarnedRows = false, WarnedColumns = false;

    // Record mode.
    int Sheet = -1;         ///< the sheet LoadRecord reads; -1 for none
    int64_t RowStart = 0;   ///< the first row Row stands for
    bool HaveRow = false;   ///< Row is a row of the sheet
    bool SheetRead = false; ///< rows past RowStart have been asked for

    TLoad(TKvIOpenOfficeSpreadsheet& owner, TStream& stream)
        : Owner(owner), Stream(stream), Start(stream.Position()) {}

    std::string ContentPart() const { return Zip ? "content.xml" : "the document"; }

    /// Starts the walk of the content (the whole document when flat), collecting what `sinks` ask for.
    void OpenContent(const oo::TDocumentSinks& sinks) {
        if (Zip) {
            Member = Zip->OpenMember(*Content);
            Reader.Open(*Member, ContentPart(), sinks);
        } else {
            Stream.Seek(Start, soBeginning);
            Reader.Open(Stream, ContentPart(), sinks);
        }
    }

    void OpenPackage();
    void ReadPart(const char* name, const oo::TDocumentSinks& sinks);
    void ReadSheets();
    /// Checks a row element against the limits and the repetition budget; the rows of it that lie in a
    /// sheet (0 for none).
    int64_t RowsOf(int64_t rowStart, int sheet);
    void Report(int sheet, int64_t row);
};

void TKvIOpenOfficeSpreadsheet::TLoad::OpenPackage() {
    Zip = std::make_unique<TKvZipReader>(Stream);
    if (const TKvZipEntry* mime = Zip->Find("mimetype")) {
        const std::string type = Trim(Head(*Zip, *mime));
        if (type.starts_with("application/vnd.oasis.opendocument.") &&
            std::find(std::begin(kSpreadsheetTypes), std::end(kSpreadsheetTypes), type) ==
                std::end(kSpreadsheetTypes))
            throw Exception(strOONotSpreadsheet + ": the package is an OpenDocument document of the type " +
                            type);
    }
    if (const TKvZipEntry* manifest = Zip->Find("META-INF/manifest.xml")) {
        // Encrypted parts are listed with their encryption data; the content is then no XML.
        std::unique_ptr<TStream> member = Zip->OpenMember(*manifest);
        TKvXMLDecoder decoder;
        decoder.Open(*member);
        TKvXMLScanner scanner(xdRecords);
        scanner.Open(decoder);
        while (scanner.Next())
            if (scanner.Kind() == xtkStartTag && scanner.Name() == "manifest:encryption-data") {
                Owner.encrypted_ = true;
                throw Exception(strOOEncrypted + " (META-INF/manifest.xml lists its parts as encrypted)");
            }
    }
    Content = Zip->Find("content.xml");
    if (!Content) throw Exception(strOONotSpreadsheet + ": the package has no content.xml");
}

void TKvIOpenOfficeSpreadsheet::TLoad::ReadPart(const char* name, const oo::TDocumentSinks& sinks) {
    const TKvZipEntry* entry = Zip->Find(name);
    if (!entry) return;
    std::unique_ptr<TStream> member = Zip->OpenMember(*entry);
    oo::TDocumentReader part;
    part.Open(*member, name, sinks);
    std::string sheet, style;
    part.NextTable(sheet, style);
    for (std::string& warning : part.Warnings()) Owner.AddWarning(std::move(warning));
}

int64_t TKvIOpenOfficeSpreadsheet::TLoad::RowsOf(int64_t rowStart, int sheet) {
    const std::string& name = Owner.sheets_[static_cast<size_t>(sheet)].Name;
    if (Row.CutColumns && !WarnedColumns)
        Owner.AddWarning(Format("%s, line %d: sheet \"%s\" has values past column %d, which are not read",
                                ContentPart().c_str(), Reader.Line(), name.c_str(), MaxColumns));
    WarnedColumns = WarnedColumns || Row.CutColumns;
    if (Row.Count == 0) return 0;
    if (rowStart >= MaxRows || Row.Repeat > MaxRows - rowStart) {
        if (!WarnedRows)
            Owner.AddWarning(Format("%s, line %d: sheet \"%s\" has values past row %d, which are not read",
                                    ContentPart().c_str(), Reader.Line(), name.c_str(), MaxRows));
        WarnedRows = true;
        if (rowStart >= MaxRows) return 0;
    }
    const int64_t rows = std::min<int64_t>(Row.Repeat, MaxRows - rowStart);
    // Each copy past the one written costs what the document did not: a bound on what a few bytes claim.
    int64_t cells = 0, bytes = 0;
    for (size_t i = 0; i < Row.Count; ++i) {
        const oo::TCellRun& run = Row.Runs[i];
        const int64_t copies = run.Count * rows - 1;
        cells += copies;
        bytes += copies * static_cast<int64_t>(std::min<size_t>(run.Bytes, size_t(1) << 24));
    }
    // A row adds no more than 2^34 cells and 2^58 bytes: the sums stay far from overflowing until they fail.
    RepeatedCells = std::min(RepeatedCells + cells, INT64_MAX / 2);
    RepeatedBytes = std::min(RepeatedBytes + bytes, INT64_MAX / 2);
    const int64_t limit = std::max<int64_t>(Owner.maxRepeated_, 0);
    if (RepeatedCells > limit || RepeatedBytes > std::min(limit, INT64_MAX / 32) * 16)
        oo::Fail(ContentPart(), Reader.Line(),
                 Format("sheet \"%s\" repeats its cells more than the %d copies a document may claim (a row "
                        "of %d values repeated %d times)",
                        name.c_str(), static_cast<int>(std::min<int64_t>(Owner.maxRepeated_, INT32_MAX)),
                        static_cast<int>(cells / rows + 1), static_cast<int>(rows)));
    return rows;
}

void TKvIOpenOfficeSpreadsheet::TLoad::Report(int sheet, int64_t row) {
    const TKvRange& range = Owner.LoadRange();
    if (row > range.LastRow || !Owner.OnCellValue) return;
    for (size_t i = 0; i < Row.Count; ++i) {
        const oo::TCellRun& run = Row.Runs[i];
        const int last = std::min(run.Column + run.Count - 1, range.LastCol);
        for (int col = run.Column; col <= last; ++col)
            Owner.OnCellValue(&Owner, sheet, static_cast<int>(row), col, run.Style, run.Value, run.Alignment,
                              run.Type);
    }
}

void TKvIOpenOfficeSpreadsheet::TLoad::ReadSheets() {
    const bool record = Owner.RecordMode();
    oo::TDocumentSinks sinks{Owner.styles_.get(), &Styles, Zip ? nullptr : &Owner.summary_, &Owner.nullDate_,
                             &Owner.version_};
    OpenContent(sinks);
    std::string name, style;
    int64_t nextProgress = 0;
    const int64_t size = Zip ? static_cast<int64_t>(Content->UncompressedSize) : Stream.Size() - Start;
    for (int index = 0; Reader.NextTable(name, style); ++index) {
        Owner.sheets_.push_back({name, Styles.HiddenTables.count(style) > 0, 0, 0});
        bool skip = false;
        if (Owner.OnSheet) Owner.OnSheet(&Owner, name, index, skip);
        Owner.sheetIndex_ = Owner.currentSheet_ = index;
        TSpreadSheetCells& cells = Owner.SpreadSheets().Spreadsheet(index).Cells();
        const TKvRange& range = Owner.LoadRange();
        int64_t rowStart = 0;
        int lastRow = -1, lastCol = -1;
        while (Reader.NextRow(Row)) {
            if (const int64_t rows = RowsOf(rowStart, index)) {
                const int end = Row.Runs[Row.Count - 1].Column + Row.Runs[Row.Count - 1].Count;
                lastRow = static_cast<int>(rowStart + rows - 1);
                lastCol = std::max(lastCol, end - 1);
                if (record) {
                    // Only the size a loaded sheet would have: the rows are read again by LoadRecord.
                    int col = -1;
                    const oo::TCellRun* any = nullptr;
                    for (size_t i = 0; i < Row.Count; ++i) {
                        const oo::TCellRun& run = Row.Runs[i];
                        if (run.Column > range.LastCol) break;
                        col = std::min(run.Column + run.Count - 1, range.LastCol);
                        any = &run;
                    }
                    if (any && rowStart <= range.LastRow)
                        cells.CountValue(col, static_cast<int>(std::min<int64_t>(lastRow, range.LastRow)),
                                         any->Value);
                } else if (!skip) {
                    for (int64_t r = rowStart; r < rowStart + rows && r <= range.LastRow; ++r)
                        Report(index, r);
                }
            }
            rowStart = std::min(rowStart + Row.Repeat, INT64_MAX / 4);
            if (Reader.BytesRead() >= nextProgress) {
                Owner.UpdateProgress(Reader.BytesRead(), size);
                nextProgress = Reader.BytesRead() + 65536;
            }
        }
        TKvIOOSheetInfo& info = Owner.sheets_.back();
        info.Rows = lastRow + 1;
        info.Columns = lastCol + 1;
        if (!skip && Owner.OnDimensions) Owner.OnDimensions(&Owner, index, 0, lastRow + 1, 0, lastCol + 1);
    }
    Owner.UpdateProgress(Reader.BytesRead(), size);
    if (!Reader.SawBody() || !Reader.SawSpreadsheet())
        throw Exception(strOONotSpreadsheet + ": " + ContentPart() +
                        (Reader.SawBody() ? " holds another kind of document" : " holds no office:body"));
    if (Reader.EndedInTable())
        Owner.AddWarning(ContentPart() + " ends inside sheet \"" + Owner.sheets_.back().Name +
                         "\": its last rows may be missing");
    for (std::string& warning : Reader.Warnings()) Owner.AddWarning(std::move(warning));
}

// ---- TKvIOpenOfficeSpreadsheet ----

TKvIOpenOfficeSpreadsheet::TKvIOpenOfficeSpreadsheet(TComponent* owner)
    : TSpreadSheetFile(owner), styles_(std::make_unique<TKvIOOStyles>()) {}

TKvIOpenOfficeSpreadsheet::~TKvIOpenOfficeSpreadsheet() {
    load_.reset(); // before the stream it reads
    file_.reset();
}

bool TKvIOpenOfficeSpreadsheet::ServesExtension(std::string_view extension) {
    const std::string upper = UpperCase(extension);
    return upper == ".ODS" || upper == ".OTS" || upper == ".FODS" || upper == ".FOTS";
}

void TKvIOpenOfficeSpreadsheet::ApplyEvents() {
    TSpreadSheetFile::ApplyEvents();
    summary_.Clear();
    if (styles_) styles_->ClearStyles();
    currentSheet_ = -1;
}

void TKvIOpenOfficeSpreadsheet::LoadFromFile(const std::string& fileName) {
    TSpreadSheetFile::LoadFromFile(fileName);
    auto file = std::make_unique<TFileStream>(fileName, fmOpenRead | fmShareDenyWrite);
    file->Seek(0, soBeginning);
    load_.reset();
    file_.reset();
    LoadFromStream(*file);
    if (RecordMode()) file_ = std::move(file); // read on by LoadRecord
}

void TKvIOpenOfficeSpreadsheet::LoadFromStream(TStream& stream) {
    TSpreadSheetFile::LoadFromStream(stream);
    summary_.Clear();
    load_.reset();
    Load(stream);
}

void TKvIOpenOfficeSpreadsheet::Load(TStream& stream) {
    BeforeLoad();
    ClearWarnings();
    sheets_.clear();
    encrypted_ = false;
    flat_ = false;
    version_.clear();
    nullDate_ = "1899-12-30";
    sheetIndex_ = 0;
    auto load = std::make_unique<TLoad>(*this, stream);
    if (TKvZipReader::IsZipFile(stream)) {
        load->OpenPackage();
        load->ReadPart("meta.xml", {nullptr, nullptr, &summary_, nullptr, nullptr});
        load->ReadPart("styles.xml", {styles_.get(), &load->Styles, nullptr, nullptr, nullptr});
    } else {
        flat_ = true;
    }
    load->ReadSheets();
    load->Member.reset();
    if (RecordMode()) load_ = std::move(load);
}

bool TKvIOpenOfficeSpreadsheet::StartSheet(int sheet) {
    TLoad& l = *load_;
    l.Sheet = -1;
    l.HaveRow = l.SheetRead = false;
    l.RowStart = 0;
    if (sheet < 0 || sheet >= static_cast<int>(sheets_.size())) return false;
    // The styles and the metadata were taken in by the first pass.
    l.OpenContent({nullptr, &l.Styles, nullptr, nullptr, nullptr});
    std::string name, style;
    for (int index = 0; index <= sheet; ++index)
        if (!l.Reader.NextTable(name, style)) return false;
    l.Sheet = sheet;
    sheetIndex_ = currentSheet_ = sheet;
    l.HaveRow = l.Reader.NextRow(l.Row);
    return true;
}

void TKvIOpenOfficeSpreadsheet::BeforeLoad() {
    TSpreadSheetFile::BeforeLoad();
    if (load_) StartSheet(SheetFilter());
}

bool TKvIOpenOfficeSpreadsheet::LoadRecord(int index) {
    TSpreadSheetFile::LoadRecord(index);
    if (!load_ || index < 0) return true;
    TLoad& l = *load_;
    if (l.Sheet != SheetFilter() || index < l.RowStart) {
        // Another sheet, or a row passed: the sheet is read again from its start.
        if (!StartSheet(SheetFilter())) return true;
    }
    while (l.HaveRow && index - l.RowStart >= l.Row.Repeat) {
        l.RowStart += l.Row.Repeat;
        l.HaveRow = l.Reader.NextRow(l.Row);
    }
    if (l.HaveRow && index < MaxRows) l.Report(l.Sheet, index);
    return true;
}

void TKvIOpenOfficeSpreadsheet::AfterLoad() {
    TSpreadSheetFile::AfterLoad();
    if (load_) load_->Member.reset();
    if (load_) load_->Sheet = -1;
}

std::vector<std::pair<std::string, std::string>> TKvIOpenOfficeSpreadsheet::FileProperties() const {
    std::vector<std::pair<std::string, std::string>> out;
    std::string format = flat_ ? "Flat OpenDocument spreadsheet" : "OpenDocument spreadsheet";
    if (!version_.empty()) format += " (ODF " + version_ + ")";
    out.emplace_back("Format", format);
    for (size_t i = 0; i < sheets_.size(); ++i) {
        const TKvIOOSheetInfo& s = sheets_[i];
        out.emplace_back("Sheet " + std::to_string(i + 1),
                         Format("%s (%d rows, %d columns%s)", s.Name.c_str(), s.Rows, s.Columns,
                                s.Hidden ? ", hidden" : ""));
    }
    if (nullDate_ != "1899-12-30")
        out.emplace_back("Date system", nullDate_ == "1904-01-01" ? "1904" : "day 0 is " + nullDate_);
    const std::pair<const char*, const std::string*> texts[] = {
        {"Title", &summary_.Title()},     {"Subject", &summary_.Subject()},
        {"Author", &summary_.Author()},   {"Last saved by", &summary_.LastAuthor()},
        {"Company", &summary_.Company()}, {"Application", &summary_.AppName()},
    };
    for (const auto& [label, text] : texts)
        if (!text->empty()) out.emplace_back(label, *text);
    const std::pair<const char*, TDateTime> dates[] = {{"Created", summary_.Created()},
                                                       {"Last saved", summary_.LastSaved()}};
    for (const auto& [label, date] : dates)
        if (date != 0) out.emplace_back(label, FormatDateTime("yyyy-mm-dd hh:nn:ss", date));
    return out;
}

} // namespace kv
