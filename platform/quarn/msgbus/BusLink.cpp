#include <poll.h>
#include <sdbus-c++/sdbus-c++.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "quarn/core/Logger.h"
#include "quarn/msgbus/BusLink.h"
#include "quarn/osa/Exception.h"

namespace quarn::msgbus {
namespace {

constexpr std::chrono::milliseconds kFirstPause{100};
constexpr std::chrono::milliseconds kLongestPause{10'000};
constexpr unsigned int kStackBytes = 1024 * 1024; // Whatever services do with a call runs on it.

const char* Variable(const char* name) {
    const char* const value = std::getenv(name);
    return value == nullptr ? "" : value;
}

std::string BusName() {
    std::string bus = Variable("DRENN_BUS");
    if (!bus.empty()) {
        return bus;
    }
    return *Variable("DBUS_SESSION_BUS_ADDRESS") != '\0' ? "session" : "system";
}

int OpenAddress(const std::string& address, sd_bus** bus) {
    int result = sd_bus_new(bus);
    if (result >= 0) {
        result = sd_bus_set_address(*bus, address.c_str());
    }
    if (result >= 0) {
        result = sd_bus_set_bus_client(*bus, 1); // Such as says hello.
    }
    return result >= 0 ? sd_bus_start(*bus) : result;
}

/// Until the bus has answered the hello. 0, or a negative errno.
int AwaitAnswer(sd_bus* bus, const std::atomic<bool>* stopping) {
    constexpr std::uint64_t kSlice = 50'000; // Microseconds.
    const auto end = std::chrono::steady_clock::now() + BusLink::kAnswerTimeout;
    while (sd_bus_is_ready(bus) <= 0) {
        const int result = sd_bus_process(bus, nullptr);
        if (result < 0) {
            return result;
        }
        if (std::chrono::steady_clock::now() > end || (stopping != nullptr && *stopping)) {
            return -ETIMEDOUT;
        }
        if (result == 0) {
            sd_bus_wait(bus, kSlice);
        }
    }
    return 0;
}

/// Throws when the bus cannot be opened. sdbus-c++ 1.2 would lose the memory of each attempt that fails, and there may
/// be many; and it would wait for minutes for a bus that does not answer.
void Probe(const std::string& name, const std::atomic<bool>* stopping) {
    sd_bus* bus = nullptr;
    int result = 0;
    if (name == "session") {
        result = sd_bus_open_user(&bus);
    } else if (name == "system") {
        result = sd_bus_open_system(&bus);
    } else {
        result = OpenAddress(name, &bus);
    }
    if (result >= 0) {
        result = AwaitAnswer(bus, stopping);
    }
    sd_bus_close_unref(bus);
    if (result < 0) {
        throw osa::Exception("Cannot use the bus (" + name + "): " + std::strerror(-result));
    }
}

} // namespace

std::unique_ptr<sdbus::IConnection> BusLink::OpenBus() {
    return OpenUnless(nullptr);
}

std::unique_ptr<sdbus::IConnection> BusLink::OpenUnless(const std::atomic<bool>* stopping) {
    const std::string bus = BusName();
    Probe(bus, stopping);
    try {
        if (bus == "session") {
            return sdbus::createSessionBusConnection();
        }
        return bus == "system" ? sdbus::createSystemBusConnection()
                               : sdbus::createSessionBusConnectionWithAddress(bus);
    } catch (const sdbus::Error& problem) {
        throw osa::Exception("Cannot use the bus (" + bus + "): " + problem.getMessage());
    }
}

BusLink::BusLink(const std::string& name, IBusLinkClient& client)
    : logger_(core::Logger::GetLogger(name)),
      name_(name),
      client_(client),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      pause_(kFirstPause) {
    if (wake_ < 0) {
        throw osa::Exception("Cannot make an event descriptor: %s", std::strerror(errno));
    }
}

BusLink::~BusLink() {
    BusLink::Stop();
    close(wake_);
}

void BusLink::Connect() {
    Open();
    StartThread();
}

void BusLink::ConnectInBackground(const std::string& consequence) {
    consequence_ = "; " + consequence;
    StartThread();
}

void BusLink::StartThread() {
    thread_ = std::make_unique<osa::Thread>(name_.c_str(), this, kStackBytes, 0);
    thread_->Run();
}

void BusLink::Stop() {
    stopping_ = true;
    eventfd_write(wake_, 1);
    if (thread_ != nullptr) {
        {
            std::unique_lock<std::mutex> guard(lock_);
            // It may be waiting for an answer of the bus: that it does not get any more.
            if (!left_.wait_for(guard, kFarewell * 2, [this] { return threadLeft_; }) && descriptor_ >= 0) {
                shutdown(descriptor_, SHUT_RDWR);
            }
        }
        thread_->Join();
        thread_ = nullptr;
    }
    Close();
}

bool BusLink::Post(Work work, std::size_t bytes) {
    const std::lock_guard<std::mutex> guard(lock_);
    if (!connected_ || posted_.size() >= kMostPosted || postedBytes_ + bytes > kMostPostedBytes) {
        ++dropped_;
        return false;
    }
    posted_.push_back({std::move(work), bytes});
    postedBytes_ += bytes;
    eventfd_write(wake_, 1);
    return true;
}

bool BusLink::Post(Work work) {
    return Post(std::move(work), 0);
}

void BusLink::PostFirst(Work work) {
    const std::lock_guard<std::mutex> guard(lock_);
    if (connected_) {
        posted_.push_front({std::move(work), 0});
        eventfd_write(wake_, 1);
    }
}

void BusLink::Run() {
    while (!stopping_) {
        if (connection_ == nullptr) {
            TryOpen();
            continue;
        }
        try {
            Serve();
        } catch (const std::exception& problem) {
            logger_->Warning("The bus was lost (%s); connecting again", problem.what());
            Close();
        }
    }
    Leave();
}

/// Sends what was posted if the bus takes it, and leaves nothing behind that closing the connection would wait for.
void BusLink::Leave() {
    try {
        const auto end = std::chrono::steady_clock::now() + kFarewell;
        while (connection_ != nullptr && std::chrono::steady_clock::now() < end) {
            DoPosted();
            if (!IsBusBehind()) {
                break;
            }
            if (!connection_->processPendingRequest()) {
                pollfd wait{connection_->getEventLoopPollData().fd, POLLOUT, 0};
                poll(&wait, 1, static_cast<int>(kFarewell.count()));
            }
        }
    } catch (const std::exception& problem) {
        logger_->Debug("The last messages were not sent: %s", problem.what());
    }
    const bool isBehind = connection_ != nullptr && IsBusBehind();
    const std::lock_guard<std::mutex> guard(lock_);
    if (isBehind) {
        shutdown(descriptor_, SHUT_RDWR);
    }
    threadLeft_ = true;
    left_.notify_all();
}

/// Whether it has not taken all that was sent.
bool BusLink::IsBusBehind() const {
    return (connection_->getEventLoopPollData().events & POLLOUT) != 0;
}

void BusLink::TryOpen() {
    try {
        Open();
        if (failureLogged_) {
            logger_->Information("Connected to the bus");
        }
        failureLogged_ = false;
        pause_ = kFirstPause;
    } catch (const std::exception& problem) {
        logger_->Log(failureLogged_ ? core::LogLevel::Debug : core::LogLevel::Warning, "%s%s", problem.what(),
                     consequence_.c_str());
        failureLogged_ = true;
        Wait(-1, 0, static_cast<int>(pause_.count()));
        pause_ = std::min(pause_ * 2, kLongestPause);
    }
}

void BusLink::Open() {
    connection_ = OpenUnless(&stopping_);
    const int descriptor = connection_->getEventLoopPollData().fd; // Has a lock of its own.
    {
        const std::lock_guard<std::mutex> guard(lock_);
        descriptor_ = descriptor;
    }
    try {
        connection_->setMethodCallTimeout(kAnswerTimeout);
        client_.OnConnected(*connection_);
    } catch (const sdbus::Error& problem) {
        Close();
        throw osa::Exception("Cannot use the bus (" + BusName() + "): " + problem.getMessage());
    } catch (...) {
        Close();
        throw;
    }
    const std::lock_guard<std::mutex> guard(lock_);
    connected_ = true;
}

void BusLink::Close() {
    {
        const std::lock_guard<std::mutex> guard(lock_);
        connected_ = false;
        dropped_ += posted_.size();
        posted_.clear();
        postedBytes_ = 0;
        descriptor_ = -1;
    }
    if (connection_ != nullptr) {
        client_.OnLost();
        connection_ = nullptr;
    }
}

void BusLink::Serve() {
    while (!stopping_) {
        DoPosted();
        if (!connection_->processPendingRequest()) {
            const auto data = connection_->getEventLoopPollData();
            Wait(data.fd, data.events, data.getPollTimeout());
        }
    }
}

/// As long as the bus keeps up: its library would queue without bounds.
void BusLink::DoPosted() {
    while (!IsBusBehind()) {
        Work work;
        {
            const std::lock_guard<std::mutex> guard(lock_);
            if (posted_.empty()) {
                return;
            }
            work = std::move(posted_.front().work);
            postedBytes_ -= posted_.front().bytes;
            posted_.pop_front();
        }
        try {
            work(*connection_);
        } catch (...) {
            ++dropped_;
            throw;
        }
    }
}

/// Until there is something to do, or for so long; -1 is for ever.
void BusLink::Wait(int descriptor, short events, int milliseconds) const {
    std::array<pollfd, 2> waits{{{wake_, POLLIN, 0}, {descriptor, events, 0}}};
    poll(waits.data(), waits.size(), milliseconds);
    if (waits[0].revents != 0) {
        eventfd_t count = 0;
        eventfd_read(wake_, &count);
    }
}

} // namespace quarn::msgbus
