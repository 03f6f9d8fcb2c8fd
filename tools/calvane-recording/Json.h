#pragma once

#include <iostream>
#include <nlohmann/json.hpp>

#include "TimeText.h"

namespace calvane_recording {

using nlohmann::json;

/// Durations are numbers of seconds in JSON.
inline json SecondsOf(Time duration) {
    return static_cast<double>(duration) / kSecond;
}

/// As the one document of an answer.
inline void Print(const json& facts) {
    std::cout << facts.dump(2) << "\n";
}

} // namespace calvane_recording
