#pragma once
// TMSExcel reads Excel workbooks in the BIFF record format of every generation, from bare Excel 2-4
// worksheet streams to Excel 97-2003 workbooks in a compound file, and reports their sheets and cells
// through the cell reader's events. TMSExcelX is its sibling for Excel 2007+ workbooks (the XML parts of a
// zip package).

#include "cells/KvCells.h"
#include "readers/spreadsheet/KvI_Sum.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

class TKvBinaryReader;
class TKvBIFFDecryptor;
class TKvCompoundFile;
class TKvXLSXPackage;
class TKvXLSXSharedStrings;
struct TXLSXCell;

// The reader's own texts.
extern std::string strXLSNotExcelFile;      // "File is not an Excel file"
extern std::string strXLSNotValidWorkbook;  // "File is not valid Excel Workbook"
extern std::string strXLSPasswordProtected; // "Could not read the password protected file"
extern std::string strXLSContinueNotFound;  // "CONTINUE record is not found in the stream"
extern std::string
    strXLSSSTOptionsUnhandled;       // "String in SST (Options byte is 0x%.2x) can not be processed."
extern std::string strXLSXEncrypted; // "The workbook is encrypted with a password: ..."

enum TExcelVersion : uint8_t {
    evUnknown,
    evExcel2,
    evExcel3,
    evExcel4,
    evExcel5,
    evExcel7,
    evExcel8,
    evExcel9,
    evExcel12,
    evExcel12Bin
};

/// A number format and the attributes kept with it.
struct TXLSFormat {
    std::string Format;
    int Number = 0;
    TAlignment Alignment = taLeftJustify;
    int FontIndex = -1;
    int Color = -1;
};

/// A defined name as the workbook keeps it (the formula is not evaluated).
struct TXLSName {
    std::string Name;
    int SheetIndex = -1; ///< the sheet a local name belongs to; -1 for the workbook
    std::string Formula; ///< the raw parsed-formula bytes
};

struct TXLSSharedFormula {
    int FirstRow = 0, LastRow = 0, FirstCol = 0, LastCol = 0;
    std::string Formula;
};

/// A drawing object (OBJ) or drawing data (MSODRAWING...) kept as its bytes.
struct TXLSSharedObject {
    uint16_t RecordType = 0;
    std::string Data;
};

struct TXLSObjectInSheet {
    int SheetIndex = 0;
    uint16_t ObjectType = 0;
    uint16_t ObjectId = 0;
};

/// A macro module of the workbook's project (its name; the source is not decompressed).
struct TVBAProjectItem {
    std::string Name;
    uint64_t Size = 0;
};

/// A sheet as the workbook lists it.
struct TXLSSheetInfo {
    std::string Name;
    uint32_t StreamPosition = 0; ///< where its BOF lies in the workbook stream
    uint8_t Visibility = 0;      ///< 0 visible, 1 hidden, 2 very hidden
    uint8_t Type = 0;            ///< 0 worksheet, 1 macro sheet, 2 chart, 6 macro module
    int Rows = -1;               ///< the used area once the sheet was read (-1: not known)
    int Columns = -1;
};

/// What both Excel readers share: the format table, the date and percent tests, the error texts and
/// the summary information.
class TCustomMSExcel : public TSpreadSheetFile {
public:
    explicit TCustomMSExcel(TComponent* owner = nullptr);
    ~TCustomMSExcel() override;

    TKvISummaryInformation& SummaryInformation() { return summary_; }
    const TKvISummaryInformation& SummaryInformation() const { return summary_; }
    TExcelVersion Version() const { return version_; }
    void SetVersion(TExcelVersion v) { version_ = v; }
    /// The sheet being read, passed as sheetNo in every event.
    int SheetIndex() const { return sheetIndex_; }
    void SetSheetIndex(int v) { sheetIndex_ = v; }
    /// Also read the names of the workbook's macro modules.
    bool ParseVBA() const { return parseVBA_; }
    void SetParseVBA(bool v) { parseVBA_ = v; }

    /// Hooks the storing handlers, clears names, shared formulas, drawing objects, macro modules and
    /// formats, and enters the built-in formats.
    void ApplyEvents() override;

