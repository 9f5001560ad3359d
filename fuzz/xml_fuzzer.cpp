// Fuzz target: any bytes as an XML document, the first byte choosing the block size. The tree engine must
// load it into a tree whose parent links hold and whose search finds what the tree has; the scanner must
// hand out the same tokens whether the text comes in tiny blocks or at once, in both dialects; the rows
// must read alike through tiny blocks and whole, as valid UTF-8.

#include "platform/Streams.h"
#include "platform/Utf8.h"
#include "readers/markup/KvIXML.h"
#include "readers/markup/KvXMLRows.h"
#include "readers/markup/KvXMLScan.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

void Check(bool condition) {
    if (!condition) std::abort();
}

// Every token with its pieces joined, one a line.
std::string Tokens(kv::TKvXMLScanner& scanner) {
    std::string out;
    while (scanner.Next()) {
        const bool piece = scanner.Kind() == kv::xtkText || scanner.Kind() == kv::xtkComment ||
                           scanner.Kind() == kv::xtkCData;
        if (!piece || scanner.FirstPiece())
            out += "\n" + std::to_string(scanner.Kind()) + " " + std::to_string(scanner.Depth()) + " " +
                   std::string(scanner.Name()) + " " + std::string(scanner.Attributes()) + " ";
        out += scanner.Text();
    }
    return out;
}

std::string ScanDecoded(const std::string& bytes, kv::TKvXMLDialect dialect, size_t blockSize) {
    kv::TMemoryStream stream(bytes);
    kv::TKvXMLDecoder decoder(blockSize);
    decoder.Open(stream);
    kv::TKvXMLScanner scanner(dialect);
    scanner.Open(decoder);
    return Tokens(scanner);
}

// The element, the rows and the warnings. A NUL ends the text where the scan meets it, while the decoder
// may have read further ahead (and warned of what it found there) the larger its blocks: past a NUL,
// only the rows must agree.
std::string Rows(const std::string& bytes, size_t blockSize) {
    kv::TMemoryStream stream(bytes);
    kv::TKvXMLRows rows(blockSize);
    rows.Open(stream);
    const std::string element = rows.ChooseRowElement();
    std::string out = element;
    rows.Start(element);
    while (rows.NextRow()) {
        out += "\n" + std::to_string(rows.RowLine());
        for (int c = 0; c < rows.ColumnCount(); ++c)
            if (const std::string* v = rows.Value(c)) {
                Check(kv::IsValidUtf8(*v));
                out += " " + rows.ColumnName(c) + "=" + *v;
            }
    }
    std::vector<kv::TKvXMLWarning> warnings;
    rows.TakeNewWarnings(warnings);
    std::string said;
    for (const kv::TKvXMLWarning& w : warnings) {
        if (w.Message.starts_with("a NUL character")) return out;
        said += "\n" + std::to_string(w.Line) + w.Message;
    }
    return out + said;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > 65536) return 0;
    const size_t blockSize = 1 + (data[0] & 15);
    const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);

    kv::TKvXMLEngine engine;
    kv::TMemoryStream stream(bytes);
    engine.LoadFromStream(stream);
    // Parent links hold everywhere, and the search finds the first item of each name it meets.
    std::vector<const kv::TKvXMLItem*> pending{&engine.RootItem()};
    while (!pending.empty()) {
        const kv::TKvXMLItem* item = pending.back();
        pending.pop_back();
        Check(kv::IsValidUtf8(item->TagName()) && kv::IsValidUtf8(item->GetTagValue()));
        for (int i = 0; i < item->Items().Count(); ++i) {
            Check(item->Items()[i].Parent() == item);
            pending.push_back(&item->Items()[i]);
        }
        const kv::TKvXMLItem* found = engine.GetItemByTag(&engine.RootItem(), item->TagName());
        Check(found && found->TagName() == item->TagName());
    }

    // The decoded text scanned at once and through tiny blocks gives the same tokens.
    kv::TMemoryStream again(bytes);
    kv::TKvXMLDecoder decoder;
    decoder.Open(again);
    std::string text;
    while (decoder.Read(text)) {
    }
    Check(kv::IsValidUtf8(text));
    for (const kv::TKvXMLDialect dialect : {kv::xdTree, kv::xdRecords}) {
        kv::TKvXMLScanner scanner(dialect);
        scanner.OpenText(text);
        Check(Tokens(scanner) == ScanDecoded(bytes, dialect, blockSize));
    }
    Check(Rows(bytes, blockSize) == Rows(bytes, 0));
    kv::DecodeXMLEntities(text);
    Check(kv::IsValidUtf8(text));
    return 0;
}
