// Value conversion: source text into boolean, integer, number, date and time fields by the data formats,
// and the names the handler resolves (LOOKUP, SUBSTITUTE, parameters, system variables, columns).

#include "EngineTestSupport.h"
#include "engine/KvIMIME.h"
#include "platform/DateUtils.h"

namespace kv {
namespace {

// Imports one text into one field of a given type and gives back the stored value (or the row's error).
class Convert : public ::testing::Test {
protected:
    Convert() : settings_(InvariantFormatSettings()) {
        imp.SetAnimatedStatus(false);
        imp.SetSourceDataset(&source);
        imp.SetDataSet(&dest);
        imp.OnErrorEvent = [this](TObject*, const std::exception& e, bool& abort) {
            error = e.what();
            abort = false;
        };
        DataFormats().DateOrder = doDMY;
        DataFormats().DateSeparator = U'/';
        DataFormats().DecimalSeparator = U'.';
        DataFormats().ThousandSeparator = U',';
        DataFormats().CurrencyString = "$";
    }
    TKvIDataFormats& DataFormats() { return imp.DataFormats(); }

    std::string Import(TFieldType type, const std::string& text, const std::string& mapping = "V") {
        source.Close();
        source.FieldDefs().clear();
        source.EmptyTable();
        source.AddFieldDef("V", ftString, 100);
        source.AppendRecord({text.empty() ? Variant::Null() : Variant(text)});
        dest.Close();
        dest.FieldDefs().clear();
        dest.EmptyTable();
        dest.AddFieldDef("FIELD", type, 100);
        imp.Mappings().Clear();
        imp.Mappings().Add("FIELD=" + mapping);
        error.clear();
        imp.Execute();
        if (!error.empty()) return "error:" + error;
        if (dest.RowCount() != 1) return "no row";
        const Variant& v = dest.Row(0)[0];
        if (v.IsNull()) return "null";
        if (v.VarType() == varDate) return "date:" + FormatDateTime("yyyy-mm-dd hh:nn:ss", v.AsDateTime());
        if (v.VarType() == varBytes) return "bytes:" + v.StringRef();
        return v.AsString();
    }
    // Import, checked against the general name handler: a plain column takes a shorter way, which must
    // end where the handler's steps end (an evaluation event makes the engine take them all).
    std::string ImportBothWays(TFieldType type, const std::string& text) {
        const std::string plain = Import(type, text);
        imp.OnParserEvaluate = [](TObject*, const std::string&, const std::vector<Variant>&, int, bool,
                                  Variant&, bool&) {};
        EXPECT_EQ(Import(type, text), plain) << text << " through the general handler";
        imp.OnParserEvaluate = nullptr;
        EXPECT_EQ(Import(type, text, "[V]"), plain) << text << " by its bracketed name";
        return plain;
    }

