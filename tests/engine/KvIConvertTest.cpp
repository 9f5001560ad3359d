// Values through the import: what fields store, the names the handler resolves (LOOKUP, SUBSTITUTE,
// parameters, functions, columns) and the plain-column shortcut agreeing with the general handler. The
// type rules themselves are the converter's (KvIConverterTest).

#include "EngineTestSupport.h"
#include "engine/KvIMIME.h"
#include "expression/ExpressionTestSupport.h"
#include "platform/DateUtils.h"
#include "platform/Format.h"
#include "platform/Streams.h"
#include "sources/KvI2TXT.h"

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
            if (error.empty()) error = e.what();
            abort = false;
        };
        imp.OnGetCellParams = [this](TObject*, TField*, Variant& v) { converted = ValueText(v); };
        DataFormats().DateOrder = doDMY;
        DataFormats().DateSeparator = U'/';
        DataFormats().DecimalSeparator = U'.';
        DataFormats().ThousandSeparator = U',';
        DataFormats().CurrencyString = "$";
    }
    TKvIDataFormats& DataFormats() { return imp.DataFormats(); }
    ~Convert() override {
        while (lstKvIRegFunctions.Count() > 1) lstKvIRegFunctions.Remove(lstKvIRegFunctions.Count() - 1);
    }

    static std::string ValueText(const Variant& v) {
        if (v.IsNull()) return "null";
        if (v.VarType() == varDate) return "date:" + DateTimeToISO8601(v.AsDateTime());
        return test::TypedText(v);
    }

    // One source row holding `text` (null when empty), one destination field of `type`.
    void Prepare(TFieldType type, const std::string& text) {
        source.Close();
        source.FieldDefs().clear();
        source.EmptyTable();
        source.AddFieldDef("V", ftString, 100);
        source.AppendRecord({text.empty() ? Variant::Null() : Variant(text)});
        dest.Close();
        dest.FieldDefs().clear();
        dest.EmptyTable();
        dest.AddFieldDef("FIELD", type, 100);
    }
    std::string Import(TFieldType type, const std::string& text, const std::string& mapping = "V") {
        Prepare(type, text);
        imp.Mappings().Clear();
        imp.Mappings().Add("FIELD=" + mapping);
        error.clear();
        converted.clear();
        imp.Execute();
        if (!error.empty()) return "error:" + error;
        if (dest.RowCount() != 1) return "no row";
        const Variant& v = dest.Row(0)[0];
        if (v.IsNull()) return "null";
        if (v.VarType() == varDate) return "date:" + DateTimeToISO8601(v.AsDateTime());
        if (v.VarType() == varBytes) return "bytes:" + v.StringRef();
        return v.AsString();
    }
    // What the conversion made of the text ("kind:text"), whether or not the field can store it; the
    // conversion's own error otherwise.
    std::string Converted(TFieldType type, const std::string& text, const std::string& mapping = "V") {
        const std::string stored = Import(type, text, mapping);
        return converted.empty() ? stored : converted;
    }
    // Import (or Converted), checked against the general name handler: a plain column takes a shorter
    // way, which must end where the handler's steps end (an evaluation event makes the engine take them
    // all).
    std::string ImportBothWays(TFieldType type, const std::string& text, bool conversion = false) {
        const auto run = [&](const std::string& mapping) {
            return conversion ? Converted(type, text, mapping) : Import(type, text, mapping);
        };
        const std::string plain = run("V");
        imp.OnParserEvaluate = [](TObject*, const std::string&, const std::vector<Variant>&, int, bool,
                                  Variant&, bool&) {};
        EXPECT_EQ(run("V"), plain) << text << " through the general handler";
        imp.OnParserEvaluate = nullptr;
        EXPECT_EQ(run("[V]"), plain) << text << " by its bracketed name";
        return plain;
    }
    std::string ConvertBothWays(TFieldType type, const std::string& text) {
        return ImportBothWays(type, text, true);
    }

    test::ScopedFormatSettings settings_;
    TComponent root;
    TKvMemDataSet& source = *new TKvMemDataSet(&root);
    TKvMemDataSet& dest = *new TKvMemDataSet(&root);
    TKvImportFromDataSet& imp = *new TKvImportFromDataSet(&root);
    std::string error, converted;
};

