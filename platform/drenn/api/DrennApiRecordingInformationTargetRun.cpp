#include "drenn/api/DrennApiRecordingInformationTargetRun.h"

#include <utility>

#include "drenn/api/internal/InformationAdaptor.h"
#include "drenn/api/internal/ServiceRunner.h"

namespace drenn::api {

DrennApiRecordingInformationTargetRun::DrennApiRecordingInformationTargetRun(
    const std::string& serviceName, void* logCookie,
    std::shared_ptr<DrennApiRecordingInformationTargetImplBase> implementation)
    : logCookie_(logCookie), implementation_(std::move(implementation)) {
    InformationEvents& events = *implementation_->events_;
    runner_ = std::make_unique<ServiceRunner>(
        serviceName, [this, &events](sdbus::IConnection& connection, const std::string& path) {
            auto adaptor = std::make_unique<InformationAdaptor>(connection, path, *implementation_);
            events.SetAdaptor(adaptor.get());
            return std::shared_ptr<void>(adaptor.release(), [&events](void* object) {
                events.SetAdaptor(nullptr);
                delete static_cast<InformationAdaptor*>(object);
            });
        });
    events.Attach(runner_.get());
    drenn_core_log(logCookie_, DRENN_CORE_LOG_DEBUG, "Service %s runs", serviceName.c_str());
}

DrennApiRecordingInformationTargetRun::~DrennApiRecordingInformationTargetRun() {
    implementation_->events_->Attach(nullptr);
    const unsigned long long dropped = runner_->GetDropped();
    if (dropped != 0) {
        drenn_core_log(logCookie_, DRENN_CORE_LOG_NOTICE, "%llu events were not sent", dropped);
    }
}

unsigned long long DrennApiRecordingInformationTargetRun::getDroppedEvents() const {
    return runner_->GetDropped();
}

} // namespace drenn::api
