#include "platform/Format.h"

#include "platform/Exceptions.h"
#include "platform/SysUtils.h"
#include "platform/Utf8.h"

#include <algorithm>

namespace kv {

namespace {

[[noreturn]] void RaiseInvalid(std::string_view format) {
    throw EConvertError("Format '" + std::string(format) + "' invalid or incompatible with argument");
}

void AppendPadded(std::string& out, const std::string& text, int width, bool left) {
    const int length = static_cast<int>(Utf8Length(text));
    if (left) out += text;
    if (width > length) out.append(static_cast<size_t>(width - length), ' ');
    if (!left) out += text;
}

} // namespace

std::string FormatList(std::string_view format, std::initializer_list<TFormatArg> args) {
    std::string out;
    out.reserve(format.size() + 16);
    auto next = args.begin();
    for (size_t i = 0; i < format.size(); ++i) {
        const char c = format[i];
        if (c != '%') {
            out += c;
            continue;
        }
        if (++i >= format.size()) RaiseInvalid(format);
        if (format[i] == '%') {
            out += '%';
            continue;
        }
        bool left = false;
        if (format[i] == '-') left = true, ++i;
        int width = 0, precision = -1;
        while (i < format.size() && format[i] >= '0' && format[i] <= '9')
            width = std::min(width * 10 + (format[i++] - '0'), 100000);
        if (i < format.size() && format[i] == '.') {
            precision = 0;
            ++i;
            while (i < format.size() && format[i] >= '0' && format[i] <= '9')
                precision = std::min(precision * 10 + (format[i++] - '0'), 100000);
        }
        if (i >= format.size() || next == args.end() || width > 4096 || precision > 4096)
            RaiseInvalid(format);
        const TFormatArg& arg = *next++;
        std::string text;
        switch (format[i] | 0x20) {
        case 's':
            if (arg.ArgKind() != TFormatArg::Text) RaiseInvalid(format);
            text = std::string(arg.AsText());
            if (precision >= 0) text = Utf8Copy(text, 1, precision);
            break;
        case 'd':
        case 'u': {
            if (arg.ArgKind() != TFormatArg::Integer) RaiseInvalid(format);
            int64_t v = arg.AsInteger();
            const uint64_t magnitude = v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
            std::string digits = std::to_string(magnitude);
            if (precision > static_cast<int>(digits.size()))
                digits.insert(0, static_cast<size_t>(precision) - digits.size(), '0');
            text = (v < 0 ? "-" : "") + digits;
            break;
        }
        case 'x': {
            if (arg.ArgKind() != TFormatArg::Integer) RaiseInvalid(format);
            text = IntToHex(static_cast<uint64_t>(arg.AsInteger()), precision < 0 ? 0 : precision);
            break;
        }
        case 'f':
        case 'n':
        case 'g': {
            double v = arg.ArgKind() == TFormatArg::Real      ? arg.AsReal()
                       : arg.ArgKind() == TFormatArg::Integer ? static_cast<double>(arg.AsInteger())
                                                              : (RaiseInvalid(format), 0.0);
            text =
                (format[i] | 0x20) == 'g' ? FloatToStr(v) : FloatToStrFixed(v, precision < 0 ? 2 : precision);
            break;
        }
        default:
            RaiseInvalid(format);
        }
        AppendPadded(out, text, width, left);
    }
    return out;
}

} // namespace kv
