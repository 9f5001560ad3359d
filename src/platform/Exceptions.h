#pragma once
// The library's exception families. Every failure the library raises derives from kv::Exception, whose
// what() is the exact UTF-8 message text the library promises.

#include <exception>
#include <string>

namespace kv {

/// Base of every exception the library raises.
class Exception : public std::exception {
public:
    explicit Exception(std::string message) : message_(std::move(message)) {}
    const char* what() const noexcept override { return message_.c_str(); }
    const std::string& Message() const noexcept { return message_; }

private:
    std::string message_;
};

#define KV_DECLARE_EXCEPTION(Name, Base)                                                                     \
    class Name : public Base {                                                                               \
    public:                                                                                                  \
        using Base::Base;                                                                                    \
    };

/// Text that does not convert to a number or a date ("'x' is not a valid integer value").
KV_DECLARE_EXCEPTION(EConvertError, Exception)
/// Arithmetic failures.
KV_DECLARE_EXCEPTION(EMathError, Exception)
KV_DECLARE_EXCEPTION(EZeroDivide, EMathError) // "Floating point division by zero"
KV_DECLARE_EXCEPTION(EInvalidOp, EMathError)  // "Invalid floating point operation"
KV_DECLARE_EXCEPTION(EOverflow, EMathError)   // "Floating point overflow"
KV_DECLARE_EXCEPTION(EDivByZero, Exception)   // "Division by zero" (integer)
KV_DECLARE_EXCEPTION(EIntOverflow, Exception) // "Integer overflow"
/// Variant operations.
KV_DECLARE_EXCEPTION(EVariantError, Exception)
KV_DECLARE_EXCEPTION(EVariantTypeCastError,
                     EVariantError) // "Could not convert variant of type (%s) into type (%s)"
KV_DECLARE_EXCEPTION(EVariantInvalidOpError, EVariantError) // "Invalid variant operation"
KV_DECLARE_EXCEPTION(EVariantBadIndexError, EVariantError)  // "Variant or safe array index out of bounds"
/// Lists and collections ("List index out of bounds (%d)").
KV_DECLARE_EXCEPTION(EListError, Exception)
KV_DECLARE_EXCEPTION(EStringListError, EListError)
/// Streams and files.
KV_DECLARE_EXCEPTION(EStreamError, Exception)
KV_DECLARE_EXCEPTION(EReadError, EStreamError)    // "Stream read error"
KV_DECLARE_EXCEPTION(EWriteError, EStreamError)   // "Stream write error"
KV_DECLARE_EXCEPTION(EFOpenError, EStreamError)   // "Cannot open file "%s". %s"
KV_DECLARE_EXCEPTION(EFCreateError, EStreamError) // "Cannot create file "%s". %s"
/// Invalid type cast between components ("Invalid class typecast").
KV_DECLARE_EXCEPTION(EInvalidCast, Exception)
/// Text decoding and encoding.
KV_DECLARE_EXCEPTION(EEncodingError, Exception)
/// Zip members whose data does not match their checksum.
KV_DECLARE_EXCEPTION(EZipFileCRCError, Exception)

} // namespace kv
