#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "quarn/Export.h"

namespace quarn::msgbus {

/// What is published under a topic.
struct QUARN_API Message {
    std::string topic;
    std::string content; ///< The text, or the bytes.
    bool isText = true;
};

/// Messages by topic between the parts of a process, and between processes over the device's bus (D-Bus signals
/// "Message" of the interface "com.quarn.MsgBus1").
///
/// Which bus: see docs/reference/bus-interfaces.md. It is connected to by the first operation. While there is none,
/// messages stay within the process, which is said once; the bus is looked for again with growing pauses.
///
/// Threads:  any. A callback runs on the thread that publishes, when that is in this process, else on the bus's
///           own thread; so one callback may run on several threads at once.
/// Whoever may send signals on a bus can send messages. On the system bus the installed policy
/// (com.drenn.recorder.conf) allows it to the recorder's user only.
///
/// Errors:   osa::Exception that names the topic: empty, longer than 255 bytes, with an apostrophe, a backslash, a
///           comma or control characters; and for a content of more than 1 MiB. What a callback throws is logged.
/// Lifetime: on destruction all subscriptions end.
class QUARN_API MsgBus {
public:
    using Callback = std::function<void(const Message& message)>;

    static constexpr std::size_t kMaxContentBytes = std::size_t{1024} * 1024;

    MsgBus();
    ~MsgBus();
    MsgBus(const MsgBus&) = delete;
    MsgBus& operator=(const MsgBus&) = delete;

    /// Calls the subscribers of this process and hands the message to the bus, without waiting for it. A message
    /// that other processes will not get because the bus is too slow is counted.
    void PublishText(const std::string& topic, const std::string& text);
    void PublishBytes(const std::string& topic, const void* data, std::size_t size);

    /// Calls `callback` for every message of the topic: from now on for those of this process, and from a moment
    /// later for those of others. Returns a number to unsubscribe with.
    int Subscribe(const std::string& topic, Callback callback);
    /// On return the callback is not running any more, except where it is the caller, or waits for the caller's end: two
    /// callbacks may unsubscribe each other. A callback may unsubscribe itself, subscribe and publish.
    void Unsubscribe(int subscription);

    /// Whether messages reach other processes at the moment.
    bool IsConnected() const;
    /// How many messages did not go to the bus.
    unsigned long long GetDropped() const;

private:
    class Impl;
    const std::unique_ptr<Impl> impl_;
};

} // namespace quarn::msgbus
