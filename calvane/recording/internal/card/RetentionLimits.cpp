#include "calvane/recording/internal/card/RetentionLimits.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <utility>

#include "calvane/recording/DrennApiException.h"
#include "calvane/recording/RecordingSettings.h"
#include "drenn/core/Settings.h"

namespace quarn::calvane {

using boost::posix_time::ptime;
using Duration = RetentionLimits::Duration;

namespace {

Duration storable(const Duration& limit) {
    if (limit.is_special()) {
        return boost::posix_time::seconds(0);
    }
    const Duration longest = boost::posix_time::seconds(std::numeric_limits<int>::max());
    const Duration shortest = boost::posix_time::seconds(std::numeric_limits<int>::min());
    return std::clamp(limit, shortest, longest);
}

constexpr std::uint64_t kMebibyte = std::uint64_t{1} << 20U;

int mebibytes(std::uint64_t bytes) {
    const std::uint64_t whole = bytes / kMebibyte + (bytes % kMebibyte != 0 ? 1 : 0);
    return static_cast<int>(std::min<std::uint64_t>(whole, std::numeric_limits<int>::max()));
}

std::uint64_t bytesOf(int mebibytes) {
    return mebibytes > 0 ? static_cast<std::uint64_t>(mebibytes) * kMebibyte : 0;
}

} // namespace

void RetentionLimits::load() {
    int secs = 0;
    int usecs = 0;
    CALVANE_DRENN_CALL(drenn_core_settings_set_default_int_value(kMaxRetentionTimeSeconds, 0));
    CALVANE_DRENN_CALL(drenn_core_settings_set_default_int_value(kMaxRetentionTimeMicroseconds, 0));
    CALVANE_DRENN_CALL(drenn_core_settings_get_int_value(kMaxRetentionTimeSeconds, &secs));
    CALVANE_DRENN_CALL(drenn_core_settings_get_int_value(kMaxRetentionTimeMicroseconds, &usecs));
    CALVANE_DRENN_CALL(drenn_core_settings_set_default_int_value(kMaxDataMebibytes, 0));
    CALVANE_DRENN_CALL(drenn_core_settings_set_default_int_value(kMaxHistoryMebibytes, 0));
    // Each could be read; now all as of one change.
    const Limits limits = readSettings();
    const std::lock_guard<std::mutex> lock(_mutex);
    _limits = limits;
}

Duration RetentionLimits::getMaxTime() const {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _limits.time;
}

RecordingSpace RetentionLimits::getMaxSpace() const {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _limits.space;
}

void RetentionLimits::setMaxTime(const Duration& rt) {
    const std::lock_guard<std::mutex> settingsLock(_settingsMutex);
    const Duration limit = storable(rt);
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _limits.time = limit;
    }
    // Of the same sign, or 0.
    const std::array<drenn_core_int_setting, 2> settings{
        {{kMaxRetentionTimeSeconds, static_cast<int>(limit.ticks() / 1000000)},
         {kMaxRetentionTimeMicroseconds, static_cast<int>(limit.ticks() % 1000000)}}};
    requireDrennSuccess(drenn_core_settings_set_int_values(settings.data(), 2),
                        "drenn_core_settings_set_int_value(kMaxRetentionTimeSeconds, rt.total_seconds())");
}

void RetentionLimits::setMaxSpace(const RecordingSpace& space) {
    const std::lock_guard<std::mutex> settingsLock(_settingsMutex);
    const std::array<drenn_core_int_setting, 2> settings{
        {{kMaxDataMebibytes, mebibytes(space.data)}, {kMaxHistoryMebibytes, mebibytes(space.history)}}};
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _limits.space = {bytesOf(settings[0].value), bytesOf(settings[1].value)};
    }
    CALVANE_DRENN_CALL(drenn_core_settings_set_int_values(settings.data(), 2));
}

RetentionLimits::Limits RetentionLimits::readSettings() {
    std::array<drenn_core_int_setting, 4> settings{{{kMaxRetentionTimeSeconds, 0},
                                                    {kMaxRetentionTimeMicroseconds, 0},
                                                    {kMaxDataMebibytes, 0},
                                                    {kMaxHistoryMebibytes, 0}}};
    requireDrennSuccess(drenn_core_settings_get_int_values(settings.data(), 4),
                        "drenn_core_settings_get_int_value(kMaxRetentionTimeSeconds, &secs)");
    return {boost::posix_time::microseconds(std::int64_t{settings[0].value} * 1000000 + settings[1].value),
            {bytesOf(settings[2].value), bytesOf(settings[3].value)}};
}

bool RetentionLimits::takeSettings() {
    const std::lock_guard<std::mutex> settingsLock(_settingsMutex);
    const Limits setting = readSettings();
    const bool isWhole = setting == std::exchange(_settingsSeen, setting);
    const std::lock_guard<std::mutex> lock(_mutex);
    if (!isWhole || setting == _limits) {
        return false;
    }
    _limits = setting;
    return true;
}

ptime RetentionLimits::cutoff(const ptime& now) const {
    const Duration limit = getMaxTime();
    return limit.is_special() || limit <= Duration() ? ptime() : now - limit;
}

} // namespace quarn::calvane
