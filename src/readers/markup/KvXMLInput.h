#pragma once
// TKvXMLDecoder: the bytes of a markup document as UTF-8 text, one block at a time, so that a document of
// any size passes through a buffer of a fixed size. The encoding is settled when the document is opened:
// a byte-order mark decides; without one, an encoding named by the XML declaration wins when the
// code-page layer knows it; otherwise the text is UTF-8 when its first bytes are, and Windows-1252 when
// they are not. Whatever was doubtful is said in Warnings().

#include "platform/Encoding.h"
#include "platform/Streams.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kv {

/// Something the reading of a document noticed that a caller should hear of.
struct TKvXMLWarning {
    int64_t Line = 0;     ///< line of the text (1-based) where it is; 0 when nowhere in particular
    std::string Message;  ///< the reader's own text, without the line
    bool Problem = false; ///< text was lost, not only read in a way that may be doubted
    bool operator==(const TKvXMLWarning&) const = default;
};

/// How the bytes of a document are decoded.
enum TKvXMLCharset : uint8_t {
    xcUtf8,    ///< UTF-8; a byte that starts no UTF-8 character is read as its Windows-1252 character
    xcUtf16LE, ///< UTF-16, little-endian
    xcUtf16BE, ///< UTF-16, big-endian
    xcCodePage ///< a code page by number (see TKvXMLDecoder::CodePage)
};

class TKvXMLDecoder {
public:
    /// `blockSize`: bytes read from the stream at a time (0 = 1 MiB); tests make it tiny.
    explicit TKvXMLDecoder(size_t blockSize = 0);

    /// Starts on `stream` at its position: reads the first bytes and settles the encoding. The stream is
    /// not owned and must outlive the decoder or the next Open.
    void Open(TStream& stream);
    /// Appends the next decoded text to `out`; false once the whole document has been handed out.
    bool Read(std::string& out);
    /// Starts again at the first character, for another pass (the stream must seek). The encoding and the
    /// warnings of the opening stay.
    void Rewind();

    TKvXMLCharset Charset() const { return charset_; }
    /// The code page of xcCodePage (1252 for Windows-1252, 28591 for ISO-8859-1, ...).
    int CodePage() const { return codePage_; }
    /// "utf-8", "utf-16le", "utf-16be", "cp1252", "iso-8859-5", ...
    std::string EncodingName() const;
    /// The encoding the XML declaration names, as written ("" when it names none).
    const std::string& DeclaredEncoding() const { return declared_; }
    /// What was doubtful: an encoding named but unknown, bytes that are not UTF-8, a UTF-16 text cut in
    /// the middle of a character.
    const std::vector<TKvXMLWarning>& Warnings() const { return warnings_; }
    /// Bytes taken from the stream since the document's first byte.
    int64_t BytesRead() const { return consumed_; }
    /// How far through the document the bytes read reach, from 0 to 1; below 0 when its size is unknown.
    double ReadFraction() const;

private:
    bool ReadInput(std::string& into);
    void Settle();
    void SettleDeclared(const std::string& name, bool ebcdic);
    void SettleByBytes();
    void DecodeUtf8(std::string_view bytes, std::string& out);
    void Warn(int64_t line, std::string message, bool problem = false);

    size_t blockSize_;
    TStream* stream_ = nullptr;
    int64_t start_ = 0;   ///< where the document starts in the stream
    int64_t skipped_ = 0; ///< bytes of a byte-order mark, never handed out
    int64_t size_ = -1;   ///< of the document, when the stream knows
    int64_t consumed_ = 0;
    std::string head_;    ///< the first bytes, read to settle the encoding and handed out first
    size_t headUsed_ = 0; ///< of them
    bool ended_ = false;  ///< the stream has nothing more

    TKvXMLCharset charset_ = xcUtf8;
    int codePage_ = 0;
    std::optional<TKvCodePageDecoder> codePageDecoder_;
    std::string declared_;
    std::string carry_;      ///< bytes of a character the block before cut in two
    std::string input_;      ///< the block being decoded
    int64_t lines_ = 1;      ///< lines of the text handed out, while a warning may still need one
    bool countLines_ = true; ///< while it may
    bool strayWarned_ = false;
    std::vector<TKvXMLWarning> warnings_;
};

} // namespace kv