    test::ScopedFormatSettings settings_;
    TComponent root;
    TKvMemDataSet& source = *new TKvMemDataSet(&root);
    TKvMemDataSet& dest = *new TKvMemDataSet(&root);
    TKvImportFromDataSet& imp = *new TKvImportFromDataSet(&root);
    std::string error;
};

TEST_F(Convert, TextIntoTypedFields) {
    struct Case {
        TFieldType type;
        const char* text;
        const char* stored;
    };
    const Case cases[] = {
        {ftBoolean, "True", "True"},
        {ftBoolean, "Y", "True"},
        {ftBoolean, "0", "False"},
        {ftBoolean, "F", "False"},
        {ftBoolean, "-1", "null"},
        {ftBoolean, "true", "True"}, // left to the field, which reads it
        {ftBoolean, "yes", "error:Could not convert variant of type (String) into type (Boolean)"},
        {ftInteger, "42", "42"},
        {ftInteger, " 42 ", "42"},
        {ftInteger, "FIELD", "0"}, // a header row read as data
        {ftInteger, "  ", "0"},
        {ftInteger, "1.5", "error:'1.5' is not a valid integer value"},
        {ftLargeint, "9000000000", "9000000000"},
        {ftFloat, "$1,234.50", "1234.5"},
        {ftFloat, ".5", "0.5"},
        {ftFloat, "field", "0"},
        {ftFloat, "null", "null"},
        {ftFloat, "-2.5e3", "-2500"},
        {ftFloat, "abc", "error:Could not convert variant of type (String) into type (Double)"},
        {ftDate, "07/03/2026", "date:2026-03-07 00:00:00"},
        {ftDateTime, "07/03/2026 14:05:09", "date:2026-03-07 14:05:09"},
        {ftDate, "/ /", "null"},
        {ftDate, "FIELD", "null"},
        {ftDate, "2026-03-07", "date:2026-03-07 00:00:00"}, // not by the mask: the field reads it
        {ftTime, "14:05:09", "date:1899-12-30 14:05:09"},
        {ftTime, "soon", "date:1899-12-30 00:00:00"}, // unreadable time text is midnight
        {ftString, "  kept  ", "  kept  "},
        {ftString, "[CDATA[inner]]", "inner"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(ImportBothWays(c.type, c.text), c.stored) << c.text << " as " << FieldTypeName(c.type);
}

TEST_F(Convert, DataFormatsDecideTheReading) {
    DataFormats().DecimalSeparator = U',';
    DataFormats().ThousandSeparator = U'.';
    DataFormats().CurrencyString = "EUR";
    EXPECT_EQ(ImportBothWays(ftFloat, "1.234,5 EUR"), "1234.5");
    DataFormats().BooleanTrue = "oui";
    DataFormats().BooleanFalse = "non";
    EXPECT_EQ(ImportBothWays(ftBoolean, "oui"), "True");
    EXPECT_EQ(ImportBothWays(ftBoolean, "non"), "False");
    DataFormats().DateOrder = doMDY;
    DataFormats().DateSeparator = U'-';
    EXPECT_EQ(ImportBothWays(ftDate, "03-07-2026"), "date:2026-03-07 00:00:00");
    DataFormats().CustomDateTimeFormat = "yyyy.mm.dd hh:nn";
    EXPECT_EQ(ImportBothWays(ftDateTime, "2026.03.07 08:30"), "date:2026-03-07 08:30:00");
    imp.SetTrimSpaces(tsTrimLeftRight);
    EXPECT_EQ(ImportBothWays(ftString, "  trimmed \t"), "trimmed");
    imp.SetTrimSpaces(tsTrimLeft);
    EXPECT_EQ(ImportBothWays(ftString, "  left "), "left ");
}

TEST_F(Convert, BuildsTheDateMasks) {
    DataFormats().CustomDateTimeFormat.clear();
    DataFormats().DateOrder = doDMY;
    DataFormats().DateSeparator = U'/';
    DataFormats().TimeSeparator = U':';
    DataFormats().FourDigitYear = true;
    EXPECT_EQ(imp.BuildDTFormat(), "DD/MM/YYYY HH:NN:SS");
    imp.SetTableType(teXML);
    EXPECT_EQ(imp.BuildDTFormat(), "DD/MM/YYYY THH:NN:SS");
    imp.SetTableType(teText);
    DataFormats().DateOrder = doYDM;
    DataFormats().FourDigitYear = false;
    DataFormats().DateSeparator = 0;
    DataFormats().TimeSeparator = 0;
    EXPECT_EQ(imp.BuildDTFormat(), "YYDDMM HHNNSS");
    EXPECT_EQ(imp.BuildTimeFormat(true), "THHNNSS");
}

TEST_F(Convert, ChildNamesArriveUnconverted) {
    // Inside arithmetic the column gives its trimmed text; only the whole expression is converted.
    imp.SetTrimSpaces(tsTrimLeftRight);
    EXPECT_EQ(Import(ftFloat, " 1,000 ", "V + 'x'"),
              "error:Could not convert variant of type (String) into type (Double)");
    EXPECT_EQ(Import(ftString, " 1,000 ", "V + 'x'"), "1,000x");
    EXPECT_EQ(Import(ftFloat, "7", "V * 2"), "14");
    EXPECT_EQ(Import(ftString, "abc", "MISSINGCOLUMN"),
              "MISSINGCOLUMN"); // a missing column passes its name on
}

TEST_F(Convert, SubstituteParametersAndLookup) {
    EXPECT_EQ(Import(ftString, "M", "SUBSTITUTE(V, 'M;F', 'Male;Female')"), "Male");
    EXPECT_EQ(Import(ftString, "X", "SUBSTITUTE(V, 'M;F', 'Male;Female')"), "null");
    EXPECT_EQ(Import(ftString, "f", "SUBSTITUTE(V, 'M;F', 'Male;Female')"), "null"); // case-sensitive

    TKvIParameter& p = imp.Parameters().Add();
    p.SetName("Rate");
    p.SetExpression("2 * 3");
    p.SetParameterMode(ipmCalculate);
    EXPECT_EQ(Import(ftFloat, "5", "V * Rate"), "30");

    auto* states = new TKvMemDataSet(&root);
    states->SetName("States");
    states->AddFieldDef("Code", ftString, 2);
    states->AddFieldDef("Name", ftString, 20);
    states->AppendRecord({"IL", "Illinois"});
    states->AppendRecord({"OH", "Ohio"});
    EXPECT_EQ(Import(ftString, "OH", "LOOKUP('States', 'Code', V, '~Name~')"), "Ohio");
    EXPECT_EQ(Import(ftString, "TX", "LOOKUP('States', 'Code', V, 'Name')"), "null");
    EXPECT_EQ(Import(ftString, "OH", "LOOKUP('Nowhere', 'Code', V, 'Name')"), "null");
    auto* form = new TComponent(&root);
    form->SetName("Form2");
    auto* cities = new TKvMemDataSet(form);
    cities->SetName("Cities");
    cities->AddFieldDef("Id", ftInteger);
    cities->AddFieldDef("City", ftString, 20);
    cities->AppendRecord({5, "Lyon"});
    EXPECT_EQ(Import(ftString, "5", "LOOKUP('Form2.Cities', 'Id', V, 'City')"), "Lyon");
    form->SetName("NotATable");
    EXPECT_EQ(Import(ftString, "5", "LOOKUP('NotATable', 'Id', V, 'City')"), "error:Invalid class typecast");
}

TEST_F(Convert, BlobContent) {
    EXPECT_EQ(Import(ftBlob, "raw bytes"), "bytes:raw bytes");
    struct MimeSource : TKvImportFromDataSet {
        using TKvImportFromDataSet::TKvImportFromDataSet;
        bool BLOBIsMIME() override { return true; }
    };
    auto* mime = new MimeSource(&root);
    mime->Assign(imp);
    mime->SetSourceDataset(&source);
    mime->SetAnimatedStatus(false);
    source.Close();
    source.FieldDefs().clear();
    source.EmptyTable();
    source.AddFieldDef("V", ftString, 100);
    source.AppendRecord({Variant("[CDATA[" + Encode64("hello") + "]]")});
    dest.Close();
    dest.FieldDefs().clear();
    dest.EmptyTable();
    dest.AddFieldDef("FIELD", ftBlob);
    mime->Mappings().Clear();
    mime->Mappings().Add("FIELD=V");
    mime->Execute();
    ASSERT_EQ(dest.RowCount(), 1);
    EXPECT_EQ(dest.Row(0)[0].StringRef(), "hello");
}

TEST_F(Convert, CharacterSets) {
    imp.SetCharacterSet(csiASCII_MSDOS);
    // The byte 0xC9, first read as the system code page's "É", is the OEM frame corner "╔".
    EXPECT_EQ(Import(ftString, "\xC3\x89"), "\xE2\x95\x94");
    imp.SetCharacterSet(csiEBCDIC);
    EXPECT_EQ(Import(ftString, "\xC3\x81"), "A"); // 0xC1 is "Á" in the system code page, "A" in EBCDIC
}

} // namespace
} // namespace kv
