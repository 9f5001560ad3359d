// Rows of record-shaped XML: which element makes them, what their values are, and that reading through
// blocks of any size gives what reading at once gives, bad input included.

#include "readers/markup/KvXMLRows.h"

#include "TestSupport.h"

namespace kv {
namespace {

// The element chosen (or given), then each row as "name=value" pairs, then the warnings.
std::string Rows(const std::string& bytes, const std::string& element = "", size_t blockSize = 0) {
    TMemoryStream stream(bytes);
    TKvXMLRows rows(blockSize);
    rows.Open(stream);
    const std::string used = element.empty() ? rows.ChooseRowElement() : element;
    std::string out = "<" + used + ">\n";
    rows.Start(used);
    while (rows.NextRow()) {
        out += std::to_string(rows.RowLine()) + ":";
        for (int c = 0; c < rows.ColumnCount(); ++c)
            if (const std::string* v = rows.Value(c)) out += " " + rows.ColumnName(c) + "=" + *v;
        out += "\n";
    }
    std::vector<TKvXMLWarning> warnings;
    rows.TakeNewWarnings(warnings);
    for (const TKvXMLWarning& w : warnings) out += "! " + std::to_string(w.Line) + ": " + w.Message + "\n";
    return out;
}

std::string Utf16BE(std::string_view ascii) {
    std::string out;
    for (char c : ascii) out += {'\0', c};
    return out;
}

TEST(XMLRows, TheRowElementIsTheOneMostOftenWithAttributesOrChildren) {
    const struct {
        const char* Document;
        const char* Element;
    } cases[] = {
        {"<rss version='2.0'><channel><title>T</title><image><url>u</url></image>"
         "<item><title>a</title></item><item><title>b</title></item></channel></rss>",
         "item"},
        // Leaves repeat most, but make no rows; a tie goes to the first met.
        {"<r><x a='1'/><v>1</v><v>2</v><v>3</v><y><z/></y></r>", "x"},
        // The document element only when nothing else qualifies.
        {"<r><v>1</v><v>2</v></r>", "r"},
        {"<r n='1'/>", "r"},
        {"<r>text</r>", ""},
        {"<?xml version='1.0'?><!DOCTYPE r [<!ELEMENT item (a)> <!-- 'x\" --> <?pi [?>]><r><item/><e "
         "k='1'/></r>",
         "e"},
        {"", ""},
    };
    for (const auto& c : cases) {
        TMemoryStream stream(c.Document);
        TKvXMLRows rows;
        rows.Open(stream);
        EXPECT_EQ(rows.ChooseRowElement(), c.Element) << c.Document;
    }
}

TEST(XMLRows, AttributesAndChildrenAreColumns) {
    const std::string doc = "<?xml version='1.0'?>\n<shop xmlns:p='urn:p'>\n"
                            " <item id=\"1\" note='a &amp; b' flag>\n"
                            "  <name>Tom &lt;3 &#x263A;&#9731; &nbsp; &#0;</name>\n"
                            "  <p:price cur='EUR'>12.50</p:price>\n"
                            "  <desc><![CDATA[<b>&amp;</b>]]> &amp; more</desc>\n"
                            "  <tag>x</tag><tag>y</tag>\n"
                            "  <addr><city>Oslo</city> <zip>0150</zip></addr>\n"
                            " </item>\n"
                            " <item id='2'>own <empty/>text<name/></item>\n"
                            " <item/>\n"
                            "</shop>\n";
    EXPECT_EQ(Rows(doc, "item"), "<item>\n"
                                 "3: id=1 note=a & b flag= name=Tom <3 ☺☃ &nbsp; &#0; p:price@cur=EUR "
                                 "p:price=12.50 desc=<b>&amp;</b> & "
                                 "more "
                                 "tag=x\ny addr=Oslo 0150\n"
                                 "10: id=2 name= empty= item=own text\n"
                                 "11:\n");
}

TEST(XMLRows, BlocksOfAnySizeReadAlike) {
    std::string utf16 = "\xFF\xFE";
    for (char c : std::string("<r><row a='\xE9'>x&amp;y<![CDATA[]]]]>z</row><row/></r>")) utf16 += {c, '\0'};
    const std::string documents[] = {
        "<r><row a=\"1\"><v>caf\xC3\xA9 &amp;amp; &#x1F600;</v><!-- c -- > --><w><![CDATA[a]]b]]></w></row>"
        "<row><v>\xE9</v></row></r>",
        "<?xml version='1.0' encoding='windows-1251'?><r><row><v>\xC4\xE0</v></row></r>",
        "<?xml version='1.0' "
        "encoding='shift_jis'?><r><row><v>\x93\xFA\x96\x7B</v></row><row><v>>\x93\xFA</v></row></r>",
        "<!DOCTYPE r [<!ENTITY e \"<row>\"> <!-- ]> -->]><r><row k='v'/></r>",
        utf16,
    };
    for (const std::string& doc : documents) {
        const std::string whole = Rows(doc);
        for (size_t block = 1; block <= 9; ++block) EXPECT_EQ(Rows(doc, "", block), whole) << doc << block;
    }
}

TEST(XMLRows, BadInputReadsWhatItCan) {
    const struct {
        std::string Document, Rows;
    } cases[] = {
        {"<r><row><v>1</v><row><v>2</v></r>", "<row>\n1: v=1 row=2\n! 1: the document ends inside the <row> "
                                              "that starts here: its last value may be cut short\n"},
        {"</x></r><row><v>1</v></row></row></row><row a='2'/>", "<row>\n1: v=1\n1: a=2\n"},
        {"<r><row a='x<y' b=\"1>2\"/></r>", "<row>\n1: a=x<y b=1>2\n"},
        {"<r><row><v>1</v><!-- open <row><v>2</v></row>",
         "<row>\n1: v=1\n! 1: the document ends inside the <row> that starts here: its last value may be cut "
         "short\n"},
        {"<!-- only a comment", "<>\n"},
        {"<r><row a='unclosed/></r>", "<row>\n1: a=unclosed/></r>\n! 1: the document ends inside the <row> "
                                      "that starts here: its last value may be cut short\n"},
        {"<r>< row>a < b</ row><row><v>1 < 2</v></row></r>", "<row>\n1: v=1 < 2\n"},
        {std::string("<r><row><v>1\0</v></row><row/></r>", 33),
         "<row>\n1: v=1\n! 1: a NUL character ends the text: nothing after it is read\n! 1: the document "
         "ends inside the <row> that starts here: its last value may be cut short\n"},
        {"<?xml version='1.0' encoding='x-unknown'?><r><row v='\xC3\xA9'/></r>",
         "<row>\n1: v=é\n! 1: the declaration names the encoding \"x-unknown\", which is not known: the text "
         "is "
         "read as utf-8\n"},
        {"\xFE\xFF" + Utf16BE("<r><row a='1'/>") + "x",
         "<row>\n1: a=1\n! 1: the UTF-16 text ends in the middle of a character\n"},
    };
    for (const auto& c : cases) EXPECT_EQ(Rows(c.Document), c.Rows) << c.Document;

    // Nesting deeper than anything recursive could take.
    std::string deep;
    for (int i = 0; i < 200000; ++i) deep += "<row>";
    EXPECT_EQ(Rows(deep), "<row>\n1: row=\n! 1: the document ends inside the <row> that starts here: its "
                          "last value may be cut short\n");
}

} // namespace
} // namespace kv
