#include <gtest/gtest.h>

#include "media/PacketClock.h"
#include "media/StampLine.h"

using calvane_media::PacketClock;
using calvane_media::StampLine;

namespace {

constexpr std::int64_t kSecond = 1'000'000;
constexpr std::int64_t kBegin = 1'795'266'000 * kSecond;

/// A camera with a packet every 40 ms, whose clock runs fast by so many millionths; each arrives later by `late`.
class Camera {
public:
    explicit Camera(std::int64_t fast) : fast_(fast) { clock.Begin(kBegin); }

    /// Sends packets for so many seconds. Returns whether the clock jumped.
    bool Send(int seconds, std::int64_t late = 0) {
        bool jumped = false;
        for (int i = 0; i != 25 * seconds; ++i, now += 40'000) {
            const std::int64_t stamp = (now - kBegin) + (now - kBegin) / 1'000'000 * fast_;
            const std::int64_t time = clock.Map(stamp);
            jumped |= clock.Follow(time, now + late);
            time_ = clock.Map(stamp);
            backwards |= time_ < last_;
            last_ = time_;
        }
        return jumped;
    }
    /// By how much the last packet is dated later than it was sent.
    std::int64_t Ahead() const { return time_ - (now - 40'000); }

    PacketClock clock;
    std::int64_t now = kBegin; // The device's clock.
    bool backwards = false;

private:
    const std::int64_t fast_;
    std::int64_t time_ = 0;
    std::int64_t last_ = 0;
};

} // namespace

TEST(PacketClock, KeepsToTheDevicesClockWhileTheCamerasDrifts) {
    for (const std::int64_t fast : {-200, 0, 200}) {
        Camera camera(fast);
        EXPECT_FALSE(camera.Send(3 * 3600));
        EXPECT_LE(std::abs(camera.Ahead()), 30'000) << fast;
        EXPECT_FALSE(camera.backwards);
    }
    Camera sound(0);
    sound.Send(30, 15'000);
    sound.Send(5, 3 * kSecond); // The network is held up for some seconds,
    sound.Send(60, 15'000);
    EXPECT_EQ(sound.Ahead(), 0); // which is no reason to date anything else.
}

TEST(PacketClock, FollowsTheDevicesClockWhenItIsSet) {
    Camera camera(0);
    camera.Send(20);
    EXPECT_TRUE(camera.Send(30, 3600 * kSecond));
    EXPECT_EQ(camera.Ahead(), 3600 * kSecond);
    EXPECT_TRUE(camera.Send(30, -60 * kSecond));
    EXPECT_EQ(camera.Ahead(), -60 * kSecond);
    // A camera that sends two seconds at once when it is asked to begins too late; it is caught up with slowly.
    Camera burst(0);
    EXPECT_FALSE(burst.Send(200, -2 * kSecond));
    EXPECT_LE(std::abs(burst.Ahead() + 2 * kSecond), 30'000);
    EXPECT_FALSE(burst.backwards);
}

TEST(StampLine, KeepsStreamsTogetherWhenTheirStampsJump) {
    StampLine line;
    line.SetMostForward(10 * kSecond);
    line.Restart();
    EXPECT_EQ(line.Next(0, 500 * kSecond, kSecond).value, 0);
    EXPECT_EQ(line.Next(1, 499 * kSecond, kSecond).value, -kSecond);
    EXPECT_EQ(line.Next(0, 509 * kSecond, kSecond).value, 9 * kSecond); // A gap that stays one.
    // Both begin anew, one after the other.
    const StampLine::Stamp jumped = line.Next(0, 20 * kSecond, kSecond);
    EXPECT_TRUE(jumped.jumped);
    EXPECT_EQ(jumped.value, 10 * kSecond);
    EXPECT_EQ(line.Next(1, 500 * kSecond, kSecond).value, 0);
    EXPECT_EQ(line.Next(1, 20 * kSecond, kSecond).value, 10 * kSecond);
    // Small steps back are the muxer's, and a missing stamp follows what was there.
    EXPECT_FALSE(line.Next(0, 20 * kSecond - 1000, kSecond).jumped);
    EXPECT_EQ(line.Next(1, std::nullopt, kSecond).value, 11 * kSecond);
    EXPECT_TRUE(line.Next(1, 1'000'000 * kSecond, kSecond).jumped);
    line.Restart(); // With room for the second stream, which began a second earlier.
    EXPECT_EQ(line.Next(0, 7, 0).value, 14 * kSecond);
}
