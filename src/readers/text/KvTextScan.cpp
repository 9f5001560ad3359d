#include "readers/text/KvTextScanInternal.h"

#include "platform/Utf8.h"

#include <algorithm>
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace kv {

namespace {

// The first CR or LF in d[from, to), else `to`. One pass finds either, so a file of CR LF lines costs no
// more than one search a line, as a single memchr did for LF alone.
size_t FindLineBreak(const char* d, size_t from, size_t to) {
    size_t i = from;
#if defined(__SSE2__)
    const __m128i cr = _mm_set1_epi8('\r'), lf = _mm_set1_epi8('\n');
    for (; i + 16 <= to; i += 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(d + i));
        const int mask = _mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi8(v, cr), _mm_cmpeq_epi8(v, lf)));
        if (mask) return i + static_cast<size_t>(__builtin_ctz(static_cast<unsigned>(mask)));
    }
#else
    if (const void* lf = std::memchr(d + i, '\n', to - i))
        to = static_cast<size_t>(static_cast<const char*>(lf) - d);
    if (const void* cr = std::memchr(d + i, '\r', to - i))
        return static_cast<size_t>(static_cast<const char*>(cr) - d);
    return to;
#endif
    for (; i < to; ++i)
        if (d[i] == '\r' || d[i] == '\n') return i;
    return to;
}

} // namespace

void TKvUtf8Validator::Feed(const char* data, size_t size) {
    const auto* p = reinterpret_cast<const unsigned char*>(data);
    size_t i = 0;
    while (i < size) {
        if (need_ == 0) {
            // Eight ASCII bytes at a time: most text is mostly ASCII.
            while (i + 8 <= size) {
                uint64_t word;
                std::memcpy(&word, p + i, 8);
                if (word & 0x8080808080808080ull) break;
                i += 8;
            }
            if (i >= size) break;
            const unsigned char c = p[i++];
            if (c < 0x80) continue;
            lo_ = 0x80, hi_ = 0xBF;
            if (c >= 0xC2 && c <= 0xDF) {
                need_ = 1;
            } else if (c >= 0xE0 && c <= 0xEF) {
                need_ = 2;
                if (c == 0xE0) lo_ = 0xA0; // no overlong forms
                if (c == 0xED) hi_ = 0x9F; // no surrogates
            } else if (c >= 0xF0 && c <= 0xF4) {
                need_ = 3;
                if (c == 0xF0) lo_ = 0x90;
                if (c == 0xF4) hi_ = 0x8F; // nothing above U+10FFFF
            } else {
                Invalid(fed_ + static_cast<int64_t>(i) - 1, 1);
                continue;
            }
            start_ = fed_ + static_cast<int64_t>(i) - 1;
            taken_ = 1;
        } else {
            const unsigned char c = p[i];
            if (c < lo_ || c > hi_) {
                // The sequence so far starts nothing; this byte may start the next one.
                Invalid(start_, taken_);
                need_ = 0;
                continue;
            }
            ++i, ++taken_;
            lo_ = 0x80, hi_ = 0xBF;
            if (--need_ == 0) ++sequences_;
        }
    }
    fed_ += static_cast<int64_t>(size);
}

void TKvUtf8Validator::Finish() {
    if (need_) Invalid(start_, taken_);
    need_ = 0;
}

void TKvUtf8Validator::Invalid(int64_t at, int count) {
    if (firstInvalid_ < 0) firstInvalid_ = at;
    invalid_ += count;
}

TKvTextScanner::TKvTextScanner(const TKvTextScanConfig& config, int64_t start) : config_(config) {
    if (config_.SeparatorNever) config_.Separator.clear();
    if (!config_.Separator.empty()) config_.FixedChars = 0;
    if (config_.Separator.empty()) config_.SkipBlank = false; // records of a length are not lines
    tail_ = std::max(config_.Separator.size(), config_.Qualifier.size());
    if (tail_) --tail_;
    if (config_.LineBreaks && !config_.Separator.empty()) tail_ = std::max<size_t>(tail_, 1); // CR, then LF?
    if (config_.FixedChars > 0 && config_.Utf8Chars) tail_ = 3; // a whole sequence, to judge it
    stopAt_ = std::max(config_.RowLast, config_.HeaderRecord);
    Restart(start, 0);
}

