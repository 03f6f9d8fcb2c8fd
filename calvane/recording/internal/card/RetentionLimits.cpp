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

} // namespace

void RetentionLimits::load() {
    int secs = 0;
    int usecs = 0;
    CALVANE_DRENN_CALL(drenn_core_settings_set_default_int_value(kMaxRetentionTimeSeconds, 0));
    CALVANE_DRENN_CALL(drenn_core_settings_set_default_int_value(kMaxRetentionTimeMicroseconds, 0));
    CALVANE_DRENN_CALL(drenn_core_settings_get_int_value(kMaxRetentionTimeSeconds, &secs));
    CALVANE_DRENN_CALL(drenn_core_settings_get_int_value(kMaxRetentionTimeMicroseconds, &usecs));
    // Each could be read; now both as of one change.
    const Duration limit = readSettings();
    const std::lock_guard<std::mutex> lock(_mutex);
    _maxTime = limit;
}

Duration RetentionLimits::getMaxTime() const {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _maxTime;
}

void RetentionLimits::setMaxTime(const Duration& rt) {
    const std::lock_guard<std::mutex> settingsLock(_settingsMutex);
    const Duration limit = storable(rt);
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _maxTime = limit;
    }
    // Of the same sign, or 0.
    const std::array<drenn_core_int_setting, 2> settings{
        {{kMaxRetentionTimeSeconds, static_cast<int>(limit.ticks() / 1000000)},
         {kMaxRetentionTimeMicroseconds, static_cast<int>(limit.ticks() % 1000000)}}};
    requireDrennSuccess(drenn_core_settings_set_int_values(settings.data(), 2),
                        "drenn_core_settings_set_int_value(kMaxRetentionTimeSeconds, rt.total_seconds())");
}

Duration RetentionLimits::readSettings() {
    std::array<drenn_core_int_setting, 2> settings{
        {{kMaxRetentionTimeSeconds, 0}, {kMaxRetentionTimeMicroseconds, 0}}};
    requireDrennSuccess(drenn_core_settings_get_int_values(settings.data(), 2),
                        "drenn_core_settings_get_int_value(kMaxRetentionTimeSeconds, &secs)");
    return boost::posix_time::microseconds(std::int64_t{settings[0].value} * 1000000 + settings[1].value);
}

bool RetentionLimits::takeSettings() {
    const std::lock_guard<std::mutex> settingsLock(_settingsMutex);
    const Duration setting = readSettings();
    const bool isWhole = setting == std::exchange(_settingsSeen, setting);
    const std::lock_guard<std::mutex> lock(_mutex);
    if (!isWhole || setting == _maxTime) {
        return false;
    }
    _maxTime = setting;
    return true;
}

ptime RetentionLimits::cutoff(const ptime& now) const {
    const Duration limit = getMaxTime();
    return limit.is_special() || limit <= Duration() ? ptime() : now - limit;
}

} // namespace quarn::calvane
