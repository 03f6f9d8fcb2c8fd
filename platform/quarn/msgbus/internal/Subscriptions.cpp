#include <utility>

#include "quarn/core/Logger.h"
#include "quarn/msgbus/internal/Subscriptions.h"

namespace quarn::msgbus {

int Subscriptions::Add(const std::string& topic, MsgBus::Callback callback) {
    auto entry = std::make_shared<Entry>();
    entry->topic = topic;
    entry->callback = std::move(callback);
    const std::lock_guard<std::mutex> guard(lock_);
    entries_[nextNumber_] = std::move(entry);
    return nextNumber_++;
}

void Subscriptions::Remove(int number) {
    std::unique_lock<std::mutex> guard(lock_);
    const auto found = entries_.find(number);
    if (found == entries_.end()) {
        return;
    }
    const std::shared_ptr<Entry> entry = found->second;
    entries_.erase(found);
    entry->removed = true;
    const auto self = std::this_thread::get_id();
    waiting_[self] = entry.get();
    ended_.notify_all(); // Who waits for what this thread runs may not have known.
    ended_.wait(
        guard, [&] { return entry->running.size() == entry->running.count(self) || WaitsForCaller(*entry); });
    waiting_.erase(self);
}

/// Whether a thread that runs the entry waits, perhaps through others, for what this thread runs.
bool Subscriptions::WaitsForCaller(const Entry& entry) const {
    const auto self = std::this_thread::get_id();
    std::set<const Entry*> seen;
    std::vector<const Entry*> next{&entry};
    while (!next.empty()) {
        const Entry* const one = next.back();
        next.pop_back();
        if (one != &entry && one->running.count(self) != 0) {
            return true;
        }
        for (const auto& thread : one->running) {
            const auto waits = waiting_.find(thread);
            if (thread != self && waits != waiting_.end() && seen.insert(waits->second).second) {
                next.push_back(waits->second);
            }
        }
    }
    return false;
}

void Subscriptions::Deliver(const Message& message) {
    std::vector<std::shared_ptr<Entry>> wanting;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        for (const auto& [number, entry] : entries_) {
            if (entry->topic == message.topic) {
                wanting.push_back(entry);
            }
        }
    }
    for (const auto& entry : wanting) {
        Call(entry, message);
    }
}

void Subscriptions::Call(const std::shared_ptr<Entry>& entry, const Message& message) {
    const auto self = std::this_thread::get_id();
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (entry->removed) {
            return;
        }
        entry->running.insert(self);
    }
    try {
        entry->callback(message);
    } catch (const std::exception& problem) {
        core::Logger::GetLogger("MsgBus")->Warning("A subscriber of %s failed: %s", message.topic.c_str(),
                                                   problem.what());
    } catch (...) {
        core::Logger::GetLogger("MsgBus")->Warning("A subscriber of %s failed", message.topic.c_str());
    }
    const std::lock_guard<std::mutex> guard(lock_);
    entry->running.erase(entry->running.find(self));
    ended_.notify_all();
}

std::set<std::string> Subscriptions::Topics() const {
    const std::lock_guard<std::mutex> guard(lock_);
    std::set<std::string> topics;
    for (const auto& [number, entry] : entries_) {
        topics.insert(entry->topic);
    }
    return topics;
}

} // namespace quarn::msgbus
