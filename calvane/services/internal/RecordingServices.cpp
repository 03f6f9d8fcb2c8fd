#include "calvane/services/internal/RecordingServices.h"

#include "calvane/services/RecordingDataAccessImpl.h"
#include "calvane/services/RecordingInformationImpl.h"
#include "drenn/api/DrennApiRecordingDataAccessTargetRun.h"
#include "drenn/api/DrennApiRecordingInformationTargetRun.h"

namespace quarn::calvane {

RecordingServices::RecordingServices() = default;
RecordingServices::~RecordingServices() = default;

void RecordingServices::start(void* logCookie) {
    const auto information = std::make_shared<RecordingInformationImpl>(logCookie);
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _information = information;
    }
    _informationRun = std::make_unique<drenn::api::DrennApiRecordingInformationTargetRun>(
        "recording_information", logCookie, information);
    _dataAccessRun = std::make_unique<drenn::api::DrennApiRecordingDataAccessTargetRun>(
        "recording_data_access", logCookie, std::make_shared<RecordingDataAccessImpl>(logCookie));
}

void RecordingServices::stop() {
    _informationRun = nullptr;
    {
        // Those that are just sending an event hold it, too.
        const std::lock_guard<std::mutex> lock(_mutex);
        _information = nullptr;
    }
    _dataAccessRun = nullptr;
}

std::shared_ptr<RecordingInformationImpl> RecordingServices::information() const {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _information;
}

void RecordingServices::onDataPresent(track_type type, bool present) {
    if (const auto service = information()) {
        service->sendEventDataPresent(static_cast<unsigned int>(type), present ? 1 : 0);
    }
}

void RecordingServices::onDataDeleted(track_type type, const boost::posix_time::ptime& first,
                                      const boost::posix_time::ptime& last) {
    const auto service = information();
    if (service == nullptr) {
        return; // The recorder is ending, and nobody listens any more.
    }
    unsigned int firstSec = 0;
    unsigned int firstUsec = 0;
    unsigned int lastSec = 0;
    unsigned int lastUsec = 0;
    RecordingInformationImpl::updateRange(first, last, firstSec, firstUsec, lastSec, lastUsec);
    service->sendEventDataDeleted(static_cast<unsigned int>(type), firstSec, firstUsec, lastSec, lastUsec);
}

} // namespace quarn::calvane
