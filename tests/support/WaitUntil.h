#pragma once

#include <chrono>
#include <functional>
#include <thread>

/// Looks again and again; false when it has not become true within 30 s, which no sound run needs.
inline bool WaitUntil(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}
