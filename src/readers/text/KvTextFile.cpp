#include "readers/text/KvTextFile.h"

#include "platform/Exceptions.h"
#include "platform/SysUtils.h"
#include "platform/Utf8.h"
#include "readers/text/KvTextScanInternal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace kv {

namespace {

constexpr size_t kDefaultBlockSize = size_t(1) << 20;

// Standard input, which the reader does not own. Seeking works when it is a redirected file.
class TStdinStream : public TStream {
public:
    size_t Read(void* buffer, size_t count) override {
        size_t done = 0;
        while (done < count) {
            ssize_t n = ::read(0, static_cast<char*>(buffer) + done, count - done);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) throw EReadError("Stream read error");
            if (n == 0) break;
            done += static_cast<size_t>(n);
        }
        return done;
    }
    size_t Write(const void*, size_t) override { return 0; }
    int64_t Seek(int64_t offset, TSeekOrigin origin) override {
        const int whence = origin == soBeginning ? SEEK_SET : origin == soCurrent ? SEEK_CUR : SEEK_END;
        const off_t r = ::lseek(0, static_cast<off_t>(offset), whence);
        return r < 0 ? -1 : static_cast<int64_t>(r);
    }
    int64_t Size() override {
        struct stat st {};
        if (fstat(0, &st) == 0 && S_ISREG(st.st_mode)) return static_cast<int64_t>(st.st_size);
        return -1;
    }
};

// UTF-8 text in the bytes of the scanned encoding; false when Windows-1252 lacks one of its characters.
bool EncodeForScan(const std::string& text, bool utf8, std::string& out) {
    if (utf8) {
        out = text;
        return true;
    }
    out = Utf8ToCodePage(text, cpWindows1252);
    return CodePageToUtf8(out, cpWindows1252) == text;
}

TKvTextScanConfig MakeScanConfig(const TKvTextFileSettings& s, bool utf8) {
    TKvTextScanConfig c;
    // With the usual CR LF, files written with LF alone, or with CR alone, must load the same: any of the
    // three ends a record. One inside a qualified field stays part of the field.
    c.LineBreaks = s.RecordSeparator == "\r\n";
    const std::string separator = c.LineBreaks ? std::string("\n") : s.RecordSeparator;
    if (!separator.empty() && !EncodeForScan(separator, utf8, c.Separator)) c.SeparatorNever = true;
    if (s.TextQualifier && !EncodeForScan(Utf8Encode(s.TextQualifier), utf8, c.Qualifier))
        c.Qualifier.clear();
    c.FixedChars = separator.empty() ? std::max(s.FixedLineLength, 0) : 0;
    c.Utf8Chars = utf8;
    c.RowFirst = s.RowFirst;
    c.RowLast = s.RowLast;
    c.HeaderRecord = std::max(s.RowFieldNames, 0);
    c.SkipEmpty = s.SkipEmptyRows;
    c.SkipBlank = s.SkipBlankLines;
    if (!s.FixedWidth && s.FieldDelimiter > 0 && s.FieldDelimiter < 0x80)
        c.BlankDelimiter = static_cast<char>(s.FieldDelimiter);
    return c;
}

bool StartsWith(std::string_view bytes, const char* prefix, size_t n) {
    return bytes.size() >= n && std::memcmp(bytes.data(), prefix, n) == 0;
}

// How reading starts, by the first bytes and the setting.
struct TStartPlan {
    TTextEncoding Encoding = encUtf8; ///< so far; a UTF-16 one is decoded as a whole first
    size_t Skip = 0;                  ///< BOM bytes
    bool Judge = false;               ///< check the bytes as UTF-8 and decide by them
};

