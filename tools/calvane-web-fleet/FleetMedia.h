#pragma once

#include "FleetConnections.h"
#include "api/MediaSources.h"

namespace calvane_web {

/// The stream of the device that the parameter "device" names, as a source of media.
///
/// Errors: also NatsError, from what is open.
class FleetMedia : public IMediaSources {
public:
    explicit FleetMedia(const calvane_fleet::NatsOptions& options);

    MediaChoice Choose(Query& query, const std::string& client, std::function<bool()> isStopped) override;
    std::uint64_t Failures() const { return connections_.Failures(); }

private:
    FleetConnections connections_;
};

/// Throws std::invalid_argument that names the parameter unless the text can be a device's name: part of subjects.
void RequireDeviceName(const std::string& parameter, const std::string& text);

} // namespace calvane_web
