#pragma once
// The record scan behind TKvTextFile: cuts bytes into records and picks the ones kept, row by row as they
// are asked for, with memchr over the buffer and no work per byte outside the fixed-length case. Also a
// streaming UTF-8 validator, so the encoding can be decided while the same blocks go by.

#include "readers/text/KvTextFile.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace kv {

/// Checks UTF-8 well-formedness over consecutive chunks (a sequence may straddle two chunks), and counts
/// what it meets: valid sequences of several bytes, and bytes that start none, as a decoder that takes
/// each such byte alone sees them.
class TKvUtf8Validator {
public:
    void Feed(const char* data, size_t size);
    /// The input has ended: a sequence left open is malformed too.
    void Finish();
    bool Valid() const { return invalid_ == 0; }
    /// The bytes fed end inside a sequence, which starts at OpenStart (counted like FirstInvalid): the next
    /// ones tell whether it is valid.
    bool Open() const { return need_ > 0; }
    int64_t OpenStart() const { return start_; }
    int64_t Sequences() const { return sequences_; }
    int64_t InvalidBytes() const { return invalid_; }
    /// Where the first invalid byte lies, counted from the first byte fed; -1 = none.
    int64_t FirstInvalid() const { return firstInvalid_; }

private:
    void Invalid(int64_t at, int count);

    int need_ = 0;            ///< continuation bytes still expected
    unsigned char lo_ = 0x80; ///< range of the next continuation byte (narrower after E0, ED, F0, F4)
    unsigned char hi_ = 0xBF;
    int64_t start_ = 0; ///< where the open sequence starts
    int taken_ = 0;     ///< and its bytes so far
    int64_t fed_ = 0;   ///< bytes of the chunks before
    int64_t sequences_ = 0;
    int64_t invalid_ = 0;
    int64_t firstInvalid_ = -1;
};

/// What the scan looks for, in the bytes of the input's encoding.
struct TKvTextScanConfig {
    std::string Separator;       ///< empty = none
    bool SeparatorNever = false; ///< the separator cannot occur in this encoding
    bool LineBreaks = false;     ///< separator is "\n" standing for any line end: CR LF, LF or a lone CR
    std::string Qualifier;       ///< empty = none
    int64_t FixedChars = 0;      ///< > 0 (and no separator): records of this many characters
    bool Utf8Chars = true;       ///< characters are UTF-8 sequences or stray bytes (else one byte each)
    int64_t RowFirst = 1;
    int64_t RowLast = 2147483647;
    int64_t HeaderRecord = 0; ///< 0 = none
    bool SkipEmpty = false;
    char BlankDelimiter = 0; ///< a one-byte delimiter that counts as blank for SkipEmpty (0 = none)
    bool SkipBlank = false;  ///< records of only spaces, tabs and CRs are neither rows nor the header
};

/// Cuts records and picks the selected ones, one at a time. Feed it consecutive bytes from where it stands;
/// it stops after each record that is a row or the header record, and otherwise consumes all but a short
/// tail (less than the longest pattern) that has to be fed again in front of the next bytes.
class TKvTextScanner {
public:
    TKvTextScanner(const TKvTextScanConfig& config, int64_t start);

    /// Starts again at a record boundary: `offset`, with `records` records before it. Nothing but where
    /// the record starts carries over a record boundary, so this is all a restart needs.
    void Restart(int64_t offset, int64_t records);
    /// Scans `size` bytes found at absolute offset `base`, where the scan stands; `final` when nothing
    /// follows. Returns the number of bytes consumed.
    size_t Feed(const char* data, size_t size, int64_t base, bool final);
    /// Nothing more will be cut: the last wanted record has been reached, or the input has ended.
    bool Ended() const { return done_ || ended_; }
    /// The last wanted record has been reached; the rest of the input is not needed.
    bool Done() const { return done_; }
    /// Bytes that must stay unconsumed at the end of a block so a pattern is never cut in two.
    size_t Tail() const { return tail_; }
    /// Where the record not yet ended starts.
    int64_t RecordStart() const { return recordStart_; }
    const TKvTextScanConfig& Config() const { return config_; }

    // What the last Feed stopped at.
    bool Cut = false;       ///< a data row: Row, the record numbered Records
    bool HeaderMet = false; ///< the record numbered HeaderRecord (a header unless blank)
    TKvTextRecordSpan Row;

    int64_t Records = 0;
    /// Once Done: where the last wanted record ends. The encoding is judged by the bytes before it.
    int64_t StopOffset = -1;
    /// Once the input has ended: its end, and where the record a qualifier left open to it starts (-1 =
    /// none).
    int64_t End = -1;
    int64_t Unclosed = -1;
    bool HasHeader = false;
    TKvTextRecordSpan Header;

private:
    /// Where the next match of a pattern was found: the first at or after From lies at At, or none lies
    /// before To when At == To. It holds for later feeds as long as the scan has not passed it.
    struct TFound {
        int64_t From = 0, To = -1, At = -1;
    };
    static bool Holds(const TFound& found, int64_t at, int64_t limit) {
        return found.From <= at && (found.At < found.To ? found.At >= at : found.To >= limit);
    }

    size_t FeedSeparated(const char* d, size_t n, size_t limit, int64_t base);
    size_t FeedFixed(const char* d, size_t n, size_t limit, int64_t base);
    void EndRecord(const char* d, size_t endIndex, int64_t base);
    void Keep(int64_t offset, int64_t length, bool empty, bool blank);
    void CheckBlank(const char* d, size_t from, size_t to);
    size_t OpenRecordIndex(int64_t base) const;

    TKvTextScanConfig config_;
    size_t tail_ = 0;
    int64_t stopAt_ = 0;
    bool done_ = false;
    bool ended_ = false;      ///< the final bytes have been scanned
    int64_t recordStart_ = 0; ///< absolute offset where the open record starts
    bool inside_ = false;     ///< between an opening and a closing qualifier
    int64_t chars_ = 0;       ///< characters of the open record (fixed length)
    bool empty_ = false;      ///< the open record may still be empty as SkipEmpty means it
    bool blank_ = false;      ///< the open record may still be a blank line (SkipBlank)
    // The next separator and qualifier, kept from one feed to the next: a feed stops at every row, and
    // would otherwise search the rest of the block again for a qualifier it does not hold.
    TFound separator_, qualifier_;
};

} // namespace kv
