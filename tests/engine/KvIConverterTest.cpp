// The value converter alone: text into each field type by the data formats, without an import around it.

#include "engine/KvIConverter.h"
#include "TestSupport.h"
#include "datasets/KvMemDataSet.h"
#include "platform/DateUtils.h"

namespace kv {
namespace {

class Converter : public ::testing::Test {
protected:
    Converter() : settings_(InvariantFormatSettings()) {
        formats.DecimalSeparator = U'.';
        formats.ThousandSeparator = U',';
        formats.CurrencyString = "$";
        formats.DateOrder = doYMD;
        formats.DateSeparator = U'-';
        formats.TimeSeparator = U':';
        formats.FourDigitYear = true;
        for (TFieldType t : {ftInteger, ftFloat, ftDate, ftDateTime, ftBoolean, ftString, ftBlob})
            table.AddFieldDef(FieldTypeName(t), t);
        table.Open();
    }
    /// "kind:value", or "error:message".
    std::string Convert(TFieldType type, const std::string& text) {
        Variant v(text);
        try {
            converter.Convert(table.FieldByName(FieldTypeName(type)), v);
        } catch (const EConvertError& e) {
            return std::string("error:") + e.what();
        }
        if (v.VarType() == varDate) return "date:" + DateTimeToISO8601(v.AsDateTime());
        return std::string(v.IsString() ? "text:" : v.IsNull() ? "null:" : "value:") + v.AsString();
    }

    test::ScopedFormatSettings settings_;
    TKvIDataFormats formats;
    TKvIValueConverter converter{formats};
    TKvMemDataSet table;
};

TEST_F(Converter, TextIntoEachType) {
    struct Case {
        TFieldType type;
        const char* text;
        const char* expected;
    };
    const Case cases[] = {
        {ftInteger, " 42 ", "value:42"},
        {ftInteger, "1,234", "value:1234"},
        {ftInteger, "12.0", "value:12"},
        {ftInteger, "x7", "error:'x7' is not a valid integer value"},
        {ftInteger, "3.5", "error:'3.5' is not a valid integer value"},
        {ftInteger, "12345678901234567890", "error:'12345678901234567890' is not a valid integer value"},
        {ftFloat, "$1,234.50", "value:1234.5"},
        {ftFloat, "NULL", "null:"},
        {ftFloat, "0x10", "error:'0x10' is not a valid floating point value"},
        {ftDate, "2024-02-29", "date:2024-02-29 00:00:00"},
        {ftDateTime, "2024-01-01 10:00:00.250", "date:2024-01-01 10:00:00.250"},
        {ftDateTime, "2024-01-01T10:00:00+02:00", "text:2024-01-01T10:00:00+02:00"}, // a zone stays text
        {ftDate, "2023-02-29", "error:'2023-02-29' is not a valid date"},
        {ftBoolean, "Y", "value:True"},
        {ftBoolean, "-1", "null:"},
        {ftString, "Price", "text:Price"}, // text fields take text as it is
        {ftBlob, "[CDATA[raw]]", "text:raw"},
    };
    for (const Case& c : cases) EXPECT_EQ(Convert(c.type, c.text), c.expected) << c.text;
}

TEST_F(Converter, ARunStartsWithItsOwnSettings) {
    // Kept text instead of errors, for destinations that keep any value.
    converter.Start(false, false, true);
    EXPECT_EQ(Convert(ftInteger, "x7"), "text:x7");
    // The masks are built again from the formats at the start of a run.
    formats.DateOrder = doDMY;
    formats.DateSeparator = U'/';
    converter.Start(false, false, false);
    EXPECT_EQ(converter.DateTimeMask(false), "DD/MM/YYYY HH:NN:SS");
    EXPECT_EQ(converter.DateTimeMask(true), "DD/MM/YYYY THH:NN:SS");
    EXPECT_EQ(Convert(ftDate, "29/02/2024"), "date:2024-02-29 00:00:00");
    // MIME sources give base64 text for BLOB fields.
    converter.Start(false, true, false);
    Variant v("aGk=");
    converter.Convert(table.FieldByName(FieldTypeName(ftBlob)), v);
    EXPECT_EQ(v.VarType(), varBytes);
    EXPECT_EQ(v.StringRef(), "hi");
}

} // namespace
} // namespace kv
