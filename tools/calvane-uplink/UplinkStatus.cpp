#include "UplinkStatus.h"

#include <sdbus-c++/sdbus-c++.h>

#include <vector>

#include "uplink_control/generated/RecordingUplink1Adaptor.h"

namespace calvane_uplink {
namespace {

constexpr const char* kName = "com.drenn.recording_uplink";
constexpr const char* kPath = "/com/drenn/recording_uplink";
constexpr double kMicrosecondsOfSecond = 1e6;

} // namespace

/// On the bus while there is one.
class StatusService::Object
    : public sdbus::AdaptorInterfaces<com::drenn::RecordingUplink1_adaptor, sdbus::Properties_adaptor> {
public:
    Object(sdbus::IConnection& connection, StatusService& service)
        : AdaptorInterfaces(connection, kPath), service_(service) {
        registerAdaptor();
    }
    virtual ~Object() { unregisterAdaptor(); }

private:
    using T = std::uint64_t;

    std::string State() override { return service_.Get().state; }
    std::string Problem() override { return service_.Get().problem; }
    std::string Server() override { return service_.Get().server; }
    sdbus::Struct<T, T> Lag() override {
        const Status status = service_.Get();
        return sdbus::Struct<T, T>{static_cast<T>(status.lag), status.lagBytes};
    }
    T Backlog() override { return static_cast<T>(service_.Get().backlog); }
    T BytesPerSecond() override { return service_.Get().bytesPerSecond; }
    sdbus::Struct<T, T> Sent() override {
        const Status status = service_.Get();
        return sdbus::Struct<T, T>{status.messages, status.bytes};
    }
    T Resends() override { return service_.Get().resends; }
    T Gaps() override { return service_.Get().gaps; }

    StatusService& service_;
};

std::string ToMetrics(const Status& status, const std::string& device) {
    std::string text;
    const auto put = [&](const char* name, const char* type, const char* help, const std::string& value) {
        const std::string full = std::string("calvane_uplink_") + name;
        text += "# HELP " + full + " " + help + "\n# TYPE " + full + " " + type + "\n" + full + "{device=\"" +
                device + "\"} " + value + "\n";
    };
    put("connected", "gauge", "Whether it is sending.", status.state == "sending" ? "1" : "0");
    put("lag_seconds", "gauge", "By which the newest copied record is behind the card.",
        std::to_string(static_cast<double>(status.lag) / kMicrosecondsOfSecond));
    put("lag_bytes", "gauge", "What that is, as fast as data is sent now.", std::to_string(status.lagBytes));
    put("backlog_seconds", "gauge", "Recorded time in front of that which is not copied yet.",
        std::to_string(static_cast<double>(status.backlog) / kMicrosecondsOfSecond));
    put("bytes_per_second", "gauge", "Payload that the streams acknowledge.",
        std::to_string(status.bytesPerSecond));
    put("messages_total", "counter", "Messages that the streams have acknowledged.",
        std::to_string(status.messages));
    put("bytes_total", "counter", "Payload of those messages.", std::to_string(status.bytes));
    put("resends_total", "counter", "Messages sent and not acknowledged when a connection ended.",
        std::to_string(status.resends));
    put("gaps_total", "counter", "Gaps that were told.", std::to_string(status.gaps));
    return text;
}

StatusService::StatusService() : link_("recording_uplink", *this) {
    link_.ConnectInBackground("nobody sees on the bus how far the uplink is");
}

StatusService::~StatusService() {
    link_.Stop();
}

void StatusService::Update(const Status& status) {
    std::vector<std::string> changed;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (status.state != status_.state) {
            changed.emplace_back("State");
        }
        if (status.problem != status_.problem) {
            changed.emplace_back("Problem");
        }
        status_ = status;
    }
    if (!changed.empty()) {
        link_.Post([this, changed = std::move(changed)](sdbus::IConnection&) {
            if (object_ != nullptr) {
                object_->emitPropertiesChangedSignal("com.drenn.RecordingUplink1", changed);
            }
        });
    }
}

Status StatusService::Get() const {
    const std::lock_guard<std::mutex> guard(lock_);
    return status_;
}

void StatusService::OnConnected(sdbus::IConnection& connection) {
    object_ = std::make_unique<Object>(connection, *this); // First: whoever sees the name can call it.
    connection.requestName(kName);
}

void StatusService::OnLost() {
    object_ = nullptr;
}

} // namespace calvane_uplink
