#include "drenn/api/DrennApiRecordingDataAccessTargetImplBase.h"

namespace drenn::api {

DrennApiRecordingDataAccessTargetImplBase::DrennApiRecordingDataAccessTargetImplBase(void* logCookie)
    : ServiceTarget(logCookie) {}

DrennApiRecordingDataAccessTargetImplBase::~DrennApiRecordingDataAccessTargetImplBase() = default;

} // namespace drenn::api
