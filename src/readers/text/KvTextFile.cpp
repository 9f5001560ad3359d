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

// Whether the record boundaries depend on reading the bytes as UTF-8 or as Windows-1252.
bool BoundariesDependOnEncoding(const TKvTextFileSettings& s) {
    const bool fixedLength = s.RecordSeparator.empty() && s.FixedLineLength > 0;
    return fixedLength || !IsAscii(s.RecordSeparator) || s.TextQualifier >= 0x80;
}

bool StartsWith(std::string_view bytes, const char* prefix, size_t n) {
    return bytes.size() >= n && std::memcmp(bytes.data(), prefix, n) == 0;
}

// How reading starts, by the first bytes and the setting.
struct TStartPlan {
    TTextEncoding Encoding = encUtf8; ///< so far; a UTF-16 one is decoded as a whole first
    size_t Skip = 0;                  ///< BOM bytes
    bool Judge = false;               ///< check the bytes as UTF-8 while scanning and decide after
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

} // namespace

TKvTextFile::TKvTextFile() = default;
TKvTextFile::~TKvTextFile() = default;

void TKvTextFile::Close() {
    active_ = false;
    encoding_ = encUtf8;
    sanitize_ = false;
    notUtf8At_ = -1;
    warnings_.clear();
    inputStart_ = 0;
    fileName_.clear();
    lineStream_.reset();
    lineOffset_ = -1;
    lineNumber_ = 1;
    records_ = 0;
    stream_ = nullptr;
    ownedStream_.reset();
    std::string().swap(ownedBytes_);
    memory_ = {};
    inMemory_ = false;
    std::vector<char>().swap(window_);
    windowStart_ = 0;
    windowLength_ = 0;
    hasHeader_ = false;
    headerLine_.clear();
    rows_.Clear();
    numbering_.clear();
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
    size_t start = plan.Skip;
    if (IsUtf16(encoding_)) {
        std::string decoded =
            Utf16ToUtf8(bytes.substr(std::min(start, bytes.size())), encoding_ == encUtf16BE);
        ownedBytes_ = std::move(decoded); // may replace the bytes just read
        bytes = ownedBytes_;
        start = 0;
    }
    memory_ = bytes;
    const auto begin = static_cast<int64_t>(start);
    for (bool utf8 = encoding_ != encAnsi;; utf8 = false) {
        TKvTextScanner scanner(MakeScanConfig(settings_, utf8), begin);
        scanner.Feed(bytes.data() + start, bytes.size() - start, begin, true);
        if (utf8 && plan.Judge) {
            // Judged by the bytes up to the last wanted record, as a scan of the file in blocks does.
            TKvUtf8Validator validator;
            const size_t end = scanner.Done() ? static_cast<size_t>(scanner.StopOffset) : bytes.size();
            validator.Feed(bytes.data() + start, std::max(end, start) - start);
            validator.Finish(); // a sequence cut by the stop is malformed too
            if (Judge(validator, begin)) continue;
        }
        Finish(scanner);
        return;
    }
}

void TKvTextFile::OpenSeekable(TStream& stream, int64_t start) {
    char head[3];
    if (stream.Seek(start, soBeginning) != start) throw EReadError("Stream read error");
    const size_t headLength = stream.ReadUpTo(head, sizeof head);
    const TStartPlan plan = PlanStart(std::string_view(head, headLength), settings_.Encoding);
    if (IsUtf16(plan.Encoding)) {
        // UTF-16 is decoded as a whole and served from memory.
        stream.Seek(start, soBeginning);
        ownedBytes_ = stream.ReadAll();
        stream_ = nullptr;
        OpenMemory(ownedBytes_);
        return;
    }
    encoding_ = plan.Encoding;
    inputStart_ = start;
    const int64_t scanStart = start + static_cast<int64_t>(plan.Skip);
    std::vector<char> buffer;

    // One pass reads every block once. The bytes up to the last wanted record are checked as UTF-8 as they
    // go by; text that turns out to be Windows-1252 needs a second pass only when the record boundaries
    // depend on the encoding.
    for (bool utf8 = encoding_ != encAnsi;; utf8 = false) {
        TKvTextScanner scanner(MakeScanConfig(settings_, utf8), scanStart);
        TKvUtf8Validator validator;
        const bool validating = utf8 && plan.Judge;
        buffer.resize(blockSize_ + scanner.Tail());
        if (stream.Seek(scanStart, soBeginning) != scanStart) throw EReadError("Stream read error");
        size_t keep = 0;
        int64_t base = scanStart;
        while (!scanner.Done()) {
            const size_t got = stream.ReadUpTo(buffer.data() + keep, blockSize_);
            const bool last = got < blockSize_;
            const size_t size = keep + got;
            const size_t consumed = scanner.Feed(buffer.data(), size, base, last);
            if (validating) {
                // Everything before `base` has been checked.
                const int64_t end =
                    scanner.Done() ? scanner.StopOffset : base + static_cast<int64_t>(consumed);
                validator.Feed(buffer.data(), static_cast<size_t>(std::max<int64_t>(end - base, 0)));
            }
            if (last) break;
            keep = size - consumed;
            std::memmove(buffer.data(), buffer.data() + consumed, keep);
            base += static_cast<int64_t>(consumed);
        }
        if (validating) {
            validator.Finish();
            if (Judge(validator, scanStart)) continue;
        }
        Finish(scanner);
        return;
    }
}

