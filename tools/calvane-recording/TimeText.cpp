#include "TimeText.h"

#include <array>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <chrono>
#include <cstdio>
#include <stdexcept>

namespace calvane_recording {
namespace {

using boost::gregorian::date;
using boost::posix_time::ptime;

const ptime kEpoch(date(1970, 1, 1));

struct Unit {
    const char* name;
    Time length;
};
constexpr std::array<Unit, 6> kUnits{{{"ms", 1000},
                                      {"min", 60 * kSecond},
                                      {"m", 60 * kSecond},
                                      {"s", kSecond},
                                      {"h", 3600 * kSecond},
                                      {"d", 86400 * kSecond}}};

[[noreturn]] void RefuseTime(const std::string& text) {
    throw std::invalid_argument("Not a time: \"" + text +
                                "\" (as 2026-11-21T13:00:00Z, now, -5min or @1795271581)");
}

/// A number with up to six decimals, in millionths. False if there is none at `place`.
bool TakeNumber(const std::string& text, std::size_t& place, Time& millionths) {
    const std::size_t begin = place;
    Time whole = 0;
    while (place < text.size() && text[place] >= '0' && text[place] <= '9' && whole < 100'000'000'000) {
        whole = whole * 10 + (text[place++] - '0');
    }
    if (place == begin) {
        return false;
    }
    millionths = whole * kSecond;
    if (place < text.size() && text[place] == '.') {
        Time weight = kSecond;
        for (++place; place < text.size() && text[place] >= '0' && text[place] <= '9'; ++place) {
            weight /= 10;
            millionths += (text[place] - '0') * weight;
        }
    }
    return true;
}

Time UnitAt(const std::string& text, std::size_t& place) {
    if (place == text.size()) {
        return kSecond;
    }
    for (const Unit& unit : kUnits) {
        const std::string name = unit.name;
        if (text.compare(place, name.size(), name) == 0) {
            place += name.size();
            return unit.length;
        }
    }
    return 0;
}

Time ParseCalendar(const std::string& text) {
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, length = 0;
    if (std::sscanf(text.c_str(), "%4d-%2d-%2d%n", &year, &month, &day, &length) != 3) {
        RefuseTime(text);
    }
    auto place = static_cast<std::size_t>(length);
    Time second = 0;
    if (place < text.size() && (text[place] == 'T' || text[place] == ' ')) {
        if (std::sscanf(text.c_str() + place + 1, "%2d:%2d%n", &hour, &minute, &length) != 2) {
            RefuseTime(text);
        }
        place += 1 + static_cast<std::size_t>(length);
        if (place < text.size() && text[place] == ':') {
            ++place;
            if (!TakeNumber(text, place, second)) {
                RefuseTime(text);
            }
        }
    }
    if (place < text.size() && text[place] == 'Z') {
        ++place;
    }
    if (place != text.size() || hour > 23 || minute > 59 || hour < 0 || minute < 0 ||
        second >= 60 * kSecond) {
        RefuseTime(text);
    }
    try {
        const date day0(static_cast<unsigned short>(year), static_cast<unsigned short>(month),
                        static_cast<unsigned short>(day));
        return (ptime(day0) - kEpoch).total_microseconds() + (hour * 3600 + minute * 60) * kSecond + second;
    } catch (const std::out_of_range&) { // No such month or day.
        RefuseTime(text);
    }
}

} // namespace

Time ParseTime(const std::string& text, Time now) {
    if (text == "now") {
        return now;
    }
    if (!text.empty() && (text[0] == '-' || text[0] == '+')) {
        const Time distance = ParseDuration(text.substr(1));
        return text[0] == '-' ? now - distance : now + distance;
    }
    if (!text.empty() && text[0] == '@') {
        std::size_t place = 1;
        Time time = 0;
        if (!TakeNumber(text, place, time) || place != text.size()) {
            RefuseTime(text);
        }
        return time;
    }
    return ParseCalendar(text);
}

Time ParseDuration(const std::string& text) {
    std::size_t place = 0;
    Time sum = 0;
    do {
        Time number = 0;
        Time unit = 0;
        if (!TakeNumber(text, place, number) || (unit = UnitAt(text, place)) == 0 ||
            number / kSecond > 4'000'000'000 / (unit / kSecond + 1)) {
            throw std::invalid_argument("Not a duration: \"" + text + "\" (as 90, 5min, 2h or 1d12h)");
        }
        sum += number / kSecond * unit + number % kSecond * unit / kSecond;
    } while (place != text.size());
    return sum;
}

Time Now() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string TimeText(Time time) {
    const ptime point = kEpoch + boost::posix_time::microseconds(time);
    const auto day = point.date().year_month_day();
    const Time inDay = point.time_of_day().total_microseconds();
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%04d-%02d-%02dT%02d:%02d:%02d.%06dZ", static_cast<int>(day.year),
                  static_cast<int>(day.month), static_cast<int>(day.day),
                  static_cast<int>(inDay / (3600 * kSecond)), static_cast<int>(inDay / (60 * kSecond) % 60),
                  static_cast<int>(inDay / kSecond % 60), static_cast<int>(inDay % kSecond));
    return text.data();
}

std::string DurationText(Time duration) {
    std::string text;
    for (const Unit& unit : {kUnits[5], kUnits[4], kUnits[1]}) {
        if (duration >= unit.length) {
            text += std::to_string(duration / unit.length) + " " + unit.name + " ";
            duration %= unit.length;
        }
    }
    if (duration == 0 && !text.empty()) {
        text.pop_back();
        return text;
    }
    std::array<char, 40> seconds{};
    std::snprintf(seconds.data(), seconds.size(), "%.6g s", static_cast<double>(duration) / kSecond);
    return text + seconds.data();
}

} // namespace calvane_recording
