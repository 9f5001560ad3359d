// TMSExcel: the two ways in (a compound file's workbook stream, or a bare BIFF stream) and the record
// loop that turns BIFF records into sheets and cells.

#include "readers/spreadsheet/KvXLS.h"

#include "platform/BinaryReader.h"
#include "platform/ByteReader.h"
#include "platform/DateUtils.h"
#include "platform/Encoding.h"
#include "platform/Exceptions.h"
#include "platform/Format.h"
#include "platform/FormatError.h"
#include "platform/SysUtils.h"
#include "platform/Utf8.h"
#include "readers/spreadsheet/KvBIFFStrings.h"
#include "readers/spreadsheet/KvCompoundFile.h"
#include "readers/spreadsheet/KvXLSCrypt.h"

#include <algorithm>
#include <deque>
#include <filesystem>

namespace kv {

namespace {

constexpr const char* kFormat = "Excel";
constexpr int kBIFF5MaxRecord = 2080;
constexpr int kBIFF8MaxRecord = 8224;
/// Every generation has 256 columns and at most 65,536 rows; a cell beyond them is damage.
constexpr int kMaxColumns = 256;
constexpr int kMaxRows = 65536;

enum : uint16_t {
    rtBlank2 = 0x0001,
    rtInteger2 = 0x0002,
    rtNumber2 = 0x0003,
    rtLabel2 = 0x0004,
    rtBoolErr2 = 0x0005,
    rtFormula = 0x0006,
    rtString2 = 0x0007,
    rtEOF = 0x000A,
    rtName = 0x0018,
    rtFormat2 = 0x001E,
    rtDateMode = 0x0022,
    rtColWidth = 0x0024,
    rtFilePass = 0x002F,
    rtFont = 0x0031,
    rtContinue = 0x003C,
    rtCodePage = 0x0042,
    rtXF2 = 0x0043,
    rtObj = 0x005D,
    rtColInfo = 0x007D,
    rtRK2 = 0x007E,
    rtBoundSheet = 0x0085,
    rtBundleSheet = 0x008F,
    rtPalette = 0x0092,
    rtMulRK = 0x00BD,
    rtMulBlank = 0x00BE,
    rtRString = 0x00D6,
    rtXF5 = 0x00E0,
    rtMsoDrawingGroup = 0x00EB,
    rtMsoDrawing = 0x00EC,
    rtSST = 0x00FC,
    rtLabelSST = 0x00FD,
    rtExcel9 = 0x01C0,
    rtDimensions = 0x0200,
    rtBlank = 0x0201,
    rtNumber = 0x0203,
    rtLabel = 0x0204,
    rtBoolErr = 0x0205,
    rtFormula3 = 0x0206,
    rtString = 0x0207,
    rtRow = 0x0208,
    rtName3 = 0x0218,
    rtFont3 = 0x0231,
    rtXF3 = 0x0243,
    rtRK = 0x027E,
    rtFormula4 = 0x0406,
    rtFormat = 0x041E,
    rtXF4 = 0x0443,
};

const char* const kBuiltInNames[] = {"Consolidate_Area", "Auto_Open",      "Auto_Close",    "Extract",
                                     "Database",         "Criteria",       "Print_Area",    "Print_Titles",
                                     "Recorder",         "Data_Form",      "Auto_Activate", "Auto_Deactivate",
                                     "Sheet_Title",      "_FilterDatabase"};

/// 2, 3, 4 or 5 for the BOF record types of bare streams; 0 for another type.
int GenerationOfBOF(uint16_t type) {
    switch (type >> 8) {
    case 0x00:
        return 2;
    case 0x02:
        return 3;
    case 0x04:
        return 4;
    case 0x08:
        return 5;
    default:
        return 0;
    }
}

TExcelVersion VersionOfGeneration(int generation) {
    return generation == 2 ? evExcel2 : generation == 3 ? evExcel3 : generation == 4 ? evExcel4 : evExcel5;
}

std::string Hex4(uint16_t value) {
    return "0x" + IntToHex(value, 4);
}

bool IsCellRecord(uint16_t type) {
    switch (type) {
    case rtBlank2:
    case rtBlank:
    case rtInteger2:
    case rtNumber2:
    case rtNumber:
    case rtRK2:
    case rtRK:
    case rtMulRK:
    case rtLabel2:
    case rtLabel:
    case rtRString:
    case rtLabelSST:
    case rtBoolErr2:
    case rtBoolErr:
    case rtFormula:
    case rtFormula3:
    case rtFormula4:
        return true;
    default:
        return false;
    }
}

/// The row a cell record names first; -1 for a record too short to name one.
int RowOfCellRecord(const std::string& data) {
    return data.size() < 2 ? -1 : static_cast<uint8_t>(data[0]) | static_cast<uint8_t>(data[1]) << 8;
}

} // namespace

/// The state of one load.
struct TMSExcel::TLoad {
    TMSExcel& Owner;
    TKvBinaryReader In;
    bool Bare;

    uint16_t Type = 0;
    std::string Data;
    uint64_t DataOffset = 0;
    TKvBIFFContinued Continued; ///< the record and its CONTINUE records, for the records that take them
    std::deque<std::string> ContinuedData;

    int Generation = 0; ///< 2, 3, 4, 5 or 8: the record layouts in use
    bool Biff8 = false; ///< strings are BIFF8 Unicode strings
    int Depth = 0;      ///< substreams open (a chart inside a sheet is one more)
    bool SeenFirstBOF = false;
    bool InSheet = false; ///< the current depth-0 substream is a sheet, not the workbook globals
    bool SkipSheet = false;
    int NextSheet = 0;
    std::vector<bool> SkippedSheets;
    std::vector<bool> SheetsDone;
    std::vector<std::string> SST;
    int FormatCount = 0; ///< FORMAT records so far; numbers them before BIFF5
    TKvCodePageDecoder Decoder{1252};

