#pragma once
// Format: the printf-like formatting that the library's message texts are written for. It knows "%s",
// "%d", "%u", "%x", "%f", widths and precisions ("%.2x", "%5d", "%-10s") and "%%"; a directive that does
// not suit its argument raises EConvertError.

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>

namespace kv {

/// One argument of Format: text, integer or real.
class TFormatArg {
public:
    enum Kind : uint8_t { Text, Integer, Real };
    TFormatArg(std::string_view s) : kind_(Text), text_(s) {}
    TFormatArg(const std::string& s) : kind_(Text), text_(s) {}
    TFormatArg(const char* s) : kind_(Text), text_(s ? s : "") {}
    template <class T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>, int> = 0>
    TFormatArg(T v) : kind_(Integer), integer_(static_cast<int64_t>(v)) {}
    TFormatArg(double v) : kind_(Real), real_(v) {}

    Kind ArgKind() const { return kind_; }
    std::string_view AsText() const { return text_; }
    int64_t AsInteger() const { return integer_; }
    double AsReal() const { return real_; }

private:
    Kind kind_;
    std::string_view text_;
    int64_t integer_ = 0;
    double real_ = 0;
};

std::string FormatList(std::string_view format, std::initializer_list<TFormatArg> args);

template <class... Args> std::string Format(std::string_view format, const Args&... args) {
    return FormatList(format, {TFormatArg(args)...});
}

} // namespace kv
