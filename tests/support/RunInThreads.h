#pragma once

#include <functional>
#include <thread>
#include <vector>

/// Runs `action` in `count` threads at once, each with its number, and waits for all.
inline void RunInThreads(int count, const std::function<void(int)>& action) {
    std::vector<std::thread> threads;
    for (int number = 0; number != count; ++number) {
        threads.emplace_back(action, number);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}
