#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Forecast.h"
#include "calvane/recording/RecordingStatus.h"
#include "quarn/msgbus/BusLink.h"

namespace calvane_recorder {

/// The service "recording_control": how the recording is, and how long data is kept. docs/reference/bus-interfaces.md
/// describes it.
///
/// Threads:  Update from one; calls are answered on the service's own, from what the last Update saw.
/// Errors:   the constructor throws when there is no bus or the name cannot be owned.
/// Lifetime: from RecordingManager::init to deinit.
class RecordingControl : private quarn::msgbus::IBusLinkClient {
public:
    RecordingControl();
    ~RecordingControl() override;
    RecordingControl(const RecordingControl&) = delete;
    RecordingControl& operator=(const RecordingControl&) = delete;

    /// Looks at the recording and tells clients what has changed. To be called about once a second.
    void Update();

private:
    class Object;

    struct Facts {
        quarn::calvane::RecordingStatus recording;
        std::uint64_t limit = 0; ///< Microseconds.
        quarn::calvane::RecordingSpace maxSpace;
        TrackBytes bytesPerHour{};
        Forecast forecast;
    };

    void OnConnected(sdbus::IConnection& connection) override;
    void OnLost() override;
    Facts GetFacts() const;

    GrowthMeter growth_; // Update's own.

    mutable std::mutex lock_;
    Facts facts_; // Guarded by lock_.

    std::unique_ptr<Object> object_; // The link's thread's own.
    quarn::msgbus::BusLink link_;
};

} // namespace calvane_recorder
