// The value converter alone: the type rules for text into each field type, by the data formats.

#include "engine/KvIConverter.h"
#include "TestSupport.h"
#include "datasets/KvMemDataSet.h"
#include "expression/ExpressionTestSupport.h"
#include "platform/DateUtils.h"
#include "platform/Format.h"

namespace kv {
namespace {

class Converter : public ::testing::Test {
protected:
    Converter() : settings_(InvariantFormatSettings()) {
        formats.DateOrder = doDMY;
        for (TFieldType t : {ftInteger, ftLargeint, ftFloat, ftCurrency, ftDate, ftTime, ftDateTime,
                             ftBoolean, ftString, ftBlob})
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
        if (v.IsNull()) return "null";
        if (v.VarType() == varDate) return "date:" + DateTimeToISO8601(v.AsDateTime());
        return test::TypedText(v);
    }

    test::ScopedFormatSettings settings_;
    TKvIDataFormats formats;
    TKvIValueConverter converter{formats};
    TKvMemDataSet table;
};

TEST_F(Converter, TypeRules) {
    struct Case {
        TFieldType type;
        const char* text;
        const char* value;
    };
    // Texts that are no value of their field's type.
    const std::pair<TFieldType, std::vector<const char*>> rejected[] = {
        {ftInteger, {"x7", "0x10", "10h", "--1", "1 000", "3.5", "1e-1", ".", "1e"}},
        {ftLargeint, {"9223372036854775808", "9223372036854775807.5", "18446744073709551616", "1e19"}},
        {ftFloat, {"0x10", "x10", "inf", "1.2.3", "1e400"}},
        {ftCurrency, {"12abc"}},
        {ftDateTime, {"31/02/2026", "2024-02-30", "2024-01-01T10:00:00+25:00"}},
        {ftDate, {"2023-02-29", "soon", "10:30"}},
    };
    std::vector<Case> cases = {
        // Decimal numbers only, the currency string and groups allowed; fractions only when whole.
        {ftInteger, "$10", "integer:10"},
        {ftInteger, "+7", "integer:7"},
        {ftInteger, "-0", "integer:0"},
        {ftInteger, "\t42 ", "integer:42"},
        {ftInteger, "  ", "null"},
        {ftInteger, "12.0", "integer:12"},
        {ftInteger, "1e3", "integer:1000"},
        {ftInteger, "1.5e1", "integer:15"},
        {ftInteger, "120e-1", "integer:12"},
        {ftInteger, "0.000", "integer:0"},
        {ftInteger, "1,234,567.00", "integer:1234567"},
        // 64 bits exactly, never rounded through a double.
        {ftLargeint, "9223372036854775807", "int64:9223372036854775807"},
        {ftLargeint, "-9223372036854775808", "int64:-9223372036854775808"},
        {ftLargeint, "9007199254740993", "int64:9007199254740993"},
        {ftLargeint, "0e999999999", "integer:0"},
        {ftFloat, "$ 1,234.5", "double:1234.5"},
        {ftFloat, "5.", "double:5"},
        {ftFloat, "-.25", "double:-0.25"},
        {ftFloat, "-2.5e3", "double:-2500"},
        {ftFloat, "1E-3", "double:0.001"},
        {ftFloat, "NULL", "null"},
        // Dates by the mask, ISO whatever the order, milliseconds rounded, a zone kept with its text.
        {ftDate, "07/03/2026", "date:2026-03-07 00:00:00"},
        {ftDate, "/ /", "null"},
        {ftDateTime, "07/03/2026 14:05:09.250", "date:2026-03-07 14:05:09.250"},
        {ftDateTime, "07/03/2026 14:05:09,5", "date:2026-03-07 14:05:09.500"},
        {ftDateTime, "07/03/2026 14:05:09.0004", "date:2026-03-07 14:05:09"},
        {ftDateTime, "07/03/2026 14:05:59.9996", "date:2026-03-07 14:06:00"},
        {ftTime, "14:05:09.125", "date:1899-12-30 14:05:09.125"},
        {ftTime, "soon", "date:1899-12-30 00:00:00"}, // unreadable time text is midnight
        {ftTime, " ", "null"},
        {ftDateTime, "2024-01-01 10:00:00.250", "date:2024-01-01 10:00:00.250"},
        {ftDateTime, "2024-01-01T10:00", "date:2024-01-01 10:00:00"},
        {ftDate, "2024-02-29", "date:2024-02-29 00:00:00"},
        {ftDateTime, "2024-01-01T10:00:00Z", "string:2024-01-01T10:00:00Z"},
        {ftDateTime, "2024-01-01 10:00:00.250+02:00", "string:2024-01-01 10:00:00.250+02:00"},
        {ftDateTime, "2024-01-01T10:00-0530", "string:2024-01-01T10:00-0530"},
        {ftDate, "2024-01-01T10:00:00+02", "string:2024-01-01T10:00:00+02"},
        // Booleans by their texts; other text is left to the field.
        {ftBoolean, "Y", "boolean:True"},
        {ftBoolean, "0", "boolean:False"},
        {ftBoolean, "F", "boolean:False"},
        {ftBoolean, "-1", "null"},
        {ftBoolean, "fALSE", "boolean:False"},
        {ftBoolean, "yes", "string:yes"}, // left to the field
        {ftString, "  kept  ", "string:  kept  "},
        {ftString, "[CDATA[inner]]", "string:inner"},
        {ftBlob, "[CDATA[raw]]", "string:raw"},
    };
    for (const auto& [type, texts] : rejected)
        for (const char* text : texts) cases.push_back({type, text, nullptr});
    for (const bool keep : {false, true}) {
        converter.Start(false, false, keep);
        for (const Case& c : cases) {
            const char* message =
                c.type == ftInteger || c.type == ftLargeint ? "'%s' is not a valid integer value"
                : c.type == ftFloat || c.type == ftCurrency ? "'%s' is not a valid floating point value"
                                                            : "'%s' is not a valid date";
            const std::string expected = c.value ? c.value
                                         : keep  ? std::string("string:") + c.text // for the destination
                                                 : "error:" + Format(message, c.text);
            EXPECT_EQ(Convert(c.type, c.text), expected) << c.text << " as " << FieldTypeName(c.type);
        }
    }
}

TEST_F(Converter, DataFormatsDecideTheReading) {
    formats.CurrencyString = "EUR";
    formats.DecimalSeparator = U',';
    formats.ThousandSeparator = U'.';
    EXPECT_EQ(Convert(ftInteger, "$10"), "error:'$10' is not a valid integer value");
    EXPECT_EQ(Convert(ftInteger, "1.234 EUR"), "integer:1234");
    EXPECT_EQ(Convert(ftInteger, "1.234,00"), "integer:1234");
    EXPECT_EQ(Convert(ftFloat, "1.234,5 EUR"), "double:1234.5");
    formats.ThousandSeparator = 0;
    EXPECT_EQ(Convert(ftFloat, "1.5"), "error:'1.5' is not a valid floating point value");
    formats.ThousandSeparator = U'\u00A0'; // a grouping of more than one byte
    EXPECT_EQ(Convert(ftInteger, "1\u00A0234\u00A0567"), "integer:1234567");
    formats.BooleanTrue = "oui";
    formats.BooleanFalse = "non";
    EXPECT_EQ(Convert(ftBoolean, "oui"), "boolean:True");
    EXPECT_EQ(Convert(ftBoolean, "non"), "boolean:False");
}

TEST_F(Converter, ARunBuildsItsMasksFromTheFormats) {
    struct Case {
        TKvIDateOrder order;
        char32_t dateSeparator, timeSeparator;
        bool fourDigits;
        const char* custom;
        const char* mask;
        const char* text;
        const char* value;
    };
    const Case cases[] = {
        {doDMY, U'/', U':', true, "yyyy.mm.dd hh:nn", "YYYY.MM.DD HH:NN", "2026.03.07 08:30",
         "date:2026-03-07 08:30:00"},
        {doDMY, U'/', U':', true, "", "DD/MM/YYYY HH:NN:SS", "29/02/2024", "date:2024-02-29 00:00:00"},
        {doMDY, U'-', U':', true, "", "MM-DD-YYYY HH:NN:SS", "03-07-2026", "date:2026-03-07 00:00:00"},
        {doYDM, 0, 0, false, "", "YYDDMM HHNNSS", "260703", "date:2026-03-07 00:00:00"},
    };
    for (const Case& c : cases) {
        formats.DateOrder = c.order;
        formats.DateSeparator = c.dateSeparator;
        formats.TimeSeparator = c.timeSeparator;
        formats.FourDigitYear = c.fourDigits;
        formats.CustomDateTimeFormat = c.custom;
        converter.Start(false, false, false);
        EXPECT_EQ(converter.DateTimeMask(false), c.mask);
        EXPECT_EQ(Convert(ftDateTime, c.text), c.value) << c.mask;
    }
    EXPECT_EQ(converter.DateTimeMask(true), "YYDDMM THHNNSS");
    EXPECT_EQ(converter.TimeMask(true), "THHNNSS");
    // MIME sources give base64 text for BLOB fields.
    converter.Start(false, true, false);
    Variant v("aGk=");
    converter.Convert(table.FieldByName(FieldTypeName(ftBlob)), v);
    EXPECT_EQ(v.VarType(), varBytes);
    EXPECT_EQ(v.StringRef(), "hi");
}

TEST_F(Converter, IsoDatesKeptAsTextStoreWhatTheDateWould) {
    // Whatever the mask, a date text stays text only where the date read from it would be written back as
    // that very text; otherwise it is read as before.
    const std::string texts[] = {"2001-02-03", "1987-11-28", "2024-02-29", "2023-02-29",  "0001-01-01",
                                 "2026-13-01", "03/02/2001", "2001-2-3",   " 2001-02-03", "20010203"};
    for (const TKvIDateOrder order : {doMDY, doDMY, doYMD, doYDM, doDYM, doMYD}) {
        for (const char32_t separator : {U'/', U'-', U'.'}) {
            formats.DateOrder = order;
            formats.DateSeparator = separator;
            for (const std::string& text : texts) {
                converter.Start(false, false, false);
                const std::string read = Convert(ftDate, text);
                converter.Start(false, false, false, true);
                const std::string kept = Convert(ftDate, text);
                if (kept != read) {
                    EXPECT_EQ("date:" + kept.substr(7) + " 00:00:00", read)
                        << text << " order " << int(order) << " separator " << char(separator);
                }
            }
        }
    }
}

} // namespace
} // namespace kv