TStartPlan PlanStart(std::string_view head, const std::optional<TTextEncoding>& forced) {
    const bool le = StartsWith(head, "\xFF\xFE", 2), be = StartsWith(head, "\xFE\xFF", 2);
    const bool utf8Bom = StartsWith(head, "\xEF\xBB\xBF", 3);
    const TStartPlan utf8{utf8Bom ? encUtf8Bom : encUtf8, utf8Bom ? size_t(3) : size_t(0), true};
    if (!forced) {
        if (le || be) return {le ? encUtf16LE : encUtf16BE, 2, false};
        return utf8;
    }
    switch (*forced) {
    case encUtf16LE:
        return {encUtf16LE, le ? size_t(2) : size_t(0), false};
    case encUtf16BE:
        return {encUtf16BE, be ? size_t(2) : size_t(0), false};
    case encAnsi:
        return {encAnsi, 0, false};
    case encUtf8:
    case encUtf8Bom:
    case encUtf8Mixed:
        break;
    }
    return utf8;
}

bool IsUtf16(TTextEncoding e) {
    return e == encUtf16LE || e == encUtf16BE;
}

std::string LinesAfter(int64_t n) {
    return IntToStr(n) + (n == 1 ? " line" : " lines");
}

const char* const kNotUtf8 = "bytes that are not UTF-8 were read as Windows-1252 characters";
constexpr size_t kJudgeBytes = size_t(4) << 20;
constexpr int64_t kCheckpointRows = 4096;

std::string MessageOf(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "unknown error";
    }
}

// Runs `scanner` from `from` until it has cut all it will, over the text in `memory`, or over `stream`
// read in blocks up to `end`; `took(data, base, count)` hears of each run of bytes a feed took.
template <class Took>
void ScanInput(TKvTextScanner& scanner, std::string_view memory, TStream* stream, int64_t from, int64_t end,
               size_t blockSize, Took&& took) {
    if (!stream) {
        const char* data = memory.empty() ? "" : memory.data();
        auto at = static_cast<size_t>(from);
        while (!scanner.Ended()) {
            const size_t n = scanner.Feed(data + at, memory.size() - at, static_cast<int64_t>(at), true);
            took(data + at, static_cast<int64_t>(at), n);
            at += n;
        }
        return;
    }
    std::vector<char> buffer(blockSize + scanner.Tail());
    if (stream->Seek(from, soBeginning) != from) throw EReadError("Stream read error");
    size_t keep = 0;
    int64_t base = from;
    while (!scanner.Ended()) {
        const int64_t at = base + static_cast<int64_t>(keep);
        const auto want =
            static_cast<size_t>(std::clamp<int64_t>(end - at, 0, static_cast<int64_t>(blockSize)));
        const size_t got = want ? stream->ReadUpTo(buffer.data() + keep, want) : 0;
        if (got < want) throw EReadError("Stream read error"); // the file has shrunk since it was opened
        const bool last = at + static_cast<int64_t>(got) >= end;
        const size_t size = keep + got;
        size_t done = 0;
        do {
            const size_t n =
                scanner.Feed(buffer.data() + done, size - done, base + static_cast<int64_t>(done), last);
            took(buffer.data() + done, base + static_cast<int64_t>(done), n);
            done += n;
        } while ((scanner.Cut || scanner.HeaderMet) && !scanner.Ended());
        keep = size - std::min(done, size);
        std::memmove(buffer.data(), buffer.data() + size - keep, keep);
        base += static_cast<int64_t>(size - keep);
    }
}

// Runs `read`; when it fails, runs it once more and keeps the first failure in `failure`. A second
// failure, or one while an earlier is kept, is passed on.
template <class Read> void TryTwice(std::exception_ptr& failure, Read&& read) {
    try {
        read();
    } catch (...) {
        if (failure) throw;
        failure = std::current_exception();
        read();
    }
}

} // namespace

TKvTextFile::TKvTextFile() = default;
TKvTextFile::~TKvTextFile() = default;

