#include "readers/markup/KvXMLScan.h"

#include "platform/Utf8.h"

#include <algorithm>
#include <cstring>

namespace kv {

namespace {

bool IsBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// What a tag name is made of in the tree engine's rules: so a declaration reads as "?xml" and a comment
// as "!--".
bool IsTreeNameChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '!' ||
           c == '-' || c == ':' || c == '?' || c == '_';
}

bool IsNameStart(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':' ||
           static_cast<unsigned char>(c) >= 0x80;
}

const std::string_view kLessThan = "<";

} // namespace

void TKvXMLScanner::Reset() {
    buffer_.clear();
    pos_ = 0;
    base_ = 0;
    nulAt_ = -1;
    state_ = stText;
    skipBlanks_ = dialect_ == xdTree;
    pieceFirst_ = false;
    textGoesOn_ = false;
    depth_ = 0;
    declQuote_ = 0;
    declDepth_ = 0;
    declSkip_ = {};
    kind_ = xtkEnd;
    name_ = attributes_ = text_ = {};
    tokenStart_ = 0;
    lineBase_ = 0;
    lines_ = 1;
    warnings_.clear();
}

void TKvXMLScanner::Open(TKvXMLDecoder& decoder) {
    Reset();
    decoder_ = &decoder;
    data_ = buffer_.data();
    size_ = 0;
    final_ = false;
}

void TKvXMLScanner::OpenText(std::string_view text) {
    Reset();
    decoder_ = nullptr;
    final_ = true;
    if (const void* nul = std::memchr(text.data(), 0, text.size())) {
        nulAt_ = static_cast<const char*>(nul) - text.data();
        text = text.substr(0, static_cast<size_t>(nulAt_));
    }
    data_ = text.data();
    size_ = text.size();
}

bool TKvXMLScanner::More() {
    if (final_) return false;
    // What the scan has passed goes; what it still needs moves to the front.
    CountLinesTo(base_ + static_cast<int64_t>(pos_));
    buffer_.erase(0, pos_);
    base_ += static_cast<int64_t>(pos_);
    pos_ = 0;
    const size_t old = buffer_.size();
    if (!decoder_->Read(buffer_)) final_ = true;
    if (const void* nul = std::memchr(buffer_.data() + old, 0, buffer_.size() - old)) {
        buffer_.resize(static_cast<size_t>(static_cast<const char*>(nul) - buffer_.data()));
        nulAt_ = base_ + static_cast<int64_t>(buffer_.size());
        final_ = true;
    }
    data_ = buffer_.data();
    size_ = buffer_.size();
    return size_ > old;
}

bool TKvXMLScanner::Ensure(size_t count) {
    while (size_ - pos_ < count)
        if (!More()) return false;
    return true;
}

bool TKvXMLScanner::StartsWith(std::string_view prefix) {
    Ensure(prefix.size());
    return std::string_view(data_ + pos_, size_ - pos_).starts_with(prefix);
}

void TKvXMLScanner::CountLinesTo(int64_t offset) {
    if (offset <= lineBase_) return;
    const char* from = data_ + (lineBase_ - base_);
    lines_ += std::count(from, from + (offset - lineBase_), '\n');
    lineBase_ = offset;
}

int64_t TKvXMLScanner::Line() {
    CountLinesTo(tokenStart_);
    return lines_;
}

bool TKvXMLScanner::Emit(TKvXMLTokenKind kind, std::string_view text) {
    kind_ = kind;
    text_ = text;
    first_ = pieceFirst_;
    pieceFirst_ = false;
    return true;
}

void TKvXMLScanner::EnterText() {
    state_ = stText;
    skipBlanks_ = dialect_ == xdTree;
}

bool TKvXMLScanner::Next() {
    name_ = attributes_ = text_ = {};
    for (;;) {
        switch (state_) {
        case stText:
            if (ScanText()) return true;
            break;
        case stTag:
            if (dialect_ == xdTree ? ScanTreeTag() : ScanTag()) return true;
            break;
        case stAfterTreeTag:
            if (AfterTreeTag()) return true;
            break;
        case stComment:
            if (ScanUntil("-->", xtkComment)) return true;
            break;
        case stCData:
            if (ScanUntil("]]>", xtkCData)) return true;
            break;
        case stInstruction:
            SkipUntil("?>");
            EnterText();
            break;
        case stDeclaration:
            SkipDeclaration();
            break;
        case stEndTag:
            if (SkipEndTag()) return true;
            break;
        case stCloseSelf:
            --depth_;
            EnterText();
            kind_ = xtkEndTag;
            return true;
        case stEnd:
            if (nulAt_ >= 0) {
                CountLinesTo(nulAt_);
                warnings_.push_back(
                    {lines_, "a NUL character ends the text: nothing after it is read", true});
                nulAt_ = -1;
            }
            kind_ = xtkEnd;
            return false;
        }
    }
}

