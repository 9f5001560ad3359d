#pragma once
// TKvTextFile: loads delimited or fixed-width text. Opening finds the encoding and the header record; the
// data rows are then cut one after the other as they are asked for, through a block-sized window, so
// neither memory nor the time before the first row grows with the file. A few restart points let a step
// back scan again from near the row asked for. The reader knows nothing of the import engine: a source
// joins it to the engine.

#include "platform/Encoding.h"
#include "platform/Streams.h"

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kv {

class TKvTextScanner;
struct TKvTextScanConfig;
class TKvUtf8Validator;

/// How the text is cut into records and which records are kept.
struct TKvTextFileSettings {
    /// Field delimiter (0 = none); the loader only uses it to recognise empty rows.
    char32_t FieldDelimiter = U'\t';
    /// Text qualifier (0 = none); a record separator between two qualifiers belongs to the field.
    char32_t TextQualifier = U'"';
    /// UTF-8 text between two records; may be several characters or empty. "\r\n" stands for any line
    /// end: CR LF, a lone LF or a lone CR.
    std::string RecordSeparator = "\r\n";
    /// Fields are cut by character positions rather than by the delimiter.
    bool FixedWidth = false;
    /// With an empty RecordSeparator and a value above 0, every record is this many characters.
    int FixedLineLength = 0;
    /// First and last record (1-based) served as data rows.
    int RowFirst = 1;
    int RowLast = 2147483647;
    /// Record holding the column names (0 = none). It is served as a data row too when it lies in
    /// RowFirst..RowLast; when it lies beyond RowLast the scan goes on to it.
    int RowFieldNames = 1;
    /// Leaves out data rows whose characters are all blanks (codes up to 32) or, unless FixedWidth, the
    /// field delimiter (when that is a one-byte character). Such records still count in the numbering.
    bool SkipEmptyRows = false;
    /// Records that are empty or hold only spaces, tabs and CRs are not data rows, and a blank record at
    /// RowFieldNames is no header. They still count in the numbering. Records of a fixed length are not
    /// lines and are never skipped for this.
    bool SkipBlankLines = true;
    /// The input's encoding; unset, it is found as TKvTextFile::Encoding tells. UTF-8 then takes bytes
    /// that are not UTF-8 as U+FFFD, Windows-1252 (encAnsi) every byte as one character, UTF-16 drops its
    /// BOM when there is one, and encUtf8Mixed reads stray bytes as Windows-1252 whatever their number.
    std::optional<TTextEncoding> Encoding;
    /// Bytes per read while scanning and serving (0 = 1 MiB); tests make it tiny.
    size_t BlockSize = 0;
    /// Bytes checked as UTF-8 when the text is opened (0 = 4 MiB); tests make it tiny.
    size_t JudgeBytes = 0;
    /// Rows between the points a step back scans again from (0 = 4096); tests make it tiny.
    int CheckpointRows = 0;
};

/// Something the reader noticed while loading that a user should hear of.
struct TKvTextWarning {
    int64_t Line = 0;     ///< physical line (1-based) of the file where it is; 0 when nowhere in particular
    std::string Message;  ///< the reader's own text, without the line
    bool Problem = false; ///< data may be lost or changed: the run did not go as a user expects
    bool operator==(const TKvTextWarning&) const = default;
};

/// Byte offset and length of one record in the input (or in the decoded text for UTF-16 input).
struct TKvTextRecordSpan {
    int64_t Offset = 0;
    int64_t Length = 0;
};

/// Where a data row lies: what a reading thread hands over with the row, so that nobody needs to ask the
/// file while that thread reads on.
struct TKvTextRowPlace {
    int64_t Record = 0; ///< its record number (1-based; 0 = not known)
    int64_t Offset = 0; ///< where its record starts in the input (in the decoded text for UTF-16)
};

/// A loaded text: the header line and the selected data rows, served as UTF-8.
///
/// Records are numbered from 1. A separator at the very end of the text does not open one more (empty)
/// record; a qualifier that is never closed makes the rest of the text one record (and a warning).
///
/// One thread at a time may use an open file, except for CountRows, CanCountApart, ReadFraction and
/// StartLine, which read nothing the row scan changes: another thread may call them while one reads rows.
class TKvTextFile {
public:
    TKvTextFile();
    ~TKvTextFile();
    TKvTextFile(const TKvTextFile&) = delete;
    TKvTextFile& operator=(const TKvTextFile&) = delete;

    /// Settings take effect at the next Open.
    TKvTextFileSettings& Settings() { return settings_; }
    const TKvTextFileSettings& Settings() const { return settings_; }

    /// Opens a file; EFOpenError "Cannot open file "<name>". <system message>" when it cannot be opened.
    void Open(const std::string& fileName);
    /// Reads `stream` from its position. The stream must outlive the reader (or the next Open/Close); a
    /// TMemoryStream is used in place, a stream that cannot seek is read into memory.
    void OpenStream(TStream& stream);
    /// Standard input: a redirected file is read like any file, a pipe is read into memory.
    void OpenStdin();
    /// Text already in memory (the clipboard's), decoded like a file's bytes.
    void OpenText(std::string bytes);
    void Close();
    bool Active() const { return active_; }

    /// How the input is decoded. Unless the setting says: a UTF-16 BOM selects UTF-16 (decoded into memory
    /// as a whole when opened). Otherwise Open checks the first JudgeBytes as UTF-8. When they are UTF-8
    /// (after a BOM or not), the text is read as UTF-8, and a byte that is not, met later as the rows are
    /// cut, turns it into encUtf8Mixed from there on, with a warning at that byte's line: stray bytes are
    /// read as Windows-1252 characters, and the rows before were UTF-8, which encUtf8Mixed reads alike.
    /// When the first bytes already hold stray ones, all bytes up to the end of the last wanted record
    /// decide, at the cost of one pass when opening: mostly UTF-8 (after a BOM, or more valid multi-byte
    /// sequences than stray bytes) is encUtf8Mixed, with a warning at the first stray byte, and anything
    /// else Windows-1252. UTF-8 by the setting is never guessed: each row is checked as it is decoded.
    TTextEncoding Encoding() const { return encoding_; }
    /// What Open noticed, by line, then what reading the rows noticed since, in the order it was met.
    const std::vector<TKvTextWarning>& Warnings() const { return warnings_; }
    /// Appends to `out` the warnings reading the rows has noticed since the last call (not Open's).
    void TakeNewWarnings(std::vector<TKvTextWarning>& out);
    /// Records met by the scan up to where it stops (the last wanted record, or the end). Scans the whole
    /// text first, as RowCount does.
    int64_t RecordCount();

    /// True when the record RowFieldNames was found.
    bool HasHeader() const { return hasHeader_; }
    /// The header record as UTF-8 ("" without one).
    const std::string& HeaderLine() const { return headerLine_; }

    /// True when there is a data row `index` (0-based). Scans on only as far as that row.
    bool HasRow(int64_t index);
    /// Number of data rows. Scans the rest of the text, as reading every row would (without decoding
    /// them), unless the scan has already been to the end; HasRow costs only what it needs.
    int64_t RowCount();
    /// The same count as RowCount by a scan of its own, through a stream of its own or the text in memory,
    /// so that a reading thread may go on meanwhile; costs a pass over the text every call. Only when
    /// CanCountApart.
    int64_t CountRows() const;
    /// The input can be read apart from the row scan: it is in memory, or a file opened by name.
    bool CanCountApart() const { return active_ && (inMemory_ || !fileName_.empty()); }
    /// Data row `index` (0-based) as UTF-8; the reference stays valid until the next call. Rows read in
    /// ascending order stream through the window; a step back scans again from the last restart point
    /// before the row. A row whose reading met a read error raises it (once; the rows after it go on).
    const std::string& Row(int64_t index);
    /// The record number and offset of data row `index`.
    TKvTextRowPlace RowPlace(int64_t index);
    /// The record number (1-based line number) of data row `index`.
    int64_t LineNumber(int64_t index) { return RowPlace(index).Record; }
    /// Where data row `index` lies in the input.
    TKvTextRecordSpan RowSpan(int64_t index);
    /// The line of the input where the row at `place` starts, counted as an editor counts them (LF, CR LF
    /// and a lone CR end a line), which differs from the record number once a quoted field has spanned
    /// lines. Counts on from the previous answer, so rows asked in order read the input once in all, and
    /// reads through a stream of its own, so a reading thread may go on meanwhile; 0 when the input is a
    /// stream handed in by the caller, which only that thread may read.
    int64_t StartLine(const TKvTextRowPlace& place);
    /// How far into the input the row at `place` starts, from 0 to 1.
    double ReadFraction(const TKvTextRowPlace& place) const;

private:
    struct TCheckpoint {
        int64_t Row = 0;     ///< the row whose record starts here
        int64_t Offset = 0;  ///< where
        int64_t Records = 0; ///< records before it
    };

    void OpenMemory(std::string_view bytes);
    void OpenOwned(std::unique_ptr<TStream> stream);
    void OpenSeekable(TStream& stream, int64_t start);
    void Begin(bool judge, int64_t scanStart, int64_t end);
    void JudgeStart();
    void Judge(const TKvUtf8Validator& validator);
    bool Advance(bool toHeader);
    void Refill(bool more);
    void CheckLateBytes(const char* data, int64_t base, size_t size, bool final,
                        const TKvTextScanner& scanner);
    void WarnUnclosed(const TKvTextScanner& scanner);
    void Rewind(int64_t index);
    void Warn(int64_t offset, std::string message, bool problem);
    std::pair<int64_t, bool> CountLineEnds(int64_t from, int64_t to, TStream* stream = nullptr);
    int64_t UnclosedField(const TKvTextScanConfig& config, int64_t from, int64_t to);
    void ReadRange(int64_t from, int64_t to, size_t overlap,
                   const std::function<bool(const char*, size_t, size_t, int64_t)>& visit,
                   TStream* stream = nullptr);
    std::string_view Fetch(const TKvTextRecordSpan& span);
    void Decode(std::string_view bytes, std::string& out) const;

    TKvTextFileSettings settings_;
    size_t blockSize_ = 0; ///< of the open input
    bool active_ = false;
    TTextEncoding encoding_ = encUtf8;
    bool checkRows_ = false; ///< UTF-8 by the setting: a row that is not becomes U+FFFD where it is not
    int64_t notUtf8At_ = -1; ///< the first stray byte of encUtf8Mixed found when opening
    std::vector<TKvTextWarning> warnings_;
    size_t warningsTaken_ = 0; ///< by TakeNewWarnings

    // Where the bytes come from: a view of memory (owned or borrowed), or a seekable stream.
    std::unique_ptr<TStream> ownedStream_;
    TStream* stream_ = nullptr;
    std::string ownedBytes_;
    std::string_view memory_;
    bool inMemory_ = false;
    int64_t inputStart_ = 0; ///< where line 1 starts
    int64_t scanStart_ = 0;  ///< where record 1 starts (after a BOM)
    int64_t inputEnd_ = 0;   ///< the end of the input as it was opened
    std::string fileName_;   ///< of a file opened by name

    // StartLine's own reading: its stream, and its last answer.
    std::unique_ptr<TStream> lineStream_;
    int64_t lineOffset_ = -1;
    int64_t lineNumber_ = 1;

    // The window rows are read through (stream input only).
    std::vector<char> window_;
    int64_t windowStart_ = 0;
    size_t windowLength_ = 0;
    bool windowFinal_ = false; ///< it reaches the end of the input

    // The row scan: where it stands, the row it cut last, and where it can start again.
    std::unique_ptr<TKvTextScanner> scanner_;
    int64_t scanPos_ = 0;
    int64_t cutRows_ = 0; ///< rows cut since the scan started; the last one is row cutRows_ - 1
    TKvTextRecordSpan cut_;
    int64_t cutRecord_ = 0;
    int64_t rowTotal_ = -1;                ///< once the scan has ended
    int64_t recordTotal_ = -1;             ///< records met by then
    std::vector<TCheckpoint> checkpoints_; ///< one every checkpointRows_ rows, from row 0
    int64_t checkpointRows_ = 0;
    // Bytes beyond those checked when opening are checked as the scan passes them, until one is not UTF-8.
    std::unique_ptr<TKvUtf8Validator> lateCheck_;
    int64_t checkedTo_ = 0;
    bool unclosedWarned_ = false;
    // A read that failed while cutting a row, and worked when tried again: that row reports it.
    std::exception_ptr failure_;
    int64_t failureRow_ = -1;

    bool hasHeader_ = false;
    std::string headerLine_;
    std::string line_;
};

} // namespace kv
