#pragma once
// The binary form of Excel 2007+ workbooks: the same package as the XML form, its parts streams of
// records (a type of one or two 7-bit groups, a size of up to four, then the data). This reads the
// workbook, styles, shared strings and sheet parts into the structures the XML readers give, so that the
// workbook reader treats both forms alike.

#include "platform/ByteReader.h"
#include "readers/spreadsheet/KvXLSXPackage.h"
#include "readers/spreadsheet/KvXLSXSheet.h"
#include "readers/spreadsheet/KvXLSXStyles.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace kv {

class TKvXLSXSharedStrings;

/// Record types this reader knows.
enum TXLSBRecordType : uint16_t {
    xbRowHeader = 0,
    xbCellBlank = 1,
    xbCellRK = 2,
    xbCellError = 3,
    xbCellBoolean = 4,
    xbCellReal = 5,
    xbCellString = 6,
    xbCellSharedString = 7,
    xbFormulaString = 8,
    xbFormulaNumber = 9,
    xbFormulaBoolean = 10,
    xbFormulaError = 11,
    xbStringItem = 19,
    xbFormat = 44,
    xbCellStyle = 47,
    xbCellRichString = 62,
    xbBeginSheetData = 145,
    xbEndSheetData = 146,
    xbDimension = 148,
    xbWorkbookProperties = 153,
    xbSheet = 156,
    xbBeginCellStyles = 617,
    xbEndCellStyles = 618,
};

/// Reads the records of a stream one after another. Nothing of a header is trusted: a type or a size
/// with too many groups, or a record that runs past the end of the stream, is an error.
class TKvXLSBRecordReader {
public:
    /// Unbuffered, it reads no byte past the record it returns (the stream is read on by others).
    explicit TKvXLSBRecordReader(TStream& stream, bool buffered = true)
        : stream_(stream), buffered_(buffered) {}
    /// The next record; false at the end of the stream (between records).
    bool Next();
    int Type() const { return type_; }
    const std::string& Data() const { return data_; }

private:
    /// Reads a header number of at most `groups` 7-bit groups; false at the end before its first byte
    /// when `mayEnd`, else that is an error too.
    bool ReadNumber(int groups, const char* what, uint32_t& value, bool mayEnd);
    /// Up to `count` bytes into `out`, through the buffer; fewer only at the end of the stream.
    size_t Read(char* out, size_t count);

    TStream& stream_;
    bool buffered_;
    int type_ = 0;
    std::string data_;
    // A part is read in blocks: a header is a few bytes, and each read of the stream inflates.
    std::string buffer_;
    size_t at_ = 0, end_ = 0;
};

/// A cursor over a record's data that fails, rather than reads past its end.
class TKvXLSBData : public TKvEndianReads<TKvXLSBData> {
public:
    TKvXLSBData(std::string_view data, int type) : data_(data), type_(type) {}
    /// A length-prefixed UTF-16 string, as UTF-8; at most `maxBytes` of it kept (`cut` then set).
    std::string WideString(size_t maxBytes = SIZE_MAX, bool* cut = nullptr);
    /// As WideString, where a length of 0xFFFFFFFF means no string ("").
    std::string NullableWideString();
    void Skip(size_t count) { Take(count); }

private:
    friend class TKvEndianReads<TKvXLSBData>;
    const char* Take(size_t count);
    std::string_view data_;
    size_t at_ = 0;
    int type_;
};

/// What a workbook part says: its sheets (rels ids resolved), date system and shared parts.
TXLSXWorkbookInfo KvReadXLSBWorkbook(const TKvXLSXPackage& package, const std::string& part);
/// The custom formats and the cell styles of a styles part.
TXLSXStyles KvReadXLSBStyles(std::unique_ptr<TStream> part);
/// Reads a shared strings part into `strings` (rich text runs and phonetic text left out).
void KvReadXLSBSharedStrings(std::unique_ptr<TStream> part, TKvXLSXSharedStrings& strings);

/// Decodes a cell record into `cell` as the XML sheet reader gives it (a number as its shortest text, a
/// shared string as its index). False for a record that is no cell.
bool KvDecodeXLSBCell(int type, std::string_view data, TXLSXCell& cell, bool* cut = nullptr);

/// Reads one sheet part as a stream of rows, with the bounds and the interface of the XML sheet reader
/// (the part is named in errors by the workbook reader).
class TKvXLSBSheetReader {
public:
    TKvXLSBSheetReader(std::unique_ptr<TStream> part, const std::string& partName);
    bool NextRow(TXLSXRow& row);
    /// The used area the sheet announces, as a reference ("A1:J100"); "" for none.
    std::string ReadDimension();
    int64_t CellsLeftOut() const { return leftOut_; }
    int64_t TextsCut() const { return textsCut_; }
    /// The part has no end of its cell data (a cut file).
    bool EndedEarly() const { return endedEarly_; }

private:
    std::unique_ptr<TStream> part_;
    TKvXLSBRecordReader records_;
    bool inData_ = false, ended_ = false, endedEarly_ = false;
    bool havePending_ = false; ///< records_ holds a row header not yet started
    int row_ = 0;
    int64_t leftOut_ = 0, textsCut_ = 0;
    std::string dimension_;
};

} // namespace kv