    /// The text of a BOOLERR or formula error code: "#DIV/0!", ... or "Unknown error code N".
    static std::string GetErrorText(int code);
    /// The format of cell style `xf` says date or time ("dd", "mm" or "yy" in it).
    bool ValueIsDateTime(int xf) const;
    /// The format of cell style `xf` holds "%".
    bool ValueIsPercent(int xf) const;
    /// The alignment of the horizontal alignment bits of an attribute byte.
    static TAlignment GetXLSAlignment(uint8_t attribute);

    /// The format entered under `number`, or nullptr.
    const TXLSFormat* FormatByNumber(int number) const;
    /// The format number cell style `xf` uses, or -1.
    int FormatNumberOfXF(int xf) const;
    const std::vector<TXLSName>& Names() const { return names_; }
    const std::vector<TVBAProjectItem>& VBAProject() const { return vbaItems_; }
    /// The date value the workbook's serial 0 stands for: 0, or 1 January 1904 in the 1904 system.
    double DateOffset() const { return dateOffset_; }

    std::vector<std::pair<std::string, std::string>> FileProperties() const override;
    std::string ClassName() const override { return "TCustomMSExcel"; }

    /// "Sheet <n>" lines of a preview: name, kind, size and visibility of each sheet.
    static void AddSheetProperties(const std::vector<TXLSSheetInfo>& sheets,
                                   std::vector<std::pair<std::string, std::string>>& out);

protected:
    /// The built-in formats, before any FORMAT record.
    virtual void EnterBuiltInFormats();
    void SetFormat(int number, std::string format);
    /// Reports one cell: LF becomes CR LF in text, then OnCellValue (or as route_ says); the highest row
    /// and column grow.
    void ReportCell(int row, int column, int xf, Variant value, TAlignment alignment, TKvICellType type);
    /// Lists the macro modules of the project stored under `project` ("" for the root) of `file`.
    void ReadVBA(const TKvCompoundFile& file, const std::string& project);
    /// Reports a number cell as a date, a percent (times 100) or a decimal by its style.
    void ReportNumber(int row, int column, int xf, double value, const TAlignment* alignment);

    /// Where ReportCell sends a cell. The first pass of a record-mode load only counts the cells a loaded
    /// sheet would keep into its size; LoadRecord then reports those of the row it reads.
    enum TCellRoute : uint8_t {
        crReport, ///< to OnCellValue
        crCount,  ///< into the sheet's size only
        crRecord, ///< to OnCellValue when kept and in row recordRow_
    };

    TKvISummaryInformation summary_;
    TExcelVersion version_ = evUnknown;
    TCellRoute route_ = crReport;
    int recordRow_ = 0; ///< the row LoadRecord reads
    int sheetIndex_ = 0;
    bool parseVBA_ = false;

    std::map<int, TXLSFormat> formats_;
    enum TXFKind : int8_t { xkUnknown, xkPlain, xkDate, xkPercent, xkDatePercent };
    TXFKind KindOfXF(int xf) const;
    /// Adds a cell style with its format number and alignment.
    void AddXF(int format, TAlignment alignment) {
        xfFormats_.push_back(format);
        xfAligns_.push_back(alignment);
        xfKinds_.clear();
    }

    std::vector<int> xfFormats_;           ///< the format number of each cell style
    std::vector<TAlignment> xfAligns_;     ///< and its alignment
    mutable std::vector<TXFKind> xfKinds_; ///< what each style's format says, found on first use
    std::vector<TXLSName> names_;
    std::vector<TXLSSharedFormula> sharedFormulas_;
    std::vector<TXLSSharedObject> sharedObjects_;
    std::vector<TXLSObjectInSheet> objectsInSheet_;
    std::vector<TVBAProjectItem> vbaItems_;
    double dateOffset_ = 0;
    int highestRow_ = -1;
    int highestColumn_ = -1;
};

/// The BIFF reader. In record mode (off by default) LoadFromStream reads the whole workbook for its sheets,
/// sizes and warnings but keeps no cells; BeforeLoad then goes to the first row of sheet SheetFilter and
/// LoadRecord(n) reports the cells of its row n. The stream must stay open while records are read.
class TMSExcel : public TCustomMSExcel {
public:
    /// Asked for another password while the one tried is refused; clearing `continueAsking` gives up.
    using TPasswordEvent = std::function<void(TObject* sender, std::string& password, bool& continueAsking)>;

