// Specification files: the exact lines written, the reading rules, and what garbage leaves behind.

#include "EngineTestSupport.h"
#include "engine/KvIUtils.h"
#include "platform/Streams.h"

namespace kv {
namespace {

std::string Saved(TKvImportBaseComponent& c, const std::string& description) {
    TStringStream s;
    c.SaveSpecificationToStream(s, description);
    return s.DataString();
}

void Load(TKvImportBaseComponent& c, const std::string& text) {
    TStringStream s(text);
    c.LoadSpecificationFromStream(s);
}

TEST(Specs, WritesTheLinesInOrder) {
    test::ScopedFormatSettings fs(InvariantFormatSettings());
    TKvImportFromDataSet c;
    c.SetDatasetKeys("ID;CODE");
    c.SetMode(imAppendUpdate);
    c.SetSourceFileName("in.csv");
    c.Mappings().Add("ID=Field1");
    c.Mappings().Add("NAME=UPPER(Field2)");
    c.SetFieldDelimiterCustom(9);
    c.LoadCondition().LoadWhen = "Field1 > 0";
    EXPECT_EQ(
        Saved(c, "my import"),
        "[Common]\r\nApp=kvimport\r\nDescription=KvImport: specification\r\nSpecification=my import\r\n"
        "TableName=\r\nDatasetKeys=ID;CODE\r\nMode=2\r\nTableType=Text\r\nSourceFileName=in.csv\r\n"
        "CharacterSet=0\r\nCommitCount=300\r\n"
        "[Mappings]\r\nCount=2\r\nMap0=ID=Field1\r\nMap1=NAME=UPPER(Field2)\r\n"
        "[Text]\r\nFieldDelimiter=09\r\nTextQualifier=22\r\nRecordSeparator=0D0A\r\nFixed=0\r\nTrimSpaces="
        "0\r\n"
        "RowFirst=1\r\nRowLast=2147483647\r\nRowFieldNames=1\r\nMaxScanRows=0\r\n"
        "[DataFormat]\r\nDateOrder=2\r\nDateSeparator=2D\r\nTimeSeparator=3A\r\nThousandSeparator=2C\r\n"
        "DecimalSeparator=2E\r\nCurrencyString=$\r\nFourDigitYear=1\r\nLeadingZerosInDate=1\r\n"
        "CustomDateTimeFormat=\r\nBooleanTrue=True\r\nBooleanFalse=False\r\nUseRegionalSettings=0\r\n"
        "[Condition]\r\nLoadWhen=Field1 > 0\r\nSkipIf=\r\n");
}

TEST(Specs, ReadsBackWhatItWrites) {
    TKvImportFromDataSet a, b;
    a.SetDatasetKeys("K");
    a.SetMode(imDelete);
    a.SetTableName("Orders");
    a.SetTableType(teXLS);
    a.SetCharacterSet(csiEBCDIC);
    a.SetCommitCount(17);
    a.Mappings().Add("A=B + 'é'");
    a.SetFieldDelimiterCustom(U'|');
    a.SetTextQualifierCustom(0);
    a.SetRecordSeparatorCustom("~~");
    a.SetFixed(true);
    a.SetTrimSpaces(tsTrimLeft);
    a.SetRowFirst(3);
    a.SetRowLast(99);
    a.SetRowFieldNames(2);
    a.SetMaxScanRows(40);
    TKvIDataFormats& f = a.DataFormats();
    f.DateOrder = doDYM;
    f.DateSeparator = U'.';
    f.TimeSeparator = U'h';
    f.ThousandSeparator = U' ';
    f.DecimalSeparator = U',';
    f.CurrencyString = "";
    f.FourDigitYear = false;
    f.CustomDateTimeFormat = "DD.MM.YYYY";
    f.BooleanTrue = "Ja";
    f.UseRegionalSettings = true;
    a.LoadCondition().SkipIf = "X = 1";
    Load(b, Saved(a, "d"));
    EXPECT_EQ(Saved(b, "d"), Saved(a, "d"));
    EXPECT_EQ(b.FieldDelimiter(), fdCustom);
    EXPECT_EQ(b.TextQualifier(), tqNone);
    EXPECT_EQ(b.RecordSeparator(), rsCustom);
    EXPECT_EQ(b.TableType(), teXLS);
}

TEST(Specs, ReadingRules) {
    TKvImportFromDataSet c;
    c.SetMode(imUpdate);
    c.SetCommitCount(10);
    c.LoadCondition().LoadWhen = "old";
    c.DataFormats().DecimalSeparator = U',';
    Load(c,
         "[Whatever]\r\nMode=seven\r\nCommitCount=\r\nFieldDelimiter=2C\r\nMap0=A=1\r\nMap1=\r\nMap2=C=3\r\n"
         "Map0=ignored\r\nTableType=Nonsense\r\nDecimalSeparator=\r\nRowFirst=5x\r\n");
    EXPECT_EQ(c.Mode(), imUpdate);  // not a number: kept
    EXPECT_EQ(c.CommitCount(), 10); // empty: kept
    EXPECT_EQ(c.FieldDelimiter(), fdComma);
    EXPECT_EQ(std::vector<std::string>(c.Mappings().begin(), c.Mappings().end()),
              std::vector<std::string>{"A=1"});
    EXPECT_EQ(c.TableType(), teText);
    EXPECT_EQ(c.DataFormats().DecimalSeparator, U','); // empty: kept
    EXPECT_EQ(c.RowFirst(), 1);
    EXPECT_EQ(c.LoadCondition().LoadWhen, ""); // a text key that is missing becomes empty
    EXPECT_EQ(c.RecordSeparatorCustom(), "");  // set also when empty
    Load(c, "Map0= = \r\nMap1=B=2\r\nMode=4\r\nRecordSeparator=0D0A0\r\n");
    EXPECT_EQ(std::vector<std::string>(c.Mappings().begin(), c.Mappings().end()),
              std::vector<std::string>{"B=2"});
    EXPECT_EQ(c.Mode(), imCopy);
    EXPECT_EQ(c.RecordSeparator(), rsCRLF); // the odd last digit is ignored
    Load(c, std::string("\x00\xFF garbage \x01=\x02\r\n[[[\r\n=\r\n", 21));
    EXPECT_EQ(c.Mode(), imCopy);
}

TEST(Specs, HexadecimalCharacters) {
    EXPECT_EQ(TranslateToHex("\t;"), "093B");
    EXPECT_EQ(TranslateToHex("\xE2\x82\xAC"), "20AC"); // above 255: more than two digits
    EXPECT_EQ(TranslateFromHex("20AC"), " \xC2\xAC");  // ... which does not read back the same
    EXPECT_EQ(TranslateFromHex("4a4B7"), "JK");
    EXPECT_EQ(TranslateFromHex("zz41"), "A");
}

TEST(Specs, FilesAndTheirEvents) {
    test::TempDir dir;
    TKvImportFromDataSet c;
    std::vector<std::string> log;
    c.OnBeforeSaveSpecification = [&](TObject*, const std::string&) { log.push_back("before-save"); };
    c.OnAfterSaveSpecification = [&](TObject*, const std::string&) { log.push_back("after-save"); };
    c.OnBeforeLoadSpecification = [&](TObject*, const std::string&) { log.push_back("before-load"); };
    c.OnAfterLoadSpecification = [&](TObject*, const std::string&) { log.push_back("after-load"); };
    const std::string file = dir.File("new/sub/one.kvi");
    c.SetDatasetKeys("Z");
    c.SaveSpecification(file, "", false); // no description: nothing happens
    EXPECT_FALSE(FileExists(file));
    c.SaveSpecification(file, "desc", false);
    EXPECT_TRUE(FileExists(file)); // the folders were made
    c.SetDatasetKeys("");
    c.LoadSpecification(file);
    EXPECT_EQ(c.DatasetKeys(), "Z");
    EXPECT_EQ(log, (std::vector<std::string>{"before-save", "after-save", "before-load", "after-load"}));
    try {
        c.LoadSpecification(dir.File("missing.kvi"));
        FAIL();
    } catch (const Exception& e) {
        EXPECT_EQ(e.Message(), "File " + dir.File("missing.kvi") + " not exist.");
    }
}

} // namespace
} // namespace kv
