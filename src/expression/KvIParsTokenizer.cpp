#include "expression/KvIParsInternal.h"

#include "platform/Exceptions.h"
#include "platform/Format.h"
#include "platform/SysUtils.h"
#include "platform/Utf8.h"

namespace kv {

namespace {

bool IsOpeningQuote(char c) {
    return c == '"' || c == '\'' || c == '[';
}
bool IsClosingQuote(char c) {
    return c == '"' || c == '\'' || c == ']';
}

// The class of one character outside quotes. Bytes of multi-byte UTF-8 characters are all >= 0x80 and
// classify as ttString, so working on bytes gives the same runs as working on characters.
TTokenType Classify(char c) {
    switch (c) {
    case '(':
    case ')':
        return ttParenthesis;
    case ',':
        return ttParamDelimitor;
    case '+':
    case '-':
    case '*':
    case '/':
    case '^':
    case '!':
    case '=':
    case '<':
    case '>':
        return ttOperation;
    case '\0':
        return ttNone;
    default:
        break;
    }
    // A digit is numeric; so is the decimal separator (and "."), which alone reads as no number but must
    // not split "3.14" into pieces.
    if ((c >= '0' && c <= '9') || c == '.') return ttNumeric;
    char32_t decimal = DefaultFormatSettings.DecimalSeparator;
    if (decimal < 0x80 && c == static_cast<char>(decimal)) return ttNumeric;
    return ttString;
}

} // namespace

void TExpParser::SetExpression(std::string_view text) {
    text_ = Trim(text);
    Clear();
}

void TExpParser::Clear() {
    tokens_.clear();
    pos_ = 0;
}

const TExpToken* TExpParser::ReadFirstToken() {
    Clear();
    return ReadNextToken();
}

void TExpParser::Tokenize() {
    ReadFirstToken();
    while (ReadNextToken()) {
    }
}

const TExpToken& TExpParser::GetToken(int index) const {
    if (index < 0 || index >= TokenCount()) throw EListError(Format("List index out of bounds (%d)", index));
    return tokens_[static_cast<size_t>(index)];
}

const TExpToken* TExpParser::ReadNextToken() {
    const size_t len = text_.size();
    if (pos_ >= len) return nullptr;

    char c;
    do {
        c = text_[pos_++];
    } while (c == ' ' && pos_ < len);

    const TTokenType runType = Classify(c);
    if (runType == ttNone) {
        size_t position = Utf8Length(std::string_view(text_).substr(0, pos_ - 1)) + 1;
        throw Exception(Format("Parse error: illegal character \"%s\" at position %d.", std::string(1, c),
                               static_cast<long long>(position)));
    }
    TExpToken token;
    if (runType == ttParenthesis) {
        token.Text.assign(1, c);
        token.TokenType = ttParenthesis;
        tokens_.push_back(std::move(token));
        return &tokens_.back();
    }

    const bool quoted = IsOpeningQuote(c);
    bool inQuote = quoted;
    if (!quoted) token.Text.assign(1, c);
    while (pos_ < len) {
        const char d = text_[pos_];
        if (!inQuote) {
            TTokenType cls = Classify(d);
            if (cls != runType && !(runType == ttString && cls == ttNumeric)) break;
        } else if (IsClosingQuote(d) && (pos_ + 1 == len || !IsClosingQuote(text_[pos_ + 1]))) {
            inQuote = false; // a closing quote followed by another one is kept as text
        } else {
            token.Text.push_back(d);
            ++pos_;
            continue;
        }
        if (!inQuote && d != ' ' && !IsClosingQuote(d)) token.Text.push_back(d);
        ++pos_;
    }
    if (quoted)
        token.TokenType = ttString;
    else
        token.TokenType = expr::OperatorIndex(token.Text) > 0 ? ttOperation : runType;
    tokens_.push_back(std::move(token));
    return &tokens_.back();
}

} // namespace kv