    // A formula whose string result follows in a STRING record.
    bool PendingString = false;
    int PendingRow = 0, PendingCol = 0, PendingXF = -1;
    TAlignment PendingAlign = taLeftJustify;

    // The used area a DIMENSIONS record announced for the current sheet.
    bool HaveDimensions = false;
    int DimLastRow = 0, DimLastCol = 0;

    bool WarnedColumns = false;
    bool WarnedSST = false;
    bool WarnedString = false;

    // Record mode: where each sheet's cells lie, so that they can be read again row by row.
    struct TSheetCells {
        bool Any = false;
        uint64_t First = 0;  ///< the header of the sheet's first cell record
        int FirstDepth = 0;  ///< the substreams open there
        int LastRow = -1;    ///< the highest row of its cell records so far
        bool InOrder = true; ///< no cell record has a lower row than one before it
    };
    std::vector<TSheetCells> SheetCells;
    /// Where the last record that changes how cells read (a format, a style, the code page...) lies;
    /// 0 for none. Cells after it read alike in a second pass that starts there.
    uint64_t LastStateRecord = 0;
    bool Replaying = false;  ///< reading a sheet's cells again: nothing else is taken in
    bool Held = false;       ///< the current record begins a later row and waits for it
    bool SheetEnded = false; ///< the replayed sheet has no more records

    TLoad(TMSExcel& owner, TStream& stream, bool bare) : Owner(owner), In(stream, kFormat), Bare(bare) {}

    [[noreturn]] void Damaged(const std::string& what) const { In.CorruptAt(DataOffset, what); }

    int MaxRecordSize() const {
        if (Owner.maxRecordSize_ > 0) return Owner.maxRecordSize_;
        return Biff8 ? kBIFF8MaxRecord : Owner.GetMaxBuffSize();
    }

