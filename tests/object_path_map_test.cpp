// The catalogue's compact path map against std::unordered_map, over a long
// run of adds, finds and removals: short and long last components, keys
// without a folder, folders emptied and used again, and enough keys to
// regrow the index several times over erased slots.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <unordered_map>

#include "tarnifs/object_path_map.h"

TEST(ObjectPathMapTest, AnswersAsAnUnorderedMapThroughGrowthAndRemovals) {
    ObjectPathMap map(11);
    std::unordered_map<std::string, uint64_t> expected;
    std::mt19937 random(7);
    auto keyFor = [](uint32_t n) {
        std::string folder = n % 5 == 0 ? "" : "/Storage/f" + std::to_string(n % 7) + "/";
        std::string name = (n % 3 == 0 ? "a-name-longer-than-fifteen-bytes-" : "n") + std::to_string(n);
        return n % 11 == 0 ? std::string("/") : folder + name;
    };
    for (int step = 0; step < 60000; ++step) {
        std::string key = keyFor(random() % 6000);
        switch (random() % 4) {
        case 0:
        case 1:
            map[key] = expected[key] = static_cast<uint64_t>(step) + 1;
            break;
        case 2:
            ASSERT_EQ(map.erase(key), expected.erase(key)) << key;
            break;
        default:
            auto found = map.find(key);
            ASSERT_EQ(found != map.end(), expected.count(key) == 1) << key;
            if (found != map.end()) {
                ASSERT_EQ(found->first, key);
                ASSERT_EQ(found->second, expected[key]);
            }
        }
        ASSERT_EQ(map.size(), expected.size());
    }
    // Iteration shows every key once, with its value; a missing key reads as
    // a new 0 entry, as operator[] of std::unordered_map does.
    std::unordered_map<std::string, uint64_t> seen;
    for (const auto &entry : map) EXPECT_TRUE(seen.emplace(entry.first, entry.second).second) << entry.first;
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(map["/never/added"], 0u);
    EXPECT_EQ(map.count("/never/added"), 1u);
    map.clear();
    EXPECT_EQ(map.size(), 0u);
    EXPECT_EQ(map.begin(), map.end());
    EXPECT_EQ(map.count(keyFor(1)), 0u);
}