void TKvTextFile::Close() {
    active_ = false;
    encoding_ = encUtf8;
    checkRows_ = false;
    notUtf8At_ = -1;
    warnings_.clear();
    warningsTaken_ = 0;
    inputStart_ = scanStart_ = inputEnd_ = 0;
    fileName_.clear();
    lineStream_.reset();
    lineOffset_ = -1;
    lineNumber_ = 1;
    stream_ = nullptr;
    ownedStream_.reset();
    std::string().swap(ownedBytes_);
    memory_ = {};
    inMemory_ = false;
    std::vector<char>().swap(window_);
    windowStart_ = 0;
    windowLength_ = 0;
    windowFinal_ = false;
    scanner_.reset();
    scanPos_ = cutRows_ = cutRecord_ = 0;
    cut_ = {};
    rowTotal_ = recordTotal_ = -1;
    checkpoints_.clear();
    lateCheck_.reset();
    checkedTo_ = 0;
    unclosedWarned_ = false;
    failure_ = nullptr;
    failureRow_ = -1;
    hasHeader_ = false;
    headerLine_.clear();
    line_.clear();
}

void TKvTextFile::Open(const std::string& fileName) {
    Close();
    fileName_ = fileName;
    OpenOwned(std::make_unique<TFileStream>(fileName, fmOpenRead | fmShareDenyNone));
}

void TKvTextFile::OpenStdin() {
    Close();
    OpenOwned(std::make_unique<TStdinStream>());
}

void TKvTextFile::OpenOwned(std::unique_ptr<TStream> stream) {
    ownedStream_ = std::move(stream);
    try {
        OpenStream(*ownedStream_);
    } catch (...) {
        Close();
        throw;
    }
}

void TKvTextFile::OpenStream(TStream& stream) {
    // Open and OpenStdin come here with their own stream already in place.
    if (&stream != ownedStream_.get()) Close();
    blockSize_ = settings_.BlockSize ? settings_.BlockSize : kDefaultBlockSize;
    try {
        if (auto* memory = dynamic_cast<TMemoryStream*>(&stream)) {
            const std::string_view bytes = memory->Bytes();
            const auto position = static_cast<size_t>(std::max<int64_t>(memory->Position(), 0));
            OpenMemory(bytes.substr(std::min(position, bytes.size())));
            return;
        }
        const int64_t start = stream.Position();
        if (start < 0 || stream.Size() < 0) {
            ownedBytes_ = stream.ReadAll(); // a pipe: keep what it holds
            OpenMemory(ownedBytes_);
            return;
        }
        stream_ = &stream;
        OpenSeekable(stream, start);
    } catch (...) {
        Close();
        throw;
    }
}

void TKvTextFile::OpenText(std::string bytes) {
    Close();
    blockSize_ = settings_.BlockSize ? settings_.BlockSize : kDefaultBlockSize;
    ownedBytes_ = std::move(bytes);
    try {
        OpenMemory(ownedBytes_);
    } catch (...) {
        Close();
        throw;
    }
}

void TKvTextFile::OpenMemory(std::string_view bytes) {
    inMemory_ = true;
    inputStart_ = 0;
    const TStartPlan plan = PlanStart(bytes, settings_.Encoding);
    encoding_ = plan.Encoding;
    size_t start = std::min(plan.Skip, bytes.size());
    if (IsUtf16(encoding_)) {
        // Decoded as a whole: records are cut in the decoded text, which stays in memory.
        std::string decoded = Utf16ToUtf8(bytes.substr(start), encoding_ == encUtf16BE);
        ownedBytes_ = std::move(decoded); // may replace the bytes just read
        bytes = ownedBytes_;
        start = 0;
    }
    memory_ = bytes;
    Begin(plan.Judge, static_cast<int64_t>(start), static_cast<int64_t>(bytes.size()));
}

void TKvTextFile::OpenSeekable(TStream& stream, int64_t start) {
    char head[3];
    if (stream.Seek(start, soBeginning) != start) throw EReadError("Stream read error");
    const size_t headLength = stream.ReadUpTo(head, sizeof head);
    const TStartPlan plan = PlanStart(std::string_view(head, headLength), settings_.Encoding);
    if (IsUtf16(plan.Encoding)) {
        stream.Seek(start, soBeginning);
        ownedBytes_ = stream.ReadAll();
        stream_ = nullptr;
        OpenMemory(ownedBytes_);
        return;
    }
    encoding_ = plan.Encoding;
    inputStart_ = start;
    Begin(plan.Judge, start + static_cast<int64_t>(plan.Skip), stream.Size());
}

