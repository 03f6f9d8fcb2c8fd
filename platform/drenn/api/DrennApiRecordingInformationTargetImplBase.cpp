#include "drenn/api/DrennApiRecordingInformationTargetImplBase.h"

#include "drenn/api/internal/InformationAdaptor.h"

namespace drenn::api {

DrennApiRecordingInformationTargetImplBase::DrennApiRecordingInformationTargetImplBase(void* logCookie)
    : ServiceTarget(logCookie), events_(std::make_unique<InformationEvents>()) {}

DrennApiRecordingInformationTargetImplBase::~DrennApiRecordingInformationTargetImplBase() = default;

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
