#include "readers/text/KvTextFile.h"

#include "platform/Exceptions.h"
#include "platform/SysUtils.h"
#include "platform/Utf8.h"
#include "readers/text/KvTextScanInternal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
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

// Reads until `count` bytes or the end: a stream may hand out less than asked.
size_t ReadFully(TStream& stream, char* buffer, size_t count) {
    size_t done = 0;
    while (done < count) {
        const size_t n = stream.Read(buffer + done, count - done);
        if (n == 0) break;
        done += n;
    }
    return done;
}

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

} // namespace

TKvTextFile::TKvTextFile() = default;
TKvTextFile::~TKvTextFile() = default;

void TKvTextFile::Close() {
    active_ = false;
    encoding_ = encUtf8;
    sanitize_ = false;
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
    size_t start = 0;
    bool validate = true;
    if (StartsWith(bytes, "\xFF\xFE", 2) || StartsWith(bytes, "\xFE\xFF", 2)) {
        const bool bigEndian = bytes[0] == '\xFE';
        encoding_ = bigEndian ? encUtf16BE : encUtf16LE;
        std::string decoded = Utf16ToUtf8(bytes.substr(2), bigEndian);
        ownedBytes_ = std::move(decoded); // may replace the bytes just read
        bytes = ownedBytes_;
        validate = false;
    } else if (StartsWith(bytes, "\xEF\xBB\xBF", 3)) {
        encoding_ = encUtf8Bom;
        start = 3;
    }
    memory_ = bytes;
    const auto begin = static_cast<int64_t>(start);
    for (bool utf8 = true;; utf8 = false) {
        TKvTextScanner scanner(MakeScanConfig(settings_, utf8), begin);
        scanner.Feed(bytes.data() + start, bytes.size() - start, begin, true);
        if (utf8 && validate) {
            // Judged by the bytes up to the last wanted record, as a scan of the file in blocks does.
            TKvUtf8Validator validator;
            const size_t end = scanner.Done() ? static_cast<size_t>(scanner.StopOffset) : bytes.size();
            validator.Feed(bytes.data() + start, std::max(end, start) - start);
            validator.Finish(); // a sequence cut by the stop is malformed too
            if (!validator.Valid()) {
                if (encoding_ == encUtf8Bom) {
                    sanitize_ = true;
                } else {
                    encoding_ = encAnsi;
                    if (BoundariesDependOnEncoding(settings_)) continue;
                }
            }
        }
        Finish(scanner);
        return;
    }
}

void TKvTextFile::OpenSeekable(TStream& stream, int64_t start) {
    char head[3];
    if (stream.Seek(start, soBeginning) != start) throw EReadError("Stream read error");
    const size_t headLength = ReadFully(stream, head, sizeof head);
    const std::string_view headView(head, headLength);
    if (StartsWith(headView, "\xFF\xFE", 2) || StartsWith(headView, "\xFE\xFF", 2)) {
        // UTF-16 is decoded as a whole and served from memory.
        stream.Seek(start, soBeginning);
        ownedBytes_ = stream.ReadAll();
        stream_ = nullptr;
        OpenMemory(ownedBytes_);
        return;
    }
    const bool bom = StartsWith(headView, "\xEF\xBB\xBF", 3);
    encoding_ = bom ? encUtf8Bom : encUtf8;
    const int64_t scanStart = start + (bom ? 3 : 0);
    std::vector<char> buffer;

    // One pass reads every block once. The bytes up to the last wanted record are checked as UTF-8 as they
    // go by; text that turns out not to be UTF-8 is Windows-1252, which needs a second pass only when the
    // record boundaries depend on the encoding.
    for (bool utf8 = true;; utf8 = false) {
        TKvTextScanner scanner(MakeScanConfig(settings_, utf8), scanStart);
        TKvUtf8Validator validator;
        bool validating = utf8, restart = false;
        buffer.resize(blockSize_ + scanner.Tail());
        if (stream.Seek(scanStart, soBeginning) != scanStart) throw EReadError("Stream read error");
        size_t keep = 0;
        int64_t base = scanStart;
        while (!scanner.Done()) {
            const size_t got = ReadFully(stream, buffer.data() + keep, blockSize_);
            const bool last = got < blockSize_;
            const size_t size = keep + got;
            const size_t consumed = scanner.Feed(buffer.data(), size, base, last);
            if (validating) {
                // Everything before `base` has been checked. A CR dropped before an LF at the start of the
                // buffer may put the stop just before it.
                const int64_t end =
                    scanner.Done() ? scanner.StopOffset : base + static_cast<int64_t>(consumed);
                validator.Feed(buffer.data(), static_cast<size_t>(std::max<int64_t>(end - base, 0)));
                if (last || scanner.Done()) validator.Finish();
                if (!validator.Valid()) {
                    validating = false;
                    if (bom) {
                        sanitize_ = true;
                    } else {
                        encoding_ = encAnsi;
                        if (BoundariesDependOnEncoding(settings_)) {
                            restart = true;
                            break;
                        }
                    }
                }
            }
            if (last) break;
            keep = size - consumed;
            std::memmove(buffer.data(), buffer.data() + consumed, keep);
            base += static_cast<int64_t>(consumed);
        }
        if (restart) continue;
        Finish(scanner);
        return;
    }
}

void TKvTextFile::Finish(TKvTextScanner& scanner) {
    records_ = scanner.Records;
    rows_ = std::move(scanner.Rows);
    numbering_ = std::move(scanner.Numbering);
    hasHeader_ = scanner.HasHeader;
    active_ = true;
    if (hasHeader_) Decode(Fetch(scanner.Header), headerLine_);
}

std::string_view TKvTextFile::Fetch(const TKvTextRecordSpan& span) {
    if (inMemory_) return memory_.substr(static_cast<size_t>(span.Offset), static_cast<size_t>(span.Length));
    const int64_t windowEnd = windowStart_ + static_cast<int64_t>(windowLength_);
    if (span.Offset < windowStart_ || span.Offset + span.Length > windowEnd) {
        const size_t want = std::max(blockSize_, static_cast<size_t>(span.Length));
        if (window_.size() < want) window_.resize(want);
        windowLength_ = 0;
        if (stream_->Seek(span.Offset, soBeginning) != span.Offset) throw EReadError("Stream read error");
        const size_t got = ReadFully(*stream_, window_.data(), want);
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
