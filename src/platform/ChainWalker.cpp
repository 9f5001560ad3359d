#include "platform/ChainWalker.h"

#include "platform/FormatError.h"

#include <algorithm>

namespace kv {

TKvChainWalker::TKvChainWalker(std::string format, std::string linkName, uint64_t count, uint64_t end)
    : format_(std::move(format)), linkName_(std::move(linkName)), count_(count), end_(end) {}

void TKvChainWalker::SetDisjoint(bool disjoint) {
    disjoint_ = disjoint;
    Reset();
}

void TKvChainWalker::Reset() {
    if (dirtyLow_ <= dirtyHigh_)
        std::fill(bits_.begin() + static_cast<ptrdiff_t>(dirtyLow_),
                  bits_.begin() + static_cast<ptrdiff_t>(dirtyHigh_) + 1, 0);
    dirtyLow_ = UINT64_MAX;
    dirtyHigh_ = 0;
    steps_ = 0;
}

void TKvChainWalker::BeginWalk() {
    useBitset_ = count_ <= maxBitsetLinks_;
    if (useBitset_ && bits_.empty()) bits_.assign(static_cast<size_t>((count_ + 63) / 64), 0);
    if (!disjoint_) Reset();
}

std::string TKvChainWalker::Name(uint64_t link) const {
    return linkName_ + " " + std::to_string(link);
}

uint64_t TKvChainWalker::ErrorOffset(uint64_t startOffset, uint64_t previous) const {
    return previous != end_ && where_ ? where_(previous) : startOffset;
}

void TKvChainWalker::OutOfRange(uint64_t start, uint64_t startOffset, uint64_t previous,
                                uint64_t link) const {
    const std::string how = previous == end_ ? "the chain starts at " : Name(previous) + " links to ";
    throw EKvFormatError(fekDamaged, format_, ErrorOffset(startOffset, previous),
                         how + Name(link) + ", out of range (" + std::to_string(count_) + " " + linkName_ +
                             "s" + (previous == end_ ? "" : ", in the chain from " + Name(start)) + ")");
}

void TKvChainWalker::Loop(uint64_t start, uint64_t startOffset, uint64_t previous, uint64_t link,
                          bool inThisChain) const {
    std::string detail;
    if (!useBitset_) {
        detail = disjoint_ ? "the chains hold more than the " + std::to_string(count_) + " " + linkName_ +
                                 "s there are: a loop, or a " + linkName_ + " in two chains"
                           : "the chain from " + Name(start) + " has more links than the " +
                                 std::to_string(count_) + " " + linkName_ + "s there are: it loops";
    } else if (inThisChain) {
        detail =
            Name(previous) + " links back to " + Name(link) + ", a loop in the chain from " + Name(start);
    } else {
        detail = (previous == end_ ? "the chain starts at " : Name(previous) + " links to ") + Name(link) +
                 ", which another chain holds";
    }
    throw EKvFormatError(fekDamaged, format_, ErrorOffset(startOffset, previous), detail);
}

} // namespace kv