// Settles how the bytes are read and finds the header record; the rows wait until they are asked for.
void TKvTextFile::Begin(bool judge, int64_t scanStart, int64_t end) {
    scanStart_ = scanStart;
    inputEnd_ = std::max(end, scanStart);
    checkpointRows_ = settings_.CheckpointRows > 0 ? settings_.CheckpointRows : kCheckpointRows;
    if (judge) JudgeStart();
    scanner_ = std::make_unique<TKvTextScanner>(MakeScanConfig(settings_, encoding_ != encAnsi), scanStart_);
    scanPos_ = scanStart_;
    checkpoints_.push_back({0, scanStart_, 0});
    if (notUtf8At_ >= 0) Warn(notUtf8At_, kNotUtf8, false);
    const int64_t header = scanner_->Config().HeaderRecord;
    while (header > 0 && scanner_->Records < header && Advance(true)) {
    }
    std::stable_sort(warnings_.begin(), warnings_.end(),
                     [](const TKvTextWarning& a, const TKvTextWarning& b) { return a.Line < b.Line; });
    warningsTaken_ = warnings_.size();
    active_ = true;
}

// Checks the first bytes as UTF-8. When they are, the text is read as UTF-8 and the bytes after them are
// checked as the scan passes them. Stray bytes so soon make every byte up to the last wanted record
// decide, as a file written by a Windows-1252 tool and a UTF-8 one with a few stray bytes need telling
// apart by more than their first lines.
void TKvTextFile::JudgeStart() {
    if (settings_.Encoding && *settings_.Encoding != encUtf8Mixed) {
        checkRows_ = true; // UTF-8 was asked for: no guessing
        return;
    }
    const size_t judgeBytes = settings_.JudgeBytes ? settings_.JudgeBytes : kJudgeBytes;
    const int64_t checked = std::min(inputEnd_, scanStart_ + static_cast<int64_t>(judgeBytes));
    auto first = std::make_unique<TKvUtf8Validator>();
    ReadRange(scanStart_, checked, 0, [&](const char* d, size_t n, size_t, int64_t) {
        first->Feed(d, n);
        return true;
    });
    if (checked == inputEnd_) first->Finish();
    if (first->Valid()) {
        if (checked < inputEnd_) {
            lateCheck_ = std::move(first);
            checkedTo_ = checked;
        }
        return;
    }
    TKvTextScanner scanner(MakeScanConfig(settings_, true), scanStart_);
    TKvUtf8Validator whole;
    ScanInput(scanner, memory_, inMemory_ ? nullptr : stream_, scanStart_, inputEnd_, blockSize_,
              [&](const char* d, int64_t base, size_t n) {
                  const int64_t to = base + static_cast<int64_t>(n);
                  const int64_t upTo = scanner.Done() ? std::min(to, scanner.StopOffset) : to;
                  if (upTo > base) whole.Feed(d, static_cast<size_t>(upTo - base));
              });
    whole.Finish(); // a sequence cut by the stop is malformed too
    Judge(whole);
}

// Decides the encoding by what the UTF-8 check of the whole text met.
void TKvTextFile::Judge(const TKvUtf8Validator& validator) {
    if (validator.Valid()) return;
    // A BOM promises UTF-8, and so do valid sequences that outnumber the stray bytes: a file saved once by
    // a Windows-1252 tool should not turn every accented letter of its other lines into two.
    if (settings_.Encoding || encoding_ == encUtf8Bom || validator.Sequences() > validator.InvalidBytes()) {
        encoding_ = encUtf8Mixed;
        notUtf8At_ = scanStart_ + validator.FirstInvalid();
        return;
    }
    encoding_ = encAnsi;
}

