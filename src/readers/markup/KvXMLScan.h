#pragma once
// TKvXMLScanner: the one scanner of the markup readers. It pulls decoded text through a buffer and hands
// out tokens (text, start and end tags, comments, CDATA), long texts in pieces, so that a document of
// any size is read in the memory of its largest tag. Two dialects share it: the tree engine's tolerant
// rules, and XML as written for reading rows. Neither expands entities: DecodeXMLEntities decodes the
// predefined ones and character references where a reader wants values.

#include "readers/markup/KvXMLInput.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

/// Which rules the scanner reads by.
enum TKvXMLDialect : uint8_t {
    xdTree,   ///< the tree engine's (TKvXMLEngine): every tag but a comment or CDATA opens a level, even a
              ///< declaration; attribute text runs to ">" or an unquoted "/"; double quotes only
    xdRecords ///< XML as written: declarations, the DOCTYPE and processing instructions open no level,
              ///< attribute values may be in either quote, "/>" closes the tag it ends
};

/// What the scanner stopped at.
enum TKvXMLTokenKind : uint8_t {
    xtkText,        ///< character data, as written (a piece of it)
    xtkStartTag,    ///< a start tag: Name and Attributes; it opened a level unless its name is empty
    xtkEndTag,      ///< one level closed: each closing tag or "/>" closes exactly one, whatever its name
    xtkComment,     ///< a comment's text (a piece of it)
    xtkCData,       ///< a CDATA section's text, as written (a piece of it)
    xtkInstruction, ///< a processing instruction; its target is the Name (xdRecords only)
    xtkEnd          ///< the text has ended
};

class TKvXMLScanner {
public:
    /// Start tags longer than this are cut there (with a warning), so that a quote never closed cannot
    /// pull the rest of a document into memory.
    static constexpr size_t MaxTagBytes = size_t(16) << 20;

    explicit TKvXMLScanner(TKvXMLDialect dialect) : dialect_(dialect) {}

    /// Scans what `decoder` hands out (not owned).
    void Open(TKvXMLDecoder& decoder);
    /// Scans `text`, which must stay where it is until the scan ends.
    void OpenText(std::string_view text);

    /// Moves to the next token, or the next piece of a long one; false at the end of the text (a NUL
    /// character ends it too).
    bool Next();
    TKvXMLTokenKind Kind() const { return kind_; }
    /// The tag's name (xtkStartTag) or the instruction's target. Views stay valid until the next call.
    std::string_view Name() const { return name_; }
    /// A start tag's text between its name and its end, as written (xdRecords leaves out a closing "/").
    std::string_view Attributes() const { return attributes_; }
    /// The piece of text, comment or CDATA.
    std::string_view Text() const { return text_; }
    /// The piece is the first of its token (a comment or CDATA section always has one, perhaps empty).
    bool FirstPiece() const { return first_; }
    /// Levels open after the token.
    int64_t Depth() const { return depth_; }
    /// The line (1-based) where the current token starts.
    int64_t Line();
    /// What the scanner noticed: a tag cut, a NUL character.
    const std::vector<TKvXMLWarning>& Warnings() const { return warnings_; }

private:
    enum TState : uint8_t {
        stText,
        stTag,
        stAfterTreeTag,
        stComment,
        stCData,
        stInstruction,
        stDeclaration,
        stEndTag,
        stCloseSelf,
        stEnd
    };

    void Reset();
    bool More();
    bool Ensure(size_t count);
    bool StartsWith(std::string_view prefix);
    bool ScanText();
    bool ScanTreeTag();
    bool AfterTreeTag();
    bool ScanTag();
    bool ScanUntil(std::string_view terminator, TKvXMLTokenKind kind);
    bool SkipUntil(std::string_view terminator);
    void SkipDeclaration();
    bool SkipEndTag();
    bool Emit(TKvXMLTokenKind kind, std::string_view text);
    void EnterText();
    void CountLinesTo(int64_t offset);

