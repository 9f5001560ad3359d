// Walking chains of links: out-of-range links, loops, links shared between chains, long chains.

#include "platform/ChainWalker.h"
#include "TestSupport.h"
#include "platform/FormatError.h"

#include <numeric>

namespace kv {
namespace {

constexpr uint64_t kEnd = 0xFFFFFFFE;
const std::string kAt = "XLS: damaged file at byte 76: ";

/// The links of the chain from `start` through `table`, as "0 1 2", or the error.
std::string WalkOf(TKvChainWalker& walker, const std::vector<uint64_t>& table, uint64_t start) {
    std::string out;
    try {
        walker.Walk(
            start, 76, [&](uint64_t link) { return table[link]; },
            [&](uint64_t link) { out += (out.empty() ? "" : " ") + std::to_string(link); });
    } catch (const EKvFormatError& e) {
        return e.what();
    }
    return out;
}

TEST(ChainWalker, WalksChainsAndStopsOnDamage) {
    struct Case {
        std::vector<uint64_t> Table;
        uint64_t Start;
        std::string Outcome; ///< with the bitset
        bool Loops;          ///< counting steps then gives its own error, which cannot name the repeated link
    } cases[] = {
        {{kEnd}, kEnd, "", false},
        {{kEnd}, 0, "0", false},
        {{3, kEnd, 1, 2}, 0, "0 3 2 1", false},
        {{kEnd, kEnd}, 2, kAt + "the chain starts at sector 2, out of range (2 sectors)", false},
        {{1, 0xFFFFFFFF},
         0,
         kAt + "sector 1 links to sector 4294967295, out of range (2 sectors, in the chain from sector 0)",
         false},
        {{0}, 0, kAt + "sector 0 links back to sector 0, a loop in the chain from sector 0", true},
        {{1, 2, 3, 1}, 0, kAt + "sector 3 links back to sector 1, a loop in the chain from sector 0", true},
        {{1, 2, 3, 0}, 2, kAt + "sector 1 links back to sector 2, a loop in the chain from sector 2", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.Outcome);
        for (uint64_t maxBitset : {uint64_t{1} << 24, uint64_t{0}}) {
            TKvChainWalker walker("XLS", "sector", c.Table.size(), kEnd);
            walker.SetMaxBitsetLinks(maxBitset);
            const std::string expected =
                maxBitset || !c.Loops
                    ? c.Outcome
                    : kAt + "the chain from sector " + std::to_string(c.Start) + " has more links than the " +
                          std::to_string(c.Table.size()) + " sectors there are: it loops";
            EXPECT_EQ(WalkOf(walker, c.Table, c.Start), expected);
            EXPECT_EQ(WalkOf(walker, c.Table, c.Start), expected); // a second walk starts afresh
        }
    }
}

TEST(ChainWalker, ErrorsNameTheEntryThatHoldsTheBadLink) {
    TKvChainWalker walker("XLS", "sector", 4, kEnd);
    walker.SetLocator([](uint64_t link) { return 512 + 4 * link; });
    EXPECT_EQ(
        test::ErrorOf([&] { walker.Collect(0, 76, [](uint64_t link) { return link == 2 ? 9 : link + 1; }); }),
        "XLS: damaged file at byte 520: sector 2 links to sector 9, out of range (4 sectors, in the chain "
        "from sector 0)");
    // A bad first link is where the chain's start was read.
    EXPECT_EQ(test::ErrorOf([&] { walker.Collect(7, 76, [](uint64_t) { return kEnd; }); }),
              kAt + "the chain starts at sector 7, out of range (4 sectors)");
}

TEST(ChainWalker, AVisitThatAnswersFalseStopsTheWalkAndTheEndMayBeALink) {
    TKvChainWalker walker("DBF", "block", 10, 0);
    uint64_t calls = 0;
    EXPECT_EQ(
        walker.Walk(
            1, 0, [&](uint64_t link) { return ++calls, link + 1; }, [](uint64_t link) { return link < 3; }),
        3u);
    EXPECT_EQ(calls, 2u);
    EXPECT_EQ(walker.Collect(7, 0, [](uint64_t link) { return (link + 1) % 10; }),
              (std::vector<uint64_t>{7, 8, 9}));
}

TEST(ChainWalker, DisjointChainsMayNotShareLinks) {
    const std::vector<uint64_t> table = {1, 2, kEnd, 4, 1, 5};
    for (uint64_t maxBitset : {uint64_t{1} << 24, uint64_t{0}}) {
        SCOPED_TRACE(maxBitset ? "bitset" : "steps");
        TKvChainWalker walker("XLS", "sector", table.size(), kEnd);
        walker.SetMaxBitsetLinks(maxBitset);
        walker.SetDisjoint(true);
        EXPECT_EQ(WalkOf(walker, table, 0), "0 1 2");
        if (maxBitset) {
            EXPECT_EQ(WalkOf(walker, table, 3),
                      kAt + "sector 4 links to sector 1, which another chain holds");
            EXPECT_EQ(WalkOf(walker, table, 2),
                      kAt + "the chain starts at sector 2, which another chain holds");
            EXPECT_EQ(WalkOf(walker, table, 5),
                      kAt + "sector 5 links back to sector 5, a loop in the chain from sector 5");
        } else {
            // Counting steps cannot tell which link repeats, but all walks together stay within the table.
            EXPECT_EQ(WalkOf(walker, table, 4), "4 1 2");
            EXPECT_EQ(
                WalkOf(walker, table, 3),
                kAt + "the chains hold more than the 6 sectors there are: a loop, or a sector in two chains");
        }
        walker.SetDisjoint(true); // a fresh set of walks
        EXPECT_EQ(WalkOf(walker, table, 3), "3 4 1 2");
    }
}

TEST(ChainWalker, LongChainsAndManyShortWalks) {
    const uint64_t count = 1'000'000;
    std::vector<uint32_t> table(count);
    std::iota(table.begin(), table.end(), 1u);
    table.back() = static_cast<uint32_t>(kEnd);
    TKvChainWalker walker("XLS", "sector", count, kEnd);
    const auto next = [&](uint64_t link) { return table[link]; };
    EXPECT_EQ(walker.Walk(0, 0, next, [](uint64_t) {}), count);
    table[count - 1] = 500'000; // the last sector loops back into the middle
    EXPECT_EQ(
        test::ErrorOf([&] { walker.Collect(0, 0, next); }),
        "XLS: damaged file at byte 0: sector 999999 links back to sector 500000, a loop in the chain from "
        "sector 0");
    // Counting steps ends the same loop after at most as many steps as there are links.
    TKvChainWalker steps("XLS", "sector", count, kEnd);
    steps.SetMaxBitsetLinks(0);
    uint64_t calls = 0;
    EXPECT_THROW(steps.Walk(
                     0, 0, [&](uint64_t link) { return ++calls, table[link]; }, [](uint64_t) {}),
                 EKvFormatError);
    EXPECT_EQ(calls, count);
    // Short chains over a big table: each walk clears only what the last one touched.
    table[count - 1] = static_cast<uint32_t>(kEnd);
    for (uint64_t start = 0; start < count; start += 997) {
        table[start + 1 < count ? start + 1 : start] = static_cast<uint32_t>(kEnd);
        ASSERT_LE(walker.Walk(start, 0, next, [](uint64_t) {}), 2u);
    }
}

} // namespace
} // namespace kv
