#pragma once
// TKvChainWalker: follows chains of links through a table (sectors of a compound file, blocks of a memo
// file, records continued in the next one) so that a damaged file ends the walk with an error instead of
// reading out of range or going round a loop for ever.

#include <cstdint>
#include <functional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace kv {

/// Walks chains whose links run 0..Count-1 and end at a sentinel value.
///
/// A link of Count or more (other than the end) and a link met twice raise EKvFormatError (fekDamaged).
/// Up to MaxBitsetLinks links, a bitset finds a loop at the first repeated link; above it, a step counter
/// bounded by the number of links finds it once the chain is longer than there are links. Either way a
/// walk takes at most Count steps. The bitset is kept between walks and only the part a walk touched is
/// cleared, so many short walks over a large table stay cheap.
class TKvChainWalker {
public:
    static constexpr uint64_t kDefaultMaxBitsetLinks = uint64_t{1} << 24;

    /// `format` names the format in errors, `linkName` a link ("sector", "block"); links run
    /// 0..count-1 and `end` ends a chain.
    TKvChainWalker(std::string format, std::string linkName, uint64_t count, uint64_t end);

    uint64_t Count() const { return count_; }
    uint64_t End() const { return end_; }

    /// Where the successor of a link is stored (the byte offset of its table entry), for errors; without
    /// it, errors name the offset where the chain's first link was read.
    void SetLocator(std::function<uint64_t(uint64_t link)> where) { where_ = std::move(where); }
    /// Links that belong to one chain only (the sectors of a compound file): a link used by an earlier
    /// walk is damage too, and all walks together take at most Count steps, however many chains a
    /// damaged file claims. Starts a fresh set of walks.
    void SetDisjoint(bool disjoint);
    /// Tables of more links than this find loops by counting steps (no bitset). Set it before walking.
    void SetMaxBitsetLinks(uint64_t links) { maxBitsetLinks_ = links; }

    /// Walks the chain from `start` (read at byte `startOffset`): calls visit(link) for each link, then
    /// next(link) for its successor, until the end value. A visit that returns bool stops the walk with
    /// false. Returns the number of links visited. In disjoint mode, finding a repeated link calls next
    /// again on links of this chain, to tell a loop from a link another chain holds.
    template <class Next, class Visit>
    uint64_t Walk(uint64_t start, uint64_t startOffset, Next&& next, Visit&& visit) {
        BeginWalk();
        uint64_t visited = 0;
        uint64_t previous = end_;
        for (uint64_t link = start; link != end_;) {
            if (link >= count_) OutOfRange(start, startOffset, previous, link);
            if (!Mark(link)) Repeated(start, startOffset, previous, link, next);
            ++visited;
            if constexpr (std::is_same_v<std::invoke_result_t<Visit&, uint64_t>, bool>) {
                if (!visit(link)) break;
            } else {
                visit(link);
            }
            previous = link;
            link = static_cast<uint64_t>(next(link));
        }
        return visited;
    }

    /// The links of the chain from `start`, in order.
    template <class Next> std::vector<uint64_t> Collect(uint64_t start, uint64_t startOffset, Next&& next) {
        std::vector<uint64_t> links;
        Walk(start, startOffset, std::forward<Next>(next), [&](uint64_t link) { links.push_back(link); });
        return links;
    }

private:
    void BeginWalk();
    void Reset();
    /// Records a visit of `link`; false when it was seen before (or the step budget is spent).
    bool Mark(uint64_t link) {
        if (useBitset_) {
            const uint64_t word = link >> 6;
            const uint64_t bit = uint64_t{1} << (link & 63);
            if (bits_[word] & bit) return false;
            bits_[word] |= bit;
            if (word < dirtyLow_) dirtyLow_ = word;
            if (word > dirtyHigh_) dirtyHigh_ = word;
            return true;
        }
        return ++steps_ <= count_;
    }
    template <class Next>
    [[noreturn]] void Repeated(uint64_t start, uint64_t startOffset, uint64_t previous, uint64_t link,
                               Next& next) {
        // Only on the error path: walk this chain again to tell a loop from a link an earlier chain holds.
        bool inThisChain = false;
        if (useBitset_ && disjoint_ && previous != end_) {
            uint64_t l = start;
            for (uint64_t i = 0; i < count_ && l != end_ && l < count_; ++i) {
                if (l == link) {
                    inThisChain = true;
                    break;
                }
                if (l == previous) break;
                l = static_cast<uint64_t>(next(l));
            }
        } else {
            inThisChain = !disjoint_;
        }
        Loop(start, startOffset, previous, link, inThisChain);
    }
    [[noreturn]] void OutOfRange(uint64_t start, uint64_t startOffset, uint64_t previous,
                                 uint64_t link) const;
    [[noreturn]] void Loop(uint64_t start, uint64_t startOffset, uint64_t previous, uint64_t link,
                           bool inThisChain) const;
    uint64_t ErrorOffset(uint64_t startOffset, uint64_t previous) const;
    std::string Name(uint64_t link) const;

    std::string format_;
    std::string linkName_;
    uint64_t count_;
    uint64_t end_;
    std::function<uint64_t(uint64_t)> where_;
    uint64_t maxBitsetLinks_ = kDefaultMaxBitsetLinks;
    bool disjoint_ = false;
    bool useBitset_ = false;
    std::vector<uint64_t> bits_;
    uint64_t dirtyLow_ = UINT64_MAX; ///< the words of bits_ the walks since the last clearing touched
    uint64_t dirtyHigh_ = 0;
    uint64_t steps_ = 0; ///< links visited, when counting steps
};

} // namespace kv
