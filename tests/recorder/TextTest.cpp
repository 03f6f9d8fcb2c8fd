#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "Forecast.h"
#include "TimeText.h"
#include "Timeline.h"
#include "UpkeepJob.h"
#include "UsualInterval.h"
#include "quarn/core/LogCapture.h"
#include "support/ThrownText.h"

namespace {

using namespace calvane_recording;

constexpr Time kNow = 1'795'271'581'500'000; // 2026-11-21T14:33:01.5Z

TEST(TimeTextTest, ReadsWhatPeopleWrite) {
    const struct {
        const char* text;
        Time time;
    } cases[] = {{"2026-11-21T14:33:01.5Z", kNow},
                 {"2026-11-21 14:33:01.500000", kNow},
                 {"2026-11-21T14:33", kNow - 1'500'000},
                 {"2026-11-21", 1'795'219'200'000'000},
                 {"1970-01-01T00:00:00.000001Z", 1},
                 {"now", kNow},
                 {"@1795271581.5", kNow},
                 {"2026-11-21T16:33:01.5+02:00", kNow},
                 {"2026-11-21 09:03:01.5-0530", kNow},
                 {"14:33:01.5 UTC", kNow},
                 {"15:33+01", kNow - 1'500'000},
                 {"00:33:01.5+10:00", kNow}, // There it is the 22nd already.
                 {"today", 1'795'219'200'000'000},
                 {"yesterday", 1'795'132'800'000'000},
                 {"10s ago", kNow - 10 * kSecond},
                 {"1 week 2 hours ago", kNow - (7 * 86'400 + 7200) * kSecond},
                 {"-90", kNow - 90 * kSecond},
                 {"-5min", kNow - 300 * kSecond},
                 {"-5m", kNow - 300 * kSecond},
                 {"+1d12h0.5s", kNow + 129'600 * kSecond + 500'000},
                 {"-250ms", kNow - 250'000}};
    for (const auto& [text, time] : cases) {
        EXPECT_EQ(ParseTime(text, kNow, Zone::Utc), time) << text;
    }
    EXPECT_EQ(TimeText(kNow, Zone::Utc), "2026-11-21T14:33:01.500000Z");
    EXPECT_EQ(TimeText(-1, Zone::Utc), "1969-12-31T23:59:59.999999Z");
    EXPECT_EQ(DurationText(119'999'999), "1 min 59.999999 s");
    EXPECT_EQ(DurationText(ParseDuration("1d2h3min4.5s")), "1 d 2 h 3 min 4.5 s");
    EXPECT_EQ(DurationText(ParseDuration("2h")), "2 h");
    EXPECT_EQ(DurationText(0), "0 s");
}

TEST(TimeTextTest, KnowsLocalTime) {
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1); // As in Paris, without files.
    tzset();
    EXPECT_EQ(TimeText(kNow, Zone::Local), "2026-11-21T15:33:01.500000+01:00");
    EXPECT_EQ(ParseTime("15:33:01.5", kNow, Zone::Local), kNow);
    EXPECT_EQ(ParseTime("2026-07-21 14:33", kNow, Zone::Local),
              ParseTime("2026-07-21 12:33Z", 0, Zone::Local));
    const Time sunday = ParseTime("2026-10-25T12:00", 0, Zone::Local); // That day has 25 hours.
    EXPECT_EQ(ParseTime("tomorrow", sunday, Zone::Local) - ParseTime("today", sunday, Zone::Local),
              25 * 3600 * kSecond);
    unsetenv("TZ");
    tzset();
}

TEST(TimeTextTest, RefusesTheRestByName) {
    for (const char* text : {"", "sunday", "2026-11-21T", "2026-11-21T14:33+1", "25:00", "-1h30", " ago",
                             "2026-13-01", "2026-02-30", "2026-11-21T25:00:00Z", "2026-11-21T14:33:61",
                             "2026-11-21T14:33:01Zulu", "-5years", "--5s", "-", "@", "@12x", "2026-11"}) {
        const std::string problem =
            ThrownText<std::invalid_argument>([&] { ParseTime(text, kNow, Zone::Utc); });
        EXPECT_NE(problem.find("\"" + std::string(text).substr(*text == '-' ? 1 : 0) + "\""),
                  std::string::npos)
            << text << ": " << problem;
    }
    EXPECT_NE(ThrownText<std::invalid_argument>([] { ParseDuration("99999999999999999999d"); }),
              "nothing was thrown");
}

TEST(TimelineTest, MarksWhatLiesInEachPart) {
    const Span span{0, 60'000};
    EXPECT_EQ(Timeline({{{0, 60'000}, 0}}, span), std::string(60, '#'));
    EXPECT_EQ(Timeline({{{0, 29'999}, 0}, {{30'000, 60'000}, 2}}, span),
              std::string(30, '#') + std::string(30, 'c'));
    EXPECT_EQ(Timeline({{{0, 29'499}, 0}, {{29'500, 60'000}, 1}}, span),
              std::string(29, '#') + "+" + std::string(30, '.'));
    EXPECT_EQ(Timeline({}, span), std::string(60, ' '));
    EXPECT_EQ(Timeline({{span, 7}}, span) + Timeline({{span, 99}}, span),
              std::string(60, 'i') + std::string(60, '?'));
}

TEST(UsualIntervalTest, ATrackThatIsSlowByNatureHasNoGaps) {
    using namespace std::chrono_literals;
    recording::UsualInterval::Clock::time_point now;
    recording::UsualInterval learned(500ms, 0);
    int gaps = 0;
    const auto arrive = [&](int count, std::chrono::milliseconds interval) {
        for (gaps = 0; count-- > 0; now += interval) {
            learned.Arrived(now);
            gaps += interval > learned.LongestGap() ? 1 : 0;
        }
        return gaps;
    };
    EXPECT_EQ(arrive(12, 2s), 0);
    EXPECT_EQ(learned.LongestGap(), 8s);
    EXPECT_EQ(arrive(20, 30s), 5); // It slows down, which takes some records to learn.
    EXPECT_EQ(learned.LongestGap(), 120s);
    EXPECT_EQ(arrive(30, 40ms), 0);
    EXPECT_EQ(learned.LongestGap(), 500ms);
    now += 1h; // One stall is nothing usual.
    EXPECT_EQ(arrive(2, 40ms), 0);
    EXPECT_EQ(learned.LongestGap(), 500ms);
    EXPECT_EQ(recording::UsualInterval(500ms, 250).LongestGap(), 16s);
    EXPECT_EQ(recording::UsualInterval(500ms, 25000).LongestGap(), 500ms);
}

TEST(UpkeepJobTest, WhatFailsIsTriedLessOftenAndSaidOnce) {
    const quarn::core::LogCapture capture;
    using std::chrono::seconds;
    int runs = 0;
    bool fails = true;
    calvane_recorder::UpkeepJob job("Erasing", seconds(1), [&] {
        ++runs;
        if (fails) {
            throw std::runtime_error("no card");
        }
    });
    auto runFor = [&, now = calvane_recorder::UpkeepJob::Clock::time_point()](int count) mutable {
        for (runs = 0; count-- > 0; now += seconds(1)) {
            job.RunIfDue(now);
        }
        return runs;
    };
    EXPECT_EQ(runFor(62), 5); // At 0, 2, 6, 14 and 30 s.
    EXPECT_EQ(runFor(600), 10);
    EXPECT_EQ(capture.Count("Erasing failed and is tried again: no card"), 1U);
    fails = false;
    EXPECT_GE(runFor(70), 10);
    EXPECT_EQ(capture.Count("Erasing works again"), 1U);
    fails = true;
    EXPECT_EQ(runFor(4), 2);
    EXPECT_EQ(capture.Count("Erasing failed and is tried again: no card"), 2U);
}

TEST(ForecastTest, LooksAtTheLastMinuteAndAtTheLimit) {
    using namespace calvane_recorder;
    using namespace std::chrono_literals;
    GrowthMeter meter;
    const GrowthMeter::Clock::time_point start;
    meter.Add(start, {1000, 0, 0});
    EXPECT_EQ(meter.GetBytesPerHour(), TrackBytes{});
    meter.Add(start + 10s, {2000, 0, 5});
    EXPECT_EQ(meter.GetBytesPerHour(), (TrackBytes{360'000, 0, 1800}));
    for (int second = 11; second != 80; ++second) { // The first seconds are forgotten.
        meter.Add(start + std::chrono::seconds(second), {2000, static_cast<std::uint64_t>(second), 5});
    }
    EXPECT_EQ(meter.GetBytesPerHour(), (TrackBytes{0, 3600, 0}));

    const auto hour = std::int64_t{3600} * kSecond;
    const auto expect = [](const Forecast& forecast, std::int64_t fullAt, Forecast::Erases erases) {
        EXPECT_EQ(forecast.fullAt, fullAt);
        EXPECT_EQ(forecast.erases, erases);
    };
    const Room card{1000, 500};
    expect(MakeForecast(kNow, card, 0, 0), 0, Forecast::Erases::Nothing);
    expect(MakeForecast(kNow, card, 100, 0), kNow + 5 * hour, Forecast::Erases::Space);
    expect(MakeForecast(kNow, {1000, 0}, 100, 0), kNow, Forecast::Erases::Space);
    expect(MakeForecast(kNow, card, 100, 10 * hour), 0, Forecast::Erases::Age);
    expect(MakeForecast(kNow, card, 100, 11 * hour), kNow + 5 * hour, Forecast::Erases::Space);
    // A limit of space counts when it leaves less than the card does.
    expect(MakeForecast(kNow, LimitRoom(card, 700, 400), 100, 0), kNow + 3 * hour,
           Forecast::Erases::SpaceLimit);
    expect(MakeForecast(kNow, LimitRoom(card, 700, 400), 100, 7 * hour), 0, Forecast::Erases::Age);
    expect(MakeForecast(kNow, LimitRoom(card, 700, 800), 100, 0), kNow, Forecast::Erases::SpaceLimit);
    expect(MakeForecast(kNow, LimitRoom(card, 1000, 400), 100, 0), kNow + 5 * hour, Forecast::Erases::Space);
}

} // namespace
