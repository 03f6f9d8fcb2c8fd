#include <poll.h>
#include <sdbus-c++/sdbus-c++.h>
#include <sys/eventfd.h>
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
constexpr std::chrono::seconds kCallTimeout{5};   // For what is asked of the bus itself.
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

/// What opening the bus ends with: 0, or a negative errno.
int TryAddress(const std::string& address) {
    sd_bus* bus = nullptr;
    int result = sd_bus_new(&bus);
    if (result >= 0) {
        result = sd_bus_set_address(bus, address.c_str());
    }
    if (result >= 0) {
        result = sd_bus_start(bus);
    }
    sd_bus_close_unref(bus);
    return result;
}

/// Throws when the bus cannot be opened. sdbus-c++ 1.2 would lose the memory of each attempt that fails, and there may
/// be many.
void Probe(const std::string& name) {
    sd_bus* bus = nullptr;
    int result = 0;
    if (name == "session") {
        result = sd_bus_open_user(&bus);
    } else if (name == "system") {
        result = sd_bus_open_system(&bus);
    } else {
        result = TryAddress(name);
    }
    sd_bus_close_unref(bus);
    if (result < 0) {
        throw osa::Exception("Cannot use the bus (" + name + "): " + std::strerror(-result));
    }
}

} // namespace

std::unique_ptr<sdbus::IConnection> BusLink::OpenBus() {
    const std::string bus = BusName();
    Probe(bus);
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
        thread_->Join();
        thread_ = nullptr;
    }
    Close();
}

bool BusLink::Post(Work work) {
    const std::lock_guard<std::mutex> guard(lock_);
    if (!connected_ || posted_.size() >= kMostPosted) {
        ++dropped_;
        return false;
    }
    posted_.push_back(std::move(work));
    eventfd_write(wake_, 1);
    return true;
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
    connection_ = OpenBus();
    try {
        connection_->setMethodCallTimeout(kCallTimeout);
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

void BusLink::DoPosted() {
    for (;;) {
        Work work;
        {
            const std::lock_guard<std::mutex> guard(lock_);
            if (posted_.empty()) {
                return;
            }
            work = std::move(posted_.front());
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
    eventfd_t count = 0;
    eventfd_read(wake_, &count);
}

} // namespace quarn::msgbus
