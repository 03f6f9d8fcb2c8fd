// What calvane-web keeps of a fleet's answers.
#include "calvane-web-fleet/ShortCache.h"

#include <gtest/gtest.h>

#include <future>
#include <stdexcept>

namespace {

using calvane_web::ShortCache;
using Cache = ShortCache<std::string>;

constexpr std::chrono::hours kLong{1};
constexpr std::size_t kLarge = 1'000'000;

std::size_t WeightOf(const std::string& text) {
    return text.size();
}

TEST(ShortCacheTest, WhatIsKnownIsAskedForAgainOnlyWhenItIsOld) {
    int asked = 0;
    const auto ask = [&asked] { return std::to_string(++asked); };
    Cache cache(kLong, kLarge, &WeightOf);
    EXPECT_EQ(*cache.Get("a", ask), "1");
    EXPECT_EQ(*cache.Get("a", ask), "1");
    EXPECT_EQ(*cache.Get("b", ask), "2");
    Cache forgetful(std::chrono::milliseconds(0), kLarge, &WeightOf);
    const auto first = forgetful.Get("a", [] { return std::string("old"); });
    // What took no time is good for hardly any.
    while (*forgetful.Get("a", [] { return std::string("new"); }) != "new") {
    }
    EXPECT_EQ(*first, "old");
}

TEST(ShortCacheTest, WhatWasNotUsedForLongestGoesFirst) {
    constexpr std::size_t kThree = 3'000;
    Cache cache(kLong, kThree, &WeightOf);
    int asked = 0;
    const auto get = [&](const std::string& key, std::size_t size) {
        cache.Get(key, [&] {
            ++asked;
            return std::string(size, 'x');
        });
        EXPECT_LE(cache.Weight(), kThree);
    };
    for (const char* const key : {"a", "b", "a", "c", "a"}) { // "c" takes the place of "b".
        get(key, 1'200);
    }
    EXPECT_EQ(asked, 3);
    get("too large", 4'000);
    get("a", 1'200);
    EXPECT_EQ(asked, 4);
    get("b", 1'200);
    EXPECT_EQ(asked, 5);
}

TEST(ShortCacheTest, WhatSeveralWantIsAskedForOnceAndAFailureIsNotKept) {
    Cache cache(kLong, kLarge, &WeightOf);
    std::promise<void> isAsked;
    std::promise<void> mayAnswer;
    auto first = std::async(std::launch::async, [&] {
        return cache.Get("a", [&]() -> std::string {
            isAsked.set_value();
            mayAnswer.get_future().wait();
            throw std::runtime_error("away");
        });
    });
    isAsked.get_future().wait();
    int asked = 0;
    const auto ask = [&asked] { return std::to_string(++asked); };
    auto second = std::async(std::launch::async, [&] { return cache.Get("a", ask); });
    EXPECT_EQ(*cache.Get("b", [] { return std::string("other"); }), "other"); // Nobody else waits.
    EXPECT_EQ(second.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    mayAnswer.set_value();
    EXPECT_THROW(first.get(), std::runtime_error);
    EXPECT_EQ(*second.get(), "1");
    EXPECT_EQ(*cache.Get("a", ask), "1");
}

} // namespace
