#include "readers/markup/KvXMLInput.h"

#include "platform/Utf8.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace kv {

namespace {

constexpr size_t kBlockSize = size_t(1) << 20;
// The first bytes decide between UTF-8 and Windows-1252 when nothing names the encoding: enough to meet
// the first accented word of most documents, and still a single read.
constexpr size_t kHeadBytes = size_t(1) << 20;
// Bytes of a code page kept back at most while no ">" or line feed comes to cut after.
constexpr size_t kCodePageCarry = size_t(64) << 10;
const char* const kNotUtf8 = "bytes that are not UTF-8 were read as Windows-1252 characters";

std::string Lower(std::string_view s) {
    std::string out(s);
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

bool IsBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// The encoding="..." of an XML declaration at the start of `head` (read as ASCII), "" without one.
std::string DeclaredEncodingOf(std::string_view head) {
    size_t p = 0;
    while (p < head.size() && IsBlank(head[p])) ++p;
    if (head.substr(p, 5) != "<?xml") return {};
    const std::string_view declaration = head.substr(p, std::min<size_t>(head.find("?>", p), p + 1024) - p);
    size_t at = declaration.find("encoding");
    if (at == std::string_view::npos) return {};
    at += 8;
    while (at < declaration.size() && IsBlank(declaration[at])) ++at;
    if (at >= declaration.size() || declaration[at] != '=') return {};
    ++at;
    while (at < declaration.size() && IsBlank(declaration[at])) ++at;
    if (at >= declaration.size() || (declaration[at] != '"' && declaration[at] != '\'')) return {};
    const size_t end = declaration.find(declaration[at], at + 1);
    if (end == std::string_view::npos || end - at > 64) return {};
    return std::string(declaration.substr(at + 1, end - at - 1));
}

// IANA names that declarations use and the code-page layer spells otherwise.
std::optional<int> CodePageOfCharsetName(const std::string& lower) {
    static const struct {
        const char* Name;
        int CodePage;
    } names[] = {{"shift_jis", 932}, {"shift-jis", 932},      {"sjis", 932},     {"x-sjis", 932},
                 {"ms_kanji", 932},  {"windows-31j", 932},    {"gb2312", 936},   {"gbk", 936},
                 {"x-gbk", 936},     {"euc-cn", 936},         {"big5", 950},     {"x-big5", 950},
                 {"euc-kr", 949},    {"ks_c_5601-1987", 949}, {"gb18030", 54936}};
    for (const auto& n : names)
        if (lower == n.Name)
            return CodePageAvailable(n.CodePage) ? std::optional<int>(n.CodePage) : std::nullopt;
    return ParseCodePageName(lower);
}

// Bytes at the start that are ASCII, eight at a time.
size_t AsciiPrefix(std::string_view s) {
    size_t i = 0;
    for (; i + 8 <= s.size(); i += 8) {
        uint64_t word;
        std::memcpy(&word, s.data() + i, 8);
        if (word & 0x8080808080808080ULL) break;
    }
    while (i < s.size() && static_cast<unsigned char>(s[i]) < 0x80) ++i;
    return i;
}

// Well-formed UTF-8, with runs of ASCII passed eight bytes at a time.
bool IsUtf8(std::string_view s) {
    for (size_t pos = AsciiPrefix(s); pos < s.size(); pos += AsciiPrefix(s.substr(pos))) {
        const size_t before = pos;
        // A decoded U+FFFD is genuine only when it took its three bytes.
        if (Utf8Decode(s, pos) == U'\uFFFD' && pos - before != 3) return false;
    }
    return true;
}

// Where `bytes` stop short of a UTF-8 sequence that the next bytes may complete.
size_t Utf8CutPoint(std::string_view bytes) {
    const size_t n = bytes.size();
    for (size_t k = 1; k <= std::min<size_t>(4, n); ++k) {
        const auto b = static_cast<unsigned char>(bytes[n - k]);
        if ((b & 0xC0) == 0x80) continue;
        const size_t need = b >= 0xF0 ? 4 : b >= 0xE0 ? 3 : b >= 0xC0 ? 2 : 1;
        return k < need ? n - k : n;
    }
    return n;
}

// Where the first byte lies that starts no UTF-8 sequence, from `from` on (npos when none).
size_t FirstStray(std::string_view bytes, size_t from) {
    for (size_t pos = from; pos < bytes.size();) {
        const size_t before = pos;
        if (static_cast<unsigned char>(bytes[pos]) < 0x80) {
            ++pos;
            continue;
        }
        // A decoded U+FFFD is genuine only when it took its three bytes.
        if (Utf8Decode(bytes, pos) == U'\uFFFD' && pos - before != 3) return before;
    }
    return std::string_view::npos;
}

int64_t LineEnds(std::string_view s) {
    return std::count(s.begin(), s.end(), '\n');
}

} // namespace

TKvXMLDecoder::TKvXMLDecoder(size_t blockSize) : blockSize_(blockSize ? blockSize : kBlockSize) {}

void TKvXMLDecoder::Open(TStream& stream) {
    stream_ = &stream;
    start_ = stream.Position();
    const int64_t size = stream.Size();
    size_ = size >= start_ ? size - start_ : -1;
    head_.assign(size_ >= 0 ? static_cast<size_t>(std::min<int64_t>(size_, kHeadBytes)) : kHeadBytes, '\0');
    head_.resize(stream.ReadUpTo(head_.data(), head_.size()));
    ended_ = head_.size() < kHeadBytes;
    consumed_ = static_cast<int64_t>(head_.size());
    warnings_.clear();
    declared_.clear();
    codePageDecoder_.reset();
    Settle();
    Rewind();
}

void TKvXMLDecoder::Rewind() {
    if (!stream_) return;
    headUsed_ = static_cast<size_t>(skipped_);
    stream_->SetPosition(start_ + static_cast<int64_t>(head_.size()));
    ended_ = head_.size() < kHeadBytes;
    consumed_ = static_cast<int64_t>(head_.size());
    carry_.clear();
    lines_ = 1;
    countLines_ = charset_ != xcCodePage && !strayWarned_;
}

void TKvXMLDecoder::Settle() {
    const auto byte = [this](size_t i) {
        return i < head_.size() ? static_cast<unsigned char>(head_[i]) : 256u;
    };
    skipped_ = 0;
    charset_ = xcUtf8;
    strayWarned_ = false;
    if (byte(0) == 0xFF && byte(1) == 0xFE) {
        charset_ = xcUtf16LE, skipped_ = 2;
    } else if (byte(0) == 0xFE && byte(1) == 0xFF) {
        charset_ = xcUtf16BE, skipped_ = 2;
    } else if (byte(0) == 0xEF && byte(1) == 0xBB && byte(2) == 0xBF) {
        skipped_ = 3; // the mark decides, whatever a declaration says
    } else if (byte(0) == '<' && byte(1) == 0 && byte(2) == '?' && byte(3) == 0) {
        charset_ = xcUtf16LE;
    } else if (byte(0) == 0 && byte(1) == '<' && byte(2) == 0 && byte(3) == '?') {
        charset_ = xcUtf16BE;
    } else if (byte(0) == 0x4C && byte(1) == 0x6F && byte(2) == 0xA7 && byte(3) == 0x94) {
        // "<?xm" in EBCDIC: the declaration is read through the common EBCDIC code page.
        SettleDeclared(
            DeclaredEncodingOf(CodePageToUtf8(std::string_view(head_).substr(0, 256), cpEBCDIC037)), true);
    } else if (std::string name = DeclaredEncodingOf(head_); !name.empty()) {
        SettleDeclared(name, false);
    } else {
        SettleByBytes();
    }
}

void TKvXMLDecoder::SettleDeclared(const std::string& name, bool ebcdic) {
    declared_ = name;
    const std::string lower = Lower(name);
    const std::optional<int> codePage = CodePageOfCharsetName(lower);
    if (ebcdic) {
        charset_ = xcCodePage;
        codePage_ = codePage && *codePage != kCodePageUtf8 ? *codePage : 37;
        if (!name.empty() && codePage_ == 37 && codePage != 37)
            Warn(1, "the declaration names the encoding \"" + name +
                        "\", which is not known: the text is "
                        "read as EBCDIC (cp037)");
    } else if (lower == "us-ascii" || lower == "ascii") {
        SettleByBytes(); // what both readings agree on
    } else if (lower.starts_with("utf-16") || lower.starts_with("ucs-2") || lower.starts_with("utf-32") ||
               lower.starts_with("ucs-4") || lower == "unicode") {
        SettleByBytes();
        Warn(1, "the declaration names the encoding \"" + name +
                    "\", but the text is not written in it: it "
                    "is read as " +
                    EncodingName());
    } else if (codePage == kCodePageUtf8) {
        charset_ = xcUtf8;
    } else if (codePage) {
        charset_ = xcCodePage;
        codePage_ = *codePage;
    } else {
        SettleByBytes();
        Warn(1, "the declaration names the encoding \"" + name +
                    "\", which is not known: the text is read as " + EncodingName());
    }
    if (charset_ == xcCodePage) codePageDecoder_.emplace(codePage_);
}

void TKvXMLDecoder::SettleByBytes() {
    std::string_view text = std::string_view(head_).substr(static_cast<size_t>(skipped_));
    if (!ended_) text = text.substr(0, Utf8CutPoint(text));
    if (IsUtf8(text)) {
        charset_ = xcUtf8;
        return;
    }
    const size_t ascii = AsciiPrefix(text);
    // Mostly UTF-8 (more sequences than stray bytes) is UTF-8 with a few Windows-1252 bytes in it.
    int64_t sequences = 0, strays = 0;
    for (size_t pos = ascii; pos < text.size();) {
        const size_t before = pos;
        if (static_cast<unsigned char>(text[pos]) < 0x80) {
            ++pos;
            continue;
        }
        const char32_t c = Utf8Decode(text, pos);
        (c == U'\uFFFD' && pos - before != 3 ? strays : sequences) += 1;
    }
    if (sequences > strays) {
        charset_ = xcUtf8;
    } else {
        charset_ = xcCodePage;
        codePage_ = 1252;
        codePageDecoder_.emplace(codePage_);
    }
}

std::string TKvXMLDecoder::EncodingName() const {
    switch (charset_) {
    case xcUtf8:
        return "utf-8";
    case xcUtf16LE:
        return "utf-16le";
    case xcUtf16BE:
        return "utf-16be";
    case xcCodePage:
        break;
    }
    return CodePageDisplayName(codePage_);
}

double TKvXMLDecoder::ReadFraction() const {
    if (size_ <= 0) return size_ == 0 ? 1 : -1;
    const int64_t handed = static_cast<int64_t>(headUsed_) + consumed_ - static_cast<int64_t>(head_.size());
    return std::min(1.0, static_cast<double>(handed) / static_cast<double>(size_));
}

bool TKvXMLDecoder::ReadInput(std::string& into) {
    into.clear();
    if (headUsed_ < head_.size()) {
        const size_t n = std::min(blockSize_, head_.size() - headUsed_);
        into.assign(head_, headUsed_, n);
        headUsed_ += n;
        return true;
    }
    if (ended_ || !stream_) return false;
    into.resize(blockSize_);
    into.resize(stream_->ReadUpTo(into.data(), blockSize_));
    consumed_ += static_cast<int64_t>(into.size());
    ended_ = into.size() < blockSize_;
    return !into.empty();
}

bool TKvXMLDecoder::Read(std::string& out) {
    const size_t before = out.size();
    while (out.size() == before) {
        const bool got = ReadInput(input_);
        if (!got && carry_.empty()) return false;
        const bool final = headUsed_ == head_.size() && ended_;
        if (!carry_.empty()) {
            input_.insert(0, carry_);
            carry_.clear();
        }
        std::string_view bytes = input_;
        size_t cut = bytes.size();
        if (charset_ == xcUtf8) {
            if (!final) cut = Utf8CutPoint(bytes);
            DecodeUtf8(bytes.substr(0, cut), out);
        } else if (charset_ == xcUtf16LE || charset_ == xcUtf16BE) {
            const bool bigEndian = charset_ == xcUtf16BE;
            if (!final) {
                cut &= ~size_t(1);
                // A high surrogate waits for its partner.
                const auto high = [&](size_t at) {
                    const unsigned hi = static_cast<unsigned char>(bytes[bigEndian ? at : at + 1]);
                    return hi >= 0xD8 && hi <= 0xDB;
                };
                if (cut >= 2 && high(cut - 2)) cut -= 2;
            }
            const size_t from = out.size();
            out += Utf16ToUtf8(bytes.substr(0, cut), bigEndian);
            if (final && bytes.size() % 2)
                Warn(lines_ + LineEnds(std::string_view(out).substr(from)),
                     "the UTF-16 text ends in the middle of a character", true);
            if (countLines_) lines_ += LineEnds(std::string_view(out).substr(from));
        } else {
            // Multi-byte code pages never use the bytes of ">" or a line feed inside a character: a cut
            // after the last of them splits none. Without one, the bytes wait for more, up to a bound.
            if (!final) {
                const size_t last = bytes.find_last_of(">\n");
                if (last != std::string_view::npos)
                    cut = last + 1;
                else if (bytes.size() < kCodePageCarry)
                    cut = 0;
            }
            codePageDecoder_->Append(out, bytes.substr(0, cut));
        }
        carry_.assign(bytes.substr(cut));
        if (final && out.size() == before) {
            carry_.clear();
            return false;
        }
    }
    return true;
}

void TKvXMLDecoder::DecodeUtf8(std::string_view bytes, std::string& out) {
    if (IsUtf8(bytes)) {
        out.append(bytes);
    } else {
        AppendUtf8OrWindows1252(out, bytes);
        if (!strayWarned_) {
            const size_t stray = FirstStray(bytes, 0);
            Warn(lines_ + LineEnds(bytes.substr(0, stray)), kNotUtf8);
            strayWarned_ = true;
            countLines_ = false; // nothing after it needs a line
        }
    }
    if (countLines_) lines_ += LineEnds(bytes);
}

void TKvXMLDecoder::Warn(int64_t line, std::string message, bool problem) {
    TKvXMLWarning warning{line, std::move(message), problem};
    if (std::find(warnings_.begin(), warnings_.end(), warning) == warnings_.end())
        warnings_.push_back(std::move(warning));
}

} // namespace kv
