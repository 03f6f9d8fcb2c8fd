#include "http/HttpServer.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>

#include "http/RequestHead.h"
#include "quarn/core/Logger.h"
#include "quarn/osa/Runnable.h"
#include "quarn/osa/Thread.h"

namespace calvane_web {
namespace {

constexpr auto kIdleTime = std::chrono::seconds(60);
/// From the first byte of a request to its last one.
constexpr auto kRequestTime = std::chrono::seconds(10);
constexpr int kWatchMilliseconds = 1000;
/// Decoders of media keep tables on it.
constexpr unsigned int kStackBytes = 1024 * 1024;

quarn::core::Logger& Log() {
    static quarn::core::Logger* const logger = quarn::core::Logger::GetLogger("calvane-web");
    return *logger;
}

bool IsLocal(const std::string& peer) {
    return Address{peer, 0}.IsLoopback();
}

} // namespace

class HttpServer::Worker : private quarn::osa::Runnable {
public:
    explicit Worker(HttpServer& server) : server_(server), thread_("request", this, kStackBytes, 0) {
        thread_.Run();
    }
    ~Worker() override { thread_.Join(); }

private:
    void Run() override { server_.Work(); }
    void Stop() override {}

    HttpServer& server_;
    quarn::osa::Thread thread_;
};

HttpServer::HttpServer(const Listener& listener, const TlsContext* tls, HttpEngine& engine,
                       const Limits& limits)
    : listener_(listener),
      tls_(tls),
      engine_(engine),
      limits_(limits),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (wake_ < 0) {
        throw std::runtime_error("Cannot make an event descriptor");
    }
}

HttpServer::~HttpServer() {
    close(wake_);
}

void HttpServer::Run() {
    for (;;) {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            if (stopped_) {
                break;
            }
        }
        Watch();
    }
    decltype(workers_) workers;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (const Held& each : served_) {
            each.connection.Abort();
        }
        workers.swap(workers_);
        ready_.notify_all();
    }
    workers.clear(); // Joins them.
}

void HttpServer::Stop() {
    const std::lock_guard<std::mutex> lock(mutex_);
    stopped_ = true;
    Wake();
}

void HttpServer::Wake() const {
    const std::uint64_t one = 1;
    if (write(wake_, &one, sizeof one) < 0) {
        // It is awake already.
    }
}

HttpServer::Counts HttpServer::GetCounts() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    Counts counts = counts_;
    counts.open = idle_.size() + queued_.size() + served_.size();
    counts.threads = workers_.size();
    return counts;
}

/// Waits for something to do, and does it.
void HttpServer::Watch() {
    std::vector<pollfd> looks{{listener_.Descriptor(), POLLIN, 0}, {wake_, POLLIN, 0}};
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (const Held& each : idle_) {
            looks.push_back({each.connection.Descriptor(), POLLIN, 0});
        }
    }
    if (poll(looks.data(), looks.size(), kWatchMilliseconds) < 0 && errno != EINTR) {
        throw std::runtime_error("Cannot wait for connections");
    }
    std::uint64_t count = 0;
    if (looks[1].revents != 0 && read(wake_, &count, sizeof count) < 0) {
        // Nothing to be taken.
    }
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        // Connections are only added meanwhile, at the end.
        auto look = looks.begin() + 2;
        const auto now = Connection::Clock::now();
        for (auto each = idle_.begin(); look != looks.end(); ++look) {
            const auto next = std::next(each);
            if (look->revents != 0) {
                Receive(each);
            } else if (now > each->deadline) {
                Drop(idle_, each);
            }
            each = next;
        }
    }
    if (looks[0].revents != 0) {
        Accept();
    }
}

/// Takes what has come on a connection that waits. With the lock.
void HttpServer::Receive(Connections::iterator connection) {
    try {
        std::array<char, 4096> bytes{};
        const bool isNew = connection->received.empty();
        while (const std::size_t count = connection->connection.Receive(bytes.data(), bytes.size())) {
            connection->received.append(bytes.data(), count);
            if (IsWhole(connection->received)) {
                return Dispatch(connection);
            }
        }
        if (isNew && !connection->received.empty()) {
            connection->deadline = Connection::Clock::now() + kRequestTime;
        }
    } catch (const Disconnected&) {
        Drop(idle_, connection);
    }
}

void HttpServer::Accept() {
    for (;;) {
        const int descriptor =
            accept4(listener_.Descriptor(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (descriptor < 0) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOMEM) {
                Log().Warning("Cannot take a connection: no more descriptors or memory");
                usleep(100'000); // It stays readable.
            }
            return;
        }
        Connections one;
        try {
            one.emplace_back(descriptor, tls_);
        } catch (const std::exception& problem) {
            Log().Warning("Cannot take a connection: %s", problem.what());
            close(descriptor);
            return;
        }
        const std::lock_guard<std::mutex> lock(mutex_);
        ++counts_.connections;
        const Connection& connection = one.front().connection;
        if (Admit(connection)) {
            ++perClient_[connection.Peer()];
            one.front().deadline = Connection::Clock::now() + kRequestTime;
            idle_.splice(idle_.end(), one);
        } else {
            ++counts_.refused;
            static constexpr char kFull[] =
                "HTTP/1.1 503 Full\r\nRetry-After: 5\r\nConnection: close\r\nContent-Type: "
                "application/json\r\n"
                "Content-Length: 37\r\n\r\n{\"error\":\"There are too many clients\"}";
            if (tls_ == nullptr) {
                send(descriptor, kFull, sizeof kFull - 1, MSG_NOSIGNAL | MSG_DONTWAIT);
            }
        }
    }
}

bool HttpServer::Admit(const Connection& connection) const {
    if (idle_.size() + queued_.size() + served_.size() >= limits_.connections) {
        return false;
    }
    const auto found = perClient_.find(connection.Peer());
    return !limits_.perClient || found == perClient_.end() || found->second < limits_.connectionsPerClient ||
           IsLocal(connection.Peer());
}

/// Hands a connection on which something has come to a worker. With the lock.
void HttpServer::Dispatch(Connections::iterator connection) {
    queued_.splice(queued_.end(), idle_, connection);
    if (waiting_ < queued_.size() && workers_.size() < limits_.threads) {
        workers_.push_back(std::make_unique<Worker>(*this));
    }
    ready_.notify_one();
}

void HttpServer::Work() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        ++waiting_;
        ready_.wait(lock, [this] { return stopped_ || !queued_.empty(); });
        --waiting_;
        if (stopped_) {
            return;
        }
        const auto connection = queued_.begin();
        served_.splice(served_.end(), queued_, connection);
        lock.unlock();
        const bool stays = engine_.Serve(connection->connection, connection->received);
        if (!stays) {
            connection->connection.Close();
        }
        lock.lock();
        if (stays) {
            const bool hasBegun = !connection->received.empty(); // The next request.
            connection->deadline = Connection::Clock::now() + (hasBegun ? kRequestTime : kIdleTime);
            idle_.splice(idle_.end(), served_, connection);
            Wake();
            // TLS may have decoded more than the last request, which poll does not show.
            if (tls_ != nullptr || !connection->received.empty()) {
                Receive(connection);
            }
        } else {
            Drop(served_, connection);
        }
    }
}

/// With the lock.
void HttpServer::Drop(Connections& from, Connections::iterator connection) {
    const auto found = perClient_.find(connection->connection.Peer());
    if (found != perClient_.end() && --found->second == 0) {
        perClient_.erase(found);
    }
    from.erase(connection);
}

} // namespace calvane_web
