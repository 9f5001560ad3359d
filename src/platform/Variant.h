#pragma once
// A loosely typed value with the conversion and arithmetic rules of a classic variant: strings meet numbers
// by converting the string, Null propagates through arithmetic and sorts before everything, AND/OR are
// logical on booleans and bitwise on integers.

#include "platform/DateUtils.h"

#include <cstdint>
#include <memory>
#include <new>
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
    Variant() { u_.i64 = 0; }
    Variant(bool v) : type_(varBoolean) { u_.b = v; }
    Variant(int v) : type_(varInteger) { u_.i = v; }
    Variant(long v) : type_(varInt64) { u_.i64 = v; }
    Variant(long long v) : type_(varInt64) { u_.i64 = v; }
    Variant(double v) : type_(varDouble) { u_.d = v; }
    Variant(const char* s) : type_(varString) { new (&u_.s) std::string(s); }
    Variant(const std::string& s) : type_(varString) { new (&u_.s) std::string(s); }
    Variant(std::string&& s) : type_(varString) { new (&u_.s) std::string(std::move(s)); }
    Variant(std::string_view s) : type_(varString) { new (&u_.s) std::string(s); }

    Variant(const Variant& other) : type_(other.type_) { CopyFrom(other); }
    Variant(Variant&& other) noexcept : type_(other.type_) { MoveFrom(other); }
    Variant& operator=(const Variant& other) {
        if (IsScalar() && other.IsScalar()) {
            u_.i64 = other.u_.i64;
            type_ = other.type_;
        } else if (this != &other) {
            AssignHeld(other);
        }
        return *this;
    }
    Variant& operator=(Variant&& other) noexcept {
        if (this != &other) {
            Release();
            type_ = other.type_;
            MoveFrom(other);
        }
        return *this;
    }
    ~Variant() { Release(); }

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

    /// Makes the value the text `text`, reusing the room of a text it already holds; `text` may lie within
    /// that text.
    void AssignText(std::string_view text) {
        if (type_ == varString) {
            u_.s.assign(text.data(), text.size());
            return;
        }
        std::string copy(text);
        Release();
        new (&u_.s) std::string(std::move(copy));
        type_ = varString;
    }

    /// Makes the value a text, keeping the room of a text it already holds, and gives that text to be
    /// written in place.
    std::string& TextToWrite() {
        if (type_ != varString) {
            Release();
            new (&u_.s) std::string();
            type_ = varString;
        }
        return u_.s;
    }

    /// Makes the value Null, releasing what it held.
    void SetNull() noexcept {
        Release();
        type_ = varNull;
        u_.i64 = 0;
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

    /// The stored text of a string or byte string (no conversion); "" for the other kinds.
    const std::string& StringRef() const { return HasText() ? u_.s : EmptyText(); }
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
    bool HasText() const { return type_ == varString || type_ == varBytes; }
    bool IsScalar() const { return !HasText() && type_ != varArray; }
    void AssignHeld(const Variant& other);
    static const std::string& EmptyText();
    void CopyFrom(const Variant& other) {
        if (other.HasText())
            new (&u_.s) std::string(other.u_.s);
        else if (other.type_ == varArray)
            new (&u_.a) std::shared_ptr<const std::vector<Variant>>(other.u_.a);
        else
            u_.i64 = other.u_.i64;
    }
    // Takes other's value; other is left unassigned.
    void MoveFrom(Variant& other) noexcept {
        if (other.HasText())
            new (&u_.s) std::string(std::move(other.u_.s));
        else if (other.type_ == varArray)
            new (&u_.a) std::shared_ptr<const std::vector<Variant>>(std::move(other.u_.a));
        else
            u_.i64 = other.u_.i64;
        other.Release();
        other.type_ = varEmpty;
        other.u_.i64 = 0;
    }
    void Release() noexcept {
        if (HasText())
            u_.s.~basic_string();
        else if (type_ == varArray)
            u_.a.~shared_ptr();
    }

    // One of the kinds at a time: a variant is the size of its text, not of every kind together.
    union Storage {
        Storage() {}
        ~Storage() {}
        bool b;
        int32_t i;
        int64_t i64;
        double d;
        std::string s;                                 ///< varString, varBytes
        std::shared_ptr<const std::vector<Variant>> a; ///< varArray
    };
    TVarType type_ = varEmpty;
    Storage u_;
};

/// Raises EVariantTypeCastError for a conversion from one kind into another.
[[noreturn]] void RaiseCastError(TVarType from, TVarType to);

/// Text of a value ("" for Null and unassigned), as the classic VarToStr.
inline std::string VarToStr(const Variant& v) {
    return v.AsString();
}

} // namespace kv
