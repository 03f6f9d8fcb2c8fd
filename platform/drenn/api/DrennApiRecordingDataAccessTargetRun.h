#pragma once

#include <memory>
#include <string>

#include "drenn/Export.h"
#include "drenn/api/DrennApiRecordingDataAccessTargetImplBase.h"

namespace drenn::api {

class ServiceRunner;

/// Runs the service "recording_data_access" on the device's bus, on a thread of its own; otherwise like
/// DrennApiRecordingInformationTargetRun.
class DRENN_API DrennApiRecordingDataAccessTargetRun {
public:
    DrennApiRecordingDataAccessTargetRun(
        const std::string& serviceName, void* logCookie,
        std::shared_ptr<DrennApiRecordingDataAccessTargetImplBase> implementation);
    ~DrennApiRecordingDataAccessTargetRun();
    DrennApiRecordingDataAccessTargetRun(const DrennApiRecordingDataAccessTargetRun&) = delete;
    DrennApiRecordingDataAccessTargetRun& operator=(const DrennApiRecordingDataAccessTargetRun&) = delete;

private:
    const std::shared_ptr<DrennApiRecordingDataAccessTargetImplBase> implementation_;
    std::unique_ptr<ServiceRunner> runner_;
};

} // namespace drenn::api