// Cuts the next row, or with `toHeader` stops at the header record too; false once no row is left. A
// read that fails is tried once more: the row then cut reports the failure, as a row whose bytes could
// not be read; a second failure in a row is passed on, and so ends the reading.
bool TKvTextFile::Advance(bool toHeader) {
    TKvTextScanner& scanner = *scanner_;
    std::exception_ptr failure;
    bool more = false; // the bytes in hand are scanned: read on
    while (!scanner.Ended()) {
        const char* data = memory_.empty() ? "" : memory_.data() + scanPos_;
        size_t size = memory_.size() - static_cast<size_t>(std::min<int64_t>(scanPos_, memory_.size()));
        bool final = true;
        if (!inMemory_) {
            if (more || scanPos_ < windowStart_ ||
                scanPos_ > windowStart_ + static_cast<int64_t>(windowLength_))
                TryTwice(failure, [&] { Refill(more); });
            more = false;
            data = window_.empty() ? "" : window_.data() + (scanPos_ - windowStart_);
            size = static_cast<size_t>(windowStart_ + static_cast<int64_t>(windowLength_) - scanPos_);
            final = windowFinal_;
        }
        const int64_t base = scanPos_;
        scanPos_ += static_cast<int64_t>(scanner.Feed(data, size, base, final));
        if (lateCheck_) TryTwice(failure, [&] { CheckLateBytes(data, base, size, final, scanner); });
        if (scanner.Unclosed >= 0 && !unclosedWarned_) TryTwice(failure, [&] { WarnUnclosed(scanner); });
        if (scanner.HeaderMet && scanner.HasHeader && !hasHeader_) {
            Decode(Fetch(scanner.Header), headerLine_);
            hasHeader_ = true;
        }
        if (scanner.Cut) {
            cut_ = scanner.Row;
            cutRecord_ = scanner.Records;
            if (cutRows_ % checkpointRows_ == 0 && cutRows_ / checkpointRows_ == std::ssize(checkpoints_))
                checkpoints_.push_back({cutRows_, cut_.Offset, cutRecord_ - 1});
            failure_ = failure;
            failureRow_ = cutRows_++;
            return true;
        }
        if (scanner.HeaderMet) {
            if (toHeader) return true;
            continue;
        }
        more = true;
    }
    rowTotal_ = cutRows_;
    recordTotal_ = scanner.Records;
    // Nothing was lost, but a user should know that the input failed once.
    if (failure)
        warnings_.push_back(
            {0, "a read of the input failed and worked when tried again: " + MessageOf(failure), false});
    return false;
}

// Reads the window again from where the open record starts, so that the row it becomes is decoded from
// there, and on past where the scan stands. `more`: the bytes in hand were not enough, so the window
// reaches further than before. A record longer than a block doubles it, so it is read again only a few
// times.
void TKvTextFile::Refill(bool more) {
    const int64_t from = std::min(scanner_->RecordStart(), scanPos_);
    const int64_t windowEnd = windowStart_ + static_cast<int64_t>(windowLength_);
    const int64_t reached =
        more && from >= windowStart_ && from < windowEnd ? std::max(windowEnd, scanPos_) : scanPos_;
    auto want = std::max(blockSize_, 2 * static_cast<size_t>(reached - from));
    want = static_cast<size_t>(std::min<int64_t>(static_cast<int64_t>(want), inputEnd_ - from));
    windowLength_ = 0;
    windowFinal_ = false;
    // A window grown for a long record goes back to a block afterwards.
    if (window_.size() < want || window_.size() > 4 * std::max(want, blockSize_)) {
        std::vector<char>().swap(window_);
        window_.resize(want);
    }
    if (stream_->Seek(from, soBeginning) != from) throw EReadError("Stream read error");
    const size_t got = want ? stream_->ReadUpTo(window_.data(), want) : 0;
    if (got < want) throw EReadError("Stream read error"); // the file has shrunk since it was opened
    windowStart_ = from;
    windowLength_ = got;
    windowFinal_ = from + static_cast<int64_t>(got) >= inputEnd_;
}

