#include "Forecast.h"

namespace calvane_recorder {
namespace {

using namespace std::chrono_literals;

constexpr auto kPeriod = 60s;
constexpr double kMicrosecondsPerHour = 3600e6;
constexpr double kEndOfTime = 4e15; // Some 130 years; later than that is never.

} // namespace

void GrowthMeter::Add(Clock::time_point moment, const TrackBytes& bytes) {
    while (samples_.size() > 1 && moment - samples_[1].moment >= kPeriod) {
        samples_.pop_front();
    }
    samples_.push_back({moment, bytes});
}

TrackBytes GrowthMeter::GetBytesPerHour() const {
    TrackBytes rates{};
    if (samples_.empty() || samples_.back().moment - samples_.front().moment < 1s) {
        return rates;
    }
    const std::chrono::duration<double, std::ratio<3600>> hours =
        samples_.back().moment - samples_.front().moment;
    for (std::size_t track = 0; track != kTracks; ++track) {
        const auto grown = samples_.back().bytes[track] - samples_.front().bytes[track];
        rates[track] = static_cast<std::uint64_t>(static_cast<double>(grown) / hours.count());
    }
    return rates;
}

Room LimitRoom(const Room& card, std::uint64_t limit, std::uint64_t used) {
    const std::uint64_t left = limit > used ? limit - used : 0;
    return limit == 0 || card.usable < left ? card : Room{limit, left, true};
}

Forecast MakeForecast(std::int64_t now, const Room& room, std::uint64_t bytesPerHour, std::uint64_t limit) {
    Forecast forecast;
    if (bytesPerHour == 0) {
        return forecast;
    }
    const auto rate = static_cast<double>(bytesPerHour);
    const auto hours = static_cast<double>(limit) / kMicrosecondsPerHour;
    if (limit != 0 && hours * rate <= static_cast<double>(room.bytes)) {
        forecast.erases = Forecast::Erases::Age;
        return forecast;
    }
    const double left = static_cast<double>(room.usable) / rate * kMicrosecondsPerHour;
    if (left < kEndOfTime) {
        forecast.erases = room.isLimited ? Forecast::Erases::SpaceLimit : Forecast::Erases::Space;
        forecast.fullAt = now + static_cast<std::int64_t>(left);
    }
    return forecast;
}

} // namespace calvane_recorder
