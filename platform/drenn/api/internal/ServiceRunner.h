#pragma once

#include <functional>
#include <memory>
#include <string>

#include "quarn/msgbus/BusLink.h"

namespace drenn::api {

/// Runs one service: owns its name, keeps its object on the bus while there is one, and sends its events.
///
/// Threads:  Post from any, under any lock; the rest from the owner's.
/// Errors:   the constructor throws std::exception that names the bus or the name, and the reason.
/// Lifetime: destruction waits for the call that is being answered.
class ServiceRunner : private quarn::msgbus::IBusLinkClient {
public:
    /// Makes the object at `path`; called anew for every connection.
    using MakeObject =
        std::function<std::shared_ptr<void>(sdbus::IConnection& connection, const std::string& path)>;

    ServiceRunner(const std::string& serviceName, MakeObject makeObject);
    ~ServiceRunner() override;

    /// Has an event sent by the service's own thread while its object is there; otherwise it is dropped and counted.
    bool Post(std::function<void()> send);
    unsigned long long GetDropped() const { return link_.GetDropped(); }

private:
    void OnConnected(sdbus::IConnection& connection) override;
    void OnLost() override;

    const std::string serviceName_;
    const MakeObject makeObject_;
    std::shared_ptr<void> object_; // The link's thread's own.
    quarn::msgbus::BusLink link_;
};

/// Makes the error that a client gets from a status other than 0, and from what an operation throws.
/// `answer` returns the status.
void AnswerCall(const char* operation, const std::function<unsigned int()>& answer);

} // namespace drenn::api
