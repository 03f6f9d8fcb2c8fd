#include "TimeText.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <stdexcept>

namespace calvane_recording {
namespace {

constexpr Time kMinute = 60 * kSecond;
constexpr Time kHour = 60 * kMinute;
constexpr Time kDay = 24 * kHour;

struct Unit {
    const char* name;
    Time length;
};
constexpr std::array<Unit, 21> kUnits{
    {{"us", 1},           {"usec", 1},          {"ms", 1000},         {"msec", 1000},  {"s", kSecond},
     {"sec", kSecond},    {"second", kSecond},  {"seconds", kSecond}, {"m", kMinute},  {"min", kMinute},
     {"minute", kMinute}, {"minutes", kMinute}, {"h", kHour},         {"hour", kHour}, {"hours", kHour},
     {"d", kDay},         {"day", kDay},        {"days", kDay},       {"w", 7 * kDay}, {"week", 7 * kDay},
     {"weeks", 7 * kDay}}};

bool IsDigit(char letter) {
    return letter >= '0' && letter <= '9';
}

bool IsLetter(char letter) {
    return letter >= 'a' && letter <= 'z';
}

[[noreturn]] void RefuseTime(const std::string& text) {
    throw std::invalid_argument("Not a time: \"" + text +
                                "\" (as 2026-11-21T13:00:00Z, 13:00, yesterday, now, -5min or @1795271581)");
}

/// Takes a text apart from its begin. What cannot be taken stays.
class Reader {
public:
    explicit Reader(const std::string& text) : text_(text) {}

