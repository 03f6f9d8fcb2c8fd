#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "RecordingClient.h"
#include "api/LeasePool.h"

namespace calvane_web {

/// Clients of the recorder's services, for one question each at a time.
///
/// Whether there is a bus, or a recorder on it, shows anew with every question: a client that got no answer is given up, and
/// the next question makes another one.
///
/// Threads: any.
/// Errors:  Busy, and those of RecordingClient.
class ClientPool : public LeasePool<calvane_recording::RecordingClient> {
public:
    /// `mostOfOne` counts for Borrow.
    explicit ClientPool(std::size_t most, std::size_t mostOfOne = SIZE_MAX);

    /// May ask twice, if the bus went away in between.
    void Ask(const std::function<void(Client&)>& question);

    template <typename Question>
    auto Get(const Question& question) -> decltype(question(std::declval<Client&>())) {
        decltype(question(std::declval<Client&>())) answer{};
        Ask([&](Client& client) { answer = question(client); });
        return answer;
    }

    /// A client for several questions. It was there a moment ago. An empty borrower is not counted.
    Lease Borrow(const std::string& borrower = {});

    std::uint64_t Failures() const { return failures_; }

private:
    void Ask(Lease& lease, const std::function<void(Client&)>& question);

    std::atomic<std::uint64_t> failures_{0};
};

} // namespace calvane_web
