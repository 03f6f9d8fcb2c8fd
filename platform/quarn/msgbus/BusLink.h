#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "quarn/Export.h"
#include "quarn/osa/Runnable.h"
#include "quarn/osa/Thread.h"

namespace sdbus {
class IConnection;
}

namespace quarn::core {
class Logger;
}

namespace quarn::msgbus {

/// What a BusLink keeps up a connection for. Called on the link's thread, except for the first OnConnected.
class IBusLinkClient {
public:
    virtual ~IBusLinkClient() = default;
    /// A connection is there: time to own names, to add objects and matches. What is thrown ends it again.
    virtual void OnConnected(sdbus::IConnection& connection) = 0;
    /// The connection is about to go; everything made on it is to be given up. It may follow an OnConnected that
    /// threw.
    virtual void OnLost() = 0;
};

/// A connection to the device's bus that one thread keeps up and does everything on: it answers calls, sends what
/// was posted, and connects again with growing pauses when the bus is lost.
///
/// Which bus: the one that the environment variable DRENN_BUS selects ("session", "system", or an address as D-Bus writes
/// them); without it the session bus if DBUS_SESSION_BUS_ADDRESS is set, else the system bus.
///
/// Threads:  Post from any, under any lock; the rest from the owner's.
/// Lifetime: Connect or ConnectInBackground once, then Stop, which the destructor calls, too.
class QUARN_API BusLink : public osa::Runnable {
public:
    using Work = std::function<void(sdbus::IConnection&)>;

    static constexpr std::size_t kMostPosted = 256;

    /// Opens the bus that the environment says, for a client that works by itself. Throws osa::Exception that names
    /// the bus and the reason.
    static std::unique_ptr<sdbus::IConnection> OpenBus();

    /// Logs under `name`. `client` must live until Stop has returned.
    BusLink(const std::string& name, IBusLinkClient& client);
    ~BusLink() override;
    BusLink(const BusLink&) = delete;
    BusLink& operator=(const BusLink&) = delete;

    /// Throws osa::Exception that names the bus and the reason when there is none, or what the client throws.
    void Connect();
    /// Returns at once. While there is no bus, the first reason is logged as a warning that ends in
    /// `consequence`.
    void ConnectInBackground(const std::string& consequence);
    /// Waits for the work or the call that is being done, then closes the connection. Not from the link's thread.
    void Stop() override;

    /// Has `work` done on the link's thread. False when there is no connection or when kMostPosted are waiting;
    /// it is dropped then. It never waits for the bus.
    bool Post(Work work);
    /// How much was posted and not done.
    unsigned long long GetDropped() const { return dropped_; }

private:
    void Run() override;
    void Open();
    void Close();
    void TryOpen();
    void Serve();
    void DoPosted();
    void Wait(int descriptor, short events, int milliseconds) const;
    void StartThread();

    core::Logger* const logger_;
    const std::string name_;
    IBusLinkClient& client_;
    std::string consequence_;
    int wake_; // An eventfd.
    std::atomic<bool> stopping_{false};
    std::atomic<unsigned long long> dropped_{0};
    std::unique_ptr<osa::Thread> thread_;

    // The thread's own, once it runs.
    std::unique_ptr<sdbus::IConnection> connection_;
    std::chrono::milliseconds pause_;
    bool failureLogged_ = false;

    std::mutex lock_;
    // Guarded by lock_.
    std::deque<Work> posted_;
    bool connected_ = false;
};

} // namespace quarn::msgbus
