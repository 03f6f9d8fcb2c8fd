#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
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

    /// At most `most` at once, and for Borrow at most `mostOfOne` of them by the same borrower.
    explicit ClientPool(std::size_t most, std::size_t mostOfOne = SIZE_MAX)
        : most_(most), mostOfOne_(mostOfOne) {}

    /// May ask twice, if the bus went away in between.
    void Ask(const std::function<void(Client&)>& question);

    template <typename Question>
    auto Get(const Question& question) -> decltype(question(std::declval<Client&>())) {
        decltype(question(std::declval<Client&>())) answer{};
        Ask([&](Client& client) { answer = question(client); });
        return answer;
    }

    class Lease;
    /// A client for several questions. It was there a moment ago. An empty borrower is not counted.
    Lease Borrow(const std::string& borrower = {});

    std::uint64_t Failures() const { return failures_; }

private:
    void Ask(Lease& lease, const std::function<void(Client&)>& question);

    bool IsFree(const std::string& borrower) const;

    const std::size_t most_;
    const std::size_t mostOfOne_;
    std::atomic<std::uint64_t> failures_{0};

    std::mutex mutex_;
    std::condition_variable returned_;
    std::vector<std::unique_ptr<Client>> spare_;
    std::size_t used_ = 0;
    std::map<std::string, std::size_t> usedBy_;
};

/// A client of the pool, until it is destroyed.
class ClientPool::Lease {
public:
    explicit Lease(ClientPool& pool, std::string borrower = {});
    ~Lease();
    Lease(Lease&& other) noexcept
        : pool_(std::exchange(other.pool_, nullptr)),
          borrower_(std::move(other.borrower_)),
          client_(std::move(other.client_)) {}
    Lease& operator=(Lease&&) = delete;

    Client& operator*();
    Client* operator->() { return &**this; }
    bool IsUsed() const { return client_ != nullptr; }
    /// The pool does not get it back.
    void GiveUp() { client_.reset(); }

private:
    ClientPool* pool_;
    std::string borrower_;
    std::unique_ptr<Client> client_;
};

} // namespace calvane_web