// Checks as UTF-8 the bytes the last feed took that were not checked yet (up to the last wanted record),
// and reads the text as encUtf8Mixed from the first stray byte on: the rows before it are UTF-8, which
// encUtf8Mixed reads alike, so nothing served changes. `size` bytes are in hand from `base`, and `final`
// when they reach the end of the input.
void TKvTextFile::CheckLateBytes(const char* data, int64_t base, size_t size, bool final,
                                 const TKvTextScanner& scanner) {
    const int64_t to = scanner.Done() ? scanner.StopOffset : scanPos_;
    if (to > checkedTo_) {
        lateCheck_->Feed(data + (checkedTo_ - base), static_cast<size_t>(to - checkedTo_));
        checkedTo_ = to;
    }
    // A record may end inside a sequence the bytes after it complete or break (a row of a fixed length
    // that ends in the first byte of a broken one): they are in hand, as the scan keeps a whole sequence
    // for its tail, and tell before the row is decoded. One still open at the end, or at the stop, is
    // malformed.
    const int64_t end = base + static_cast<int64_t>(size);
    while (lateCheck_->Open() && scanStart_ + lateCheck_->OpenStart() < to && checkedTo_ < end)
        lateCheck_->Feed(data + (checkedTo_++ - base), 1);
    if (scanner.Ended() || (final && checkedTo_ == end)) lateCheck_->Finish();
    if (!lateCheck_->Valid()) {
        const int64_t at = scanStart_ + lateCheck_->FirstInvalid();
        if (at < to) {
            Warn(at, kNotUtf8, false);
            encoding_ = encUtf8Mixed;
        }
    } else if (!scanner.Ended()) {
        return;
    }
    if (scanner.Ended() || encoding_ == encUtf8Mixed) lateCheck_.reset();
}

void TKvTextFile::WarnUnclosed(const TKvTextScanner& scanner) {
    const int64_t field = UnclosedField(scanner.Config(), scanner.Unclosed, scanner.End);
    const auto [ends, endsWithLine] = CountLineEnds(field, scanner.End);
    Warn(field,
         "the quoted field that starts on this line is never closed: it takes in the " +
             LinesAfter(ends - (endsWithLine ? 1 : 0)) + " after it, to the end of the file",
         true);
    unclosedWarned_ = true;
}

void TKvTextFile::Rewind(int64_t index) {
    const auto at = std::min(static_cast<size_t>(index / checkpointRows_), checkpoints_.size() - 1);
    const TCheckpoint& checkpoint = checkpoints_[at];
    scanner_->Restart(checkpoint.Offset, checkpoint.Records);
    scanPos_ = checkpoint.Offset;
    cutRows_ = checkpoint.Row;
    failure_ = nullptr;
    failureRow_ = -1;
}

bool TKvTextFile::HasRow(int64_t index) {
    if (!active_ || index < 0) return false;
    if (index == cutRows_ - 1) return true;
    if (rowTotal_ >= 0 && index >= rowTotal_) return false;
    if (index < cutRows_) Rewind(index);
    while (cutRows_ <= index)
        if (!Advance(false)) return false;
    return true;
}

int64_t TKvTextFile::RowCount() {
    if (!active_) return 0;
    if (rowTotal_ < 0) HasRow(INT64_MAX);
    return rowTotal_;
}

int64_t TKvTextFile::RecordCount() {
    if (!active_) return 0;
    RowCount();
    return recordTotal_;
}

int64_t TKvTextFile::CountRows() const {
    if (!CanCountApart()) return 0;
    TKvTextScanner scanner(scanner_->Config(), scanStart_);
    std::unique_ptr<TStream> own;
    if (!inMemory_) own = std::make_unique<TFileStream>(fileName_, fmOpenRead | fmShareDenyNone);
    int64_t rows = 0;
    ScanInput(scanner, memory_, own.get(), scanStart_, inputEnd_, blockSize_,
              [&](const char*, int64_t, size_t) { rows += scanner.Cut ? 1 : 0; });
    return rows;
}

void TKvTextFile::TakeNewWarnings(std::vector<TKvTextWarning>& out) {
    out.insert(out.end(), warnings_.begin() + static_cast<std::ptrdiff_t>(warningsTaken_), warnings_.end());
    warningsTaken_ = warnings_.size();
}