// Decides the encoding by what the UTF-8 check met; true when the records must be cut again, by bytes.
bool TKvTextFile::Judge(const TKvUtf8Validator& validator, int64_t start) {
    if (validator.Valid()) return false;
    const std::optional<TTextEncoding>& forced = settings_.Encoding;
    if (forced && *forced != encUtf8Mixed) {
        sanitize_ = true; // UTF-8 was asked for: no guessing
        return false;
    }
    // A BOM promises UTF-8, and so do valid sequences that outnumber the stray bytes: a file saved once by
    // a Windows-1252 tool should not turn every accented letter of its other lines into two.
    if (forced || encoding_ == encUtf8Bom || validator.Sequences() > validator.InvalidBytes()) {
        encoding_ = encUtf8Mixed;
        notUtf8At_ = start + validator.FirstInvalid();
        return false;
    }
    encoding_ = encAnsi;
    return BoundariesDependOnEncoding(settings_);
}

void TKvTextFile::Finish(TKvTextScanner& scanner) {
    records_ = scanner.Records;
    rows_ = std::move(scanner.Rows);
    numbering_ = std::move(scanner.Numbering);
    hasHeader_ = scanner.HasHeader;
    active_ = true;
    if (hasHeader_) Decode(Fetch(scanner.Header), headerLine_);
    if (notUtf8At_ >= 0)
        Warn(notUtf8At_, "bytes that are not UTF-8 were read as Windows-1252 characters", false);
    if (scanner.Unclosed >= 0) {
        const int64_t field = UnclosedField(scanner.Config(), scanner.Unclosed, scanner.End);
        const auto [ends, endsWithLine] = CountLineEnds(field, scanner.End);
        Warn(field,
             "the quoted field that starts on this line is never closed: it takes in the " +
                 LinesAfter(ends - (endsWithLine ? 1 : 0)) + " after it, to the end of the file",
             true);
    }
    std::stable_sort(warnings_.begin(), warnings_.end(),
                     [](const TKvTextWarning& a, const TKvTextWarning& b) { return a.Line < b.Line; });
}

void TKvTextFile::Warn(int64_t offset, std::string message, bool problem) {
    warnings_.push_back({1 + CountLineEnds(inputStart_, offset).first, std::move(message), problem});
}

// Hands the input's bytes [from, to) to `visit(data, count, available, offset)` block by block: `count`
// bytes at `offset`, and up to `overlap` more after them where the range goes on, so that a pattern
// starting in the block can be compared whole. Stops when `visit` returns false. Only warnings read the
// input again like this; the scan itself keeps nothing for them.
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

int64_t TKvTextFile::StartLine(int64_t index) {
    const int64_t offset = RowSpan(index).Offset;
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
    if (inMemory_) return memory_.substr(static_cast<size_t>(span.Offset), static_cast<size_t>(span.Length));
    const int64_t windowEnd = windowStart_ + static_cast<int64_t>(windowLength_);
    if (span.Offset < windowStart_ || span.Offset + span.Length > windowEnd) {
        const size_t want = std::max(blockSize_, static_cast<size_t>(span.Length));
        if (window_.size() < want) window_.resize(want);
        windowLength_ = 0;
        if (stream_->Seek(span.Offset, soBeginning) != span.Offset) throw EReadError("Stream read error");
        const size_t got = stream_->ReadUpTo(window_.data(), want);
        // The file has shrunk since it was scanned.
        if (got < static_cast<size_t>(span.Length)) throw EReadError("Stream read error");
        windowStart_ = span.Offset;
        windowLength_ = got;
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
    } else if (sanitize_) {
        out.clear();
        for (size_t pos = 0; pos < bytes.size();) Utf8Append(out, Utf8Decode(bytes, pos));
    } else {
        out.assign(bytes.data(), bytes.size());
    }
}

const std::string& TKvTextFile::Row(int64_t index) {
    if (index < 0 || index >= RowCount())
        throw EListError("List index out of bounds (" + IntToStr(index) + ")");
    Decode(Fetch(rows_[static_cast<size_t>(index)]), line_);
    return line_;
}

TKvTextRecordSpan TKvTextFile::RowSpan(int64_t index) const {
    if (index < 0 || index >= RowCount())
        throw EListError("List index out of bounds (" + IntToStr(index) + ")");
    return rows_[static_cast<size_t>(index)];
}

int64_t TKvTextFile::LineNumber(int64_t index) const {
    if (index < 0 || index >= RowCount())
        throw EListError("List index out of bounds (" + IntToStr(index) + ")");
    auto it = std::upper_bound(numbering_.begin(), numbering_.end(), index,
                               [](int64_t i, const std::pair<int64_t, int64_t>& p) { return i < p.first; });
    --it;
    return it->second + (index - it->first);
}

} // namespace kv