void TKvTextScanner::Restart(int64_t offset, int64_t records) {
    Records = records;
    recordStart_ = offset;
    inside_ = false;
    chars_ = 0;
    empty_ = config_.SkipEmpty;
    blank_ = config_.SkipBlank;
    ended_ = false;
    End = Unclosed = StopOffset = -1;
    Cut = HeaderMet = false;
    separator_ = qualifier_ = TFound{};
    // Nothing wanted at all: no need to look at a byte.
    done_ =
        stopAt_ < 1 || (config_.RowFirst > config_.RowLast && config_.HeaderRecord < 1) || records >= stopAt_;
    if (done_) StopOffset = offset;
}

size_t TKvTextScanner::Feed(const char* data, size_t size, int64_t base, bool final) {
    Cut = HeaderMet = false;
    if (Ended()) return size;
    size_t consumed = size;
    const size_t limit = final ? size : (size > tail_ ? size - tail_ : 0);
    if (!config_.Separator.empty())
        consumed = FeedSeparated(data, size, limit, base);
    else if (config_.FixedChars > 0)
        consumed = FeedFixed(data, size, limit, base);
    if (done_) return size;
    if (Cut || HeaderMet) return consumed; // the open record starts where the feed stopped
    if (empty_ || blank_) CheckBlank(data, OpenRecordIndex(base), consumed);
    if (final) {
        ended_ = true;
        End = base + static_cast<int64_t>(size);
        if (inside_) Unclosed = recordStart_;
        if (recordStart_ < End) EndRecord(data, size, base);
    }
    return consumed;
}

size_t TKvTextScanner::OpenRecordIndex(int64_t base) const {
    return static_cast<size_t>(std::max<int64_t>(recordStart_ - base, 0));
}

// Outside a qualified section the next event is the nearer of the next separator and the next qualifier;
// inside one it is the next qualifier. Both positions come from memchr and are kept until passed, so the
// buffer is searched about once per pattern whatever the mix. With line breaks the separator is any of
// CR LF, LF and CR; the tail keeps a CR from being judged before the byte after it is there.
size_t TKvTextScanner::FeedSeparated(const char* d, size_t n, size_t limit, int64_t base) {
    const std::string& sep = config_.Separator;
    const std::string& qual = config_.Qualifier;
    const bool hasQualifier = !qual.empty();
    const bool lineBreaks = config_.LineBreaks;
    const int64_t end = base + static_cast<int64_t>(limit);
    const auto find = [&](char c, size_t from) -> size_t {
        const void* hit = std::memchr(d + from, c, limit - from);
        return hit ? static_cast<size_t>(static_cast<const char*>(hit) - d) : limit;
    };
    const auto matches = [&](size_t at, const std::string& pattern) {
        return pattern.size() == 1 ||
               (at + pattern.size() <= n && std::memcmp(d + at, pattern.data(), pattern.size()) == 0);
    };
    const auto kept = [&](const TFound& found) {
        return static_cast<size_t>(std::min(found.At, end) - base);
    };
    size_t p = 0, nextSep = 0, nextQual = 0;
    bool sepKnown = Holds(separator_, base, end), qualKnown = Holds(qualifier_, base, end);
    if (sepKnown) nextSep = kept(separator_);
    if (qualKnown) nextQual = kept(qualifier_);
    while (p < limit && !done_) {
        if (!qualKnown || nextQual < p) {
            nextQual = hasQualifier ? find(qual[0], p) : limit;
            qualifier_ = {base + static_cast<int64_t>(p), end, base + static_cast<int64_t>(nextQual)};
            qualKnown = true;
        }
        if (inside_) {
            if (nextQual >= limit) return limit;
            if (matches(nextQual, qual)) {
                inside_ = false;
                p = nextQual + qual.size();
            } else {
                p = nextQual + 1;
            }
            continue;
        }
        if (!sepKnown || nextSep < p) {
            nextSep = lineBreaks ? FindLineBreak(d, p, limit) : find(sep[0], p);
            separator_ = {base + static_cast<int64_t>(p), end, base + static_cast<int64_t>(nextSep)};
            sepKnown = true;
        }
        if (nextQual < nextSep) {
            if (matches(nextQual, qual)) {
                inside_ = true;
                p = nextQual + qual.size();
            } else {
                p = nextQual + 1;
            }
            continue;
        }
        if (nextSep >= limit) return limit;
        if (lineBreaks) {
            EndRecord(d, nextSep, base);
            p = nextSep + (d[nextSep] == '\r' && nextSep + 1 < n && d[nextSep + 1] == '\n' ? 2 : 1);
            recordStart_ = base + static_cast<int64_t>(p);
        } else if (matches(nextSep, sep)) {
            EndRecord(d, nextSep, base);
            p = nextSep + sep.size();
            recordStart_ = base + static_cast<int64_t>(p);
        } else {
            p = nextSep + 1;
            continue;
        }
        if (Cut || HeaderMet) return p;
    }
    return p;
}

