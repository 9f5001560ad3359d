#pragma once
// The two phases of reading a system file: the dictionary (KvISPSSDictionary.cpp) and the cases
// (KvISPSSCases.cpp). TSPSSFile (KvISPSS.cpp) joins them and turns the cases into cells.

#include "readers/archive/KvISPSS.h"

#include "platform/BinaryReader.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kv {

namespace spss {

inline constexpr const char* kFormat = "SPSS";

/// What the dictionary records say, decoded.
struct TDictionary {
    TSPSSHeader Header;
    std::vector<TSPSSVariable> Variables;
    std::vector<std::string> Documents;
    int Slots = 0;          ///< 8-byte elements per case, as the variable records lay them out
    uint64_t DataStart = 0; ///< where the data follows the 999 record
    int CodePage = 1252;
    std::vector<std::string> Warnings;
};

/// Reads the header and the dictionary from the reader's position through the 999 record.
void ReadDictionary(TKvBinaryReader& in, TDictionary& out);

/// `raw` without trailing blanks and NULs, and in UTF-8 without a character its end cuts in two: writers
/// cut strings at their width in bytes, whatever character is there.
std::string_view TrimValue(std::string_view raw, bool utf8);

/// The 8-byte value of `number` in the file's byte order.
void PutNumber(char* out, double number, bool bigEndian);
/// A number stored in the file's byte order.
double GetNumber(const char* bytes, bool bigEndian);

} // namespace spss

/// The bytes that hold the cases, after the dictionary: the file's own, or the inflated zlib blocks.
class TSPSSInput {
public:
    virtual ~TSPSSInput() = default;
    /// Up to `max` bytes into `out`; 0 at the end of the data.
    virtual size_t Read(char* out, size_t max) = 0;
    virtual void Rewind() = 0;
    /// The file offset that errors name: where the next byte comes from (in a .zsav, the compressed
    /// position).
    virtual uint64_t Offset() const = 0;
};

/// Decodes one case at a time into 8-byte elements in the file's byte order, the compressed codes
/// expanded: the numbers they stand for, blanks, the system-missing value.
struct TSPSSData {
    /// Reads and checks a .zsav's block index.
    TSPSSData(TKvBinaryReader& in, const spss::TDictionary& dictionary);
    ~TSPSSData();

    /// Back to the first case.
    void Rewind();
    /// The next case into `out` (Slots × 8 bytes); false when the data ends before it begins. Data that
    /// ends inside a case raises EKvFormatError.
    bool Next(char* out, int64_t caseNumber);
    uint64_t Offset() const { return input_->Offset(); }

private:
    /// Makes `count` bytes (at most the buffer's size) readable at `pos_`; false when the data ends first.
    bool Ensure(size_t count);
    bool NextBytecode(char* out, int64_t caseNumber);
    bool NextRaw(char* out, int64_t caseNumber);
    /// The data ends (or its end code comes, `endCode`) after `slot` elements of case `caseNumber`.
    [[noreturn]] void EndsInside(int64_t caseNumber, int slot, bool endCode) const;

    std::unique_ptr<TSPSSInput> input_;
    TSPSSCompression compression_;
    bool bigEndian_;
    int slots_;
    std::vector<char> strings_; ///< 1 for the elements of string variables
    char sysmis_[8];
    double bias_;
    std::vector<char> buffer_;
    size_t pos_ = 0, end_ = 0;
    unsigned char commands_[8] = {};
    int command_ = 8; ///< the next command byte of commands_ (8: a new block is due)
    bool ended_ = false;
};

} // namespace kv
