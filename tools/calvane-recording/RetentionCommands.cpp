#include <algorithm>
#include <cstdint>
#include <functional>
#include <iostream>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include "Commands.h"
#include "Json.h"
#include "RecordingClient.h"
#include "calvane/recording/RecordingManager.h"
#include "quarn/settings/QuarnSettingsClient.h"

namespace calvane_recording {
namespace {

constexpr unsigned int kMebibyteBits = 20;
constexpr std::int64_t kMostSetting = std::numeric_limits<std::int32_t>::max();

/// False when there is no recorder.
bool AskRecorder(const std::function<void(RecordingClient&)>& question) {
    try {
        RecordingClient client;
        question(client);
        return true;
    } catch (const RecordingClient::NotRunning&) {
        return false;
    }
}

struct Limits {
    Time time = 0;
    Space space;
};

/// From the recorder, or without one from the settings.
Limits LimitsOf(const Options& options) {
    Limits limits;
    if (!options.file && AskRecorder([&limits](RecordingClient& client) {
            limits = {client.GetMaximumRetention(), client.GetMaximumSpace()};
        })) {
        return limits;
    }
    const quarn::settings::QuarnSettingsClient settings(nullptr);
    const auto numberOf = [](const std::optional<quarn::settings::Setting>& setting) {
        const auto* const number = setting ? std::get_if<std::int64_t>(&*setting) : nullptr;
        return number != nullptr ? *number : 0;
    };
    const auto bytesOf = [&](const std::optional<quarn::settings::Setting>& setting) {
        return static_cast<std::uint64_t>(std::max<std::int64_t>(numberOf(setting), 0)) << kMebibyteBits;
    };
    const auto parts = settings.Get(std::vector<std::string>{
        quarn::calvane::kMaxRetentionTimeSeconds, quarn::calvane::kMaxRetentionTimeMicroseconds,
        quarn::calvane::kMaxDataMebibytes, quarn::calvane::kMaxHistoryMebibytes});
    return {numberOf(parts[0]) * kSecond + numberOf(parts[1]), {bytesOf(parts[2]), bytesOf(parts[3])}};
}

std::int64_t MebibytesOf(std::uint64_t bytes) {
    return static_cast<std::int64_t>((bytes >> kMebibyteBits) +
                                     (bytes % (std::uint64_t{1} << kMebibyteBits) != 0 ? 1 : 0));
}

/// With the limits that the command line gives in place of those that there are.
Limits Change(Limits limits, const Options& options) {
    if (options.limit.empty() && !options.dataSpace && !options.historySpace) {
        throw std::invalid_argument("retention set needs a duration, --data or --history");
    }
    if (!options.limit.empty()) {
        limits.time = options.limit == "none" ? 0 : ParseDuration(options.limit);
    }
    if (limits.time / kSecond > kMostSetting) {
        throw std::invalid_argument("Not a limit: \"" + options.limit + "\" is longer than 68 years");
    }
    limits.space = {options.dataSpace.value_or(limits.space.data),
                    options.historySpace.value_or(limits.space.history)};
    if (MebibytesOf(std::max(limits.space.data, limits.space.history)) > kMostSetting) {
        throw std::invalid_argument("Not a limit: more than 2 PB");
    }
    return limits;
}

} // namespace

void GetRetention(const Options& options) {
    const Limits limits = LimitsOf(options);
    if (options.json) {
        const auto ofSpace = [](std::uint64_t limit) { return limit == 0 ? json(nullptr) : json(limit); };
        Print({{"seconds", SecondsOf(limits.time)},
               {"data", ofSpace(limits.space.data)},
               {"history", ofSpace(limits.space.history)}});
        return;
    }
    std::cout << "Recorded data is kept "
              << (limits.time <= 0 ? "as long as there is room" : "for " + DurationText(limits.time)) << "\n";
    if (limits.space.data != 0) {
        std::cout << "Video, audio and metadata take at most " << BytesText(limits.space.data) << "\n";
    }
    if (limits.space.history != 0) {
        std::cout << "The history takes at most " << BytesText(limits.space.history) << "\n";
    }
}

void SetRetention(const Options& options) {
    const Limits limits = Change(LimitsOf(options), options);
    const bool isTimeSet = !options.limit.empty();
    const bool isSpaceSet = options.dataSpace || options.historySpace;
    const bool isDone = !options.file && AskRecorder([&](RecordingClient& client) {
        if (isTimeSet) {
            client.SetMaximumRetention(limits.time);
        }
        if (isSpaceSet) {
            client.SetMaximumSpace(limits.space);
        }
    });
    if (!isDone) {
        quarn::settings::QuarnSettingsClient settings(nullptr);
        settings.Set({{quarn::calvane::kMaxRetentionTimeSeconds, std::int64_t{limits.time / kSecond}},
                      {quarn::calvane::kMaxRetentionTimeMicroseconds, std::int64_t{limits.time % kSecond}},
                      {quarn::calvane::kMaxDataMebibytes, MebibytesOf(limits.space.data)},
                      {quarn::calvane::kMaxHistoryMebibytes, MebibytesOf(limits.space.history)}});
    }
    GetRetention(options);
}

} // namespace calvane_recording
