// Built-in functions, user functions and the helper routines of the expression unit.

#include "ExpressionTestSupport.h"
#include "TestSupport.h"
#include "platform/DateUtils.h"

namespace kv {
namespace {

using test::Eval;

class Functions : public ::testing::Test {
protected:
    test::ScopedFormatSettings settings{test::UsSettings()};
};

TEST_F(Functions, BuiltIns) {
    const std::pair<const char*, const char*> cases[] = {
        // strings
        {"SUBSTR('abcdef', 2, 3)", "string:bcd"},
        {"substring('abcdef', 5)", "string:ef"},
        {"COPY('h\xC3\xA9llo', 2, 2)", "string:\xC3\xA9l"},
        {"REPLACESTR('aXbxc', 'x', '-', 1, 0)", "string:a-bxc"}, // ignore case, first only
        {"REPLACESTR('aXbxc', 'x', '-', 1, 1)", "string:aXb-c"}, // replace-all wins and is case-sensitive
        {"REPLACESTR('a', 'a', 'b', 0)", "error:Calculate error: syntax tree fault."},
        {"PADL('abcdef', 3)", "string:abc"},
        {"PADL('7', 3)", "string:  7"},
        {"PADR('7', 3, '0')", "string:700"},
        {"PADR('7', 100000000)", "error:Calculate error: padding to 100000000 characters."},
        {"PADL('7', 3, '\xE2\x82\xAC')", "string:\xE2\x82\xAC\xE2\x82\xAC"
                                         "7"},
        {"CHR(65)", "string:A"},
        {"CHR(8364)", "string:\xE2\x82\xAC"},
        {"UPPER('abc\xC3\xA9')", "string:ABC\xC3\x89"},
        {"LOWER('ABC')", "string:abc"},
        {"TRIM('  x ')", "string:x"},
        {"TRIMLEFT('  x ')", "string:x "},
        {"TRIMRIGHT('  x ')", "string:  x"},
        {"POS('c', 'abcabc')", "integer:3"},
        {"POS('z', 'abc')", "integer:0"},
        {"LENGTH('h\xC3\xA9llo')", "integer:5"},
        {"ORD('A')", "integer:65"},
        {"ORD('')", "integer:0"},
        // conversions
        {"STRTOFLOAT('2.5')", "double:2.5"},
        {"STRTOFLOAT('x')", "error:'x' is not a valid floating point value"},
        {"STRTOINT('$1F')", "integer:31"},
        {"STRTOINT('99999999999')", "int64:99999999999"},
        {"STRTODATE('3/7/2026')", "datetime:3/7/2026"},
        {"DATETIMEFROMSTRING('07-03-2026 14:30', 'DD-MM-YYYY HH:NN', '-', ':')",
         "datetime:3/7/2026 2:30:00 PM"},
        {"INTTOSTR(42)", "string:42"},
        {"FLOATTOSTR(2.50)", "string:2.5"},
        // aggregates
        {"MAX(-5, -2)", "integer:0"},
        {"MAX(3, 7, 5)", "double:7"},
        {"MIN(-5, -2)", "double:-5"},
        {"SUM(1, 2, 3)", "double:6"},
        {"AVG(2, 4)", "double:3"},
        {"COUNT(1)", "integer:0"},
        {"COUNT(5, 6, 7)", "integer:2"},
        // math
        {"FRAC(2.75)", "double:0.75"},
        {"INT(-2.75)", "double:-2"},
        {"ROUND(2.5)", "integer:2"},
        {"ROUND(3.5)", "integer:4"},
        {"DIV(7, 2)", "integer:3"},
        {"MOD(7, 3)", "integer:1"},
        {"MOD(7, 0)", "error:Division by zero"},
        {"ABS(-3)", "double:3"},
        {"POWER(2, 10)", "double:1024"},
        {"POWER(2, -2)", "double:0.25"},
        {"POWER(0, 5)", "double:0"},
        {"POWER(9, 0.5)", "double:3"},
        {"POWER(-8, 0.5)", "error:Invalid floating point operation"},
        {"EXP(0)", "double:1"},
        {"LN(1)", "double:0"},
        {"LOG(1000)", "double:3"},
        {"LN(0)", "error:Invalid floating point operation"},
        {"SQR(3)", "double:9"},
        {"SQRT(16)", "double:4"},
        {"PERCENT(200, 45)", "double:90"},
        // flow
        {"IIF(1 = 1, 'a', UNKNOWNFN(x))", "string:a"},
        {"IIF(1 = 2, 1 / 0, 'b')", "string:b"}, // the branch not chosen is never computed
        {"ISNULL(NULL)", "boolean:False"},      // NULL is a name the host resolves; here nobody does
        // dates
        {"YEAR(STRTODATE('3/7/2026'))", "integer:2026"},
        {"MONTH(STRTODATE('3/7/2026'))", "integer:3"},
        {"DAY(STRTODATE('3/7/2026'))", "integer:7"},
        {"HOUR(0.75)", "integer:18"},
        {"MINUTE(0.75)", "integer:0"},
        {"DATETOSTR(STRTODATE('3/7/2026') + 1)", "string:3/8/2026"},
        {"DATEPART(2.75)", "double:2"},
        {"TIMEPART(2.75)", "double:0.75"},
        {"YEAR", "string:YEAR"}, // without arguments the name goes to the host
        // numeric coercion of the arithmetic operators
        {"'1,234.5' - 0.5", "double:1234"},
        {"'$12' * 2", "double:24"},
        {"'abc' * 2", "double:0"},
        {"NOBODY - 1", "double:-1"},
    };
    for (auto& [text, result] : cases) EXPECT_EQ(Eval(text), result) << text;
}

TEST_F(Functions, GetDateWithOrWithoutParentheses) {
    const double before = Now();
    for (const char* text : {"GETDATE", "getdate(1)"}) {
        TKvIParser parser;
        parser.SetText(text);
        parser.Compile(true);
        ASSERT_EQ(parser.Value().VarType(), varDate) << text;
        EXPECT_GE(parser.Value().AsDateTime(), before - 1e-6);
    }
    EXPECT_EQ(Eval("GETDATE()"), "error:Compile error: syntax fault.");
}

TEST_F(Functions, NullAndCurrencyFromTheHost) {
    const std::map<std::string, Variant> names{{"NULL", Variant::Null()},
                                               {"Price", Variant("1.234,50 \xE2\x82\xAC")}};
    EXPECT_EQ(Eval("ISNULL(NULL)", names), "boolean:True");
    EXPECT_EQ(Eval("NULL - 3", names), "double:-3");
    test::ScopedFormatSettings german(test::GermanSettings());
    // Every "," and the grouping "." go, then the currency: "1.234,50 €" reads as 123450.
    EXPECT_EQ(Eval("Price * 1", names), "double:123450");
}

class UserFunctions : public ::testing::Test {
protected:
    void TearDown() override {
        while (lstKvIRegFunctions.Count() > 1) lstKvIRegFunctions.Remove(lstKvIRegFunctions.Count() - 1);
    }
};

TEST_F(UserFunctions, DefinitionsAndArguments) {
    lstKvIRegFunctions.AddFunction("TWICE(X)=X*2");
    lstKvIRegFunctions.AddFunction("FULL(First, Last) = Last + ', ' + First");
    lstKvIRegFunctions.AddFunction("HYP(A,B)=SQRT(A*A+B*B)");
    lstKvIRegFunctions.AddFunction("FACT(N)=IIF(N > 1, N * FACT(N - 1), 1)");
    lstKvIRegFunctions.AddFunction("LOOP(N)=LOOP(N)");
    lstKvIRegFunctions.AddFunction("TWO(N)=IIF(N > 0, TWO(N - 1) + TWO(N - 1), 1)");
    EXPECT_EQ(Eval("TWICE(21)"), "double:42");
    EXPECT_EQ(Eval("twice(TWICE(2))"), "double:8");
    EXPECT_EQ(Eval("FULL('Ada', 'Lovelace')"), "string:Lovelace, Ada");
    EXPECT_EQ(Eval("HYP(3, 4)"), "double:5");
    EXPECT_EQ(Eval("FACT(10)"), "double:3628800"); // recursion binds its own arguments
    EXPECT_EQ(Eval("TWICE(Qty)", {{"Qty", Variant(5)}}), "double:10");
    EXPECT_EQ(Eval("FULL('Ada')"), "string:, Ada"); // a missing argument is unassigned
    EXPECT_EQ(Eval("LOOP(1)"), "error:Calculate error: expression nested too deeply.");
    EXPECT_EQ(Eval("TWO(10)"), "double:1024");
    EXPECT_EQ(Eval("TWO(60)"), "error:Calculate error: expression too complex."); // 2^60 calls
    EXPECT_EQ(Eval("TWO(10)"), "double:1024"); // the budget is per computation
    EXPECT_NE(lstKvIRegFunctions.FunctionByName("hyp"), nullptr);
}

TEST_F(UserFunctions, ALaterDefinitionReplacesTheStartUpOne) {
    EXPECT_EQ(Eval("pi * 2"), "double:6.28");
    lstKvIRegFunctions.AddFunction("PI()=3.14159");
    EXPECT_EQ(Eval("PI"), "double:3.14159");
    EXPECT_EQ(Eval("pi * 2"), "double:6.28318");
    lstKvIRegFunctions.AddFunction("pi(X)=X");
    EXPECT_EQ(Eval("PI(7)"), "double:7");
    lstKvIRegFunctions.Remove(lstKvIRegFunctions.Count() - 1);
    lstKvIRegFunctions.Remove(lstKvIRegFunctions.Count() - 1);
    EXPECT_EQ(Eval("PI"), "double:3.14");
}

TEST_F(UserFunctions, InvalidDefinitions) {
    const std::pair<const char*, const char*> cases[] = {
        {"NOEQUALS", "Function \"NOEQUALS\" is not valid."},
        {"=1", "Function \"=1\" is not valid."},
        {"F(X)=", "Function \"F(X)=\" is not valid."},
        {"F(X=1", "Function header \"F(X\" is not valid."},
        {"F(X)Y=1", "Function header \"F(X)Y\" is not valid."},
        {"1F=2", "Function header \"1F\" is not valid."},
        {"F(X,,Y)=1", "Function header \"F(X,,Y)\" is not valid."},
        {"F(X Y)=1", "Function parse error: delimitor \",\" expected between arguments."},
        {"F(X)=(1", "Compile error: syntax fault."},
    };
    for (auto& [definition, message] : cases) {
        try {
            lstKvIRegFunctions.AddFunction(definition);
            ADD_FAILURE() << definition << " was accepted";
        } catch (const Exception& e) {
            EXPECT_EQ(e.Message(), message) << definition;
        }
    }
    EXPECT_EQ(lstKvIRegFunctions.Count(), 1);
}

TEST(Helpers, GetDTByMask) {
    test::ScopedFormatSettings settings{test::UsSettings()};
    struct Case {
        const char* value;
        const char* mask;
        const char* expected; // DateTimeToStr, "0" for nothing
    };
    const Case cases[] = {
        {"07/03/2026", "DD/MM/YYYY", "3/7/2026"},
        {"2026-03-07", "YYYY-MM-DD", "3/7/2026"},
        {"7  March   2026", "D MMMMM YYYY", "3/7/2026"}, // runs of separators line up
        {"07-MAR-2026 02:30 PM", "DD-MMM-YYYY HH:NN", "3/7/2026 2:30:00 PM"},
        {"14:05:09", "HH:NN:SS", "2:05:09 PM"},
        {"12:00 PM", "HH:NN", "12:00:00 PM"},
        {"31/02/2026", "DD/MM/YYYY", "0"}, // no such day: the date half stays zero
        {"32/01/2026 10:00", "DD/MM/YYYY HH:NN", "10:00:00 AM"},
        {"07/03/2026 25:00", "DD/MM/YYYY HH:NN", "3/7/2026"},
        {"07/13/2026", "DD/MM/YYYY", "0"},
        {"07/03", "DD/MM", "0"}, // no year, no date
        {"", "DD/MM/YYYY", "0"},
        {"07/03/2026", "", "0"},
        {"xx/yy/zzzz", "DD/MM/YYYY", "0"},
    };
    for (const Case& c : cases) {
        TDateTime v = GetDTByMask(c.value, c.mask, U'-', U':');
        EXPECT_EQ(v == 0 ? std::string("0") : DateTimeToStr(v), c.expected) << c.value << " / " << c.mask;
    }
    const int century = DecodeDateTime(Now()).Year / 100 * 100;
    const int expected = century + 1 >= DecodeDateTime(Now()).Year - 50 ? century + 1 : century + 101;
    EXPECT_EQ(DecodeDateTime(GetDTByMask("1.2.01", "D.M.YY", U'.', U':')).Year, expected);
}

TEST(Helpers, GetDTByMaskReadsAFractionAfterTheSeconds) {
    struct Case {
        const char* value;
        const char* mask;
        char32_t dateSeparator;
        const char* expected; // DateTimeToISO8601
    };
    const Case cases[] = {
        {"07/03/2026 14:05:09.250", "DD/MM/YYYY HH:NN:SS", U'/', "2026-03-07 14:05:09.250"},
        {"07/03/2026 14:05:09,5", "DD/MM/YYYY HH:NN:SS", U'/', "2026-03-07 14:05:09.500"},
        {"07.03.2026 14:05:09.5", "DD.MM.YYYY HH:NN:SS", U'.', "2026-03-07 14:05:09.500"},
        {"14:05:09.0125", "HH:NN:SS", U'/', "1899-12-30 14:05:09.013"},
        {"14:05:59.9999", "HH:NN:SS", U'/', "1899-12-30 14:06:00"},
        {"14:05:09.", "HH:NN:SS", U'/', "1899-12-30 14:05:09"},
        {"14:05:09.x5", "HH:NN:SS", U'/', "1899-12-30 14:05:09"},
        {"14:05:09.5", "HH:NN", U'/', "1899-12-30 14:05:00"}, // the mask has no seconds
        {"14:05:09.5 01/02/2026", "HH:NN:SS DD/MM/YYYY", U'/', "1899-12-30 14:05:09"}, // nor are they last
    };
    for (const Case& c : cases)
        EXPECT_EQ(DateTimeToISO8601(GetDTByMask(c.value, c.mask, c.dateSeparator, U':')), c.expected)
            << c.value << " / " << c.mask;

    // TryRead tells day 0 at midnight from nothing, and asks a date of a mask that has one.
    const TKvDateMask date("DD/MM/YYYY HH:NN", U'/', U':'), time("HH:NN:SS", U'/', U':');
    TDateTime v = -1;
    EXPECT_TRUE(date.TryRead("30/12/1899", v));
    EXPECT_EQ(v, 0);
    EXPECT_FALSE(date.TryRead("32/12/1899 10:00", v));
    EXPECT_FALSE(date.TryRead("soon", v));
    EXPECT_TRUE(time.TryRead("00:00:00", v));
    EXPECT_EQ(v, 0);
    EXPECT_FALSE(time.TryRead("24:60", v));
}

TEST(Helpers, ReplaceStrFlagsAndNumericText) {
    // Replacing every match is case-sensitive, whatever the case flag says.
    EXPECT_EQ(ReplaceStr("a.b.c", ".", "", false, true), "abc");
    EXPECT_EQ(ReplaceStr("ABab", "a", "x", true, false), "xBab");
    EXPECT_EQ(ReplaceStr("ABab", "a", "x", true, true), "ABxb");
    EXPECT_EQ(ReplaceWideStr("\xC3\x89t\xC3\xA9", "\xC3\xA9", "e", true, false), "et\xC3\xA9");
    EXPECT_EQ(ReplaceStr("abc", "", "x", false, true), "abc");

    std::string list = "a;b;;c", items;
    while (!list.empty()) items += GetNextItem(list, ";") + "|";
    EXPECT_EQ(items, "a|b||c|");

    test::ScopedFormatSettings german(test::GermanSettings());
    EXPECT_TRUE(StringIsNumeric("3,5"));
    EXPECT_TRUE(StringIsNumeric("3.5")); // the regional separator is read as ".", and "." stays one
    EXPECT_FALSE(StringIsNumeric("."));
    EXPECT_FALSE(StringIsNumeric("1.000,5"));
    EXPECT_FALSE(StringIsNumeric(""));
}

} // namespace
} // namespace kv
