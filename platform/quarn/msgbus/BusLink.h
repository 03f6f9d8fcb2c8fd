#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
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
/// Errors:   a bus that accepts connections and does not answer within kAnswerTimeout counts as none.
/// Lifetime: Connect or ConnectInBackground once, then Stop, which the destructor calls, too.
class QUARN_API BusLink : public osa::Runnable {
public:
    using Work = std::function<void(sdbus::IConnection&)>;

    static constexpr std::size_t kMostPosted = 256;
    static constexpr std::size_t kMostPostedBytes = std::size_t{8} * 1024 * 1024;
    static constexpr std::chrono::seconds kAnswerTimeout{5};
    /// What Stop gives the bus to take what was posted.
    static constexpr std::chrono::milliseconds kFarewell{500};

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
    /// Waits for the work or the call that is being done, but not for the bus, then closes the connection. Not from the
    /// link's thread.
    void Stop() override;

    /// Has `work`, which sends about so many bytes, done on the link's thread. False when there is no connection or when
    /// kMostPosted or kMostPostedBytes are waiting; it is dropped then. It never waits for the bus, and no more than one
    /// message is handed to a bus that does not take it.
    bool Post(Work work, std::size_t bytes);
    bool Post(Work work);
    /// Has it done before all that was posted, and in any case as long as there is a connection.
    void PostFirst(Work work);
    /// How much was posted and not done.
    unsigned long long GetDropped() const { return dropped_; }

private:
    struct Posted {
        Work work;
        std::size_t bytes;
    };

    void Run() override;
    static std::unique_ptr<sdbus::IConnection> OpenUnless(const std::atomic<bool>* stopping);
    void Open();
    void Close();
    void TryOpen();
    void Serve();
    void DoPosted();
    void Leave();
    bool IsBusBehind() const;
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
    std::condition_variable left_;
    // Guarded by lock_.
    std::deque<Posted> posted_;
    std::size_t postedBytes_ = 0;
    bool connected_ = false;
    bool threadLeft_ = false;
    int descriptor_ = -1; // Of the connection.
};

} // namespace quarn::msgbus
