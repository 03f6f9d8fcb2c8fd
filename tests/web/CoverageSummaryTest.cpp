#include "api/CoverageSummary.h"

#include <gtest/gtest.h>

#include <random>

#include "Answers.h"

namespace {

using namespace calvane_web;
using calvane_recording::Interval;
using calvane_recording::kSecond;
using calvane_recording::Time;
using nlohmann::json;

constexpr Time kBegin = 1'767'261'600 * kSecond;

json Summarise(const std::vector<Interval>& intervals, Time length, std::int64_t buckets) {
    CoverageSummary summary({kBegin, kBegin + length}, buckets, &calvane_recording::ReasonText);
    for (const Interval& interval : intervals) {
        summary.Add(interval);
    }
    return summary.Finish();
}

Interval Stretch(Time from, Time to, unsigned int reason) {
    return {{kBegin + from * kSecond, kBegin + to * kSecond}, reason};
}

TEST(CoverageSummaryTest, MergesOnlyWhatIsTooShortToBeSeen) {
    // Buckets of 10 s: a single short stretch stays, three of them become one.
    const json answer =
        Summarise({Stretch(0, 40, 0), Stretch(40, 43, 4), Stretch(43, 60, 0), Stretch(60, 62, 1),
                   Stretch(62, 63, 0), Stretch(63, 68, 3), Stretch(68, 100, 0)},
                  100 * kSecond, 10);
    EXPECT_TRUE(answer["isSummary"]);
    const json& spans = answer["spans"];
    ASSERT_EQ(spans.size(), 5U);
    EXPECT_EQ(spans[1]["reason"], 4);
    EXPECT_FALSE(spans[1].contains("mixed"));
    EXPECT_EQ(spans[1]["text"], "dropped");
    EXPECT_EQ(spans[3]["from"], "2026-01-01T10:01:00.000000Z");
    EXPECT_EQ(spans[3]["to"], "2026-01-01T10:01:08.000000Z");
    EXPECT_TRUE(spans[3]["mixed"]);
    EXPECT_EQ(spans[3]["reason"], 3); // What most of it is missing for.
    EXPECT_FALSE(spans[3]["present"]);
    EXPECT_DOUBLE_EQ(spans[3]["share"], 0.125);
}

TEST(CoverageSummaryTest, WhatIsMergedIsNoLongerThanItMustBe) {
    std::vector<Interval> flicker; // 1 s each
    for (Time at = 0; at != 100; ++at) {
        flicker.push_back(Stretch(at, at + 1, at % 2 == 0 ? 0 : 4));
    }
    EXPECT_EQ(Summarise(flicker, 100 * kSecond, 10)["spans"].size(), 10U);
}

TEST(CoverageSummaryTest, IsExactWithoutShortStretches) {
    const json answer = Summarise({Stretch(-50, 50, 0), Stretch(50, 100, 1)}, 100 * kSecond, 10);
    EXPECT_FALSE(answer["isSummary"]);
    EXPECT_EQ(answer["spans"][0]["from"], "2026-01-01T10:00:00.000000Z"); // Not ahead of what was asked for.
}

TEST(CoverageSummaryTest, NeverHasMoreThanTwoSpansForABucket) {
    std::mt19937 random(1);
    for (const std::int64_t buckets : {1, 2, 7, 100, 4000}) {
        std::vector<Interval> intervals;
        const Time length = 1'000'000 * kSecond;
        Time total = 0;
        for (Time at = 0; at < length;) {
            const Time next = std::min(
                length, at + 1 + static_cast<Time>(random()) % (random() % 2 == 0 ? kSecond : 300 * kSecond));
            const auto reason = static_cast<unsigned int>(intervals.size() % 2 == 0 ? 0 : 1 + random() % 9);
            intervals.push_back({{kBegin + at, kBegin + next}, reason});
            total += reason == 0 ? next - at : 0;
            at = next;
        }
        const json answer = Summarise(intervals, length, buckets);
        ASSERT_LE(answer["spans"].size(), 2 * static_cast<std::size_t>(buckets)) << buckets;
        double present = 0;
        std::string last = answer["spans"][0]["from"];
        for (const json& span : answer["spans"]) {
            ASSERT_EQ(span["from"], last); // Nothing is left out.
            last = span["to"];
            const auto at = [&span](const char* end) {
                return static_cast<double>(
                    calvane_recording::ParseTime(span[end], 0, calvane_recording::Zone::Utc));
            };
            present += (at("to") - at("from")) * (span.contains("share") ? double{span["share"]}
                                                  : span["present"]      ? 1
                                                                         : 0);
        }
        EXPECT_NEAR(present / static_cast<double>(total), 1, 1e-6) << buckets;
    }
}

} // namespace
