#pragma once
// TKvTextFile: loads delimited or fixed-width text. Opening scans the input once in large blocks and keeps
// only where each selected record lies (byte offset and length); rows are then read back on demand through
// a block-sized window, so memory stays far below the size of the file. The reader knows nothing of the
// import engine: a source joins it to the engine.

#include "platform/Encoding.h"
#include "platform/Streams.h"

#include <cstdint>
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
};

/// Something the reader noticed while loading that a user should hear of.
struct TKvTextWarning {
    int64_t Line = 0;     ///< physical line (1-based) of the file where it is
    std::string Message;  ///< the reader's own text, without the line
    bool Problem = false; ///< data may be lost or changed: the run did not go as a user expects
    bool operator==(const TKvTextWarning&) const = default;
};

/// Byte offset and length of one record in the input (or in the decoded text for UTF-16 input).
struct TKvTextRecordSpan {
    int64_t Offset = 0;
    int64_t Length = 0;
};

/// Where the selected records lie, appended in order: 12 bytes a record, in chunks, so a list of millions
/// of records neither doubles nor gets copied while it grows.
class TKvTextSpanList {
public:
    void Push(const TKvTextRecordSpan& span);
    TKvTextRecordSpan operator[](size_t index) const;
    size_t Size() const { return size_; }
    void Clear();

private:
    static constexpr size_t kChunk = 4096;
    static constexpr uint32_t kLongLength = UINT32_MAX; ///< the length is in longLengths_
    struct TChunk {
        int64_t Offsets[kChunk];
        uint32_t Lengths[kChunk];
    };
    std::vector<std::unique_ptr<TChunk>> chunks_;
    std::vector<std::pair<size_t, int64_t>> longLengths_; ///< (index, length), by index
    size_t size_ = 0;
};

/// A loaded text: the header line and the selected data rows, served as UTF-8.
///
/// Records are numbered from 1. A separator at the very end of the text does not open one more (empty)
/// record; a qualifier that is never closed makes the rest of the text one record (and a warning).
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
    /// Standard input: a redirected file is scanned like any file, a pipe is read into memory.
    void OpenStdin();
    /// Text already in memory (the clipboard's), decoded like a file's bytes.
    void OpenText(std::string bytes);
    void Close();
    bool Active() const { return active_; }

    /// How the input was decoded. Unless the setting says: a UTF-16 BOM selects UTF-16; otherwise the bytes
    /// up to the end of the last wanted record decide. All UTF-8 (after a BOM or not) is UTF-8. Mostly
    /// UTF-8 (after a BOM, or more valid multi-byte sequences than stray bytes) is encUtf8Mixed, with a
    /// warning at the first stray byte. Anything else is Windows-1252, decoded record by record as rows
    /// are read.
    TTextEncoding Encoding() const { return encoding_; }
    /// What the last Open noticed, by line.
    const std::vector<TKvTextWarning>& Warnings() const { return warnings_; }
    /// Records met while scanning (the scan stops once the last wanted record is reached).
    int64_t RecordCount() const { return records_; }

    /// True when the record RowFieldNames was found.
    bool HasHeader() const { return hasHeader_; }
    /// The header record as UTF-8 ("" without one).
    const std::string& HeaderLine() const { return headerLine_; }

    /// Number of data rows.
    int64_t RowCount() const { return static_cast<int64_t>(rows_.Size()); }
    /// Data row `index` (0-based) as UTF-8; the reference stays valid until the next call. Rows read in
    /// ascending order stream through the window; any other order seeks.
    const std::string& Row(int64_t index);
    /// The record number (1-based line number) of data row `index`.
    int64_t LineNumber(int64_t index) const;
    /// Where data row `index` lies in the input.
    TKvTextRecordSpan RowSpan(int64_t index) const;
    /// The line of the input where data row `index` starts, counted as an editor counts them (LF, CR LF
    /// and a lone CR end a line), which differs from the record number once a quoted field has spanned
    /// lines. Counts on from the previous answer, so rows asked in order read the input once in all, and
    /// reads through a stream of its own, so a reading thread may go on meanwhile; 0 when the input is a
    /// stream handed in by the caller, which only that thread may read.
    int64_t StartLine(int64_t index);

private:
    void OpenMemory(std::string_view bytes);
    void OpenOwned(std::unique_ptr<TStream> stream);
    void OpenSeekable(TStream& stream, int64_t start);
    bool Judge(const TKvUtf8Validator& validator, int64_t start);
    void Finish(TKvTextScanner& scanner);
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
    bool sanitize_ = false;  ///< UTF-8 by the setting that turned out malformed: bad bytes become U+FFFD
    int64_t notUtf8At_ = -1; ///< the first stray byte of encUtf8Mixed
    int64_t records_ = 0;
    std::vector<TKvTextWarning> warnings_;

    // Where the bytes come from: a view of memory (owned or borrowed), or a seekable stream.
    std::unique_ptr<TStream> ownedStream_;
    TStream* stream_ = nullptr;
    std::string ownedBytes_;
    std::string_view memory_;
    bool inMemory_ = false;
    int64_t inputStart_ = 0; ///< where line 1 starts
    std::string fileName_;   ///< of a file opened by name

    // StartLine's own reading: its stream, and its last answer.
    std::unique_ptr<TStream> lineStream_;
    int64_t lineOffset_ = -1;
    int64_t lineNumber_ = 1;

    // The window rows are read through (stream input only).
    std::vector<char> window_;
    int64_t windowStart_ = 0;
    size_t windowLength_ = 0;

    bool hasHeader_ = false;
    std::string headerLine_;
    TKvTextSpanList rows_;
    /// (row index, record number) wherever a skipped record breaks the run of consecutive numbers.
    std::vector<std::pair<int64_t, int64_t>> numbering_;
    std::string line_;
};

} // namespace kv
