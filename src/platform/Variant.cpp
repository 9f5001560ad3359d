#include "platform/Variant.h"

#include "platform/Exceptions.h"
#include "platform/SysUtils.h"

#include <cmath>
#include <limits>

namespace kv {

const char* VarTypeName(TVarType type) {
    switch (type) {
    case varEmpty:
        return "Empty";
    case varNull:
        return "Null";
    case varBoolean:
        return "Boolean";
    case varInteger:
        return "Integer";
    case varInt64:
        return "Int64";
    case varDouble:
        return "Double";
    case varDate:
        return "Date";
    case varString:
        return "String";
    case varBytes:
        return "Array Byte";
    case varArray:
        return "Array Variant";
    }
    return "Unknown";
}

void RaiseCastError(TVarType from, TVarType to) {
    throw EVariantTypeCastError(std::string("Could not convert variant of type (") + VarTypeName(from) +
                                ") into type (" + VarTypeName(to) + ")");
}

namespace {

[[noreturn]] void RaiseInvalidOp() {
    throw EVariantInvalidOpError("Invalid variant operation");
}

const std::vector<Variant>& EmptyItems() {
    static const std::vector<Variant> empty;
    return empty;
}

// Round half to even, as the classic variant conversion of reals to integers does.
bool RoundToInt64(double d, int64_t& out) {
    if (!std::isfinite(d)) return false;
    double r = std::nearbyint(d);
    if (r < -9223372036854775808.0 || r >= 9223372036854775808.0) return false;
    out = static_cast<int64_t>(r);
    return true;
}

double CheckedReal(double result, double a, double b) {
    if (std::isfinite(result) || !std::isfinite(a) || !std::isfinite(b)) return result;
    if (std::isnan(result)) throw EInvalidOp("Invalid floating point operation");
    throw EOverflow("Floating point overflow");
}

bool IsTextKind(TVarType t) {
    return t == varString || t == varBytes;
}

enum class ArithOp { Add, Sub, Mul, Div };

// Numeric rank for choosing the result kind of integer arithmetic.
bool IsIntegral(TVarType t) {
    return t == varBoolean || t == varInteger || t == varInt64;
}

int64_t IntegralValue(const Variant& v) {
    switch (v.VarType()) {
    case varBoolean:
        return v.AsBoolean() ? -1 : 0;
    case varEmpty:
        return 0;
    default:
        return v.AsInt64();
    }
}

Variant IntegerArith(ArithOp op, const Variant& a, const Variant& b) {
    int64_t x = IntegralValue(a), y = IntegralValue(b), r = 0;
    bool overflow = false;
    switch (op) {
    case ArithOp::Add:
        overflow = __builtin_add_overflow(x, y, &r);
        break;
    case ArithOp::Sub:
        overflow = __builtin_sub_overflow(x, y, &r);
        break;
    case ArithOp::Mul:
        overflow = __builtin_mul_overflow(x, y, &r);
        break;
    case ArithOp::Div:
        break; // never integral
    }
    if (overflow) {
        double dx = static_cast<double>(x), dy = static_cast<double>(y);
        return op == ArithOp::Add ? dx + dy : op == ArithOp::Sub ? dx - dy : dx * dy;
    }
    return Variant::FromInt(r);
}

double RealArith(ArithOp op, double x, double y) {
    switch (op) {
    case ArithOp::Add:
        return CheckedReal(x + y, x, y);
    case ArithOp::Sub:
        return CheckedReal(x - y, x, y);
    case ArithOp::Mul:
        return CheckedReal(x * y, x, y);
    case ArithOp::Div:
        if (y == 0) {
            if (x == 0 || std::isnan(x)) throw EInvalidOp("Invalid floating point operation");
            throw EZeroDivide("Floating point division by zero");
        }
        return CheckedReal(x / y, x, y);
    }
    return 0;
}

Variant Arith(ArithOp op, const Variant& a, const Variant& b) {
    TVarType ta = a.VarType(), tb = b.VarType();
    if (ta == varArray || tb == varArray) RaiseInvalidOp();
    if (ta == varNull || tb == varNull) return Variant::Null();
    if (ta == varEmpty && tb == varEmpty)
        return op == ArithOp::Div ? Arith(op, Variant(0), Variant(0)) : Variant();
    if (op == ArithOp::Add && (IsTextKind(ta) || ta == varEmpty) && (IsTextKind(tb) || tb == varEmpty))
        return Variant(a.AsString() + b.AsString());
    // A date stays a date through addition and subtraction of a number.
    bool dateResult = (op == ArithOp::Add && (ta == varDate) != (tb == varDate)) ||
                      (op == ArithOp::Sub && ta == varDate && tb != varDate);
    if (ta == varDate || tb == varDate) {
        double r = RealArith(op, a.AsDateTime(), b.AsDateTime());
        return dateResult ? Variant::FromDateTime(r) : Variant(r);
    }
    if (op != ArithOp::Div && (IsIntegral(ta) || ta == varEmpty) && (IsIntegral(tb) || tb == varEmpty))
        return IntegerArith(op, a, b);
    return Variant(RealArith(op, a.AsDouble(), b.AsDouble()));
}

// Parses the booleans that a text can stand for: True/False by name, or any number.
bool TextToBoolean(const std::string& s, bool& out) {
    if (SameText(s, "True")) {
        out = true;
        return true;
    }
    if (SameText(s, "False")) {
        out = false;
        return true;
    }
    double d;
    if (TryStrToFloat(s, d)) {
        out = d != 0;
        return true;
    }
    return false;
}

template <class T> TVariantRelationship Order(T x, T y) {
    if (x < y) return vrLessThan;
    if (y < x) return vrGreaterThan;
    if (x == y) return vrEqual;
    return vrNotEqual; // NaN
}

} // namespace

Variant Variant::FromArray(std::vector<Variant> items) {
    auto shared = std::make_shared<const std::vector<Variant>>(std::move(items));
    Variant v;
    new (&v.u_.a) std::shared_ptr<const std::vector<Variant>>(std::move(shared));
    v.type_ = varArray;
    return v;
}

const std::vector<Variant>& Variant::Items() const {
    return type_ == varArray && u_.a ? *u_.a : EmptyItems();
}

const std::string& Variant::EmptyText() {
    static const std::string empty;
    return empty;
}

void Variant::AssignHeld(const Variant& other) {
    if (type_ == varArray || other.type_ == varArray) {
        Variant copy(other); // one array may hold the other variant
        *this = std::move(copy);
        return;
    }
    if (HasText() && other.HasText()) {
        u_.s = other.u_.s; // reuses the room this text already has
    } else {
        Release();
        type_ = varEmpty; // whole, should the copy fail
        CopyFrom(other);
    }
    type_ = other.type_;
}

const Variant& Variant::Item(size_t index) const {
    if (type_ != varArray || !u_.a || index >= u_.a->size())
        throw EVariantBadIndexError("Variant or safe array index out of bounds");
    return (*u_.a)[index];
}

bool Variant::AsBoolean() const {
    switch (type_) {
    case varEmpty:
        return false;
    case varBoolean:
        return u_.b;
    case varInteger:
        return u_.i != 0;
    case varInt64:
        return u_.i64 != 0;
    case varDouble:
    case varDate:
        return u_.d != 0;
    case varString: {
        bool b;
        if (TextToBoolean(StringRef(), b)) return b;
        break;
    }
    default:
        break;
    }
    RaiseCastError(type_, varBoolean);
}

int64_t Variant::AsInt64() const {
    switch (type_) {
    case varEmpty:
        return 0;
    case varBoolean:
        return u_.b ? -1 : 0;
    case varInteger:
        return u_.i;
    case varInt64:
        return u_.i64;
    case varDouble:
    case varDate: {
        int64_t r;
        if (RoundToInt64(u_.d, r)) return r;
        break;
    }
    case varString: {
        int64_t r;
        if (TryStrToInt64(StringRef(), r)) return r;
        double d;
        if (TryStrToFloat(StringRef(), d) && RoundToInt64(d, r)) return r;
        break;
    }
    default:
        break;
    }
    RaiseCastError(type_, varInt64);
}

int32_t Variant::AsInteger() const {
    if (type_ == varInteger) return u_.i;
    int64_t v;
    try {
        v = AsInt64();
    } catch (const EVariantTypeCastError&) {
        RaiseCastError(type_, varInteger);
    }
    if (v < INT32_MIN || v > INT32_MAX) RaiseCastError(type_, varInteger);
    return static_cast<int32_t>(v);
}

double Variant::AsDouble() const {
    switch (type_) {
    case varEmpty:
        return 0;
    case varBoolean:
        return u_.b ? -1 : 0;
    case varInteger:
        return u_.i;
    case varInt64:
        return static_cast<double>(u_.i64);
    case varDouble:
    case varDate:
        return u_.d;
    case varString: {
        double d;
        if (TryStrToFloat(StringRef(), d)) return d;
        break;
    }
    default:
        break;
    }
    RaiseCastError(type_, varDouble);
}

TDateTime Variant::AsDateTime() const {
    if (type_ == varString) {
        TDateTime dt;
        if (TryStrToDateTime(StringRef(), dt) || TryStrToFloat(StringRef(), dt)) return dt;
        RaiseCastError(type_, varDate);
    }
    if (type_ == varNull || type_ >= varBytes) RaiseCastError(type_, varDate);
    return AsDouble();
}

std::string Variant::AsString() const {
    switch (type_) {
    case varEmpty:
    case varNull:
        return {};
    case varBoolean:
        return u_.b ? "True" : "False";
    case varInteger:
        return IntToStr(u_.i);
    case varInt64:
        return IntToStr(u_.i64);
    case varDouble:
        return FloatToStr(u_.d);
    case varDate:
        return DateTimeToStr(u_.d);
    case varString:
    case varBytes:
        return StringRef();
    case varArray:
        break;
    }
    RaiseCastError(type_, varString);
}

Variant operator+(const Variant& a, const Variant& b) {
    return Arith(ArithOp::Add, a, b);
}
Variant operator-(const Variant& a, const Variant& b) {
    return Arith(ArithOp::Sub, a, b);
}
Variant operator*(const Variant& a, const Variant& b) {
    return Arith(ArithOp::Mul, a, b);
}
Variant operator/(const Variant& a, const Variant& b) {
    return Arith(ArithOp::Div, a, b);
}

Variant Variant::IntDiv(const Variant& b) const {
    if (type_ == varArray || b.type_ == varArray) RaiseInvalidOp();
    if (IsNull() || b.IsNull()) return Null();
    int64_t x = AsInt64(), y = b.AsInt64();
    if (y == 0) throw EDivByZero("Division by zero");
    if (x == INT64_MIN && y == -1) throw EIntOverflow("Integer overflow");
    return FromInt(x / y);
}

Variant Variant::Mod(const Variant& b) const {
    if (type_ == varArray || b.type_ == varArray) RaiseInvalidOp();
    if (IsNull() || b.IsNull()) return Null();
    int64_t x = AsInt64(), y = b.AsInt64();
    if (y == 0) throw EDivByZero("Division by zero");
    if (y == -1) return Variant(0);
    return FromInt(x % y);
}

namespace {

// Booleans combine logically; a text meeting a boolean is read as one; everything else combines bitwise.
template <class LogicalOp, class BitOp>
Variant Logic(const Variant& a, const Variant& b, LogicalOp logical, BitOp bitwise) {
    TVarType ta = a.VarType(), tb = b.VarType();
    if (ta == varArray || tb == varArray) RaiseInvalidOp();
    if (ta == varNull || tb == varNull) return Variant::Null();
    bool boolA = ta == varBoolean || (ta == varString && tb == varBoolean);
    bool boolB = tb == varBoolean || (tb == varString && ta == varBoolean);
    if (boolA && boolB) return Variant(logical(a.AsBoolean(), b.AsBoolean()));
    return Variant::FromInt(bitwise(IntegralValue(a), IntegralValue(b)));
}

} // namespace

Variant Variant::And(const Variant& b) const {
    return Logic(
        *this, b, [](bool x, bool y) { return x && y; }, [](int64_t x, int64_t y) { return x & y; });
}

Variant Variant::Or(const Variant& b) const {
    return Logic(
        *this, b, [](bool x, bool y) { return x || y; }, [](int64_t x, int64_t y) { return x | y; });
}

Variant Variant::Not() const {
    switch (type_) {
    case varNull:
        return Null();
    case varBoolean:
        return Variant(!u_.b);
    case varString: {
        if (SameText(StringRef(), "True") || SameText(StringRef(), "False")) return Variant(!AsBoolean());
        return FromInt(~AsInt64());
    }
    case varArray:
    case varBytes:
        RaiseInvalidOp();
    default:
        return FromInt(~AsInt64());
    }
}

Variant Variant::Negate() const {
    switch (type_) {
    case varNull:
    case varEmpty:
        return *this;
    case varBoolean:
    case varInteger:
    case varInt64:
        return Variant(0) - *this;
    case varDate:
        return FromDateTime(-u_.d);
    case varDouble:
        return Variant(-u_.d);
    case varString:
        return Variant(-AsDouble());
    default:
        RaiseInvalidOp();
    }
}

TVariantRelationship Variant::Compare(const Variant& b) const {
    TVarType ta = type_, tb = b.type_;
    if (ta == varArray || tb == varArray) RaiseInvalidOp();
    if (ta == varNull || tb == varNull) {
        if (ta == tb) return vrEqual;
        return ta == varNull ? vrLessThan : vrGreaterThan;
    }
    if ((IsTextKind(ta) || ta == varEmpty) && (IsTextKind(tb) || tb == varEmpty)) {
        int c = CompareStr(StringRef(), b.StringRef());
        return c < 0 ? vrLessThan : c > 0 ? vrGreaterThan : vrEqual;
    }
    if (ta == varBoolean || tb == varBoolean)
        return Order<int>(AsBoolean() ? 1 : 0, b.AsBoolean() ? 1 : 0); // False before True
    if (ta == varDate || tb == varDate) return Order(AsDateTime(), b.AsDateTime());
    if ((IsOrdinal() || ta == varEmpty) && (b.IsOrdinal() || tb == varEmpty))
        return Order(AsInt64(), b.AsInt64());
    return Order(AsDouble(), b.AsDouble());
}

bool Variant::Identical(const Variant& b) const {
    if (type_ != b.type_) return false;
    switch (type_) {
    case varEmpty:
    case varNull:
        return true;
    case varBoolean:
        return u_.b == b.u_.b;
    case varInteger:
        return u_.i == b.u_.i;
    case varInt64:
        return u_.i64 == b.u_.i64;
    case varDouble:
    case varDate:
        return u_.d == b.u_.d || (std::isnan(u_.d) && std::isnan(b.u_.d));
    case varString:
    case varBytes:
        return StringRef() == b.StringRef();
    case varArray: {
        const auto &x = Items(), &y = b.Items();
        if (x.size() != y.size()) return false;
        for (size_t i = 0; i < x.size(); ++i)
            if (!x[i].Identical(y[i])) return false;
        return true;
    }
    }
    return false;
}

} // namespace kv
