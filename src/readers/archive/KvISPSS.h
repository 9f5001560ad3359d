#pragma once
// TSPSSFile: reads an SPSS system file (.sav, and .zsav with zlib-compressed data) into sheet 0, one row
// per case and one column per variable. Opening reads the dictionary (variables, labels, missing values,
// documents, the extension records) and keeps the stream; each LoadNextCase then decodes one case, so
// memory does not grow with the number of cases.

#include "cells/KvCells.h"
#include "platform/Encoding.h"
#include "platform/Streams.h"

#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kv {

class TKvBinaryReader;
struct TSPSSData;

/// How the cases are stored.
enum TSPSSCompression : uint8_t {
    scNone,     ///< 8 bytes per value, as they are
    scBytecode, ///< small whole numbers, blanks and system-missing in one byte each
    scZlib      ///< the bytecode stream in zlib blocks (.zsav)
};

/// What a value the file declares user-missing becomes.
enum TSPSSUserMissing : uint8_t {
    umNull, ///< null, like the system-missing value
    umKeep  ///< the value as stored
};

/// What names the columns.
enum TSPSSCaptions : uint8_t {
    spcNames, ///< the variable's name (its long name when the file has one)
    spcLabels ///< the variable's label, the name where it has none
};

/// What a variable's values are, from its print format.
enum TSPSSValueKind : uint8_t {
    svkNumber,   ///< a number; whole numbers come as integers when the format shows no decimals
    svkDate,     ///< DATE, ADATE, EDATE, JDATE, SDATE, QYR, MOYR, WKYR
    svkDateTime, ///< DATETIME, YMDHMS
    svkTime,     ///< TIME, DTIME, MTIME: a duration, delivered as a time of day
    svkString    ///< text
};

/// A print or write format, as packed in the variable record.
struct TSPSSFormat {
    int Type = 0; ///< 5 is F, 1 is A, 20 is DATE, ...
    int Width = 0;
    int Decimals = 0;

    /// "F8.2", "A10", "DATE11", "FORMAT99.0" for a type without a name.
    std::string Text() const;
    /// What values of this format are.
    TSPSSValueKind Kind() const;
    /// The name of a format type; "" for a type without one.
    static const char* TypeName(int type);
};

/// A variable's user-missing values: up to three discrete values, or a range and at most one value.
struct TSPSSMissingValues {
    std::vector<double> Numbers;    ///< the discrete numbers
    bool HasRange = false;          ///< Low..High is missing too
    double Low = 0, High = 0;       ///< the range, with LO and HI as the file's lowest and highest
    std::vector<std::string> Texts; ///< a string variable's values, raw bytes without trailing blanks

    bool Empty() const { return Numbers.empty() && !HasRange && Texts.empty(); }
};

/// One variable of the dictionary.
struct TSPSSVariable {
    std::string Name;      ///< UTF-8: the long name when the file has one, else the short name
    std::string ShortName; ///< the 8-byte name of the variable record, raw, without trailing blanks
    std::string Label;     ///< UTF-8, "" when none
    int Width = 0;         ///< 0 for a number, the string's width in bytes (up to 32767) otherwise
    TSPSSFormat Print, Write;
    TSPSSValueKind Kind = svkNumber;
    TSPSSMissingValues Missing;
    /// Value labels in file order: the value (a number, or the raw bytes of a string without trailing
    /// blanks) and its UTF-8 label.
    std::vector<std::pair<double, std::string>> NumberLabels;
    std::vector<std::pair<std::string, std::string>> TextLabels;

    int Slot = 0; ///< the first 8-byte element of the case the variable occupies
    /// A string's segments: (first element, bytes of data) each; one for strings up to 255 bytes.
    std::vector<std::pair<int, int>> Segments;

    bool IsString() const { return Width > 0; }
};

/// The file header and what the machine records say of the file.
struct TSPSSHeader {
    std::string Magic;   ///< "$FL2" or "$FL3"
    std::string Product; ///< the writer's identification, UTF-8
    int32_t LayoutCode = 2;
    bool BigEndian = false; ///< the layout code reads as 2 or 3 only most significant byte first
    int32_t CaseSize = 0;   ///< 8-byte elements per case as the header declares them (-1: unknown)
    TSPSSCompression Compression = scNone;
    int32_t WeightIndex = 0; ///< 1-based element of the weight variable, 0 for none
    int64_t CaseCount = -1;  ///< as declared, -1 when the file does not say
    double Bias = 100;
    std::string CreationDate, CreationTime, FileLabel; ///< UTF-8, trailing blanks removed
    int32_t CharacterCode = 0;                         ///< from the machine integer record, 0 when absent
    std::string EncodingName;       ///< the character encoding record's text, "" when absent
    double SystemMissing = 0;       ///< -DBL_MAX unless the machine floating-point record says otherwise
    double Highest = 0, Lowest = 0; ///< HI and LO of missing-value ranges
};

