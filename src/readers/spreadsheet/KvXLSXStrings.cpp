#include "readers/spreadsheet/KvXLSXStrings.h"

#include "platform/Format.h"
#include "platform/SysUtils.h"
#include "platform/Utf8.h"
#include "readers/spreadsheet/KvXLSXPackage.h"

namespace kv {

void KvDecodeXLSXText(std::string& text) {
    if (text.find('\r') != std::string::npos) {
        // XML reads every line break written as CR LF or CR as LF; a CR the text holds is escaped.
        size_t to = 0;
        for (size_t i = 0; i < text.size(); ++i) {
            if (text[i] != '\r') {
                text[to++] = text[i];
            } else {
                text[to++] = '\n';
                if (i + 1 < text.size() && text[i + 1] == '\n') ++i;
            }
        }
        text.resize(to);
    }
    if (text.find('&') != std::string::npos) DecodeXMLEntities(text);
    size_t at = text.find("_x");
    if (at == std::string::npos) return;
    std::string out;
    out.reserve(text.size());
    size_t from = 0;
    uint32_t high = 0; // a high surrogate waiting for its low half
    for (; at != std::string::npos; at = text.find("_x", at)) {
        uint32_t unit = 0;
        bool escape = at + 7 <= text.size() && text[at + 6] == '_';
        for (size_t i = 0; escape && i < 4; ++i) {
            const int d = HexDigitValue(text[at + 2 + i]);
            escape = d >= 0;
            unit = unit << 4 | static_cast<uint32_t>(d < 0 ? 0 : d);
        }
        if (!escape) {
            ++at;
            continue;
        }
        out.append(text, from, at - from);
        if (unit >= 0xD800 && unit < 0xDC00) {
            high = unit;
        } else {
            uint32_t code = unit;
            if (unit >= 0xDC00 && unit < 0xE000)
                code = high ? 0x10000 + ((high - 0xD800) << 10) + (unit - 0xDC00) : 0xFFFD;
            high = 0;
            Utf8Append(out, static_cast<char32_t>(code));
        }
        at += 7;
        from = at;
    }
    out.append(text, from, std::string::npos);
    text = std::move(out);
}

void TKvXLSXSharedStrings::Clear() {
    text_.clear();
    ends_.clear();
}

void TKvXLSXSharedStrings::Add(std::string_view item, uint64_t maxBytes) {
    // Each item costs its offset too, so that a table of empty items is bounded as well.
    if (text_.size() + item.size() + 8 * (ends_.size() + 1) > maxBytes)
        throw Exception(Format("the shared strings hold more than %d MiB", static_cast<int>(maxBytes >> 20)));
    text_ += item;
    ends_.push_back(text_.size());
}

void TKvXLSXSharedStrings::Load(std::unique_ptr<TStream> part, uint64_t maxBytes) {
    Clear();
    TKvXLSXPartScanner xml(std::move(part));
    TKvXMLScanner& scanner = xml.Scanner();
    // Levels: the item ("si"), a text element ("t") and a phonetic run ("rPh") inside it, by depth.
    int64_t itemDepth = -1, textDepth = -1, phoneticDepth = -1;
    std::string item, piece;
    while (scanner.Next()) {
        switch (scanner.Kind()) {
        case xtkStartTag: {
            const std::string_view name = KvXMLLocalName(scanner.Name());
            if (name == "si" && itemDepth < 0) {
                itemDepth = scanner.Depth();
                item.clear();
            } else if (name == "rPh" && itemDepth >= 0 && phoneticDepth < 0) {
                phoneticDepth = scanner.Depth();
            } else if (name == "t" && itemDepth >= 0 && phoneticDepth < 0 && textDepth < 0) {
                textDepth = scanner.Depth();
                piece.clear();
            }
            break;
        }
        case xtkText:
        case xtkCData:
            if (textDepth >= 0 && scanner.Depth() == textDepth) {
                if (text_.size() + item.size() + piece.size() + scanner.Text().size() > maxBytes)
                    throw Exception(Format("the shared strings hold more than %d MiB of text",
                                           static_cast<int>(maxBytes >> 20)));
                if (scanner.Kind() == xtkCData) {
                    // Kept as written: entities and escapes are not read inside CDATA.
                    KvDecodeXLSXText(piece);
                    item += piece;
                    piece.clear();
                    item += scanner.Text();
                } else {
                    piece += scanner.Text();
                }
            }
            break;
        case xtkEndTag:
            if (textDepth >= 0 && scanner.Depth() < textDepth) {
                textDepth = -1;
                KvDecodeXLSXText(piece);
                item += piece;
            }
            if (phoneticDepth >= 0 && scanner.Depth() < phoneticDepth) phoneticDepth = -1;
            if (itemDepth >= 0 && scanner.Depth() < itemDepth) {
                itemDepth = -1;
                Add(item, maxBytes);
            }
            break;
        default:
            break;
        }
    }
}

} // namespace kv