size_t TKvTextScanner::FeedFixed(const char* d, size_t n, size_t limit, int64_t base) {
    const int64_t width = config_.FixedChars;
    const int64_t end = base + static_cast<int64_t>(n);
    if (!config_.Utf8Chars) {
        // One byte a character: the boundaries are known without looking at the bytes.
        while (!done_ && end - recordStart_ >= width) {
            const int64_t next = recordStart_ + width;
            EndRecord(d, static_cast<size_t>(next - base), base);
            recordStart_ = next;
            if (Cut || HeaderMet) return static_cast<size_t>(next - base);
        }
        return n;
    }
    // Characters as the rows are decoded: a valid sequence is one, and so is every byte that starts none
    // (it becomes U+FFFD or a Windows-1252 character). Whole sequences lie before `limit`.
    const std::string_view text(d, n);
    size_t i = 0;
    while (i < limit && !done_) {
        if (chars_ == width) {
            EndRecord(d, i, base);
            recordStart_ = base + static_cast<int64_t>(i);
            chars_ = 0;
            if (Cut || HeaderMet) return i;
        }
        ++chars_;
        if (static_cast<unsigned char>(d[i]) < 0x80)
            ++i;
        else
            Utf8Decode(text, i);
    }
    return i;
}

// Narrows what the open record can still be, by its bytes d[from, to). Most records are ruled out by
// their first byte.
void TKvTextScanner::CheckBlank(const char* d, size_t from, size_t to) {
    for (size_t i = from; i < to && (empty_ || blank_); ++i) {
        const char c = d[i];
        blank_ = blank_ && (c == ' ' || c == '\t' || c == '\r');
        empty_ = empty_ && (static_cast<unsigned char>(c) <= ' ' ||
                            (config_.BlankDelimiter && c == config_.BlankDelimiter));
    }
}

void TKvTextScanner::EndRecord(const char* d, size_t endIndex, int64_t base) {
    const int64_t length = base + static_cast<int64_t>(endIndex) - recordStart_;
    if (empty_ || blank_) CheckBlank(d, OpenRecordIndex(base), endIndex);
    // An empty record is blank whichever way it is asked.
    Keep(recordStart_, length, length == 0 || empty_, length == 0 || blank_);
    empty_ = config_.SkipEmpty;
    blank_ = config_.SkipBlank;
}

void TKvTextScanner::Keep(int64_t offset, int64_t length, bool empty, bool blank) {
    ++Records;
    blank = blank && config_.SkipBlank;
    // A blank line where the names should be names nothing: the columns are then numbered.
    if (Records == config_.HeaderRecord) {
        HeaderMet = true;
        if (!blank) {
            HasHeader = true;
            Header = {offset, length};
        }
    }
    if (Records >= config_.RowFirst && Records <= config_.RowLast && !(config_.SkipEmpty && empty) &&
        !blank) {
        Cut = true;
        Row = {offset, length};
    }
    if (Records >= stopAt_) {
        done_ = true;
        StopOffset = offset + length;
    }
}

} // namespace kv