bool TKvXMLScanner::ScanText() {
    if (skipBlanks_) {
        for (;;) {
            while (pos_ < size_ && (IsBlank(data_[pos_]) || data_[pos_] == '>')) ++pos_;
            if (pos_ < size_) break;
            if (!More()) {
                state_ = stEnd;
                return false;
            }
        }
        skipBlanks_ = false;
    }
    if (pos_ == size_ && !More()) {
        state_ = stEnd;
        return false;
    }
    const void* lt = std::memchr(data_ + pos_, '<', size_ - pos_);
    const size_t end = lt ? static_cast<size_t>(static_cast<const char*>(lt) - data_) : size_;
    const std::string_view piece(data_ + pos_, end - pos_);
    if (!textGoesOn_) {
        tokenStart_ = base_ + static_cast<int64_t>(pos_);
        pieceFirst_ = true;
    }
    textGoesOn_ = lt == nullptr;
    pos_ = lt ? end + 1 : end;
    if (lt) state_ = stTag;
    if (piece.empty()) return false;
    return Emit(xtkText, piece);
}

bool TKvXMLScanner::ScanTreeTag() {
    tokenStart_ = base_ + static_cast<int64_t>(pos_) - 1;
    if (StartsWith("![CDATA[")) {
        pos_ += 8;
        state_ = stCData;
        pieceFirst_ = true;
        return false;
    }
    size_t k = 0;
    for (;;) {
        while (pos_ + k < size_ && IsTreeNameChar(data_[pos_ + k])) ++k;
        if (pos_ + k < size_ || !More()) break;
    }
    if (std::string_view(data_ + pos_, k).starts_with("!--")) {
        pos_ += 3;
        state_ = stComment;
        pieceFirst_ = true;
        return false;
    }
    // The attribute text runs to ">", or to a "/" outside double quotes.
    size_t a = k;
    bool quoted = false;
    for (;;) {
        for (; pos_ + a < size_; ++a) {
            const char c = data_[pos_ + a];
            if (c == '>' || (c == '/' && !quoted)) break;
            if (c == '"') quoted = !quoted;
        }
        if (pos_ + a < size_ || !More()) break;
    }
    name_ = std::string_view(data_ + pos_, k);
    attributes_ = std::string_view(data_ + pos_ + k, a - k);
    pos_ += a;
    state_ = stAfterTreeTag;
    if (name_.empty() && attributes_.empty()) return false;
    if (!name_.empty()) ++depth_;
    kind_ = xtkStartTag;
    return true;
}

bool TKvXMLScanner::AfterTreeTag() {
    EnterText();
    if (!Ensure(1) || data_[pos_] != '/' || depth_ == 0) return false;
    // "/>" as the last characters of the text ends the parse.
    if (!Ensure(3) && size_ - pos_ == 2 && data_[pos_ + 1] == '>') {
        state_ = stEnd;
        return false;
    }
    --depth_;
    // The scan goes on past the next "<", or back at the ">" before it, so that the text between is read.
    size_t k = 1;
    for (;;) {
        if (const void* lt = std::memchr(data_ + pos_ + k, '<', size_ - pos_ - k)) {
            k = static_cast<size_t>(static_cast<const char*>(lt) - (data_ + pos_));
            break;
        }
        k = size_ - pos_;
        if (!More()) break;
    }
    const void* gt = k > 1 ? memrchr(data_ + pos_ + 1, '>', k - 1) : nullptr;
    pos_ = gt ? static_cast<size_t>(static_cast<const char*>(gt) - data_) : pos_ + k;
    kind_ = xtkEndTag;
    return true;
}

