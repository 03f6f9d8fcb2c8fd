#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "quarn/msgbus/BusLink.h"

namespace calvane_uplink {

/// How far the copy is.
struct Status {
    std::string state = "connecting"; ///< connecting, sending, or waiting for the recorder.
    std::string problem;
    std::string server;
    std::int64_t lag =
        0; ///< Microseconds by which the newest copied record is behind the newest on the card.
    std::uint64_t lagBytes = 0; ///< What that is, as fast as data is sent now.
    std::int64_t backlog = 0;   ///< Microseconds of recorded time in front of that which are not copied.
    std::uint64_t bytesPerSecond = 0;
    std::uint64_t messages = 0;
    std::uint64_t bytes = 0;
    std::uint64_t resends = 0;
    std::uint64_t gaps = 0;
};

/// The same for Prometheus.
std::string ToMetrics(const Status& status, const std::string& device);

/// The service "recording_uplink" on the device's bus: docs/reference/bus-interfaces.md describes it. Without a bus, or where
/// the name cannot be owned, it goes on trying and nothing else waits for it.
///
/// Threads: Update from one; calls are answered on the service's own.
class StatusService : private quarn::msgbus::IBusLinkClient {
public:
    StatusService();
    ~StatusService() override;
    StatusService(const StatusService&) = delete;
    StatusService& operator=(const StatusService&) = delete;

    void Update(const Status& status);

private:
    class Object;

    void OnConnected(sdbus::IConnection& connection) override;
    void OnLost() override;
    Status Get() const;

    mutable std::mutex lock_;
    Status status_; // Guarded by lock_.

    std::unique_ptr<Object> object_; // The link's thread's own.
    quarn::msgbus::BusLink link_;
};

} // namespace calvane_uplink
