#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "RecordingClient.h"

namespace calvane_web {

/// What is asked for is used by others already; later there may be some.
class Busy : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Clients of the recorder's services, for one question each at a time.
///
/// Whether there is a bus, or a recorder on it, shows anew with every question: a client that got no answer is given up, and
/// the next question makes another one.
///
/// Threads: any.
/// Errors:  Busy, and those of RecordingClient.
class ClientPool {
public:
    using Client = calvane_recording::RecordingClient;

    explicit ClientPool(std::size_t most) : most_(most) {}

    /// May ask twice, if the bus went away in between.
    void Ask(const std::function<void(Client&)>& question);

    template <typename Question>
    auto Get(const Question& question) -> decltype(question(std::declval<Client&>())) {
        decltype(question(std::declval<Client&>())) answer{};
        Ask([&](Client& client) { answer = question(client); });
        return answer;
    }

    std::uint64_t Failures() const { return failures_; }

private:
    class Lease;

    const std::size_t most_;
    std::atomic<std::uint64_t> failures_{0};

    std::mutex mutex_;
    std::condition_variable returned_;
    std::vector<std::unique_ptr<Client>> spare_;
    std::size_t used_ = 0;
};

} // namespace calvane_web