    explicit TMSExcel(TComponent* owner = nullptr);
    ~TMSExcel() override;
    TMSExcel(const TMSExcel&) = delete;
    TMSExcel& operator=(const TMSExcel&) = delete;

    const std::string& Password() const { return password_; }
    void SetPassword(std::string v) { password_ = std::move(v); }
    TPasswordEvent OnPassword;

    /// The password workbooks are encrypted with when their author set none; tried first.
    static constexpr const char* kDefaultPassword = "VelvetSweatshop";

    void LoadFromFile(const std::string& fileName) override;
    void LoadFromStream(TStream& stream) override;
    void BeforeLoad() override;
    bool LoadRecord(int index) override;
    /// The last load met a FILEPASS record.
    bool IsEncrypted() override { return encrypted_; }
    /// The largest record the current workbook may hold.
    int GetMaxBuffSize() const;
    /// For an encrypted workbook being loaded: tries the default password, Password, then asks OnPassword
    /// while it goes on; true when one opens the workbook (a password asked for is then Password).
    bool AskValidPassword();

    /// The sheets of the last load: those the workbook lists, or the one of a bare worksheet stream.
    const std::vector<TXLSSheetInfo>& Sheets() const { return sheets_; }
    /// How the last load's workbook was encrypted ("" when it was not).
    const std::string& EncryptionDescription() const { return encryptionText_; }
    /// The BIFF generation of the last load: 2, 3, 4, 5 (Excel 5 and 95) or 8 (Excel 97-2003); 0 before.
    int Generation() const { return generation_; }
    /// The code page of 8-bit text (from the CODEPAGE record; 1252 when there is none).
    int CodePage() const { return codePage_; }

    std::vector<std::pair<std::string, std::string>> FileProperties() const override;
    std::string ClassName() const override { return "TMSExcel"; }

private:
    struct TLoad;
    /// How LoadRecord finds a row in record mode.
    enum TRecordSource : uint8_t {
        rsNone,     ///< not loaded in record mode (or loading)
        rsReplay,   ///< read again from the sheet's records (load_)
        rsWholeLoad ///< from the sheet loaded whole
    };
    void Load(TStream& stream);
    void ReadCompound(TStream& stream);
    void ReadRecords(TStream& stream, bool bare);
    /// Loads the workbook again as without record mode, for a sheet that cannot be read again row by row.
    void LoadWhole();

    std::string password_;
    bool encrypted_ = false;
    std::string encryptionText_;
    int maxRecordSize_ = 0; ///< fixed by the compound path's stream name; 0 on the bare path
    int codePage_ = 1252;
    int generation_ = 0; ///< 2, 3, 4, 5 or 8: the BIFF generation the records are laid out in
    std::vector<TXLSSheetInfo> sheets_;
    std::unique_ptr<TKvBIFFDecryptor> decryptor_; ///< of the workbook being loaded, once FILEPASS is met

    // Record mode: what LoadRecord reads on from.
    TRecordSource recordSource_ = rsNone;
    TStream* recordStream_ = nullptr; ///< the stream given to LoadFromStream
    int64_t recordStreamStart_ = 0;   ///< where the workbook began in it
    int recordFilter_ = -1;           ///< the sheet filter it was loaded with
    std::unique_ptr<TStream> file_;   ///< the file LoadFromFile opened
    std::unique_ptr<TKvCompoundFile> compound_;
    std::unique_ptr<TStream> workbook_; ///< the compound file's workbook stream
    std::unique_ptr<TLoad> load_;       ///< the record loop, kept at the end of the first pass
};

