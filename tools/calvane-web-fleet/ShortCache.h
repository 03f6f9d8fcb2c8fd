#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>

namespace calvane_web {

/// Answers that are expensive to ask for and are good for a while. What several ask for at the same time is asked for once.
///
/// What took long to ask for is kept longer, so that asking takes a twentieth of the time at most.
///
/// Threads: any.
/// Memory:  at most `most` bytes of values, as `weightOf` counts them; what was not used for longest goes first.
/// Errors:  what asking throws, for each who asks; nothing of it is kept.
template <class Value>
class ShortCache {
public:
    using Answer = std::shared_ptr<const Value>;

    ShortCache(std::chrono::milliseconds time, std::size_t most, std::size_t (*weightOf)(const Value&))
        : time_(time), most_(most), weightOf_(weightOf) {}

    Answer Get(const std::string& key, const std::function<Value()>& ask) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [&] { return busy_.count(key) == 0; });
        const auto found = entries_.find(key);
        if (found != entries_.end() && Clock::now() < found->second.until) {
            order_.splice(order_.begin(), order_, found->second.place);
            return found->second.value;
        }
        busy_.insert(key);
        lock.unlock();
        Answer answer;
        const auto begin = Clock::now();
        try {
            answer = std::make_shared<const Value>(ask());
        } catch (...) {
            lock.lock();
            busy_.erase(key);
            changed_.notify_all();
            throw;
        }
        lock.lock();
        busy_.erase(key);
        Keep(key, answer, Clock::now() - begin);
        changed_.notify_all();
        return answer;
    }

    std::size_t Weight() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return weight_;
    }

private:
    using Clock = std::chrono::steady_clock;
    struct Entry {
        Answer value;
        std::size_t weight = 0;
        Clock::time_point until;
        std::list<std::string>::iterator place;
    };
    static constexpr int kShareOfAsking = 20;
    static constexpr std::chrono::seconds kLongest{30};

    void Keep(const std::string& key, const Answer& answer, Clock::duration took) {
        Drop(key);
        const std::size_t weight = weightOf_(*answer) + sizeof(Entry) + 2 * key.size();
        if (weight > most_) {
            return;
        }
        while (weight_ + weight > most_) {
            Drop(std::string(order_.back()));
        }
        const auto time = std::min<Clock::duration>(std::max<Clock::duration>(time_, kShareOfAsking * took),
                                                    std::max<Clock::duration>(time_, kLongest));
        order_.push_front(key);
        entries_[key] = {answer, weight, Clock::now() + time, order_.begin()};
        weight_ += weight;
    }

    void Drop(const std::string& key) {
        if (const auto found = entries_.find(key); found != entries_.end()) {
            weight_ -= found->second.weight;
            order_.erase(found->second.place);
            entries_.erase(found);
        }
    }

    const std::chrono::milliseconds time_;
    const std::size_t most_;
    std::size_t (*const weightOf_)(const Value&);

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::set<std::string> busy_; ///< What is being asked for.
    std::map<std::string, Entry> entries_;
    std::list<std::string> order_; ///< Keys, the one that was used last in front.
    std::size_t weight_ = 0;
};

} // namespace calvane_web