TEST_F(Convert, TextIntoTypedFields) {
    struct Case {
        TFieldType type;
        const char* text;
        const char* stored;
    };
    const Case cases[] = {
        {ftBoolean, "True", "True"},
        {ftBoolean, "true", "True"}, // left to the field, which reads it
        {ftBoolean, "false", "False"},
        {ftBoolean, "tRuE", "True"},
        {ftBoolean, "FALSE", "False"},
        {ftBoolean, "yes", "error:Could not convert variant of type (String) into type (Boolean)"},
        {ftInteger, " 42 ", "42"},
        {ftLargeint, "9000000000", "9000000000"},
        {ftFloat, "$1,234.50", "1234.5"},
        {ftFloat, "abc", "error:'abc' is not a valid floating point value"},
        {ftDate, "07/03/2026", "date:2026-03-07 00:00:00"},
        {ftDateTime, "07/03/2026 14:05:09.250", "date:2026-03-07 14:05:09.250"},
        {ftTime, "14:05:09", "date:1899-12-30 14:05:09"},
        {ftString, "  kept  ", "  kept  "},
        {ftString, "[CDATA[inner]]", "inner"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(ImportBothWays(c.type, c.text), c.stored) << c.text << " as " << FieldTypeName(c.type);
    imp.SetTrimSpaces(tsTrimLeftRight);
    EXPECT_EQ(ImportBothWays(ftString, "  trimmed \t"), "trimmed");
    imp.SetTrimSpaces(tsTrimLeft);
    EXPECT_EQ(ImportBothWays(ftString, "  left "), "left ");
    imp.SetKeepUnconvertedValues(true);
    EXPECT_EQ(ConvertBothWays(ftInteger, "x7"), "string:x7");
    EXPECT_EQ(ConvertBothWays(ftDateTime, "2024-01-01T10:00Z"), "string:2024-01-01T10:00Z");
}

TEST_F(Convert, ValuesEqualToANameAreData) {
    // A text equal to its field's name (a header row read as data) is converted like any other text.
    for (const auto& [type, message] : {std::pair{ftInteger, "'%s' is not a valid integer value"},
                                        std::pair{ftFloat, "'%s' is not a valid floating point value"},
                                        std::pair{ftDate, "'%s' is not a valid date"}}) {
        for (const char* text : {"FIELD", "field", "V"})
            EXPECT_EQ(ConvertBothWays(type, text), "error:" + Format(message, text)) << text;
    }
    imp.SetKeepUnconvertedValues(true);
    EXPECT_EQ(ConvertBothWays(ftInteger, "Field"), "string:Field");

    // A file whose header holds numbers: the second column is named "2019" and holds 2019.
    TKvMemDataSet table;
    table.AddFieldDef("year", ftInteger);
    table.AddFieldDef("2019", ftInteger);
    table.AddFieldDef("when", ftDate);
    TKvImportFromText text;
    text.SetAnimatedStatus(false);
    text.SetDataSet(&table);
    text.SetFieldDelimiterCustom(U',');
    text.SetRowFirst(2);
    text.Mappings().Add("year=year");
    text.Mappings().Add("2019=[2019]");
    text.Mappings().Add("when=when");
    text.DataFormats().DateOrder = doYMD;
    text.DataFormats().DateSeparator = U'-';
    TStringStream stream("year,2019,when\n2019,2019,2019-01-01\n2020,year,when\n");
    std::vector<std::string> errors;
    text.OnErrorEvent = [&](TObject*, const std::exception& e, bool& abort) {
        errors.push_back(e.what());
        abort = false;
    };
    text.LoadFromStream(stream);
    ASSERT_EQ(table.RowCount(), 1);
    EXPECT_EQ(table.Row(0)[1].AsString(), "2019");
    EXPECT_EQ(errors, std::vector<std::string>{"'year' is not a valid integer value"});
}

TEST_F(Convert, DateTimesWithATWhereTheSourceSaysSo) {
    struct WithT : TKvImportFromDataSet {
        bool DateTimeHasT() const override { return true; }
    } withT;
    withT.SetDataFormats(DataFormats());
    EXPECT_EQ(withT.BuildDTFormat(), "DD/MM/YYYY THH:NN:SS");
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

TEST_F(Convert, NumberLiteralsWhateverTheRegionalSettings) {
    test::ScopedFormatSettings german(test::GermanSettings());
    DataFormats().DecimalSeparator = U',';
    DataFormats().ThousandSeparator = U'.';
    EXPECT_EQ(Converted(ftFloat, "2", "V * 1.5"), "double:3");
    EXPECT_EQ(Converted(ftFloat, "1,5"), "double:1,5"); // the source value by the data formats
    EXPECT_EQ(Converted(ftFloat, "x", "1.5 * 2 + 0.25 * 4"), "double:4");
}

TEST_F(Convert, UserFunctionsWithoutArguments) {
    lstKvIRegFunctions.AddFunction("RATE()=3");
    lstKvIRegFunctions.AddFunction("PI()=3.14159"); // a later definition replaces the start-up one
    for (const char* mapping : {"RATE", "rate", "[RATE]"}) {
        EXPECT_EQ(Converted(ftFloat, "2", mapping), "double:3") << mapping;
        imp.OnParserEvaluate = [](TObject*, const std::string&, const std::vector<Variant>&, int, bool,
                                  Variant&, bool&) {};
        EXPECT_EQ(Converted(ftFloat, "2", mapping), "double:3") << mapping << " through the general handler";
        imp.OnParserEvaluate = nullptr;
    }
    EXPECT_EQ(Converted(ftFloat, "2", "V * RATE"), "double:6");
    EXPECT_EQ(Converted(ftFloat, "2", "PI"), "double:3.14159");
    // Its result is no source text to convert: an integer field takes it as the number it is.
    EXPECT_EQ(Import(ftInteger, "2", "RATE"), "3");
    lstKvIRegFunctions.AddFunction("TIMES(X)=X*RATE");
    EXPECT_EQ(Import(ftInteger, "2", "TIMES(V)"), "6");

    // A parameter of that name (names of parameters are case-sensitive) comes first.
    TKvIParameter& p = imp.Parameters().Add();
    p.SetName("RATE");
    p.SetExpression("2 + 3");
    p.SetParameterMode(ipmCalculate);
    EXPECT_EQ(Converted(ftFloat, "2", "RATE"), "double:5");
    EXPECT_EQ(Converted(ftFloat, "2", "V * RATE"), "double:10");
}

TEST_F(Convert, SubstituteAndLookup) {
    EXPECT_EQ(Import(ftString, "M", "SUBSTITUTE(V, 'M;F', 'Male;Female')"), "Male");
    EXPECT_EQ(Import(ftString, "X", "SUBSTITUTE(V, 'M;F', 'Male;Female')"), "null");
    EXPECT_EQ(Import(ftString, "f", "SUBSTITUTE(V, 'M;F', 'Male;Female')"), "null"); // case-sensitive

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
    Prepare(ftBlob, "[CDATA[" + Encode64("hello") + "]]");
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
