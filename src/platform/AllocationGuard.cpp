#include "platform/AllocationGuard.h"

#include "platform/FormatError.h"

#include <string>

namespace kv {

namespace {

[[noreturn]] void Refuse(std::string_view format, uint64_t offset, std::string_view what, uint64_t count,
                         uint64_t elementSize, const std::string& need) {
    throw EKvFormatError(fekDamaged, std::string(format), offset,
                         std::string(what) + " need " + need + " (" + std::to_string(count) + " × " +
                             std::to_string(elementSize) + ")");
}

} // namespace

uint64_t KvCheckedSize(std::string_view format, uint64_t offset, uint64_t count, uint64_t elementSize,
                       uint64_t available, std::string_view what) {
    if (elementSize != 0 && count > UINT64_MAX / elementSize)
        Refuse(format, offset, what, count, elementSize, "more than 2^64 bytes");
    const uint64_t total = count * elementSize;
    if (total > available)
        Refuse(format, offset, what, count, elementSize,
               std::to_string(total) + " bytes, more than the " + std::to_string(available) + " there are");
    if (total > kKvMaxAllocation)
        Refuse(format, offset, what, count, elementSize,
               std::to_string(total) + " bytes, more than the " + std::to_string(kKvMaxAllocation) +
                   " a reader takes at once");
    return total;
}

} // namespace kv
