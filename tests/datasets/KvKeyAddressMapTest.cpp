#include "datasets/KvKeyAddressMap.h"

#include <gtest/gtest.h>
#include <string>

namespace kv {
namespace {

TEST(KeyAddressMap, KeepsTheFirstAddressOfEachKeyThroughGrowth) {
    TKvKeyAddressMap map(size_t{64} << 20);
    // Keys of every length up to a few hundred bytes (lengths past 127 take two bytes), added twice: the
    // lower address stays.
    for (int i = 0; i < 100000; ++i)
        ASSERT_TRUE(map.Add(std::string(i % 300, 'k') + std::to_string(i), 1000 + i));
    for (int i = 0; i < 100000; ++i)
        ASSERT_TRUE(map.Add(std::string(i % 300, 'k') + std::to_string(i), 500 + 2 * i));
    EXPECT_EQ(map.Size(), 100000u);
    for (int i : {0, 1, 499, 500, 501, 99999}) {
        SCOPED_TRACE(i);
        EXPECT_EQ(map.Find(std::string(i % 300, 'k') + std::to_string(i)),
                  static_cast<uint64_t>(std::min(1000 + i, 500 + 2 * i)));
    }
    EXPECT_EQ(map.Find("k"), TKvKeyAddressMap::kAbsent);
    EXPECT_EQ(map.Find(""), TKvKeyAddressMap::kAbsent);

    // An unknown address wins over any; Set puts what it is given.
    ASSERT_TRUE(map.Add("0", TKvKeyAddressMap::kUnknown));
    EXPECT_EQ(map.Find("0"), TKvKeyAddressMap::kUnknown);
    ASSERT_TRUE(map.Add("0", 3));
    EXPECT_EQ(map.Find("0"), TKvKeyAddressMap::kUnknown);
    ASSERT_TRUE(map.Set("0", 7));
    EXPECT_EQ(map.Find("0"), 7u);
    ASSERT_TRUE(map.Set("new", TKvKeyAddressMap::kAbsent));
    EXPECT_EQ(map.Find("new"), TKvKeyAddressMap::kAbsent);
}

TEST(KeyAddressMap, RefusesKeysPastItsLimitAndKeepsTheRest) {
    TKvKeyAddressMap map(1 << 20);
    int added = 0;
    while (map.Add("key" + std::to_string(added), static_cast<uint64_t>(added))) ++added;
    EXPECT_GT(added, 10000);
    EXPECT_LE(map.Bytes(), size_t{1} << 20);
    EXPECT_EQ(map.Find("key0"), 0u);
    EXPECT_EQ(map.Find("key" + std::to_string(added - 1)), static_cast<uint64_t>(added - 1));
    EXPECT_EQ(map.Find("key" + std::to_string(added)), TKvKeyAddressMap::kAbsent);
    // A size known ahead that cannot fit is refused before anything is read.
    TKvKeyAddressMap small(1 << 20);
    EXPECT_FALSE(small.Reserve(1000000, 8));
    EXPECT_TRUE(small.Reserve(1000, 8));
}

} // namespace
} // namespace kv