/// The SPSS system file reader.
///
/// Text (names, labels, string values) is decoded from the file's own encoding: the character encoding
/// record, else the machine record's character code, else Windows-1252. Numbers are delivered as floats,
/// or as integers where the print format shows no decimals; dates, date-times and times (seconds since
/// 14 October 1582) as date-time values; system-missing as null. Damaged files raise EKvFormatError
/// naming "SPSS" and the byte; cases that end early raise it after the cases before have been delivered.
class TSPSSFile : public TSpreadSheetFile {
public:
    explicit TSPSSFile(TComponent* owner = nullptr);
    ~TSPSSFile() override;
    TSPSSFile(const TSPSSFile&) = delete;
    TSPSSFile& operator=(const TSPSSFile&) = delete;

    /// Deliver a value's label instead of the value where it has one (off by default).
    bool ValueLabels() const { return valueLabels_; }
    void SetValueLabels(bool v) { valueLabels_ = v; }
    TSPSSUserMissing UserMissing() const { return userMissing_; }
    void SetUserMissing(TSPSSUserMissing v) { userMissing_ = v; }
    TSPSSCaptions Captions() const { return captions_; }
    void SetCaptions(TSPSSCaptions v) { captions_ = v; }

    const TSPSSHeader& Header() const { return header_; }
    /// The variables of the last load, very long strings joined from their segments.
    const std::vector<TSPSSVariable>& Variables() const { return variables_; }
    /// The document lines, UTF-8.
    const std::vector<std::string>& Documents() const { return documents_; }
    /// The code page text is decoded from.
    int CodePage() const { return decoder_.CodePage(); }

    void LoadFromFile(const std::string& fileName) override;
    /// Reads the dictionary; in record mode the cases are then read by LoadRecord or LoadNextCase, else
    /// every case is delivered before it returns.
    void LoadFromStream(TStream& stream) override;
    /// Names sheet 0 after the file and goes back to the first case.
    void BeforeLoad() override;
    /// Lets go of the stream.
    void AfterLoad() override;
    /// Delivers case `index` (the cases before it are read and dropped; an earlier one rewinds).
    bool LoadRecord(int index) override;
    /// Delivers the next case as the next row; false after the last.
    bool LoadNextCase();
    bool HasRecord(int index) override;

    std::vector<TKvIDeclaredField> DeclaredFields() const override;
    /// The case count the file declares, cut to the cases found when the data ends early; once the data
    /// has ended, the cases read. -1 before loading and while a file that declares none is being read.
    int64_t RecordCount() const override { return loaded_ ? caseCount_ : -1; }
    std::vector<std::pair<std::string, std::string>> FileProperties() const override;

    std::string ClassName() const override { return "TSPSSFile"; }

private:
    /// A variable's value labels, to look values up by.
    struct TLabels {
        std::unordered_map<double, std::string> Numbers;
        std::unordered_map<std::string, std::string> Texts;
    };

    static bool IsMissing(const TSPSSVariable& v, double number);
    void DeliverCase(int row);
    /// Decodes the next case into the case buffer; false at the end of the data.
    bool FetchCase();
    void Rewind();

    bool valueLabels_ = false;
    TSPSSUserMissing userMissing_ = umNull;
    TSPSSCaptions captions_ = spcNames;

    TSPSSHeader header_;
    std::vector<TSPSSVariable> variables_;
    std::vector<std::string> documents_;
    std::vector<TLabels> labels_; ///< by variable
    TKvCodePageDecoder decoder_;
    bool loaded_ = false;
    int64_t caseCount_ = -1;

    std::unique_ptr<TStream> ownedStream_; ///< the file LoadFromFile opened, kept in record mode
    std::unique_ptr<TKvBinaryReader> in_;
    std::unique_ptr<TSPSSData> data_; ///< the case decoder over the data that follows the dictionary
    int64_t casesRead_ = 0;           ///< cases delivered since the first
    bool pending_ = false;            ///< the case buffer holds a case fetched ahead, not yet delivered
    bool ended_ = false;              ///< the data has ended (or failed): no case follows
    std::exception_ptr error_;        ///< a failure met reading ahead, raised by the next read
    std::vector<char> caseBuffer_;    ///< the case's 8-byte elements in the file's byte order
    Variant value_;                   ///< the cell value, reused
    std::string text_;                ///< a string value's bytes, reused
};

} // namespace kv