void TKvTextFile::Warn(int64_t offset, std::string message, bool problem) {
    warnings_.push_back({1 + CountLineEnds(inputStart_, offset).first, std::move(message), problem});
}

// Hands the input's bytes [from, to) to `visit(data, count, available, offset)` block by block: `count`
// bytes at `offset`, and up to `overlap` more after them where the range goes on, so that a pattern
// starting in the block can be compared whole. Stops when `visit` returns false. The first bytes' check
// and the warnings read the input like this, apart from the row scan's window.
void TKvTextFile::ReadRange(int64_t from, int64_t to, size_t overlap,
                            const std::function<bool(const char*, size_t, size_t, int64_t)>& visit,
                            TStream* stream) {
    if (to <= from) return;
    if (!stream) stream = stream_;
    if (inMemory_) {
        const auto n = static_cast<size_t>(to - from);
        visit(memory_.data() + from, n, n, from);
        return;
    }
    std::vector<char> buffer(blockSize_ + overlap);
    for (int64_t at = from; at < to; at += static_cast<int64_t>(blockSize_)) {
        const auto want =
            static_cast<size_t>(std::min<int64_t>(to - at, static_cast<int64_t>(buffer.size())));
        if (stream->Seek(at, soBeginning) != at) throw EReadError("Stream read error");
        const size_t got = stream->ReadUpTo(buffer.data(), want);
        if (got < want) throw EReadError("Stream read error"); // the file has shrunk since it was scanned
        if (!visit(buffer.data(), std::min(got, blockSize_), got, at)) return;
    }
}

// A CR LF counts once, at its CR. Also tells whether the last byte ends a line.
std::pair<int64_t, bool> TKvTextFile::CountLineEnds(int64_t from, int64_t to, TStream* stream) {
    int64_t ends = 0;
    char previous = 0;
    // The byte before `from` tells whether an LF there ends a line of its own.
    const int64_t first = std::max(from - 1, inputStart_);
    ReadRange(
        first, to, 0,
        [&](const char* d, size_t n, size_t, int64_t at) {
            for (size_t i = 0; i < n; ++i) {
                const char c = d[i];
                if (at + static_cast<int64_t>(i) >= from && (c == '\r' || (c == '\n' && previous != '\r')))
                    ++ends;
                previous = c;
            }
            return true;
        },
        stream);
    return {ends, previous == '\r' || previous == '\n'};
}

int64_t TKvTextFile::StartLine(const TKvTextRowPlace& place) {
    const int64_t offset = place.Offset;
    if (!inMemory_ && !lineStream_) {
        if (fileName_.empty()) return 0;
        lineStream_ = std::make_unique<TFileStream>(fileName_, fmOpenRead | fmShareDenyNone);
    }
    if (lineOffset_ < 0 || offset < lineOffset_) {
        lineOffset_ = inputStart_;
        lineNumber_ = 1;
    }
    lineNumber_ += CountLineEnds(lineOffset_, offset, lineStream_.get()).first;
    lineOffset_ = offset;
    return lineNumber_;
}

double TKvTextFile::ReadFraction(const TKvTextRowPlace& place) const {
    const int64_t size = inputEnd_ - scanStart_;
    if (size <= 0) return 1;
    return std::clamp(static_cast<double>(place.Offset - scanStart_) / static_cast<double>(size), 0.0, 1.0);
}

