// The XML source joined to the engine: columns and their types, mappings over rows read as a stream,
// row ranges, counts and places. The row element in a specification file is the command line's test.

#include "sources/KvI2XML.h"

#include "TestSupport.h"
#include "datasets/KvMemDataSet.h"
#include "platform/Streams.h"

namespace kv {
namespace {

const char* const kOrders =
    "<?xml version='1.0'?>\n"
    "<orders>\n"
    "  <order id='1'><amount>12.5</amount><day>2024-01-02</day></order>\n"
    "  <order id='2'><amount>7</amount><day>2024-01-03</day><note>late</note></order>\n"
    "  <order id='3'><amount>x</amount></order>\n"
    "  <order id='4'><amount>1</amount><note>a &amp; b</note></order>\n"
    "</orders>\n";

class XMLSource : public ::testing::Test {
protected:
    XMLSource() : settings_(InvariantFormatSettings()) {
        xml.SetAnimatedStatus(false);
        xml.SetDataSet(&dest);
        xml.OnErrorEvent = [this](TObject*, const std::exception& e, bool& abort) {
            errors.push_back(xml.ErrorPlace().Location.Text() + ": " + e.what());
            abort = false;
        };
        test::WriteFile(file, kOrders);
        xml.SetSourceFileName(file);
    }
    std::string Import() {
        dest.EmptyTable();
        xml.Execute();
        return test::MemRows(dest);
    }

    test::ScopedFormatSettings settings_;
    test::TempDir dir;
    std::string file = dir.File("orders.xml");
    TKvMemDataSet dest;
    TKvImportFromXML xml;
    std::vector<std::string> errors;
};

TEST_F(XMLSource, ColumnsComeFromEveryRowAndMapByName) {
    xml.DescribeColumns();
    std::string columns;
    for (int i = 0; i < xml.Columns().Count(); ++i)
        columns += xml.Columns().Columns(i).FieldName + ":" +
                   std::to_string(xml.Columns().Columns(i).DataType) + " ";
    // "x" makes amount text; a note first met in the second row is a column all the same.
    EXPECT_EQ(columns, "id:1 amount:0 day:4 note:0 ");
    EXPECT_EQ(xml.RowElementUsed(), "order");
    EXPECT_EQ(xml.RowCount(), 4);

    dest.AddFieldDef("note", ftString, 20);
    dest.AddFieldDef("id", ftInteger);
    dest.AddFieldDef("day", ftDate);
    EXPECT_EQ(Import(), "null|1|2024-01-02\nlate|2|2024-01-03\nnull|3|null\na & b|4|null\n");
    EXPECT_TRUE(errors.empty());

    // What the passes found is kept for the file as it was, not for a file changed since.
    test::WriteFile(file, "<r><line id='9'><note>new</note></line></r>");
    EXPECT_EQ(Import(), "new|9|null\n");
    EXPECT_EQ(xml.RowElementUsed(), "line");
}

TEST_F(XMLSource, MappingsRowRangesCountsAndPlaces) {
    dest.AddFieldDef("id", ftInteger);
    dest.AddFieldDef("amount", ftFloat);
    dest.AddFieldDef("of", ftInteger);
    xml.SetRowElement("order");
    xml.Mappings().Add("id=id");
    xml.Mappings().Add("amount=amount");
    xml.Mappings().Add("of=STATTOTALCOUNT");
    xml.SetRowFirst(2);
    xml.SetRowLast(3);
    EXPECT_EQ(Import(), "2|7|3\n"); // the count, too, goes no further than RowLast
    EXPECT_EQ(errors, std::vector<std::string>{"line 5: 'x' is not a valid floating point value"});
    // From a stream the count takes a pass of its own over the same bytes, and the run goes on after it.
    errors.clear();
    dest.EmptyTable();
    TMemoryStream stream(std::string("junk before") + kOrders);
    stream.SetPosition(11);
    xml.SetSourceFileName("");
    xml.LoadFromStream(stream);
    EXPECT_EQ(dest.RowCount(), 1);
    EXPECT_EQ(errors.size(), 1u);
    EXPECT_EQ(xml.Statistic().TotalCount, 3);
}

TEST_F(XMLSource, ADocumentWithoutRowsFailsSayingWhy) {
    dest.AddFieldDef("id", ftInteger);
    test::WriteFile(file, "<?xml version='1.0'?><only>text</only>");
    Import();
    EXPECT_EQ(xml.Statistic().Result, irFailed);
    EXPECT_NE(xml.LastMessage().find(file + ": no element of the document has attributes or child elements"),
              std::string::npos)
        << xml.LastMessage();
}

} // namespace
} // namespace kv
