#include "platform/FormatError.h"

namespace kv {

namespace {

std::string Compose(TKvFormatErrorKind kind, const std::string& format, uint64_t offset,
                    const std::string& detail, std::string_view unit) {
    std::string message;
    if (!format.empty()) message = format + ": ";
    if (kind == fekTruncated)
        message.append("unexpected end of ").append(unit);
    else
        message.append("damaged file");
    message.append(" at byte ").append(std::to_string(offset));
    if (!detail.empty()) message.append(": ").append(detail);
    return message;
}

} // namespace

EKvFormatError::EKvFormatError(TKvFormatErrorKind kind, std::string format, uint64_t offset,
                               std::string detail, std::string_view unit)
    : EReadError(Compose(kind, format, offset, detail, unit)), kind_(kind), format_(std::move(format)),
      offset_(offset), detail_(std::move(detail)) {}

EKvFormatError EKvFormatError::ShortRead(std::string_view format, uint64_t offset, uint64_t wanted,
                                         uint64_t left, std::string_view unit) {
    return EKvFormatError(fekTruncated, std::string(format), offset,
                          "reading " + std::to_string(wanted) + (wanted == 1 ? " byte, " : " bytes, ") +
                              std::to_string(left) + " left",
                          unit);
}

} // namespace kv