// The record from `from` to the end of the input was kept open by a qualifier. The field to blame is the
// first of its quoted sections that takes in a record separator (after it every qualifier toggles the
// wrong way), else the section still open at the end. Returns where its opening qualifier lies.
int64_t TKvTextFile::UnclosedField(const TKvTextScanConfig& config, int64_t from, int64_t to) {
    const std::string& qualifier = config.Qualifier;
    const std::string& separator = config.Separator;
    bool inside = false;
    int64_t opened = from, spanning = -1;
    size_t carry = 0; // bytes of a qualifier that reach into the next block
    ReadRange(from, to, std::max(qualifier.size(), separator.size()),
              [&](const char* d, size_t n, size_t available, int64_t at) {
                  const auto matches = [&](size_t i, const std::string& pattern) {
                      return !pattern.empty() && i + pattern.size() <= available &&
                             std::memcmp(d + i, pattern.data(), pattern.size()) == 0;
                  };
                  size_t i = carry;
                  for (; i < n; ++i) {
                      if (matches(i, qualifier)) {
                          if (!inside) opened = at + static_cast<int64_t>(i);
                          inside = !inside;
                          i += qualifier.size() - 1;
                      } else if (inside &&
                                 (config.LineBreaks ? d[i] == '\r' || d[i] == '\n' : matches(i, separator))) {
                          spanning = opened;
                          return false;
                      }
                  }
                  carry = i - n;
                  return true;
              });
    return spanning >= 0 ? spanning : opened;
}

std::string_view TKvTextFile::Fetch(const TKvTextRecordSpan& span) {
    if (span.Length == 0) return {};
    if (inMemory_) return memory_.substr(static_cast<size_t>(span.Offset), static_cast<size_t>(span.Length));
    const int64_t windowEnd = windowStart_ + static_cast<int64_t>(windowLength_);
    if (span.Offset < windowStart_ || span.Offset + span.Length > windowEnd) {
        // Not where the scan left it (the window always holds the row just cut): read it alone.
        const auto want = static_cast<size_t>(
            std::min(std::max(static_cast<int64_t>(blockSize_), span.Length), inputEnd_ - span.Offset));
        if (window_.size() < want) window_.resize(want);
        windowLength_ = 0;
        windowFinal_ = false;
        if (stream_->Seek(span.Offset, soBeginning) != span.Offset) throw EReadError("Stream read error");
        const size_t got = stream_->ReadUpTo(window_.data(), want);
        if (got < static_cast<size_t>(span.Length)) throw EReadError("Stream read error");
        windowStart_ = span.Offset;
        windowLength_ = got;
        windowFinal_ = span.Offset + static_cast<int64_t>(got) >= inputEnd_;
    }
    return std::string_view(window_.data() + (span.Offset - windowStart_), static_cast<size_t>(span.Length));
}

void TKvTextFile::Decode(std::string_view bytes, std::string& out) const {
    if (encoding_ == encAnsi) {
        out.clear();
        size_t i = 0;
        while (i < bytes.size()) {
            size_t run = i;
            while (run < bytes.size() && static_cast<unsigned char>(bytes[run]) < 0x80) ++run;
            out.append(bytes.data() + i, run - i);
            if (run < bytes.size())
                out += CodePageChar(static_cast<unsigned char>(bytes[run++]), cpWindows1252);
            i = run;
        }
    } else if (encoding_ == encUtf8Mixed) {
        out.clear();
        AppendUtf8OrWindows1252(out, bytes);
    } else if (checkRows_ && !IsValidUtf8(bytes)) {
        out.clear();
        for (size_t pos = 0; pos < bytes.size();) Utf8Append(out, Utf8Decode(bytes, pos));
    } else {
        out.assign(bytes.data(), bytes.size());
    }
}

const std::string& TKvTextFile::Row(int64_t index) {
    if (!HasRow(index)) throw EListError("List index out of bounds (" + IntToStr(index) + ")");
    if (failure_ && failureRow_ == index) std::rethrow_exception(std::exchange(failure_, nullptr));
    Decode(Fetch(cut_), line_);
    return line_;
}

TKvTextRowPlace TKvTextFile::RowPlace(int64_t index) {
    if (!HasRow(index)) throw EListError("List index out of bounds (" + IntToStr(index) + ")");
    return {cutRecord_, cut_.Offset};
}

TKvTextRecordSpan TKvTextFile::RowSpan(int64_t index) {
    if (!HasRow(index)) throw EListError("List index out of bounds (" + IntToStr(index) + ")");
    return cut_;
}

} // namespace kv