    TKvXMLDialect dialect_;
    TKvXMLDecoder* decoder_ = nullptr;
    std::string buffer_;    ///< what the decoder handed out and the scan still needs
    const char* data_ = ""; ///< the text in view: the buffer, or the text given
    size_t size_ = 0;
    size_t pos_ = 0;
    int64_t base_ = 0;   ///< offset in the whole text of data_[0]
    bool final_ = true;  ///< nothing follows data_[size_ - 1]
    int64_t nulAt_ = -1; ///< where a NUL character ended the text

    TState state_ = stEnd;
    bool skipBlanks_ = false; ///< xdTree: a text step starts by skipping blanks and ">"
    bool pieceFirst_ = false; ///< the next piece starts its token
    bool textGoesOn_ = false; ///< the last text piece ended at the end of the buffer
    int64_t depth_ = 0;
    char declQuote_ = 0;        ///< inside a quoted literal of a declaration
    int declDepth_ = 0;         ///< "[" open in a declaration (the internal subset of a DOCTYPE)
    std::string_view declSkip_; ///< a comment or instruction inside the subset, skipped to this

    TKvXMLTokenKind kind_ = xtkEnd;
    std::string_view name_, attributes_, text_;
    bool first_ = false;
    int64_t tokenStart_ = 0; ///< offset in the whole text
    int64_t lineBase_ = 0;   ///< offset up to which lines are counted
    int64_t lines_ = 1;      ///< the line at lineBase_
    std::vector<TKvXMLWarning> warnings_;
};

/// Decodes "&amp;", "&lt;", "&gt;", "&quot;", "&apos;" and character references ("&#233;", "&#xE9;") in
/// `text` from byte `from` on, in place. Any other reference, and one that names no character, stays
/// as written: no entity a document declares is ever expanded.
void DecodeXMLEntities(std::string& text, size_t from = 0);

/// The attribute pairs of a start tag's text by the tree engine's rules: outside double quotes "="
/// switches from the name to the value and a blank, tab, CR or LF ends a pair; every other character
/// (quotes included) is kept, and so is a blank that ends a pair. Only pairs with a name and a value count.
template <class F> void ForEachTreeAttribute(std::string_view text, F&& pair) {
    std::string name, value;
    bool inValue = false, quoted = false;
    const auto end = [&] {
        if (!name.empty() && !value.empty()) pair(name, value);
        name.clear();
        value.clear();
        inValue = false;
    };
    for (const char c : text) {
        if (c == '"') quoted = !quoted;
        if (!quoted && c == '=') {
            inValue = true;
        } else if (!quoted && (c == ' ' || c == '\t' || c == '\r' || c == '\n')) {
            if (c == ' ') (inValue ? value : name) += c;
            end();
        } else {
            (inValue ? value : name) += c;
        }
    }
    end();
}

/// The attributes of a start tag's text as XML writes them: name, "=", and a value in double or single
/// quotes (blanks around "=" allowed). `pair` gets the name and the value between its quotes, entities
/// not decoded; a name without "=" comes with an empty value.
template <class F> void ForEachAttribute(std::string_view text, F&& pair) {
    const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    size_t i = 0;
    const size_t n = text.size();
    while (i < n) {
        while (i < n && blank(text[i])) ++i;
        const size_t nameStart = i;
        while (i < n && !blank(text[i]) && text[i] != '=') ++i;
        const std::string_view name = text.substr(nameStart, i - nameStart);
        size_t j = i;
        while (j < n && blank(text[j])) ++j;
        std::string_view value;
        if (j < n && text[j] == '=') {
            i = j + 1;
            while (i < n && blank(text[i])) ++i;
            if (i < n && (text[i] == '"' || text[i] == '\'')) {
                const size_t close = text.find(text[i], i + 1);
                const size_t end = close == std::string_view::npos ? n : close;
                value = text.substr(i + 1, end - i - 1);
                i = end + 1;
            } else {
                const size_t valueStart = i;
                while (i < n && !blank(text[i])) ++i;
                value = text.substr(valueStart, i - valueStart);
            }
        }
        if (!name.empty()) pair(name, value);
    }
}

} // namespace kv