bool TKvXMLScanner::ScanTag() {
    tokenStart_ = base_ + static_cast<int64_t>(pos_) - 1;
    if (!Ensure(1)) {
        state_ = stEnd;
        return false;
    }
    const char c = data_[pos_];
    if (c == '/') {
        ++pos_;
        state_ = stEndTag;
        return false;
    }
    if (c == '!') {
        if (StartsWith("![CDATA[")) {
            pos_ += 8;
            state_ = stCData;
        } else if (StartsWith("!--")) {
            pos_ += 3;
            state_ = stComment;
        } else {
            ++pos_;
            state_ = stDeclaration;
            declQuote_ = 0;
            declDepth_ = 0;
            declSkip_ = {};
        }
        pieceFirst_ = true;
        return false;
    }
    if (c != '?' && !IsNameStart(c)) {
        // A "<" that starts no markup is text.
        EnterText();
        pieceFirst_ = true;
        textGoesOn_ = true;
        return Emit(xtkText, kLessThan);
    }
    size_t k = 1;
    for (;;) {
        while (pos_ + k < size_ && !IsBlank(data_[pos_ + k]) && data_[pos_ + k] != '/' &&
               data_[pos_ + k] != '>' && (c != '?' || data_[pos_ + k] != '?'))
            ++k;
        if (pos_ + k < size_ || k > MaxTagBytes || !More()) break;
    }
    if (c == '?') {
        name_ = std::string_view(data_ + pos_ + 1, k - 1);
        pos_ += k;
        state_ = stInstruction;
        kind_ = xtkInstruction;
        return true;
    }
    size_t a = k;
    char quote = 0;
    bool ended = false;
    for (;;) {
        while (pos_ + a < size_) {
            const char ch = data_[pos_ + a];
            if (quote) {
                const void* close = std::memchr(data_ + pos_ + a, quote, size_ - pos_ - a);
                if (!close) {
                    a = size_ - pos_;
                    break;
                }
                a = static_cast<size_t>(static_cast<const char*>(close) - (data_ + pos_)) + 1;
                quote = 0;
                continue;
            }
            if (ch == '>') {
                ended = true;
                break;
            }
            if (ch == '"' || ch == '\'') quote = ch;
            ++a;
        }
        if (ended) break;
        if (a > MaxTagBytes) {
            warnings_.push_back({Line(), "a start tag longer than 16 MiB was cut there", true});
            break;
        }
        if (!More()) break;
    }
    name_ = std::string_view(data_ + pos_, k);
    std::string_view attributes(data_ + pos_ + k, a - k);
    while (!attributes.empty() && IsBlank(attributes.back())) attributes.remove_suffix(1);
    const bool selfClosing = attributes.ends_with('/');
    if (selfClosing) attributes.remove_suffix(1);
    attributes_ = attributes;
    pos_ += a + (ended ? 1 : 0);
    ++depth_;
    if (selfClosing)
        state_ = stCloseSelf;
    else
        EnterText();
    kind_ = xtkStartTag;
    return true;
}

bool TKvXMLScanner::ScanUntil(std::string_view terminator, TKvXMLTokenKind kind) {
    for (;;) {
        const std::string_view rest(data_ + pos_, size_ - pos_);
        const size_t at = rest.find(terminator);
        if (at != std::string_view::npos) {
            pos_ += at + terminator.size();
            EnterText();
            return rest.substr(0, at).empty() && !pieceFirst_ ? false : Emit(kind, rest.substr(0, at));
        }
        if (final_) {
            pos_ = size_;
            state_ = stEnd;
            return rest.empty() && !pieceFirst_ ? false : Emit(kind, rest);
        }
        // The last bytes may start the terminator: they wait for the next ones.
        const size_t keep = terminator.size() - 1;
        if (rest.size() > keep) {
            pos_ += rest.size() - keep;
            return Emit(kind, rest.substr(0, rest.size() - keep));
        }
        More();
    }
}

bool TKvXMLScanner::SkipUntil(std::string_view terminator) {
    for (;;) {
        const std::string_view rest(data_ + pos_, size_ - pos_);
        const size_t at = rest.find(terminator);
        if (at != std::string_view::npos) {
            pos_ += at + terminator.size();
            return true;
        }
        if (rest.size() >= terminator.size()) pos_ = size_ - (terminator.size() - 1);
        if (!More()) {
            pos_ = size_;
            return false;
        }
    }
}

