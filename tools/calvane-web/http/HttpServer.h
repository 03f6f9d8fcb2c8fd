#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "http/Connection.h"
#include "http/HttpEngine.h"
#include "http/Listener.h"

namespace calvane_web {

/// Takes connections and serves them with a bounded number of threads.
///
/// A connection takes no thread until a whole request has come: one thread receives for all of these, and closes those that
/// have sent half of one for ten seconds, or nothing for a minute. Connections beyond the limits are answered with 503 and
/// closed. Requests beyond the number of threads wait.
///
/// Threads:  Run from one; Stop from any.
/// Lifetime: Run returns after Stop, when every request has ended; those under way are cut off.
class HttpServer {
public:
    struct Limits {
        std::size_t connections = 256;
        std::size_t connectionsPerClient =
            32; ///< Not of the own machine, where proxies and all users are one client.
        std::size_t threads = 64;
        bool perClient = true;
    };

    /// All outlive it; `tls` may be null.
    HttpServer(const Listener& listener, const TlsContext* tls, HttpEngine& engine, const Limits& limits);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    void Run();
    void Stop();

    struct Counts {
        std::uint64_t connections = 0;
        std::uint64_t refused = 0;
        std::size_t open = 0;
        std::size_t threads = 0;
    };
    Counts GetCounts() const;

private:
    class Worker;
    struct Held {
        Held(int descriptor, const TlsContext* tls) : connection(descriptor, tls) {}
        Connection connection;
        std::string received;
        Connection::Clock::time_point deadline; ///< For a whole request.
    };
    using Connections = std::list<Held>;

    void Accept();
    bool Admit(const Connection& connection) const;
    void Watch();
    void Receive(Connections::iterator connection);
    void Dispatch(Connections::iterator connection);
    void Drop(Connections& from, Connections::iterator connection);
    void Work();
    void Wake() const;

    const Listener& listener_;
    const TlsContext* const tls_;
    HttpEngine& engine_;
    const Limits limits_;
    const int wake_;

    mutable std::mutex mutex_;
    std::condition_variable ready_;
    Connections idle_;
    Connections queued_;
    Connections served_;
    std::map<std::string, std::size_t> perClient_;
    std::vector<std::unique_ptr<Worker>> workers_;
    std::size_t waiting_ = 0; ///< Workers without work.
    bool stopped_ = false;
    Counts counts_;
};

} // namespace calvane_web
