#include "drenn/api/DrennApiRecordingDataAccessTargetRun.h"

#include <utility>

#include "drenn/api/internal/DataAccessAdaptor.h"
#include "drenn/api/internal/ServiceRunner.h"

namespace drenn::api {

DrennApiRecordingDataAccessTargetRun::DrennApiRecordingDataAccessTargetRun(
    const std::string& serviceName, void* logCookie,
    std::shared_ptr<DrennApiRecordingDataAccessTargetImplBase> implementation)
    : implementation_(std::move(implementation)) {
    runner_ = std::make_unique<ServiceRunner>(
        serviceName, [this](sdbus::IConnection& connection, const std::string& path) {
            return std::make_shared<DataAccessAdaptor>(connection, path, *implementation_);
        });
    drenn_core_log(logCookie, DRENN_CORE_LOG_DEBUG, "Service %s runs", serviceName.c_str());
}

DrennApiRecordingDataAccessTargetRun::~DrennApiRecordingDataAccessTargetRun() = default;

} // namespace drenn::api
