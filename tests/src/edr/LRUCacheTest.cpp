// The LRU cache: a lookup or an update makes a key the most recently used,
// and the least recently used key goes only once the cache holds 32 times
// its capacity.

#include "edr/LRUCache.h"
#include "tests/support/ExpectThrowText.h"

#include <gtest/gtest.h>

#include <string>

using namespace vantor;

TEST(LRUCacheTest, EvictsTheLeastRecentlyUsedKeyOnlyAtThirtyTwoTimesItsCapacity)
{
    edr::LRUCache<std::string, int> cache(2);
    for (int i = 0; i < 64; ++i)
    {
        cache.Put("k" + std::to_string(i), i);
    }
    EXPECT_EQ(cache.Size(), 64u) << "nothing goes below 32 x capacity";

    EXPECT_EQ(cache.Get("k0"), 0);
    cache.Put("k1", 100);
    EXPECT_EQ(cache.Size(), 64u) << "an update adds no key";
    cache.Put("new", 1);
    cache.Put("newer", 2);
    EXPECT_EQ(cache.Size(), 64u);
    EXPECT_FALSE(cache.Contains("k2")) << "the least recently used went first";
    EXPECT_FALSE(cache.Contains("k3"));
    EXPECT_TRUE(cache.Contains("k0")) << "a lookup counts as use";
    EXPECT_EQ(cache.Get("k1"), 100) << "an update counts as use";
    EXPECT_TRUE(cache.Contains("k4"));

    EXPECT_EQ(cache.Find("k2"), nullptr);
    test::ExpectThrowText<edr::LRUCacheException>([&] { cache.Get("k2"); },
                                                  "Accessing key failed from cache memory");
    cache.Clear();
    EXPECT_EQ(cache.Size(), 0u);
    test::ExpectThrowText<std::invalid_argument>([] { edr::LRUCache<int, int> none(0); },
                                                 "LRUCache: 'capacity' cannot be 0");
}
