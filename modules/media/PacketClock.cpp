#include "PacketClock.h"

#include <algorithm>

namespace calvane_media {

namespace {

constexpr std::int64_t kWindow = 10'000'000;
constexpr std::int64_t kTolerance = 20'000;
// The correction may change by so many millionths of the time that passes. Packets that come earlier than they are dated
// show for certain that the run began too late; those that come later may just have been held up.
constexpr std::int64_t kFastest = 20'000;
constexpr std::int64_t kUsual = 500;

} // namespace

void PacketClock::Begin(std::int64_t utc) {
    begin_ = lastTime_ = utc;
    running_ = false;
    correction_ = wanted_ = windowBegin_ = 0;
}

std::int64_t PacketClock::Map(std::int64_t stamp) {
    if (!running_) {
        firstStamp_ = stamp;
        running_ = true;
    }
    return begin_ + (stamp - firstStamp_) + correction_;
}

bool PacketClock::Follow(std::int64_t time, std::int64_t arrival) {
    const std::int64_t late = arrival - (time - correction_); // Than it would be dated without correction.
    if (windowBegin_ == 0) {
        windowBegin_ = arrival;
        leastLate_ = mostLate_ = late;
    }
    leastLate_ = std::min(leastLate_, late);
    mostLate_ = std::max(mostLate_, late);
    if (arrival - windowBegin_ >= kWindow || arrival < windowBegin_) {
        return EndWindow();
    }
    Steer(time);
    return false;
}

void PacketClock::Steer(std::int64_t time) {
    const std::int64_t passed = std::clamp<std::int64_t>(time - lastTime_, 0, kWindow);
    lastTime_ = std::max(lastTime_, time);
    correction_ +=
        std::clamp(wanted_ - correction_, -passed * kFastest / 1'000'000, passed * kUsual / 1'000'000);
}

bool PacketClock::EndWindow() {
    windowBegin_ = 0;
    const std::int64_t least = leastLate_ - correction_;
    const std::int64_t most = mostLate_ - correction_;
    if (least > kLargest || most < -kLargest) {
        const std::int64_t jump = least > 0 ? least : most;
        correction_ += jump;
        wanted_ = correction_;
        lastTime_ += jump;
        return true;
    }
    const bool isSmall = least >= -kLargest; // Otherwise the clock was set in the middle of these packets.
    wanted_ = isSmall && (least < -kTolerance || least > kTolerance) ? leastLate_ : correction_;
    return false;
}

} // namespace calvane_media