/// The Excel 2007+ reader: a zip package of XML parts. A load reads the workbook's sheet list, styles,
/// shared strings and document properties, then each sheet part as a stream of rows. In record mode
/// (off by default) the load only measures the sheets; BeforeLoad then starts on sheet SheetFilter and
/// LoadRecord(n) reports the cells of its row n, reading the part on as rows are asked for, so that
/// memory holds the shared strings and one row. The stream must stay open while records are read.
/// Binary workbooks (.xlsb) are the same package with parts of binary records, read the same way.
class TMSExcelX : public TCustomMSExcel {
public:
    explicit TMSExcelX(TComponent* owner = nullptr);
    ~TMSExcelX() override;
    TMSExcelX(const TMSExcelX&) = delete;
    TMSExcelX& operator=(const TMSExcelX&) = delete;

    void LoadFromFile(const std::string& fileName) override;
    void LoadFromStream(TStream& stream) override;
    void BeforeLoad() override;
    bool LoadRecord(int index) override;
    /// The last load met an encrypted package (and failed).
    bool IsEncrypted() override { return encrypted_; }

    /// The sheets of the last load, in the workbook's order (charts too, without cells).
    const std::vector<TXLSSheetInfo>& Sheets() const { return sheets_; }
    /// The most text the cells of one sheet may give, a shared string counted each time a cell uses it:
    /// a few cells that repeat a huge string would otherwise cost without bound.
    uint64_t MaxSheetText() const { return maxSheetText_; }
    void SetMaxSheetText(uint64_t v) { maxSheetText_ = v; }

    /// Reads one binary-form record from `stream`: a row header sets the row, a cell record is reported
    /// (or counted, while a record-mode load measures) through the shared cell routine.
    void ProcessBIFF12Record(TStream& stream);

    /// True for the extensions this reader serves (.XLSX, .XLSM, ..., .XLAB), any case.
    static bool ServesExtension(std::string_view extension);

    std::vector<std::pair<std::string, std::string>> FileProperties() const override;
    std::string ClassName() const override { return "TMSExcelX"; }

protected:
    void EnterBuiltInFormats() override;

private:
    struct TRecordState;
    void Load(TStream& stream);
    void ReadStyles(const std::string& part);
    /// Lists the modules of the macro project part (when ParseVBA is set).
    void ReadVBAProject(const std::string& part);
    /// Reads sheet `index` through: reported (or counted, in record mode) cell by cell.
    void ReadSheet(int index);
    void MeasureSkippedSheet(int index);
    /// Reports one cell as its kind and style say.
    void ReportXLSXCell(int row, const TXLSXCell& cell);
    /// Counts one cell into the sheet's size as ReportXLSXCell would report it.
    void CountXLSXCell(int row, const TXLSXCell& cell);
    /// The cell's style, -1 (with a warning) for one the workbook does not hold.
    int StyleOf(const TXLSXCell& cell);
    /// The shared string a cell names, nullptr (with a warning) when there is none.
    const std::string_view* SharedStringOf(const TXLSXCell& cell);
    /// Adds to the sheet's text, failing past MaxSheetText.
    void CountText(size_t bytes);
    void StartRecords();
    [[noreturn]] void FailInPart(const std::string& part, const std::exception& e) const;

    std::unique_ptr<TStream> file_; ///< the file LoadFromFile opened, kept for record mode
    std::unique_ptr<TKvXLSXPackage> package_;
    std::unique_ptr<TKvXLSXSharedStrings> strings_;
    std::vector<TXLSSheetInfo> sheets_;
    std::vector<std::string> sheetParts_; ///< each sheet's part ("" for none)
    std::vector<bool> rowsInOrder_;       ///< each sheet's rows came in ascending order
    std::unique_ptr<TRecordState> records_;
    std::string format_; ///< what the package is, for the preview
    bool encrypted_ = false;
    bool binary_ = false; ///< the parts are binary records
    bool loaded_ = false; ///< a record-mode load ended and rows may be asked for
    uint64_t maxSheetText_ = uint64_t{1} << 30;
    uint64_t sheetText_ = 0;
    bool warnedString_ = false, warnedStyle_ = false;
    std::string_view sharedString_; ///< what SharedStringOf found last
    int binaryRow_ = 0;             ///< the row the last row header of the binary form named
};

/// The number an RK value holds: a 30-bit integer or the high bits of a double, divided by 100 when
/// its low bit says so.
double KvDecodeRK(uint32_t rk);

} // namespace kv