    void Run();
    bool ReadRecord();
    void NoteCellRecord();
    /// Whether sheet `index`'s cells can be read again row by row: in row order, and under the formats
    /// and styles the workbook ends with.
    bool CanReplay(int index) const;
    void StartReplay(int index);
    /// Reports the cells of row `row` of the sheet being replayed (rows are asked for in order).
    void ReplayRow(int row);
    void Replay();
    void CollectContinues();
    void Process();
    void ProcessBOF();
    void BeginSheet(int index);
    void EndSheet();
    void ProcessFilePass();
    void ProcessCell();
    void ProcessStringResult();
    void DropPendingString();
    void ProcessBoundSheet();
    void ProcessFormat();
    void ProcessXF();
    void ProcessName();
    void ProcessDimensions();
    void ProcessColumnWidths();
    void ReportCellAt(int row, int column, int xf, Variant value, TAlignment align, TKvICellType type);
    void ReportNumberAt(int row, int column, int xf, double value, const TAlignment* align);
    TAlignment AlignmentOf(int xf) const;
    /// 8-bit text in the workbook's code page.
    std::string ByteText(std::string_view bytes) const { return Decoder.Decode(bytes); }
    /// The text of a LABEL, RSTRING or STRING record from `offset` in the data.
    std::string CellText(size_t offset, bool countIsByte);
};

TMSExcel::TMSExcel(TComponent* owner) : TCustomMSExcel(owner) {}

TMSExcel::~TMSExcel() = default;

int TMSExcel::GetMaxBuffSize() const {
    if (maxRecordSize_ > 0) return maxRecordSize_;
    return version_ < evExcel8 ? kBIFF5MaxRecord : kBIFF8MaxRecord;
}

void TMSExcel::LoadFromFile(const std::string& fileName) {
    TSpreadSheetFile::LoadFromFile(fileName);
    auto file = std::make_unique<TFileStream>(fileName, fmOpenRead | fmShareDenyNone);
    file->Seek(0, soBeginning);
    LoadFromStream(*file);
    if (RecordMode()) file_ = std::move(file); // read on by LoadRecord
}

void TMSExcel::LoadFromStream(TStream& stream) {
    load_.reset();
    workbook_.reset();
    compound_.reset();
    recordSource_ = rsNone;
    route_ = RecordMode() ? crCount : crReport;
    recordStream_ = RecordMode() ? &stream : nullptr;
    recordStreamStart_ = stream.Position();
    recordFilter_ = SheetFilter();
    Load(stream);
    if (load_) recordSource_ = rsReplay;
}

void TMSExcel::Load(TStream& stream) {
    TSpreadSheetFile::LoadFromStream(stream);
    BeforeLoad();
    ClearWarnings();
    summary_.Clear();
    version_ = evUnknown;
    encrypted_ = false;
    encryptionText_.clear();
    maxRecordSize_ = 0;
    codePage_ = 1252;
    dateOffset_ = 0;
    sheetIndex_ = 0;
    highestRow_ = highestColumn_ = -1;
    sheets_.clear();
    decryptor_.reset();
    generation_ = 0;
    if (TKvCompoundFile::IsCompoundFile(stream)) {
        ReadCompound(stream);
    } else {
        ReadRecords(stream, true);
    }
}

void TMSExcel::ReadCompound(TStream& stream) {
    auto kept = std::make_unique<TKvCompoundFile>(stream);
    const TKvCompoundFile& file = *kept;
    const TKvCompoundEntry* book = nullptr;
    for (const TKvCompoundEntry& entry : file.Entries()) {
        if (entry.Type != cetStream || entry.Path != entry.Name) continue;
        const std::string upper = UpperCase(entry.Name);
        if (upper == "WORKBOOK" || upper == "BOOK") {
            book = &entry;
            break;
        }
    }
    if (!book) book = file.Find("Workbook");
    if (!book) throw Exception(strXLSNotValidWorkbook);
    if (UpperCase(book->Name) == "BOOK") {
        version_ = evExcel7;
        maxRecordSize_ = kBIFF5MaxRecord;
    } else {
        version_ = evExcel8;
        maxRecordSize_ = kBIFF8MaxRecord;
    }
    const std::string problem = summary_.ReadPropertySets(file);
    if (!problem.empty()) AddWarning(problem);
    if (parseVBA_) ReadVBA(file, "_VBA_PROJECT_CUR/");
    std::unique_ptr<TStream> workbook = file.OpenStream(*book);
    ReadRecords(*workbook, false);
    if (load_) { // record mode reads on from them
        compound_ = std::move(kept);
        workbook_ = std::move(workbook);
    }
}

void TCustomMSExcel::ReadVBA(const TKvCompoundFile& file, const std::string& project) {
    // The modules are the streams of the project's VBA storage other than its bookkeeping ones.
    const std::string kPrefix = project + "VBA/";
    for (const TKvCompoundEntry& entry : file.Entries()) {
        if (entry.Type != cetStream || entry.Path.size() <= kPrefix.size() ||
            UpperCase(entry.Path.substr(0, kPrefix.size())) != kPrefix)
            continue;
        const std::string name = entry.Path.substr(kPrefix.size());
        const std::string upper = UpperCase(name);
        if (upper == "DIR" || upper == "_VBA_PROJECT" || StartsText("__SRP_", name) ||
            upper.find('/') != std::string::npos)
            continue;
        vbaItems_.push_back({name, entry.Size});
    }
}

void TMSExcel::ReadRecords(TStream& stream, bool bare) {
    auto load = std::make_unique<TLoad>(*this, stream, bare);
    load->Run();
    if (route_ == crCount) load_ = std::move(load);
}

void TMSExcel::BeforeLoad() {
    TCustomMSExcel::BeforeLoad();
    if (recordSource_ == rsReplay && !load_->CanReplay(SheetFilter())) LoadWhole();
    if (recordSource_ == rsReplay) load_->StartReplay(SheetFilter());
}

bool TMSExcel::LoadRecord(int index) {
    TCustomMSExcel::LoadRecord(index);
    if (recordSource_ == rsReplay) {
        load_->ReplayRow(index);
    } else if (recordSource_ == rsWholeLoad && OnCellValue && SheetFilter() >= 0 &&
               SheetFilter() < SpreadSheets().Count()) {
        const TSpreadSheetRow* row = SpreadSheets().Spreadsheet(SheetFilter()).Cells().Row(index);
        for (int col = 0; row && col < row->Cols().Count(); ++col)
            if (const TKvICell* cell = row->Cols().GetCell(col))
                OnCellValue(this, SheetFilter(), index, col, cell->FormatIndex, cell->Value, cell->Alignment,
                            cell->CellType);
    }
    return true;
}

void TMSExcel::LoadWhole() {
    // Cells out of row order, or read under a style that changes after them: the sheet is loaded as it is
    // without record mode, by the storing handler, with the sheet filter of the first pass.
    load_.reset();
    workbook_.reset();
    compound_.reset();
    recordSource_ = rsNone;
    route_ = crReport;
    TCellValueEvent report = std::move(OnCellValue);
    OnCellValue = nullptr;
    const int filter = SheetFilter();
    SetSheetFilter(recordFilter_);
    const auto restore = [&] {
        OnCellValue = std::move(report);
        SetSheetFilter(filter);
    };
    try {
        recordStream_->Seek(recordStreamStart_, soBeginning);
        Load(*recordStream_);
    } catch (...) {
        restore();
        throw;
    }
    restore();
    recordSource_ = rsWholeLoad;
}

bool TMSExcel::AskValidPassword() {
    if (!decryptor_) return true;
    // The default password first: a workbook saved with it opens without asking.
    if (decryptor_->Verify(kDefaultPassword)) return true;
    if (!password_.empty() && decryptor_->Verify(password_)) return true;
    if (!OnPassword) return false;
    std::string password = password_;
    bool go = true;
    while (true) {
        OnPassword(this, password, go);
        if (!go) return false;
        if (decryptor_->Verify(password)) {
            password_ = password;
            return true;
        }
    }
}

std::vector<std::pair<std::string, std::string>> TMSExcel::FileProperties() const {
    std::vector<std::pair<std::string, std::string>> out;
    static const char* const kGenerations[] = {
        "", "", "BIFF2 (Excel 2)",      "BIFF3 (Excel 3)", "BIFF4 (Excel 4)", "BIFF5 (Excel 5-95)",
        "", "", "BIFF8 (Excel 97-2003)"};
    if (generation_ >= 2 && generation_ <= 8 && *kGenerations[generation_])
        out.emplace_back("Format", kGenerations[generation_]);
    AddSheetProperties(sheets_, out);
    out.emplace_back("Code page", CodePageDisplayName(codePage_));
    if (dateOffset_ != 0) out.emplace_back("Date system", "1904");
    if (encrypted_) out.emplace_back("Encryption", encryptionText_);
    for (auto& p : TCustomMSExcel::FileProperties()) out.push_back(std::move(p));
    return out;
}

// ---- the record loop ----

void TMSExcel::TLoad::Run() {
    if (In.Size() < 4) {
        if (Bare) throw Exception(strXLSNotExcelFile);
        throw Exception(strXLSNotValidWorkbook);
    }
    uint64_t nextProgress = 0;
    while (In.Remaining() >= 4) {
        if (!ReadRecord()) break;
        // Progress every 64 KiB of the stream, not every record.
        if (In.Position() >= nextProgress) {
            Owner.UpdateProgress(static_cast<int64_t>(In.Position()), static_cast<int64_t>(In.Size()));
            nextProgress = In.Position() + 65536;
        }
        if (Owner.OnRecord) {
            const char header[4] = {static_cast<char>(Type & 0xFF), static_cast<char>(Type >> 8),
                                    static_cast<char>(Data.size() & 0xFF),
                                    static_cast<char>(Data.size() >> 8)};
            Owner.OnRecord(&Owner, std::string_view(header, 4), Data);
        }
        Process();
    }
    for (size_t i = 0; i < Owner.sheets_.size() && i < SheetsDone.size(); ++i) {
        const TXLSSheetInfo& sheet = Owner.sheets_[i];
        if (SheetsDone[i] || sheet.StreamPosition < In.Size()) continue;
        const std::string what =
            Format("sheet %d (%s) should begin at byte %d, past the end of the workbook stream",
                   static_cast<int>(i + 1), sheet.Name.c_str(), static_cast<int>(sheet.StreamPosition));
        if (!SkippedSheets[i]) throw EKvFormatError(fekTruncated, kFormat, In.Size(), what);
        Owner.AddWarning("The workbook is cut short: " + what);
    }
    Owner.UpdateProgress(static_cast<int64_t>(In.Position()), static_cast<int64_t>(In.Size()));
    if (InSheet) {
        Owner.AddWarning(Format("The workbook stream ends inside sheet %d without its end record: its last "
                                "cells may be missing",
                                Owner.sheetIndex_ + 1));
        EndSheet();
    }
}

bool TMSExcel::TLoad::ReadRecord() {
    const uint64_t headerOffset = In.Position();
    Type = In.ReadU16LE();
    const uint16_t length = In.ReadU16LE();
    DataOffset = In.Position();
    if (!SeenFirstBOF && (Type & 0xFF) != 0x09)
        throw Exception(Bare ? strXLSNotExcelFile : strXLSNotValidWorkbook);
    if (Type == 0 && length == 0 && SeenFirstBOF && Depth == 0) {
        // Zero padding after the last substream.
        return false;
    }
    if (length > MaxRecordSize() && !Replaying) { // the first pass checked it, under the version then
        In.CorruptAt(headerOffset, Format("the record of type %s is %d bytes long, more than the %d a record "
                                          "of this workbook may hold",
                                          Hex4(Type).c_str(), static_cast<int>(length), MaxRecordSize()));
    }
    In.ReadBytes(length, Data);
    if (Owner.decryptor_) Owner.decryptor_->DecryptRecord(Type, DataOffset, Data.data(), Data.size());
    return true;
}

void TMSExcel::TLoad::CollectContinues() {
    // The record's own data is read where it is; only CONTINUE records are kept beside it (a deque, so
    // that the views into them stay valid as more come).
    Continued.Clear();
    ContinuedData.clear();
    Continued.AddPiece(Data, DataOffset);
    while (In.Remaining() >= 4) {
        const uint64_t at = In.Position();
        const uint16_t type = In.ReadU16LE();
        const uint16_t length = In.ReadU16LE();
        if (type != rtContinue || length > MaxRecordSize() || In.Remaining() < length) {
            In.Seek(at);
            break;
        }
        std::string& data = ContinuedData.emplace_back(In.ReadBytes(length));
        if (Owner.decryptor_) Owner.decryptor_->DecryptRecord(type, at + 4, data.data(), data.size());
        Continued.AddPiece(data, at + 4);
    }
}

void TMSExcel::TLoad::Process() {
    switch (Type) {
    case 0x0009:
    case 0x0209:
    case 0x0409:
    case 0x0809:
        ProcessBOF();
        return;
    case rtEOF:
        if (Depth > 0 && --Depth == 0) {
            if (InSheet) EndSheet();
            InSheet = false;
        }
        return;
    case rtFilePass:
        LastStateRecord = DataOffset;
        ProcessFilePass();
        return;
    case rtCodePage: {
        LastStateRecord = DataOffset;
        if (Data.size() < 2) return;
        int codePage = static_cast<uint8_t>(Data[0]) | static_cast<uint8_t>(Data[1]) << 8;
        // 32768 is the Macintosh code page, 32769 Windows ANSI of the BIFF2-4 generations.
        if (codePage == 32768) codePage = 10000;
        if (codePage == 32769 || codePage == 1200 || codePage == 367) codePage = 1252;
        Decoder = TKvCodePageDecoder(codePage);
        Owner.codePage_ = Decoder.CodePage();
        if (Decoder.CodePage() != codePage && !Biff8) {
            Owner.AddWarning(
                Format("The workbook's code page %d cannot be decoded here: its text is read as %s", codePage,
                       CodePageDisplayName(Decoder.CodePage()).c_str()));
        }
        return;
    }
    case rtDateMode:
        LastStateRecord = DataOffset;
        if (Data.size() >= 2) Owner.dateOffset_ = (Data[0] == 1 && Data[1] == 0) ? EncodeDate(1904, 1, 1) : 0;
        return;
    case rtExcel9:
        Owner.version_ = evExcel9;
        return;
    case rtSST: {
        LastStateRecord = DataOffset;
        CollectContinues();
        const uint32_t total = Continued.ReadU32();
        (void)total;
        const uint32_t unique = Continued.ReadU32();
        SST = KvReadSST(Continued, unique);
        Continued.Clear(); // the table is decoded: its CONTINUE records go
        ContinuedData.clear();
        return;
    }
    case rtBoundSheet:
    case rtBundleSheet:
        ProcessBoundSheet();
        return;
    case rtFormat2:
    case rtFormat:
        LastStateRecord = DataOffset;
        ProcessFormat();
        return;
    case rtXF2:
    case rtXF3:
    case rtXF4:
    case rtXF5:
        LastStateRecord = DataOffset;
        ProcessXF();
        return;
    case rtName:
    case rtName3:
        ProcessName();
        return;
    case rtObj:
        if (Data.size() >= 8) {
            TByteReader in(Data);
            in.Skip(4);
            const uint16_t objectType = in.ReadU16LE();
            const uint16_t id = in.ReadU16LE();
            Owner.objectsInSheet_.push_back({Owner.sheetIndex_, objectType, id});
        }
        return;
    case rtMsoDrawingGroup:
    case rtMsoDrawing:
        Owner.sharedObjects_.push_back({Type, Data});
        return;
    default:
        break;
    }
    if (InSheet && Type == rtDimensions) {
        ProcessDimensions();
        return;
    }
    if (!InSheet || SkipSheet) return;
    switch (Type) {
    case rtColInfo:
    case rtColWidth:
        ProcessColumnWidths();
        return;
    case rtRow:
        if (Owner.OnRowHeight && Data.size() >= 8) {
            TByteReader in(Data);
            const uint16_t row = in.ReadU16LE();
            in.Skip(4);
            Owner.OnRowHeight(&Owner, Owner.sheetIndex_, row, in.ReadU16LE() & 0x7FFF);
        }
        return;
    case rtString2:
    case rtString:
        ProcessStringResult();
        return;
    default:
        if (!IsCellRecord(Type)) return;
        if (Owner.route_ == crCount) NoteCellRecord();
        DropPendingString();
        ProcessCell();
        return;
    }
}

void TMSExcel::TLoad::NoteCellRecord() {
    const auto index = static_cast<size_t>(Owner.sheetIndex_);
    if (index >= SheetCells.size()) SheetCells.resize(index + 1);
    TSheetCells& cells = SheetCells[index];
    const int row = RowOfCellRecord(Data);
    if (!cells.Any) {
        cells.Any = true;
        cells.First = DataOffset - 4;
        cells.FirstDepth = Depth;
    }
    cells.InOrder = cells.InOrder && row >= cells.LastRow;
    cells.LastRow = std::max(cells.LastRow, row);
}

bool TMSExcel::TLoad::CanReplay(int index) const {
    if (index < 0 || static_cast<size_t>(index) >= SheetCells.size() ||
        !SheetCells[static_cast<size_t>(index)].Any)
        return true; // no cells: nothing to read
    const TSheetCells& cells = SheetCells[static_cast<size_t>(index)];
    return cells.InOrder && LastStateRecord < cells.First;
}

void TMSExcel::TLoad::StartReplay(int index) {
    // The warnings its cells give were given by the first pass, which set their flags.
    Replaying = true;
    Held = false;
    PendingString = false;
    Owner.route_ = crRecord;
    Owner.sheetIndex_ = index;
    SheetEnded = index < 0 || static_cast<size_t>(index) >= SheetCells.size() ||
                 !SheetCells[static_cast<size_t>(index)].Any;
    if (SheetEnded) return;
    const TSheetCells& cells = SheetCells[static_cast<size_t>(index)];
    In.Seek(cells.First);
    Depth = cells.FirstDepth;
    InSheet = true;
    SkipSheet = false;
}

void TMSExcel::TLoad::ReplayRow(int row) {
    Owner.recordRow_ = row;
    while (!SheetEnded) {
        if (!Held && (In.Remaining() < 4 || !ReadRecord())) {
            SheetEnded = true;
            break;
        }
        Held = false;
        // Rows come in order: the first record of a later row ends this one.
        if (IsCellRecord(Type) && RowOfCellRecord(Data) > row) {
            Held = true;
            break;
        }
        Replay();
    }
}

void TMSExcel::TLoad::Replay() {
    // The first pass took in everything else; no record after the first cell changes how cells read.
    switch (Type) {
    case 0x0009:
    case 0x0209:
    case 0x0409:
    case 0x0809:
        ++Depth; // a chart inside the sheet
        return;
    case rtEOF:
        if (--Depth == 0) SheetEnded = true;
        return;
    case rtString2:
    case rtString:
        ProcessStringResult();
        return;
    default:
        if (!IsCellRecord(Type)) return;
        DropPendingString();
        ProcessCell();
        return;
    }
}

void TMSExcel::TLoad::ProcessBOF() {
    TByteReader in(Data, kFormat, DataOffset, "record");
    const uint16_t versionWord = Data.size() >= 2 ? in.ReadU16LE() : 0;
    const uint16_t substream = Data.size() >= 4 ? in.ReadU16LE() : 0x0010;
    if (!SeenFirstBOF) {
        SeenFirstBOF = true;
        Owner.generation_ = 0;
        if (Bare) {
            // The BOF's high byte gives the generation of a bare stream.
            Generation = GenerationOfBOF(Type);
            if (Generation == 0) throw Exception(strXLSNotExcelFile);
            Owner.version_ = VersionOfGeneration(Generation);
        } else if (Type != 0x0809) {
            throw Exception(strXLSNotValidWorkbook);
        }
        if (Type == 0x0809) {
            const uint16_t build = Data.size() >= 6 ? in.ReadU16LE() : 0;
            const bool biff5Build = build == 2412 || build == 3218 || build == 3321;
            Biff8 = versionWord == 0x0600 && !biff5Build;
            Generation = Biff8 ? 8 : 5;
        }
        Owner.generation_ = Generation;
    }
    if (Type == 0x0809 && !Bare) {
        if (versionWord == 0x0500) Owner.version_ = evExcel5;
        if (versionWord == 0x0600) Owner.version_ = evExcel7;
    } else if (Bare && Depth == 0 && GenerationOfBOF(Type) != 0) {
        Owner.version_ = VersionOfGeneration(GenerationOfBOF(Type));
    }
    if (Depth++ > 0) return; // a chart inside a sheet
    const bool globals = substream == 0x0005 || substream == 0x0100;
    if (globals) {
        InSheet = false;
        return;
    }
    // A sheet: the one whose BOUNDSHEET points here, else the next in order.
    const uint64_t position = DataOffset - 4;
    int index = -1;
    for (size_t i = 0; i < Owner.sheets_.size(); ++i) {
        if (Owner.sheets_[i].StreamPosition == position && (i >= SheetsDone.size() || !SheetsDone[i])) {
            index = static_cast<int>(i);
            break;
        }
    }
    if (index < 0) index = NextSheet;
    BeginSheet(index);
}

void TMSExcel::TLoad::BeginSheet(int index) {
    NextSheet = std::max(NextSheet, index + 1);
    if (static_cast<size_t>(index) >= SkippedSheets.size()) {
        // A sheet the workbook does not list (a bare worksheet, or a stream with more sheets than names).
        SkippedSheets.resize(static_cast<size_t>(index) + 1, false);
        SheetsDone.resize(static_cast<size_t>(index) + 1, false);
        std::string caption = "Sheet" + IntToStr(index + 1);
        if (Bare && index == 0 && !Owner.FileName().empty())
            caption = std::filesystem::path(Owner.FileName()).stem().string();
        if (static_cast<size_t>(index) >= Owner.sheets_.size())
            Owner.sheets_.resize(static_cast<size_t>(index) + 1);
        Owner.sheets_[static_cast<size_t>(index)].Name = caption;
        bool skip = false;
        if (Owner.OnSheet) Owner.OnSheet(&Owner, caption, index, skip);
        SkippedSheets[static_cast<size_t>(index)] = skip;
    }
    SheetsDone[static_cast<size_t>(index)] = true;
    InSheet = true;
    SkipSheet = SkippedSheets[static_cast<size_t>(index)];
    Owner.sheetIndex_ = index;
    Owner.highestRow_ = Owner.highestColumn_ = -1;
    HaveDimensions = false;
    PendingString = false;
}

void TMSExcel::TLoad::EndSheet() {
    DropPendingString();
    InSheet = false;
    TXLSSheetInfo& info = Owner.sheets_[static_cast<size_t>(Owner.sheetIndex_)];
    if (!SkipSheet || HaveDimensions) {
        info.Rows = std::max(HaveDimensions ? DimLastRow : 0, Owner.highestRow_ + 1);
        info.Columns = std::max(HaveDimensions ? DimLastCol : 0, Owner.highestColumn_ + 1);
    }
    if (SkipSheet) return;
    const bool covered =
        HaveDimensions && Owner.highestRow_ < DimLastRow && Owner.highestColumn_ < DimLastCol;
    if (!covered && Owner.OnDimensions) {
        Owner.OnDimensions(&Owner, Owner.sheetIndex_, 0, Owner.highestRow_ + 1, 0, Owner.highestColumn_ + 1);
    }
}

void TMSExcel::TLoad::ProcessFilePass() {
    Owner.encrypted_ = true;
    Owner.decryptor_ = TKvBIFFDecryptor::FromFilePass(Data, Biff8, DataOffset);
    if (!Owner.decryptor_) {
        throw Exception(strXLSPasswordProtected + ": its encryption is of a kind this reader does not know");
    }
    Owner.encryptionText_ = Owner.decryptor_->Description();
    if (!Owner.AskValidPassword()) throw Exception(strXLSPasswordProtected);
}

void TMSExcel::TLoad::ProcessBoundSheet() {
    TByteReader in(Data, kFormat, DataOffset, "record");
    try {
        TXLSSheetInfo info;
        info.StreamPosition = in.ReadU32LE();
        if (Type == rtBundleSheet) {
            in.Skip(2);
        } else {
            info.Visibility = in.ReadU8() & 0x03;
            info.Type = in.ReadU8();
        }
        if (Biff8) {
            Continued.Clear();
            Continued.AddPiece(std::string_view(Data).substr(in.Position()), DataOffset + in.Position());
            KvReadBIFF8String(Continued, true, info.Name);
        } else {
            const uint8_t length = in.ReadU8();
            info.Name = ByteText(in.ReadBytes(std::min<size_t>(length, in.Remaining())));
        }
        const int index = static_cast<int>(Owner.sheets_.size());
        Owner.sheets_.push_back(info);
        bool skip = false;
        if (Owner.OnSheet) Owner.OnSheet(&Owner, info.Name, index, skip);
        SkippedSheets.push_back(skip);
        SheetsDone.push_back(false);
    } catch (const EKvFormatError&) {
        Damaged("the sheet record is too short for its name");
    }
}

void TMSExcel::TLoad::ProcessFormat() {
    TByteReader in(Data, kFormat, DataOffset, "record");
    int number = FormatCount++;
    std::string text;
    try {
        if (Type == rtFormat2) {
            const uint8_t length = in.ReadU8();
            text = ByteText(in.ReadBytes(std::min<size_t>(length, in.Remaining())));
        } else {
            const uint16_t index = in.ReadU16LE();
            // BIFF4 numbers its formats in order; from BIFF5 on the record says.
            if (Generation >= 5) number = index;
            if (Biff8) {
                Continued.Clear();
                Continued.AddPiece(std::string_view(Data).substr(2), DataOffset + 2);
                KvReadBIFF8String(Continued, false, text);
            } else {
                const uint8_t length = in.ReadU8();
                text = ByteText(in.ReadBytes(std::min<size_t>(length, in.Remaining())));
            }
        }
    } catch (const Exception&) {
        return; // a cut format text leaves the number without one
    }
    Owner.SetFormat(number, std::move(text));
}

void TMSExcel::TLoad::ProcessXF() {
    int format = 0;
    uint8_t align = 0;
    const auto byte = [&](size_t i) { return i < Data.size() ? static_cast<uint8_t>(Data[i]) : uint8_t{0}; };
    switch (Type) {
    case rtXF2:
        format = byte(2) & 0x3F;
        align = byte(3);
        break;
    case rtXF3:
    case rtXF4:
        format = byte(1);
        align = byte(4);
        break;
    default:
        format = byte(2) | byte(3) << 8;
        align = byte(6);
        break;
    }
    Owner.AddXF(format, GetXLSAlignment(align));
}

void TMSExcel::TLoad::ProcessName() {
    TByteReader in(Data, kFormat, DataOffset, "record");
    try {
        TXLSName name;
        const uint16_t options = in.ReadU16LE();
        in.Skip(1);
        const uint8_t length = in.ReadU8();
        const uint16_t formulaSize = in.ReadU16LE();
        if (Type == rtName) {
            in.Skip(2);
            name.SheetIndex = static_cast<int>(in.ReadU16LE()) - 1;
            in.Skip(4);
        }
        std::string text;
        if (Biff8) {
            const bool wide = in.ReadU8() & 1;
            const std::string_view bytes = in.ReadBytes(in.CheckedSize(length, wide ? 2 : 1, "the name"));
            if (wide) {
                text = Utf16ToUtf8(bytes, false);
            } else {
                KvAppendLatin1(text, bytes);
            }
        } else {
            text = ByteText(in.ReadBytes(length));
        }
        // A built-in name is stored as one character: its number.
        if ((options & 0x20) && !text.empty() && static_cast<uint8_t>(text[0]) < std::size(kBuiltInNames))
            text = kBuiltInNames[static_cast<uint8_t>(text[0])];
        name.Name = std::move(text);
        name.Formula = std::string(in.ReadBytes(std::min<size_t>(formulaSize, in.Remaining())));
        Owner.names_.push_back(std::move(name));
    } catch (const EKvFormatError&) {
        // A damaged name loses the name only: cells do not depend on it.
    }
}

void TMSExcel::TLoad::ProcessDimensions() {
    TByteReader in(Data, kFormat, DataOffset, "record");
    try {
        int firstRow, lastRow;
        if (Biff8) {
            firstRow = static_cast<int>(std::min<uint32_t>(in.ReadU32LE(), kMaxRows + 1));
            lastRow = static_cast<int>(std::min<uint32_t>(in.ReadU32LE(), kMaxRows + 1));
        } else {
            firstRow = in.ReadU16LE();
            lastRow = in.ReadU16LE();
        }
        const int firstCol = in.ReadU16LE();
        const int lastCol = in.ReadU16LE();
        // An area beyond what a sheet can hold is damage: the cells will say how large the sheet is.
        if (lastRow > kMaxRows || lastCol > kMaxColumns || firstRow > lastRow || firstCol > lastCol) return;
        HaveDimensions = true;
        DimLastRow = lastRow;
        DimLastCol = lastCol;
        if (Owner.OnDimensions && !SkipSheet)
            Owner.OnDimensions(&Owner, Owner.sheetIndex_, firstRow, lastRow, firstCol, lastCol);
    } catch (const EKvFormatError&) {
    }
}

void TMSExcel::TLoad::ProcessColumnWidths() {
    if (!Owner.OnColumnWidth) return;
    TByteReader in(Data, kFormat, DataOffset, "record");
    try {
        int first, last, width;
        if (Type == rtColWidth) {
            first = in.ReadU8();
            last = in.ReadU8();
        } else {
            first = in.ReadU16LE();
            last = in.ReadU16LE();
        }
        width = in.ReadU16LE();
        last = std::min(last, kMaxColumns - 1);
        for (int c = first; c <= last; ++c) Owner.OnColumnWidth(&Owner, Owner.sheetIndex_, c, width);
    } catch (const EKvFormatError&) {
    }
}

TAlignment TMSExcel::TLoad::AlignmentOf(int xf) const {
    if (xf >= 0 && static_cast<size_t>(xf) < Owner.xfAligns_.size())
        return Owner.xfAligns_[static_cast<size_t>(xf)];
    return taLeftJustify;
}

void TMSExcel::TLoad::ReportCellAt(int row, int column, int xf, Variant value, TAlignment align,
                                   TKvICellType type) {
    if (column >= kMaxColumns) {
        if (!WarnedColumns) {
            WarnedColumns = true;
            Owner.AddWarning(
                Format("Sheet %d holds cells beyond column IV, the last a workbook of this kind can "
                       "have: they were left out",
                       Owner.sheetIndex_ + 1));
        }
        return;
    }
    Owner.ReportCell(row, column, xf, std::move(value), align, type);
}

void TMSExcel::TLoad::ReportNumberAt(int row, int column, int xf, double value, const TAlignment* align) {
    if (column >= kMaxColumns) {
        ReportCellAt(row, column, xf, Variant(), taLeftJustify, ictEmpty);
        return;
    }
    Owner.ReportNumber(row, column, xf, value, align);
}

std::string TMSExcel::TLoad::CellText(size_t offset, bool countIsByte) {
    if (Biff8) {
        CollectContinues();
        Continued.Skip(offset);
        std::string text;
        KvReadBIFF8String(Continued, countIsByte, text);
        return text;
    }
    TByteReader in(Data, kFormat, DataOffset, "record");
    in.Seek(std::min(offset, Data.size()));
    const size_t length = countIsByte ? in.ReadU8() : in.ReadU16LE();
    // A count past the record's end is cut to the characters there are, as Excel shows them.
    return ByteText(in.ReadBytes(std::min(length, in.Remaining())));
}

void TMSExcel::TLoad::ProcessCell() {
    TByteReader in(Data, kFormat, DataOffset, "record");
    const bool biff2Layout = Type < 0x0100 && Generation == 2 && Type != rtMulRK && Type != rtLabelSST &&
                             Type != rtRString && Type != rtRK2;
    try {
        const int row = in.ReadU16LE();
        const int column = in.ReadU16LE();
        int xf = -1;
        TAlignment align = taLeftJustify;
        if (biff2Layout) {
            in.Skip(2);
            align = GetXLSAlignment(in.ReadU8());
        } else if (Type != rtMulRK) {
            xf = in.ReadU16LE();
            align = AlignmentOf(xf);
        }
        const TAlignment* given = biff2Layout ? &align : nullptr;
        switch (Type) {
        case rtBlank2:
        case rtBlank:
            if (Owner.LoadNULLs()) ReportCellAt(row, column, xf, Variant::Null(), align, ictEmpty);
            return;
        case rtInteger2:
            ReportCellAt(row, column, xf, Variant(static_cast<int>(in.ReadU16LE())), align, ictInteger);
            return;
        case rtNumber2:
        case rtNumber:
            ReportNumberAt(row, column, xf, in.ReadDoubleLE(), given);
            return;
        case rtRK2:
        case rtRK:
            ReportNumberAt(row, column, xf, KvDecodeRK(in.ReadU32LE()), given);
            return;
        case rtMulRK: {
            if (Data.size() < 6) Damaged("the MULRK record is too short");
            const size_t entries = (Data.size() - 6) / 6;
            for (size_t i = 0; i < entries; ++i) {
                const int entryXF = in.ReadU16LE();
                const double value = KvDecodeRK(in.ReadU32LE());
                ReportNumberAt(row, column + static_cast<int>(i), entryXF, value, nullptr);
                if (column + static_cast<int>(i) >= kMaxColumns) break;
            }
            return;
        }
        case rtLabel2:
            ReportCellAt(row, column, xf, Variant(CellText(7, true)), align, ictString);
            return;
        case rtLabel:
        case rtRString:
            ReportCellAt(row, column, xf, Variant(CellText(6, false)), align, ictString);
            return;
        case rtLabelSST: {
            const uint32_t index = in.ReadU32LE();
            if (index >= SST.size()) {
                if (!WarnedSST) {
                    WarnedSST = true;
                    Owner.AddWarning(
                        Format("Sheet %d refers to shared string %d, which the workbook does not "
                               "hold: such cells are left empty",
                               Owner.sheetIndex_ + 1, static_cast<int>(index)));
                }
                ReportCellAt(row, column, xf, Variant(""), align, ictString);
                return;
            }
            ReportCellAt(row, column, xf, Variant(SST[index]), align, ictString);
            return;
        }
        case rtBoolErr2:
        case rtBoolErr: {
            const uint8_t value = in.ReadU8();
            if (in.ReadU8() != 0) {
                ReportCellAt(row, column, xf, Variant(TCustomMSExcel::GetErrorText(value)), align, ictString);
            } else {
                ReportCellAt(row, column, xf, Variant(value != 0), align, ictBoolean);
            }
            return;
        }
        default: { // FORMULA: its cached result
            const std::string_view result = in.ReadBytes(8);
            if (static_cast<uint8_t>(result[6]) != 0xFF || static_cast<uint8_t>(result[7]) != 0xFF) {
                TByteReader number(result);
                ReportNumberAt(row, column, xf, number.ReadDoubleLE(), given);
                return;
            }
            switch (result[0]) {
            case 0: // the text follows in a STRING record
                PendingString = true;
                PendingRow = row;
                PendingCol = column;
                PendingXF = xf;
                PendingAlign = align;
                return;
            case 1:
                ReportCellAt(row, column, xf, Variant(result[2] != 0), align, ictBoolean);
                return;
            case 2:
                ReportCellAt(row, column, xf,
                             Variant(TCustomMSExcel::GetErrorText(static_cast<uint8_t>(result[2]))), align,
                             ictString);
                return;
            case 3:
                ReportCellAt(row, column, xf, Variant(""), align, ictString);
                return;
            default:
                return;
            }
        }
        }
    } catch (const EKvFormatError&) {
        // A cell record too short for its layout: the record names the place.
        throw EKvFormatError(fekDamaged, kFormat, DataOffset,
                             Format("the cell record of type %s is too short for its layout (%d bytes)",
                                    Hex4(Type).c_str(), static_cast<int>(Data.size())));
    }
}

void TMSExcel::TLoad::DropPendingString() {
    if (!PendingString) return;
    // A formula whose text result never came: its cell is left empty, and the user is told.
    PendingString = false;
    if (!WarnedString) {
        WarnedString = true;
        Owner.AddWarning(
            Format("Sheet %d holds a formula whose text result is missing from the file: such cells "
                   "are left empty",
                   Owner.sheetIndex_ + 1));
    }
}

void TMSExcel::TLoad::ProcessStringResult() {
    if (!PendingString) return;
    PendingString = false;
    std::string text;
    if (Type == rtString2) {
        text = CellText(0, true);
    } else {
        text = CellText(0, false);
    }
    ReportCellAt(PendingRow, PendingCol, PendingXF, Variant(std::move(text)), PendingAlign, ictString);
}

} // namespace kv
