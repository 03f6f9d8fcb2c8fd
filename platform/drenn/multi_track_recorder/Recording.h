#pragma once

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>
#include <list>
#include <memory>
#include <string>

#include "drenn/Export.h"
#include "drenn/multi_track_recorder/Track.h"

namespace drenn::multi_track_recorder {

class RecordingImpl;

/// Which data gives way first when the card fills up.
enum class TrackClass {
    Bulk,  ///< Erased first, the oldest of all recordings first.
    Sparse ///< Little data that tells of the rest, such as a history: erased only when no bulk data is left.
};

/// A set of tracks that belong together, with a free-form text to tell it by.
///
/// Threads: any.
/// Errors:  std::runtime_error as with Track.
class DRENN_API Recording {
public:
    explicit Recording(std::shared_ptr<RecordingImpl> impl); // For the recorder.
    ~Recording();
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

    /// The text; empty until it is set. Only std::string.
    template <typename T>
    void getInfo(T& info) const;
    /// Durable when it returns.
    template <typename T>
    void setInfo(const T& info);

    /// The tracks in the order in which they were made. The recording keeps them.
    std::list<boost::weak_ptr<Track>> getTracks() const;
    /// A new, empty track. Durable when it returns.
    boost::shared_ptr<Track> newTrack(TrackClass trackClass = TrackClass::Bulk);
    /// Erases a track with all its data; raises its erase-range signal if it has records. Durable when it
    /// returns. Throws std::out_of_range when there is no track of that id.
    void eraseTrack(unsigned int id);

private:
    const std::shared_ptr<RecordingImpl> impl_;
};

template <>
void Recording::getInfo<std::string>(std::string& info) const;
template <>
void Recording::setInfo<std::string>(const std::string& info);

} // namespace drenn::multi_track_recorder
