#include "drenn/api/DrennApiRecordingInformationTargetImplBase.h"

#include <cstdarg>

#include "drenn/api/InformationAdaptorImpl.h"

namespace drenn::api {

DrennApiRecordingInformationTargetImplBase::DrennApiRecordingInformationTargetImplBase(void* logCookie)
    : logCookie_(logCookie), events_(std::make_unique<InformationEvents>()) {}

DrennApiRecordingInformationTargetImplBase::~DrennApiRecordingInformationTargetImplBase() = default;

void DrennApiRecordingInformationTargetImplBase::log(drenn_core_log_priority priority, const char* format,
                                                     ...) const {
    if (drenn_core_log_enabled(logCookie_, priority) == 0) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    drenn_core_vlog(logCookie_, priority, format, arguments);
    va_end(arguments);
}

void DrennApiRecordingInformationTargetImplBase::sendEventDataPresent(unsigned int trackType,
                                                                      unsigned char present) {
    events_->Send([=](InformationAdaptor& adaptor) { adaptor.emitDataPresent(trackType, present); });
}

void DrennApiRecordingInformationTargetImplBase::sendEventDataDeleted(unsigned int trackType,
                                                                      unsigned int startSec,
                                                                      unsigned int startUsec,
                                                                      unsigned int endSec,
                                                                      unsigned int endUsec) {
    events_->Send([=](InformationAdaptor& adaptor) {
        adaptor.emitDataDeleted(trackType, startSec, startUsec, endSec, endUsec);
    });
}

} // namespace drenn::api