    bool AtEnd() const { return place_ == text_.size(); }
    bool Take(const std::string& expected) {
        const bool there = text_.compare(place_, expected.size(), expected) == 0;
        place_ += there ? expected.size() : 0;
        return there;
    }
    bool TakeDigits(std::size_t count, int& number) {
        std::size_t digits = 0;
        while (digits != count && place_ + digits != text_.size() && IsDigit(text_[place_ + digits])) {
            ++digits;
        }
        if (digits != count) {
            return false;
        }
        number = std::atoi(text_.substr(place_, count).c_str());
        place_ += count;
        return true;
    }
    /// With decimals, of which six count, in millionths.
    bool TakeNumber(Time& millionths) {
        const std::size_t begin = place_;
        Time whole = 0;
        while (!AtEnd() && IsDigit(text_[place_]) && whole < 100'000'000'000) {
            whole = whole * 10 + (text_[place_++] - '0');
        }
        millionths = whole * kSecond;
        if (place_ != begin && Take(".")) {
            for (Time weight = kSecond / 10; !AtEnd() && IsDigit(text_[place_]); weight /= 10) {
                millionths += (text_[place_++] - '0') * weight;
            }
        }
        return place_ != begin;
    }
    std::string TakeWord() {
        const std::size_t begin = place_;
        while (!AtEnd() && IsLetter(text_[place_])) {
            ++place_;
        }
        return text_.substr(begin, place_ - begin);
    }

private:
    const std::string& text_;
    std::size_t place_ = 0;
};

/// The date of a moment in a zone, or in that with an offset from UTC; its clock time is 0.
std::tm DateOf(Time moment, Zone zone, std::optional<Time> offset) {
    const auto seconds = static_cast<std::time_t>((moment + offset.value_or(0)) / kSecond);
    std::tm fields{};
    if (zone == Zone::Local && !offset) {
        localtime_r(&seconds, &fields);
    } else {
        gmtime_r(&seconds, &fields);
    }
    std::tm date{};
    date.tm_year = fields.tm_year;
    date.tm_mon = fields.tm_mon;
    date.tm_mday = fields.tm_mday;
    return date;
}

Time MomentOf(std::tm date, Time inDay, Zone zone, std::optional<Time> offset) {
    if (zone == Zone::Utc || offset) {
        return timegm(&date) * kSecond + inDay - offset.value_or(0);
    }
    date.tm_hour = static_cast<int>(inDay / kHour); // A day may have 23 or 25 hours.
    date.tm_min = static_cast<int>(inDay / kMinute % 60);
    date.tm_sec = static_cast<int>(inDay / kSecond % 60);
    date.tm_isdst = -1;
    return std::mktime(&date) * kSecond + inDay % kSecond;
}

bool TakeDate(Reader& reader, std::tm& date) {
    int year = 0;
    int month = 0;
    int day = 0;
    if (!reader.TakeDigits(4, year) || !reader.Take("-") || !reader.TakeDigits(2, month) ||
        !reader.Take("-") || !reader.TakeDigits(2, day)) {
        return false;
    }
    date.tm_year = year - 1900;
    date.tm_mon = month - 1;
    date.tm_mday = day;
    std::tm normal = date;
    timegm(&normal);
    return normal.tm_mon == date.tm_mon && normal.tm_mday == date.tm_mday;
}

bool TakeClock(Reader& reader, Time& inDay) {
    int hour = 0;
    int minute = 0;
    Time second = 0;
    if (!reader.TakeDigits(2, hour) || !reader.Take(":") || !reader.TakeDigits(2, minute) ||
        (reader.Take(":") && !reader.TakeNumber(second))) {
        return false;
    }
    inDay = hour * kHour + minute * kMinute + second;
    return hour < 24 && minute < 60 && second < kMinute;
}

/// Nothing is there, or an offset that is right.
bool TakeOffset(Reader& reader, std::optional<Time>& offset) {
    if (reader.AtEnd()) {
        return true;
    }
    if (reader.Take("Z") || reader.Take(" UTC")) {
        offset = 0;
        return true;
    }
    const bool east = reader.Take("+");
    int hours = 0;
    int minutes = 0;
    if ((!east && !reader.Take("-")) || !reader.TakeDigits(2, hours)) {
        return false;
    }
    reader.Take(":");
    if (!reader.AtEnd() && !reader.TakeDigits(2, minutes)) {
        return false;
    }
    offset = (east ? 1 : -1) * (hours * kHour + minutes * kMinute);
    return hours < 24 && minutes < 60;
}

Time ParseCalendar(const std::string& text, Time now, Zone zone) {
    Reader reader(text);
    std::tm date{};
    const bool dated = text.size() > 4 && text[4] == '-';
    if (dated && !TakeDate(reader, date)) {
        RefuseTime(text);
    }
    Time inDay = 0;
    std::optional<Time> offset;
    const bool clock =
        !dated || reader.Take("T") || (text.find(':') != std::string::npos && reader.Take(" "));
    if ((clock && !TakeClock(reader, inDay)) || !TakeOffset(reader, offset) || !reader.AtEnd()) {
        RefuseTime(text);
    }
    return MomentOf(dated ? date : DateOf(now, zone, offset), inDay, zone, offset);
}

/// The length of a unit; 0 when there is none of that name.
Time LengthOf(const std::string& unit) {
    for (const auto& [name, length] : kUnits) {
        if (unit == name) {
            return length;
        }
    }
    return 0;
}

} // namespace

Time ParseTime(const std::string& text, Time now, Zone zone) {
    const std::string ago = " ago";
    if (text == "now") {
        return now;
    }
    for (const auto& [name, days] : {std::pair("yesterday", -1), {"today", 0}, {"tomorrow", 1}}) {
        if (text == name) {
            std::tm date = DateOf(now, zone, std::nullopt);
            date.tm_mday += days;
            return MomentOf(date, 0, zone, std::nullopt);
        }
    }
    if (text.size() > ago.size() && text.compare(text.size() - ago.size(), ago.size(), ago) == 0) {
        return now - ParseDuration(text.substr(0, text.size() - ago.size()));
    }
    Reader reader(text);
    if (reader.Take("-")) {
        return now - ParseDuration(text.substr(1));
    }
    if (reader.Take("+")) {
        return now + ParseDuration(text.substr(1));
    }
    if (reader.Take("@")) {
        Time time = 0;
        if (!reader.TakeNumber(time) || !reader.AtEnd()) {
            RefuseTime(text);
        }
        return time;
    }
    return ParseCalendar(text, now, zone);
}

Time ParseDuration(const std::string& text) {
    Reader reader(text);
    Time sum = 0;
    for (bool first = true; first || !reader.AtEnd(); first = false) {
        Time number = 0;
        const bool counted = reader.TakeNumber(number);
        const bool alone = first && reader.AtEnd();
        reader.Take(" ");
        const Time unit = alone ? kSecond : LengthOf(reader.TakeWord());
        reader.Take(" ");
        if (!counted || unit == 0 || number / kSecond > 4'000'000'000 / (unit / kSecond + 1)) {
            throw std::invalid_argument("Not a duration: \"" + text +
                                        "\" (as 90, 5min, 2h or 1d 12h: of several numbers each has a unit)");
        }
        sum += number / kSecond * unit + number % kSecond * unit / kSecond;
    }
    return sum;
}

Span ParseSpan(const std::string& from, const std::string& to, Zone zone) {
    const Time now = Now();
    const Span span{ParseTime(from, now, zone), ParseTime(to, now, zone)};
    if (span.last < span.first) {
        throw std::invalid_argument("The span ends (" + TimeText(span.last, zone) + ") before it begins (" +
                                    TimeText(span.first, zone) + ")");
    }
    return span;
}

Time Now() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string TimeText(Time time, Zone zone) {
    Time fraction = time % kSecond;
    fraction += fraction < 0 ? kSecond : 0;
    const auto seconds = static_cast<std::time_t>((time - fraction) / kSecond);
    std::tm fields{};
    std::array<char, 16> offset{"Z"};
    if (zone == Zone::Utc) {
        gmtime_r(&seconds, &fields);
    } else {
        localtime_r(&seconds, &fields);
        const long minutes = fields.tm_gmtoff / 60;
        std::snprintf(offset.data(), offset.size(), "%c%02d:%02d", minutes < 0 ? '-' : '+',
                      static_cast<int>(std::abs(minutes) / 60 % 100),
                      static_cast<int>(std::abs(minutes) % 60));
    }
    std::array<char, 32> clock{};
    std::strftime(clock.data(), clock.size(), "%Y-%m-%dT%H:%M:%S", &fields);
    std::array<char, 16> decimals{};
    std::snprintf(decimals.data(), decimals.size(), ".%06d", static_cast<int>(fraction));
    return std::string(clock.data()) + decimals.data() + offset.data();
}

std::string DurationText(Time duration) {
    std::string text;
    for (const auto& [name, length] : {Unit{"d", kDay}, {"h", kHour}, {"min", kMinute}}) {
        if (duration >= length) {
            text += std::to_string(duration / length) + " " + name + " ";
            duration %= length;
        }
    }
    if (duration == 0 && !text.empty()) {
        text.pop_back();
        return text;
    }
    std::array<char, 24> seconds{};
    std::snprintf(seconds.data(), seconds.size(), "%d.%06d", static_cast<int>(duration / kSecond),
                  static_cast<int>(duration % kSecond));
    text += seconds.data();
    text.erase(text.find_last_not_of('0') + 1);
    return (text.back() == '.' ? text.substr(0, text.size() - 1) : text) + " s";
}

} // namespace calvane_recording
