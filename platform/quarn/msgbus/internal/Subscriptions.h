#pragma once

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "quarn/msgbus/MsgBus.h"

namespace quarn::msgbus {

/// The subscriptions of this process, by topic.
///
/// Threads: any; callbacks are called without its lock.
class Subscriptions {
public:
    int Add(const std::string& topic, MsgBus::Callback callback);
    /// Waits until the callback runs on no other thread, unless that waits for this one: two callbacks may remove each other.
    void Remove(int number);
    void Deliver(const Message& message);
    std::set<std::string> Topics() const;

private:
    struct Entry {
        std::string topic;
        MsgBus::Callback callback;
        std::multiset<std::thread::id> running; // Guarded by lock_.
        bool removed = false;                   // Guarded by lock_.
    };

    bool WaitsForCaller(const Entry& entry) const;
    void Call(const std::shared_ptr<Entry>& entry, const Message& message);

    mutable std::mutex lock_;
    std::condition_variable ended_;
    // Guarded by lock_.
    std::map<int, std::shared_ptr<Entry>> entries_;
    std::map<std::thread::id, const Entry*> waiting_; // Who waits for the end of what.
    int nextNumber_ = 1;
};

} // namespace quarn::msgbus
