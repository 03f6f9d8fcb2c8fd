#pragma once

#include <boost/signals2/connection.hpp>
#include <memory>
#include <mutex>

#include "calvane/recording/RecordingManager.h"
#include "drenn/multi_track_recorder/MultiTrackRecorder.h"

namespace quarn::calvane {

/// Hands the store's changes of state to the manager, as long as that is there.
///
/// Threads: the store's own thread raises the signal; disconnect waits for a change that is being handed on.
class RecordingManager::StoreWatch : public std::enable_shared_from_this<RecordingManager::StoreWatch> {
public:
    explicit StoreWatch(RecordingManager& manager) : _manager(&manager) {}

    void connect(drenn::multi_track_recorder::MultiTrackRecorder& recorder) {
        _connection = recorder.connectToStateSignal(
            [self = shared_from_this()](drenn::multi_track_recorder::StoreState state) {
                const std::lock_guard<std::mutex> lock(self->_mutex);
                if (self->_manager != nullptr) {
                    self->_manager->onStoreState(state);
                }
            });
    }
    void disconnect() {
        _connection.disconnect();
        const std::lock_guard<std::mutex> lock(_mutex);
        _manager = nullptr;
    }

private:
    boost::signals2::connection _connection;
    std::mutex _mutex; // Taken before all of the manager's.
    RecordingManager* _manager;
};

} // namespace quarn::calvane
