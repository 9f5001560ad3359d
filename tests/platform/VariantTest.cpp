// The loose variant rules that expressions and value conversion rely on.

#include "platform/Variant.h"
#include "TestSupport.h"
#include "platform/DateUtils.h"
#include "platform/Exceptions.h"

#include <cmath>

namespace kv {
namespace {

std::string Typed(const Variant& v) {
    static const char* names[] = {"empty",  "null", "bool",   "int",   "int64",
                                  "double", "date", "string", "bytes", "array"};
    return std::string(names[v.VarType()]) + ":" + (v.IsArray() ? "" : v.AsString());
}

class VariantTest : public ::testing::Test {
protected:
    test::ScopedFormatSettings settings{test::UsSettings()};
};

TEST_F(VariantTest, Arithmetic) {
    const Variant n = Variant::Null();
    struct Case {
        Variant result;
        const char* expected;
    };
    const Case cases[] = {
        {Variant("10") + Variant("4"), "string:104"},
        {Variant("10") + Variant(4), "double:14"},
        {Variant(2) + Variant(3), "int:5"},
        {Variant(2147483647) + Variant(1), "int64:2147483648"}, // widened, printed as a number
        {Variant(7) / Variant(2), "double:3.5"},
        {Variant(7) - Variant(2.5), "double:4.5"},
        {Variant(3) * Variant(true), "int:-3"}, // True is -1 as a number
        {n + Variant(1), "null:"},
        {Variant() + Variant(), "empty:"},
        {Variant() + Variant("a"), "string:a"},
        {Variant::FromDateTime(EncodeDate(2026, 1, 31)) + Variant(1), "date:2/1/2026"},
        {Variant::FromDateTime(2) - Variant::FromDateTime(1), "double:1"},
        {Variant(7).IntDiv(Variant(2)), "int:3"},
        {Variant(-7).Mod(Variant(3)), "int:-1"},
        {Variant(6).And(Variant(3)), "int:2"},
        {Variant(true).Or(Variant(false)), "bool:True"},
        {Variant("true").And(Variant(true)), "bool:True"},
        {Variant(5).Not(), "int:-6"},
        {Variant(true).Not(), "bool:False"},
    };
    for (const Case& c : cases) EXPECT_EQ(Typed(c.result), c.expected);
    EXPECT_EQ(Variant(2147483647).VarType(), varInteger);
    EXPECT_EQ((Variant(2147483647) + Variant(1)).VarType(), varInt64);
}

TEST_F(VariantTest, ConversionErrorsCarryTheirMessages) {
    try {
        (void)(Variant("abc") + Variant(1));
        FAIL();
    } catch (const EVariantTypeCastError& e) {
        EXPECT_STREQ(e.what(), "Could not convert variant of type (String) into type (Double)");
    }
    EXPECT_THROW(Variant(1) / Variant(0), EZeroDivide);
    EXPECT_THROW(Variant(0) / Variant(0.0), EInvalidOp);
    EXPECT_THROW(Variant(1).IntDiv(Variant(0)), EDivByZero);
    EXPECT_THROW(Variant("x").AsBoolean(), EVariantTypeCastError);
    EXPECT_THROW(Variant::Null().AsDateTime(), EVariantTypeCastError);
    EXPECT_THROW(Variant(1e300).AsInteger(), EVariantTypeCastError);
    EXPECT_THROW(Variant::FromArray({}) + Variant(1), EVariantInvalidOpError);
}

TEST_F(VariantTest, Conversions) {
    EXPECT_EQ(Variant(2.5).AsInteger(), 2); // halves round to even
    EXPECT_EQ(Variant(3.5).AsInteger(), 4);
    EXPECT_EQ(Variant("12").AsInt64(), 12);
    EXPECT_EQ(Variant(" 7.5").AsDouble(), 7.5);
    EXPECT_TRUE(Variant("TRUE").AsBoolean());
    EXPECT_TRUE(Variant("2").AsBoolean());
    EXPECT_FALSE(Variant("0").AsBoolean());
    EXPECT_EQ(Variant(true).AsString(), "True");
    EXPECT_EQ(Variant::Null().AsString(), "");
    EXPECT_EQ(Variant("3/7/2026").AsDateTime(), EncodeDate(2026, 3, 7));
    EXPECT_EQ(Variant(0.1 + 0.2).AsString(), "0.3");
    test::ScopedFormatSettings german(test::GermanSettings());
    EXPECT_EQ(Variant(1.5).AsString(), "1,5");
    EXPECT_EQ(Variant("1,5").AsDouble(), 1.5);
}

TEST_F(VariantTest, Comparison) {
    const Variant n = Variant::Null();
    EXPECT_EQ(n.Compare(Variant::Null()), vrEqual);
    EXPECT_EQ(n.Compare(Variant(-1e300)), vrLessThan);
    EXPECT_EQ(Variant("").Compare(n), vrGreaterThan);
    EXPECT_EQ(Variant("10").Compare(Variant(9)), vrGreaterThan); // numeric when one side is a number
    EXPECT_EQ(Variant("10").Compare(Variant("9")), vrLessThan);  // textual between texts
    EXPECT_EQ(Variant("b").Compare(Variant("B")), vrGreaterThan);
    EXPECT_EQ(Variant(1).Compare(Variant(1.0)), vrEqual);
    EXPECT_EQ(Variant(true).Compare(Variant(false)), vrGreaterThan);
    EXPECT_EQ(Variant().Compare(Variant("")), vrEqual);
    EXPECT_EQ(Variant(std::nan("")).Compare(Variant(1.0)), vrNotEqual);
    EXPECT_THROW(Variant("abc").Compare(Variant(1)), EVariantTypeCastError);
}

TEST_F(VariantTest, ArraysAndBytes) {
    Variant a = Variant::FromArray({Variant(1), Variant("x")});
    EXPECT_EQ(a.ItemCount(), 2u);
    EXPECT_EQ(a.Item(1).AsString(), "x");
    EXPECT_THROW(a.Item(2), EVariantBadIndexError);
    Variant copy = a; // arrays share their items and stay unchanged
    EXPECT_TRUE(copy.Identical(a));
    Variant b = Variant::FromBytes(std::string("\0\1", 2));
    EXPECT_EQ(b.VarType(), varBytes);
    EXPECT_EQ(b.StringRef().size(), 2u);
    EXPECT_FALSE(b.Identical(Variant(std::string("\0\1", 2))));
}

TEST_F(VariantTest, CopyAssignmentBetweenEveryKind) {
    const std::string longText(40, 'x'); // past the inline room, so a held text is reused
    const Variant kinds[] = {Variant(),
                             Variant::Null(),
                             Variant(true),
                             Variant(7),
                             Variant(7LL << 40),
                             Variant(2.5),
                             Variant::FromDateTime(EncodeDate(2024, 2, 29)),
                             Variant("short"),
                             Variant(longText),
                             Variant::FromBytes(std::string("\0\1", 2)),
                             Variant::FromArray({Variant(1), Variant(longText)})};
    for (const Variant& from : kinds) {
        for (const Variant& to : kinds) {
            Variant target = to;
            target = from;
            EXPECT_TRUE(target.Identical(from)) << Typed(to) << " given " << Typed(from);
        }
    }
    Variant array = Variant::FromArray({Variant(longText), Variant(2)});
    array = array.Item(0); // the array holds what replaces it
    EXPECT_EQ(Typed(array), "string:" + longText);
    Variant self = Variant(longText);
    const Variant& alias = self;
    self = alias;
    EXPECT_EQ(self.StringRef(), longText);
}

} // namespace
} // namespace kv
