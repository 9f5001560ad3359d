#include "platform/FrontEnd.h"

namespace kv {

namespace {
IKvFrontEnd& SilentFrontEnd() {
    static IKvFrontEnd silent;
    return silent;
}
IKvFrontEnd* current = nullptr;
} // namespace

IKvFrontEnd& FrontEnd() {
    return current ? *current : SilentFrontEnd();
}
void SetFrontEnd(IKvFrontEnd* frontEnd) {
    current = frontEnd;
}
bool HasFrontEnd() {
    return current != nullptr;
}

} // namespace kv
