#pragma once
// A loosely typed value with the conversion and arithmetic rules of a classic variant: strings meet numbers
// by converting the string, Null propagates through arithmetic and sorts before everything, AND/OR are
// logical on booleans and bitwise on integers.

#include "platform/DateUtils.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

/// The kinds a Variant can hold.
enum TVarType : uint8_t {
    varEmpty, ///< unassigned
    varNull,  ///< SQL-style null
    varBoolean,
    varInteger, ///< 32-bit signed
    varInt64,
    varDouble,
    varDate,   ///< TDateTime
    varString, ///< UTF-8 text
    varBytes,  ///< binary data
    varArray   ///< array of variants
};

/// The name a kind has in conversion error messages ("String", "Double", "Empty", ...).
const char* VarTypeName(TVarType type);

enum TVariantRelationship { vrEqual, vrLessThan, vrGreaterThan, vrNotEqual };

/// A value of one of the kinds of TVarType.
class Variant {
public:
    Variant() = default;
    Variant(bool v) : type_(varBoolean) { num_.b = v; }
    Variant(int v) : type_(varInteger) { num_.i = v; }
    Variant(long v) : type_(varInt64) { num_.i64 = v; }
    Variant(long long v) : type_(varInt64) { num_.i64 = v; }
    Variant(double v) : type_(varDouble) { num_.d = v; }
    Variant(const char* s) : type_(varString), str_(s) {}
    Variant(std::string s) : type_(varString), str_(std::move(s)) {}
    Variant(std::string_view s) : type_(varString), str_(s) {}

    static Variant Null() {
        Variant v;
        v.type_ = varNull;
        return v;
    }
    static Variant FromDateTime(TDateTime dt) {
        Variant v(dt);
        v.type_ = varDate;
        return v;
    }
    static Variant FromBytes(std::string bytes) {
        Variant v(std::move(bytes));
        v.type_ = varBytes;
        return v;
    }
    static Variant FromArray(std::vector<Variant> items);
    /// An Int64 that narrows to an Integer when it fits.
    static Variant FromInt(int64_t v) {
        return (v >= INT32_MIN && v <= INT32_MAX) ? Variant(static_cast<int>(v))
                                                  : Variant(static_cast<long long>(v));
    }

    TVarType VarType() const { return type_; }
    bool IsEmpty() const { return type_ == varEmpty; }
    bool IsNull() const { return type_ == varNull; }
    bool IsNullOrEmpty() const { return type_ <= varNull; }
    bool IsString() const { return type_ == varString; }
    bool IsNumeric() const { return type_ >= varInteger && type_ <= varDouble; }
    bool IsOrdinal() const { return type_ == varInteger || type_ == varInt64; }
    bool IsArray() const { return type_ == varArray; }

    /// Conversions; each raises EVariantTypeCastError when the value has no such reading.
    bool AsBoolean() const;
    int32_t AsInteger() const;
    int64_t AsInt64() const;
    double AsDouble() const;
    TDateTime AsDateTime() const;
    /// The text of the value under DefaultFormatSettings; Null and unassigned give "".
    std::string AsString() const;

    /// The stored text of a string or byte string (no conversion).
    const std::string& StringRef() const { return str_; }
    /// The items of an array (empty for other kinds).
    const std::vector<Variant>& Items() const;
    size_t ItemCount() const { return Items().size(); }
    /// One item of an array; EVariantBadIndexError when out of range or not an array.
    const Variant& Item(size_t index) const;

    /// Arithmetic and logic with variant rules.
    friend Variant operator+(const Variant& a, const Variant& b);
    friend Variant operator-(const Variant& a, const Variant& b);
    friend Variant operator*(const Variant& a, const Variant& b);
    friend Variant operator/(const Variant& a, const Variant& b);
    Variant IntDiv(const Variant& b) const;
    Variant Mod(const Variant& b) const;
    Variant And(const Variant& b) const;
    Variant Or(const Variant& b) const;
    Variant Not() const;
    Variant Negate() const;

    /// Comparison: Null equals Null and is less than any other value.
    TVariantRelationship Compare(const Variant& b) const;
    bool Equals(const Variant& b) const { return Compare(b) == vrEqual; }

    /// Same kind and same stored value (no conversion): for tests and change detection.
    bool Identical(const Variant& b) const;

private:
    TVarType type_ = varEmpty;
    union {
        bool b;
        int32_t i;
        int64_t i64;
        double d;
    } num_{};
    std::string str_;
    std::shared_ptr<const std::vector<Variant>> array_;
};

/// Raises EVariantTypeCastError for a conversion from one kind into another.
[[noreturn]] void RaiseCastError(TVarType from, TVarType to);

/// Text of a value ("" for Null and unassigned), as the classic VarToStr.
inline std::string VarToStr(const Variant& v) {
    return v.AsString();
}

} // namespace kv
