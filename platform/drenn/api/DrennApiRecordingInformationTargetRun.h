#pragma once

#include <memory>
#include <string>

#include "drenn/Export.h"
#include "drenn/api/DrennApiRecordingInformationTargetImplBase.h"

namespace drenn::api {

class ServiceRunner;

/// Runs the service "recording_information" on the device's bus, on a thread of its own.
///
/// Errors:   the constructor throws std::runtime_error when there is no bus or the name cannot be owned. A bus
///           lost later is logged; the runner connects again, with growing pauses, and owns the name again. The
///           events of the meantime are dropped and counted.
/// Lifetime: destruction waits for the call that is being answered, then ends the thread and gives the name up.
class DRENN_API DrennApiRecordingInformationTargetRun {
public:
    /// The service's bus name is "com.drenn." and `serviceName`. `logCookie` may be null and must live as long
    /// as this object.
    DrennApiRecordingInformationTargetRun(
        const std::string& serviceName, void* logCookie,
        std::shared_ptr<DrennApiRecordingInformationTargetImplBase> implementation);
    ~DrennApiRecordingInformationTargetRun();
    DrennApiRecordingInformationTargetRun(const DrennApiRecordingInformationTargetRun&) = delete;
    DrennApiRecordingInformationTargetRun& operator=(const DrennApiRecordingInformationTargetRun&) = delete;

    /// How many events were not sent, because the bus was away or the queue was full.
    unsigned long long getDroppedEvents() const;

private:
    void* const logCookie_;
    const std::shared_ptr<DrennApiRecordingInformationTargetImplBase> implementation_;
    std::unique_ptr<ServiceRunner> runner_;
};

} // namespace drenn::api
