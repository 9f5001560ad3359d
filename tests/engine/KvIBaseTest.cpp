// Settings of the base component: defaults, setters that keep kinds and characters in step, Assign,
// regional settings and the static helpers.

#include "EngineTestSupport.h"

namespace kv {
namespace {

// Defaults the specification file shows (Specs.WritesTheLinesInOrder) are not repeated here.
TEST(Settings, DefaultsOfANewComponent) {
    test::ScopedFormatSettings fs(InvariantFormatSettings());
    TKvImportFromDataSet c;
    EXPECT_TRUE(c.AbortOnProblem());
    EXPECT_EQ(c.ActionKind(), akDatasetApply);
    EXPECT_TRUE(c.AnimatedStatus());
    EXPECT_EQ(c.Mode(), imAppend);
    EXPECT_EQ(c.Options().ToByte(), 59);
    EXPECT_FALSE(c.Options().Contains(soSkipEmptyRow));
    EXPECT_EQ(c.TitleStatus(), "Importing...");
    EXPECT_EQ(c.Statistic().UpdateStep, 1);
    EXPECT_EQ(c.FieldDelimiter(), fdTab);
    EXPECT_EQ(c.FieldDelimiterCustom(), U'\t');
    EXPECT_EQ(c.SQLOptions().SQLQuote, U'"');
    EXPECT_EQ(c.SQLOptions().SQLTerm, ";");
    EXPECT_EQ(c.SQLOptions().FieldNameOptions().SQLQuoteOpen, U'[');
    EXPECT_EQ(c.Extension(), ".KvI");
    EXPECT_EQ(c.FillFileFilters(), "All files (*.*)|*.*");
}

TEST(Settings, KindsAndCharactersStayInStep) {
    TKvImportFromDataSet c;
    const std::pair<char32_t, TKvIFieldDelimiter> delimiters[] = {
        {0, fdNone}, {9, fdTab}, {U';', fdSemicolon}, {U',', fdComma}, {U' ', fdSpace}, {U'|', fdCustom}};
    for (auto [ch, kind] : delimiters) {
        c.SetFieldDelimiterCustom(ch);
        EXPECT_EQ(c.FieldDelimiter(), kind);
    }
    c.SetFieldDelimiter(fdCustom);
    EXPECT_EQ(c.FieldDelimiterCustom(), U'|'); // the custom kind keeps the character
    c.SetFieldDelimiter(fdSemicolon);
    EXPECT_EQ(c.FieldDelimiterCustom(), U';');
    c.SetTextQualifierCustom(39);
    EXPECT_EQ(c.TextQualifier(), tqApos);
    c.SetTextQualifier(tqNone);
    EXPECT_EQ(c.TextQualifierCustom(), 0u);
    c.SetRecordSeparatorCustom("\n");
    EXPECT_EQ(c.RecordSeparator(), rsLF);
    c.SetRecordSeparatorCustom("||");
    EXPECT_EQ(c.RecordSeparator(), rsCustom);
    c.SetRecordSeparator(rsCustom);
    EXPECT_EQ(c.RecordSeparatorCustom(), "||");
    c.SetRecordSeparator(rsCR);
    EXPECT_EQ(c.RecordSeparatorCustom(), "\r");
}

TEST(Settings, AssignCopiesAllButADeliberateFew) {
    TKvMemDataSet table;
    TKvImportFromDataSet a, b;
    a.SetDataSet(&table);
    a.SetDatasetKeys("ID");
    a.SetMode(imAppendUpdate);
    a.SetFieldDelimiterCustom(U';');
    a.Mappings().Add("X=Y");
    a.Parameters().Add();
    a.LoadCondition().SkipIf = "1 = 2";
    a.SQLOptions().FieldNameOptions().SQLQuoteOpen = U'`';
    a.DataFormats().DecimalSeparator = U',';
    a.Statistic().TotalAdded = 7;
    a.SetCommitCount(50);
    a.OnErrorEvent = [](TObject*, const std::exception&, bool&) {};
    a.SetAbortOnProblem(false);
    a.SetTableName("T");
    a.OnBeforeExecute = [](TObject*) {};
    b.Assign(a);
    EXPECT_EQ(b.DataSet(), &table);
    EXPECT_EQ(b.DatasetKeys(), "ID");
    EXPECT_EQ(b.Mode(), imAppendUpdate);
    EXPECT_EQ(b.FieldDelimiter(), fdSemicolon);
    EXPECT_EQ(b.Mappings()[0], "X=Y");
    EXPECT_EQ(b.Parameters().Count(), 1);
    EXPECT_EQ(b.LoadCondition().SkipIf, "1 = 2");
    EXPECT_EQ(b.SQLOptions().FieldNameOptions().SQLQuoteOpen, U'`');
    EXPECT_EQ(b.DataFormats().DecimalSeparator, U',');
    EXPECT_EQ(b.Statistic().TotalAdded, 7);
    EXPECT_EQ(b.CommitCount(), 50);
    EXPECT_TRUE(b.OnErrorEvent);
    EXPECT_TRUE(b.AbortOnProblem()); // not copied
    EXPECT_EQ(b.TableName(), "");    // not copied
    EXPECT_FALSE(b.OnBeforeExecute); // not copied
    TStringList notAComponent;
    EXPECT_THROW(b.Assign(notAComponent), EConvertError);
}

TEST(Settings, TheDestinationIsForgottenWhenDestroyedAndGivesItsKeys) {
    TKvImportFromDataSet c;
    {
        TKvMemDataSet table;
        table.SetIndexFieldName("CODE;REGION");
        c.SetDataSet(&table);
        EXPECT_EQ(c.DatasetKeys(), "CODE;REGION");
    }
    EXPECT_EQ(c.DataSet(), nullptr);
    TKvMemDataSet other;
    other.SetIndexFieldName("X");
    c.SetDataSet(&other);
    EXPECT_EQ(c.DatasetKeys(), "CODE;REGION"); // keys already given are kept
}

TEST(Settings, RegionalSettingsGiveTheDateOrder) {
    struct Case {
        const char* shortDate;
        char32_t separator;
        TKvIDateOrder order;
        bool fourDigits, leadingZeros;
    };
    const Case cases[] = {
        {"dd/mm/yyyy", U'/', doDMY, true, true}, {"m/d/yy", U'/', doMDY, false, false},
        {"yyyy-mm-dd", U'-', doYMD, true, true}, {"dd.MM.yyyy", U'.', doDMY, true, true},
        {"dd/mmyyyy", U'/', doMDY, true, true}, // no second separator: the order stays month-day-year
        {"yyyy/dd/mm", U'/', doYDM, true, true},
    };
    for (const Case& c : cases) {
        TFormatSettings fs;
        fs.ShortDateFormat = c.shortDate;
        fs.DateSeparator = c.separator;
        fs.DecimalSeparator = U',';
        fs.CurrencyString = "kr";
        test::ScopedFormatSettings scoped(fs);
        TKvIDataFormats f;
        f.CustomDateTimeFormat = "x";
        f.LoadRegionalSettings();
        EXPECT_EQ(f.DateOrder, c.order) << c.shortDate;
        EXPECT_EQ(f.FourDigitYear, c.fourDigits) << c.shortDate;
        EXPECT_EQ(f.LeadingZerosInDate, c.leadingZeros) << c.shortDate;
        EXPECT_EQ(f.DateSeparator, c.separator);
        EXPECT_EQ(f.DecimalSeparator, U',');
        EXPECT_EQ(f.CurrencyString, "kr");
        EXPECT_EQ(f.CustomDateTimeFormat, "");
    }
}

class NamedTable : public TKvMemDataSet {
public:
    std::optional<std::string> PublishedProperty(const std::string& name) const override {
        auto it = props.find(name);
        return it == props.end() ? std::nullopt : std::optional<std::string>(it->second);
    }
    std::map<std::string, std::string> props;
};

TEST(Settings, StaticHelpers) {
    EXPECT_EQ(TKvImportBaseComponent::GetDefExt(1), ".DBF");
    EXPECT_EQ(TKvImportBaseComponent::GetDefExt(9), "");
    EXPECT_EQ(TKvImportBaseComponent::GetDefExt(10), ".SAV");
    EXPECT_EQ(TKvImportBaseComponent::GetDefExt(13), ".DAT");
    EXPECT_EQ(TKvImportBaseComponent::GetDefExt(14), "");
    EXPECT_EQ(TKvImportBaseComponent::GetDefExt(-1), "");
    EXPECT_EQ(TKvImportBaseComponent::GetAvailableImportFormats().Bits(), (1u << 20) - 1);

    const std::pair<TFieldType, TKvIDataType> types[] = {
        {ftSmallint, itInteger}, {ftAutoInc, itInteger}, {ftBoolean, itBoolean}, {ftBCD, itFloat},
        {ftCurrency, itFloat},   {ftDate, itDate},       {ftTime, itTime},       {ftDateTime, itDateTime},
        {ftLargeint, itString},  {ftBlob, itString},     {ftMemo, itString},     {ftWideString, itString}};
    for (auto [field, kind] : types)
        EXPECT_EQ(TKvImportBaseComponent::GetKvIDataType(field), kind) << FieldTypeName(field);

    NamedTable t;
    t.props = {{"SQL", "select * from Sales.Orders\r\nwhere 1=1"}};
    EXPECT_EQ(TKvImportBaseComponent::GetParsedTableName(&t), "Sales");
    t.props = {{"SQL", "SELECT a FROM orders WHERE x"}};
    EXPECT_EQ(TKvImportBaseComponent::GetParsedTableName(&t), "orders");
    t.props = {{"CommandText", "dbo.Customers"}, {"SQL", "x"}};
    EXPECT_EQ(TKvImportBaseComponent::GetParsedTableName(&t), "dbo");
    t.props = {{"TableName", "Parts"}, {"CommandText", "other"}};
    EXPECT_EQ(TKvImportBaseComponent::GetParsedTableName(&t), "Parts");
    TKvImportFromDataSet c;
    c.SetDataSet(&t);
    EXPECT_EQ(c.GetTableName(), "Parts");
    c.SetTableName("Explicit");
    EXPECT_EQ(c.GetTableName(), "Explicit");
}

} // namespace
} // namespace kv