// A DOCTYPE (or any other "<!" declaration) to its ">", past the quoted literals and the bracketed
// internal subset with the comments and instructions in it.
void TKvXMLScanner::SkipDeclaration() {
    for (;;) {
        if (!declSkip_.empty()) {
            if (!SkipUntil(declSkip_)) break;
            declSkip_ = {};
        }
        while (pos_ < size_ && declSkip_.empty()) {
            const char c = data_[pos_];
            if (declQuote_) {
                const void* close = std::memchr(data_ + pos_, declQuote_, size_ - pos_);
                pos_ = close ? static_cast<size_t>(static_cast<const char*>(close) - data_) + 1 : size_;
                if (close) declQuote_ = 0;
                continue;
            }
            if (c == '"' || c == '\'') {
                declQuote_ = c;
            } else if (c == '[') {
                ++declDepth_;
            } else if (c == ']') {
                if (declDepth_ > 0) --declDepth_;
            } else if (c == '>' && declDepth_ == 0) {
                ++pos_;
                EnterText();
                return;
            } else if (c == '<' && declDepth_ > 0 && (StartsWith("<!--") || StartsWith("<?"))) {
                declSkip_ = data_[pos_ + 1] == '!' ? "-->" : "?>";
                pos_ += declSkip_.size() == 3 ? 4 : 2;
                continue;
            }
            ++pos_;
        }
        if (!declSkip_.empty()) continue;
        if (!More()) break;
    }
    pos_ = size_;
    state_ = stEnd;
}

bool TKvXMLScanner::SkipEndTag() {
    for (;;) {
        if (const void* gt = std::memchr(data_ + pos_, '>', size_ - pos_)) {
            pos_ = static_cast<size_t>(static_cast<const char*>(gt) - data_) + 1;
            break;
        }
        pos_ = size_;
        if (!More()) break;
    }
    EnterText();
    // A closing tag without an opener closes nothing.
    if (depth_ == 0) return false;
    --depth_;
    kind_ = xtkEndTag;
    return true;
}

void DecodeXMLEntities(std::string& text, size_t from) {
    const void* amp = from < text.size() ? std::memchr(text.data() + from, '&', text.size() - from) : nullptr;
    if (!amp) return;
    size_t read = static_cast<size_t>(static_cast<const char*>(amp) - text.data()), write = read;
    char encoded[4];
    while (read < text.size()) {
        const char c = text[read];
        if (c != '&') {
            text[write++] = c;
            ++read;
            continue;
        }
        // The longest reference decoded is "&#x0010FFFF;": a ";" further away ends none.
        const void* end =
            std::memchr(text.data() + read + 1, ';', std::min<size_t>(text.size() - read - 1, 12));
        const size_t semicolon = end ? static_cast<size_t>(static_cast<const char*>(end) - text.data()) : 0;
        const std::string_view name =
            end ? std::string_view(text).substr(read + 1, semicolon - read - 1) : std::string_view();
        std::string_view replacement;
        if (name == "amp") {
            replacement = "&";
        } else if (name == "lt") {
            replacement = "<";
        } else if (name == "gt") {
            replacement = ">";
        } else if (name == "quot") {
            replacement = "\"";
        } else if (name == "apos") {
            replacement = "'";
        } else if (name.size() >= 2 && name[0] == '#') {
            const bool hex = name[1] == 'x' || name[1] == 'X';
            const std::string_view digits = name.substr(hex ? 2 : 1);
            uint32_t code = 0;
            bool ok = !digits.empty();
            for (const char d : digits) {
                const int v = d >= '0' && d <= '9'          ? d - '0'
                              : hex && d >= 'a' && d <= 'f' ? d - 'a' + 10
                              : hex && d >= 'A' && d <= 'F' ? d - 'A' + 10
                                                            : -1;
                if (v < 0 || code > 0x10FFFF) {
                    ok = false;
                    break;
                }
                code = code * (hex ? 16 : 10) + static_cast<uint32_t>(v);
            }
            if (ok && code > 0 && code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF))
                replacement = std::string_view(encoded, Utf8EncodeTo(code, encoded));
        }
        if (replacement.empty()) {
            text[write++] = c; // no reference this reader decodes: kept as written
            ++read;
            continue;
        }
        // A reference is never shorter than the character it stands for: the text shrinks in place.
        std::memmove(text.data() + write, replacement.data(), replacement.size());
        write += replacement.size();
        read = semicolon + 1;
    }
    text.resize(write);
}

} // namespace kv
