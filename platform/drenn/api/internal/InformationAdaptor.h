#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <functional>
#include <mutex>
#include <string>
#include <tuple>

#include "drenn/api/DrennApiRecordingInformationTargetImplBase.h"
#include "drenn/api/generated/RecordingInformation1Adaptor.h"
#include "drenn/api/internal/ServiceRunner.h"

namespace drenn::api {

/// The object of "recording_information" on the bus: hands calls on to the implementation.
///
/// Threads: its runner's thread only.
class InformationAdaptor : public sdbus::AdaptorInterfaces<com::drenn::RecordingInformation1_adaptor> {
public:
    InformationAdaptor(sdbus::IConnection& connection, const std::string& path,
                       DrennApiRecordingInformationTargetImplBase& implementation);
    virtual ~InformationAdaptor();

private:
    using U = std::uint32_t;
    using Y = std::uint8_t;

    std::tuple<U, U, U, U> getRecordingSummary() override;
    std::tuple<U, U, U, U> getTrackSummary(const U& trackType) override;
    std::tuple<Y, Y, Y, Y> getRecordingState(const U& sec, const U& usec) override;
    std::tuple<U, U, double, U, U, U, U> getAudioAttributes(const U& sec, const U& usec) override;
    std::tuple<U, U, U, U, double, U, U, U, U> getVideoAttributes(const U& sec, const U& usec) override;

    DrennApiRecordingInformationTargetImplBase& implementation_;
};

/// Where the service's events go: to its runner, if there is one.
///
/// Threads: Send and Attach from any; SetAdaptor from the runner's.
class InformationEvents {
public:
    /// Null when the runner is about to end; on return no event is on its way to it any more.
    void Attach(ServiceRunner* runner);
    /// The object that is on the bus now, or null.
    void SetAdaptor(InformationAdaptor* adaptor) { adaptor_ = adaptor; }
    /// Has `send` done by the runner's thread.
    void Send(std::function<void(InformationAdaptor&)> send);

private:
    InformationAdaptor* adaptor_ = nullptr; // The runner's thread's own.
    std::mutex lock_;
    ServiceRunner* runner_ = nullptr; // Guarded by lock_.
};

} // namespace drenn::api
