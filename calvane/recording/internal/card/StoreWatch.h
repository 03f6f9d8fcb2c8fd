#pragma once

#include <boost/signals2/connection.hpp>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

#include "drenn/multi_track_recorder/MultiTrackRecorder.h"

namespace quarn::calvane {

/// Hands the store's changes of state on, until it is disconnected.
///
/// Threads: the store's own thread calls the handler; disconnect waits for a change that is being handed on.
class StoreWatch : public std::enable_shared_from_this<StoreWatch> {
public:
    using Handler = std::function<void(drenn::multi_track_recorder::StoreState state)>;

    explicit StoreWatch(Handler handler) : _handler(std::move(handler)) {}

    void connect(drenn::multi_track_recorder::MultiTrackRecorder& recorder) {
        _connection = recorder.connectToStateSignal(
            [self = shared_from_this()](drenn::multi_track_recorder::StoreState state) {
                const std::lock_guard<std::mutex> lock(self->_mutex);
                if (self->_handler) {
                    self->_handler(state);
                }
            });
    }
    void disconnect() {
        _connection.disconnect();
        const std::lock_guard<std::mutex> lock(_mutex);
        _handler = nullptr;
    }

private:
    boost::signals2::connection _connection;
    std::mutex _mutex; // Held while the handler runs. Taken before the history's lock and those of tracks.
    Handler _handler;
};

} // namespace quarn::calvane
