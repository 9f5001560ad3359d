// Walking chains of links: out-of-range links, loops, links shared between chains, long chains.

#include "platform/ChainWalker.h"
#include "TestSupport.h"
#include "platform/FormatError.h"

#include <numeric>

namespace kv {
namespace {

constexpr uint64_t kEnd = 0xFFFFFFFE;

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
        const char* Name;
        std::vector<uint64_t> Table;
        uint64_t Start;
        std::string Bitset, Steps; ///< the outcome with the bitset and by counting steps
    } cases[] = {
        {"empty chain", {kEnd}, kEnd, "", ""},
        {"one link", {kEnd}, 0, "0", "0"},
        {"scattered", {3, kEnd, 1, 2}, 0, "0 3 2 1", "0 3 2 1"},
        {"start out of range",
         {kEnd, kEnd},
         2,
         "XLS: damaged file at byte 76: the chain starts at sector 2, out of range (2 sectors)",
         "XLS: damaged file at byte 76: the chain starts at sector 2, out of range (2 sectors)"},
        {"free marker inside",
         {1, 0xFFFFFFFF},
         0,
         "XLS: damaged file at byte 76: sector 1 links to sector 4294967295, out of range (2 sectors, in the "
         "chain from sector 0)",
         "XLS: damaged file at byte 76: sector 1 links to sector 4294967295, out of range (2 sectors, in the "
         "chain from sector 0)"},
        {"links to itself",
         {0},
         0,
         "XLS: damaged file at byte 76: sector 0 links back to sector 0, a loop in the chain from sector 0",
         "XLS: damaged file at byte 76: the chain from sector 0 has more links than the 1 sectors there are: "
         "it "
         "loops"},
        {"loops back midway",
         {1, 2, 3, 1},
         0,
         "XLS: damaged file at byte 76: sector 3 links back to sector 1, a loop in the chain from sector 0",
         "XLS: damaged file at byte 76: the chain from sector 0 has more links than the 4 sectors there are: "
         "it "
         "loops"},
        {"every link once, then a loop",
         {1, 2, 3, 0},
         2,
         "XLS: damaged file at byte 76: sector 1 links back to sector 2, a loop in the chain from sector 2",
         "XLS: damaged file at byte 76: the chain from sector 2 has more links than the 4 sectors there are: "
         "it "
         "loops"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.Name);
        TKvChainWalker bitset("XLS", "sector", c.Table.size(), kEnd);
        EXPECT_EQ(WalkOf(bitset, c.Table, c.Start), c.Bitset);
        EXPECT_EQ(WalkOf(bitset, c.Table, c.Start), c.Bitset); // a second walk starts afresh
        TKvChainWalker steps("XLS", "sector", c.Table.size(), kEnd);
        steps.SetMaxBitsetLinks(0);
        EXPECT_EQ(WalkOf(steps, c.Table, c.Start), c.Steps);
        EXPECT_EQ(WalkOf(steps, c.Table, c.Start), c.Steps);
    }
}

TEST(ChainWalker, ErrorsNameTheEntryThatHoldsTheBadLink) {
    TKvChainWalker walker("XLS", "sector", 4, kEnd);
    walker.SetLocator([](uint64_t link) { return 512 + 4 * link; });
    try {
        walker.Collect(0, 76, [](uint64_t link) { return link == 2 ? 9 : link + 1; });
        FAIL();
    } catch (const EKvFormatError& e) {
        EXPECT_EQ(e.Offset(), 520u); // the entry of sector 2
        EXPECT_EQ(e.Kind(), fekDamaged);
        EXPECT_EQ(e.Format(), "XLS");
    }
    // A bad first link is where the chain's start was read.
    EXPECT_EQ(test::ErrorOf([&] { walker.Collect(7, 76, [](uint64_t) { return kEnd; }); }),
              "XLS: damaged file at byte 76: the chain starts at sector 7, out of range (4 sectors)");
}

TEST(ChainWalker, AVisitThatAnswersFalseStopsTheWalk) {
    TKvChainWalker walker("DBF", "block", 10, 0);
    uint64_t calls = 0;
    const uint64_t visited = walker.Walk(
        1, 0, [&](uint64_t link) { return ++calls, link + 1; }, [](uint64_t link) { return link < 3; });
    EXPECT_EQ(visited, 3u);
    EXPECT_EQ(calls, 2u);
    // The end value may lie inside the range: block 0 ends a chain here.
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
                      "XLS: damaged file at byte 76: sector 4 links to sector 1, which another chain holds");
            EXPECT_EQ(
                WalkOf(walker, table, 2),
                "XLS: damaged file at byte 76: the chain starts at sector 2, which another chain holds");
            EXPECT_EQ(
                WalkOf(walker, table, 5),
                "XLS: damaged file at byte 76: sector 5 links back to sector 5, a loop in the chain from "
                "sector 5");
        } else {
            // Counting steps cannot tell which link repeats, but all walks together stay within the table.
            EXPECT_EQ(WalkOf(walker, table, 4), "4 1 2");
            EXPECT_EQ(
                WalkOf(walker, table, 3),
                "XLS: damaged file at byte 76: the chains hold more than the 6 sectors there are: a loop, "
                "or a sector in two chains");
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
    uint64_t sum = 0;
    EXPECT_EQ(walker.Walk(
                  0, 0, [&](uint64_t link) { return table[link]; }, [&](uint64_t link) { sum += link; }),
              count);
    EXPECT_EQ(sum, count * (count - 1) / 2);
    table[count - 1] = 500'000; // the last sector loops back into the middle
    EXPECT_EQ(
        test::ErrorOf([&] { walker.Collect(0, 0, [&](uint64_t link) { return table[link]; }); }),
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
        ASSERT_LE(walker.Walk(
                      start, 0, [&](uint64_t link) { return table[link]; }, [](uint64_t) {}),
                  2u);
    }
}

} // namespace
} // namespace kv
