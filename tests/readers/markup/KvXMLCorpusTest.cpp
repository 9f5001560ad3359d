// Documents written by other programs: every file of the shared corpus loads into a tree and reads as
// rows (or has no element to make rows of), and the documents another parser wrote back out read alike.

#include "readers/markup/KvIXML.h"
#include "readers/markup/KvXMLRows.h"

#include "TestSupport.h"
#include "platform/Streams.h"
#include "support/DataFiles.h"

#include <filesystem>
#include <map>

namespace kv {
namespace {

const test::TCorpusFolder CorpusFile("xml");

// The row element, and every row's values (without their lines).
std::string Rows(const std::string& file) {
    TFileStream stream(file, fmOpenRead);
    TKvXMLRows rows;
    rows.Open(stream);
    const std::string element = rows.ChooseRowElement();
    std::string out = element;
    rows.Start(element);
    while (rows.NextRow()) {
        out += "\n";
        for (int c = 0; c < rows.ColumnCount(); ++c)
            if (const std::string* v = rows.Value(c)) out += rows.ColumnName(c) + "=" + *v + "|";
    }
    return out;
}

TEST(XMLCorpus, EveryDocumentLoads) {
    if (!CorpusFile.Here()) GTEST_SKIP() << "the shared corpus is not here";
    struct Expected {
        const char* Root;    ///< the tree's root item
        const char* Element; ///< the row element chosen ("": none, which a source reports)
        int Rows;
        const char* Warning; ///< the first warning, "" for none
    };
    const std::map<std::string, Expected> expected = {
        {"1904.xml", {"?xml", "Cell", 20, ""}},
        {"SampleSS.xml", {"?xml", "Cell", 15, ""}},
        {"cdata", {"doc", "", 0, ""}},
        {"cdata.xml", {"?xml", "", 0, "bytes that are not UTF-8 were read as Windows-1252 characters"}},
        {"charref1.xml", {"bla", "", 0, ""}},
        {"comment.xml", {"?xml", "doc", 1, ""}},
        {"crlf.xml", {"?xml", "Cell", 5, ""}},
        {"dtd1", {"?xml", "", 0, ""}},
        {"ebcdic_566012.xml", {"?xml", "test", 1, ""}},
        {"empty.xml", {"", "", 0, ""}},
        {"ent1", {"?xml", "", 0, ""}},
        {"ent2", {"?xml", "IMG", 1, ""}},
        {"extra-content.xml", {"d", "", 0, ""}},
        {"intsubset.xml", {"?xml", "", 0, ""}},
        {"iso-8859-5.xml", {"?xml", "", 0, ""}},
        {"isolat1", {"?xml", "", 0, ""}},
        {"isolat2", {"?xml", "", 0, ""}},
        // The document element's name is not one of the tree's name characters: the first named one leads.
        {"japancrlf.xml", {"c8c:Ele", "c8c:Ele", 1, ""}},
        // Billions of laughs, if entities were expanded; none is.
        {"lol_classic.xml", {"!DOCTYPE", "", 0, ""}},
        {"ns", {"?xml", "dia:diagramdata", 1, ""}},
        {"pi.xml", {"?xml", "doc", 1, ""}},
        {"po1_0.xml", {"?xml", "item", 2, ""}},
        {"rss.xml", {"?xml", "channel", 1, ""}},
        {"slashdot.xml", {"ultramode", "story", 10, ""}},
        {"slashdot16.xml", {"?xml", "story", 14, ""}},
        {"tstblanks.xml", {"?xml", "a", 1, ""}},
        {"utf16bebom.xml", {"?xml", "namespace", 1, ""}},
        {"utf16lebom.xml", {"?xml", "namespace", 1, ""}},
        {"utf8bom.xml", {"foo", "", 0, ""}},
    };
    for (const auto& entry : std::filesystem::directory_iterator(CorpusFile(""))) {
        if (!entry.is_regular_file()) continue;
        const std::string name = entry.path().filename().string();
        const auto it = expected.find(name);
        ASSERT_NE(it, expected.end()) << name << " is new: say what it gives";
        TKvXMLEngine engine;
        engine.LoadFromFile(entry.path().string());
        EXPECT_EQ(engine.RootItem().TagName(), it->second.Root) << name;
        EXPECT_EQ(engine.Warnings().empty() ? "" : engine.Warnings()[0].Message, it->second.Warning) << name;

        TFileStream stream(entry.path().string(), fmOpenRead);
        TKvXMLRows rows;
        rows.Open(stream);
        EXPECT_EQ(rows.ChooseRowElement(), it->second.Element) << name;
        rows.Start(it->second.Element);
        int count = 0;
        while (rows.NextRow()) ++count;
        EXPECT_EQ(count, it->second.Rows) << name;
    }
}

TEST(XMLCorpus, ValuesInEveryEncoding) {
    if (!CorpusFile.Here()) GTEST_SKIP() << "the shared corpus is not here";
    EXPECT_EQ(
        Rows(CorpusFile("po1_0.xml")),
        "item\npartNum=872-AA|productName=Lawnmower|quantity=1|USPrice=148.95|apo:comment=Confirm this is "
        "electric|\npartNum=926-AA|productName=Baby Monitor|quantity=1|USPrice=39.98|shipDate=1999-05-21|");
    EXPECT_EQ(Rows(CorpusFile("ebcdic_566012.xml")), "test\nattr=ÄÖÜ|");
    TKvXMLEngine engine;
    engine.LoadFromFile(CorpusFile("iso-8859-5.xml"));
    EXPECT_EQ(engine.EncodingName(), "iso-8859-5");
    EXPECT_EQ(engine.GetItemByTag(&engine.RootItem(), "doc")->GetTagValue().substr(0, 8),
              "\u0080\u0081\u0082\u0083");
    // "è" is none of the tree's name characters: the element reads as "tr".
    engine.LoadFromFile(CorpusFile("isolat1"));
    ASSERT_NE(engine.GetItemByTag(&engine.RootItem(), "tr"), nullptr);
    EXPECT_EQ(engine.GetItemByTag(&engine.RootItem(), "tr")->GetTagValue(), "là");
}

TEST(XMLCorpus, WrittenBackOutReadsAlike) {
    if (!CorpusFile.Here()) GTEST_SKIP() << "the shared corpus is not here";
    for (const char* name : {"slashdot.xml", "slashdot16.xml", "utf16lebom.xml", "isolat1", "japancrlf.xml",
                             "ns", "cdata", "ent1", "ent2"})
        EXPECT_EQ(Rows(CorpusFile(name)), Rows(CorpusFile(std::string("expected/") + name))) << name;
}

} // namespace
} // namespace kv
