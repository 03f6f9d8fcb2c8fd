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

/// From the recorder, or without one from the settings.
Time RetentionOf(const Options& options) {
    Time limit = 0;
    if (!options.file &&
        AskRecorder([&limit](RecordingClient& client) { limit = client.GetMaximumRetention(); })) {
        return limit;
    }
    const quarn::settings::QuarnSettingsClient settings(nullptr);
    const auto numberOf = [](const std::optional<quarn::settings::Setting>& setting) {
        const auto* const number = setting ? std::get_if<std::int64_t>(&*setting) : nullptr;
        return number != nullptr ? *number : 0;
    };
    const auto parts = settings.Get(std::vector<std::string>{quarn::calvane::kMaxRetentionTimeSeconds,
                                                             quarn::calvane::kMaxRetentionTimeMicroseconds});
    return numberOf(parts[0]) * kSecond + numberOf(parts[1]);
}

} // namespace

void GetRetention(const Options& options) {
    const Time limit = RetentionOf(options);
    if (options.json) {
        Print({{"seconds", SecondsOf(limit)}});
    } else if (limit <= 0) {
        std::cout << "Recorded data is kept as long as there is room\n";
    } else {
        std::cout << "Recorded data is kept for " << DurationText(limit) << "\n";
    }
}

void SetRetention(const Options& options) {
    const Time limit = options.limit == "none" ? 0 : ParseDuration(options.limit);
    if (limit / kSecond > std::numeric_limits<std::int32_t>::max()) {
        throw std::invalid_argument("Not a limit: \"" + options.limit + "\" is longer than 68 years");
    }
    if (!options.file && AskRecorder([&](RecordingClient& client) { client.SetMaximumRetention(limit); })) {
        GetRetention(options);
        return;
    }
    quarn::settings::QuarnSettingsClient settings(nullptr);
    settings.Set({{quarn::calvane::kMaxRetentionTimeSeconds, std::int64_t{limit / kSecond}},
                  {quarn::calvane::kMaxRetentionTimeMicroseconds, std::int64_t{limit % kSecond}}});
    GetRetention(options);
}

} // namespace calvane_recording
