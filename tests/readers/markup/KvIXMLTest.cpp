// The tree engine: the shapes its tolerant rules give, the encodings a document is read in, and trees
// deep enough to break anything recursive.

#include "readers/markup/KvIXML.h"

#include "TestSupport.h"

namespace kv {
namespace {

// An item as "name{value}" with its children in parentheses; attributes as name=value, comments as
// !--{text}.
std::string Dump(const TKvXMLItem& item) {
    std::string out = item.TagName();
    if (item.Kind() == ikAttribute)
        out += "=" + item.GetTagValue();
    else if (!item.Value().IsEmpty())
        out += "{" + item.GetTagValue() + "}";
    if (item.Items().Count() == 0) return out;
    out += "(";
    for (int i = 0; i < item.Items().Count(); ++i) out += (i ? " " : "") + Dump(item.Items()[i]);
    return out + ")";
}

std::string Parse(std::string_view text) {
    TKvXMLEngine engine;
    engine.ParseXMLFromString(text);
    return Dump(engine.RootItem());
}

TEST(XMLEngine, TolerantShapes) {
    const struct {
        std::string_view Text, Tree;
    } cases[] = {
        // A self-closing element with an attribute whose value keeps its quotes.
        {"<a b=\"1\"/>", "a(b=\"1\")"},
        // A declaration is never closed: it is the root, the document element its child.
        {"<?xml version=\"1.0\"?>\r\n<doc><e>t</e></doc>", "?xml(version=\"1.0\"? doc(e{t}))"},
        // Each closing tag closes one level, whatever it names.
        {"<a><b><c></x>after c</y>after b</z>", "a{after b}(b{after c}(c))"},
        // Text split by children is joined in the parent; blanks before a text are skipped.
        {"<a> x<b/>y<c>z</c>w</a>", "a{xyw}(b c{z})"},
        // A blank that ends a pair stays with its value; tabs and line ends do not.
        {"<a x=\"1\" y=\"2\"\tz=\"3\"\nw=4>", "a(x=\"1\"  y=\"2\" z=\"3\" w=4)"},
        // A pair without a value, or "=" with blanks around it, is no attribute.
        {"<a checked b = \"1\">", "a"},
        // "<" inside a value is kept; ">" ends the attribute text even inside quotes.
        {"<a b=\"x<y\" c=\"p>q\">t</a>", "a{q\">t}(b=\"x<y\"  c=\"p)"},
        // After a closing tag the text after the last ">" before the next "<" is read.
        {"<a><b/>p>q</a>", "a{q}(b)"},
        {"<!-- start --><doc/>", "!--{ start }(doc)"},
        {"<a><!--x--><b/><!----></a>", "a(!--{x} b !--{})"},
        {"<a><!-- never closed <b/>", "a(!--{ never closed <b/>})"},
        // CDATA is taken as it stands, into the value of its element.
        {"<a>x<![CDATA[<b>&amp;</b>]]>y</a>", "a{x<b>&amp;</b>y}"},
        {"<a>x &amp; &#233;</a>", "a{x &amp; &#233;}"},
        // Closing tags without openers close nothing; an element after the first closed goes under it.
        {"</x></y><a/><b>t</b>", "a(b{t})"},
        {"", ""},
        {"just text", ""},
    };
    for (const auto& c : cases) EXPECT_EQ(Parse(c.Text), c.Tree) << c.Text;
}

TEST(XMLEngine, SearchesAndChildren) {
    TKvXMLEngine engine;
    engine.ParseXMLFromString("<r><a n=\"1\"><b>one</b></a><a><b>two</b></a><c/></r>");
    TKvXMLItem* root = &engine.RootItem();
    EXPECT_EQ(engine.GetItemByTag(root, "r"), root);
    EXPECT_EQ(engine.GetItemByTag(root, "b")->GetTagValue(), "one");
    EXPECT_EQ(engine.GetItemByTag(root, "c"), root->GetChild("c"));
    EXPECT_EQ(engine.GetItemByTag(root, "B"), nullptr); // names compare exactly
    EXPECT_EQ(root->GetChild("a", 1)->GetChild("b")->GetTagValue(), "two");
    EXPECT_EQ(root->GetChild("a", 2), nullptr);
    EXPECT_EQ(root->GetChild("a")->GetChild("n")->Kind(), ikAttribute);
    EXPECT_EQ(root->GetChild("a")->Parent(), root);
}

TEST(XMLEngine, DeepTreesNeedNoDeepStack) {
    constexpr int depth = 300000;
    std::string text;
    for (int i = 0; i < depth; ++i) text += "<a>";
    text += "<b>bottom</b>";
    {
        TKvXMLEngine engine;
        engine.ParseXMLFromString(text);
        const TKvXMLItem* b = engine.GetItemByTag(&engine.RootItem(), "b");
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(b->GetTagValue(), "bottom");
        int levels = 0;
        for (const TKvXMLItem* up = b; up->Parent(); up = up->Parent()) ++levels;
        EXPECT_EQ(levels, depth);
        EXPECT_EQ(engine.GetItemByTag(&engine.RootItem(), "missing"), nullptr);
        engine.ParseXMLFromString(text); // the old tree goes first
    }
}

// The root element's text of a document loaded from `bytes`, with how it was decoded and what was said.
struct Loaded {
    std::string Text, Encoding, Warnings;
};
Loaded Load(const std::string& bytes) {
    TKvXMLEngine engine;
    TMemoryStream stream(bytes);
    engine.LoadFromStream(stream);
    Loaded out{engine.GetItemByTag(&engine.RootItem(), "t")
                   ? engine.GetItemByTag(&engine.RootItem(), "t")->GetTagValue()
                   : "",
               engine.EncodingName(), ""};
    for (const TKvXMLWarning& w : engine.Warnings())
        out.Warnings += std::to_string(w.Line) + ": " + w.Message + (w.Problem ? " (problem)" : "") + "\n";
    return out;
}

std::string Utf16(std::string_view ascii, bool bigEndian) {
    std::string out;
    for (char c : ascii) out += bigEndian ? std::string{'\0', c} : std::string{c, '\0'};
    return out;
}

TEST(XMLEngine, Encodings) {
    const std::string unknown =
        "the declaration names the encoding \"x-klingon\", which is not known: the text is "
        "read as ";
    const struct {
        std::string Bytes;
        Loaded Expected;
    } cases[] = {
        {"<t>caf\xC3\xA9</t>", {"café", "utf-8", ""}},
        {"\xEF\xBB\xBF<?xml version='1.0' encoding='iso-8859-1'?><t>caf\xC3\xA9</t>", {"café", "utf-8", ""}},
        {"<t>caf\xE9 \x80</t>", {"café €", "cp1252", ""}},
        {"<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><t>\xE9\x80</t>", {"é\u0080", "iso-8859-1", ""}},
        {"<?xml version=\"1.0\" encoding=\"windows-1251\"?><t>\xC4\xE0</t>", {"Да", "cp1251", ""}},
        {"<?xml version='1.0' encoding='Shift_JIS'?><t>\x93\xFA\x96\x7B</t>", {"日本", "cp932", ""}},
        {"<?xml version=\"1.0\" encoding=\"US-ASCII\"?><t>a</t>", {"a", "utf-8", ""}},
        {"<?xml encoding=\"x-klingon\"?><t>caf\xC3\xA9</t>", {"café", "utf-8", "1: " + unknown + "utf-8\n"}},
        {"<?xml encoding=\"x-klingon\"?><t>caf\xE9</t>", {"café", "cp1252", "1: " + unknown + "cp1252\n"}},
        // Declared UTF-8 (or found so) with a stray byte further on: that byte is Windows-1252.
        {"<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<t>\xC3\xA9\n\xE9</t>",
         {"é\né", "utf-8", "3: bytes that are not UTF-8 were read as Windows-1252 characters\n"}},
        {"\xFF\xFE" + Utf16("<t>ab</t>", false), {"ab", "utf-16le", ""}},
        {"\xFE\xFF" + Utf16("<t>ab</t>", true), {"ab", "utf-16be", ""}},
        {Utf16("<?xml version=\"1.0\"?><t>ab</t>", true), {"ab", "utf-16be", ""}},
        {"\xFF\xFE" + Utf16("<t>ab", false) + "x",
         {"ab\uFFFD", "utf-16le", "1: the UTF-16 text ends in the middle of a character (problem)\n"}},
        // EBCDIC: "<?xml" in code page 037 leads to the declaration, which names the real code page.
        {"\x4C\x6F\xA7\x94\x93\x40\x85\x95\x83\x96\x84\x89\x95\x87\x7E\x7F\xC9\xC2\xD4\x60\xF1\xF1\xF4\xF1"
         "\x7F\x6F"
         "\x6E\x4C\xA3\x6E\x4A\xE0\x5A\x4C\x61\xA3\x6E",
         {"ÄÖÜ", "cp1141", ""}},
        // A last character of code 27 is dropped; a NUL ends the text.
        {"<t>a\x1B", {"a", "utf-8", ""}},
        {std::string("<t>a\0b</t>", 10),
         {"a", "utf-8", "1: a NUL character ends the text: nothing after it is read (problem)\n"}},
    };
    for (const auto& c : cases) {
        const Loaded got = Load(c.Bytes);
        EXPECT_EQ(got.Text, c.Expected.Text) << c.Bytes;
        EXPECT_EQ(got.Encoding, c.Expected.Encoding) << c.Bytes;
        EXPECT_EQ(got.Warnings, c.Expected.Warnings) << c.Bytes;
    }
}

} // namespace
} // namespace kv
