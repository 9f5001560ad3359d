// How the test of real files reads tests/data/xml: the row element chosen, the encoding, each row's values
// by column and the warnings.

#include "platform/Streams.h"
#include "readers/markup/KvXMLRows.h"
#include "support/DataFiles.h"

namespace kv::test {

std::string DumpXmlFile(const std::string& path) {
    TFileStream stream(path, fmOpenRead);
    TKvXMLRows rows;
    rows.Open(stream);
    const std::string element = rows.ChooseRowElement();
    rows.Start(element);
    std::string out =
        "element: " + DumpEscape(element) + "\nencoding: " + rows.Decoder().EncodingName() + "\n";
    while (rows.NextRow()) {
        out += "line " + std::to_string(rows.RowLine()) + ":";
        const char* separator = " ";
        for (int c = 0; c < rows.ColumnCount(); ++c)
            if (const std::string* value = rows.Value(c)) {
                out += separator + DumpEscape(rows.ColumnName(c)) + "=" + DumpEscape(*value);
                separator = "|";
            }
        out += "\n";
    }
    std::vector<TKvXMLWarning> warnings;
    rows.TakeNewWarnings(warnings);
    for (const TKvXMLWarning& w : warnings)
        out += "warning: line " + std::to_string(w.Line) + ": " + DumpEscape(w.Message) + "\n";
    return out;
}

} // namespace kv::test
