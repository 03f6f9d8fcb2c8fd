#include "drenn/multi_track_recorder/Recording.h"

#include "drenn/multi_track_recorder/internal/RecordingImpl.h"

namespace drenn::multi_track_recorder {

Recording::Recording(std::shared_ptr<RecordingImpl> impl) : impl_(std::move(impl)) {}

Recording::~Recording() = default;

template <>
DRENN_API void Recording::getInfo<std::string>(std::string& info) const {
    info = impl_->GetInfo();
}

template <>
DRENN_API void Recording::setInfo<std::string>(const std::string& info) {
    impl_->SetInfo(info);
}

std::list<boost::weak_ptr<Track>> Recording::getTracks() const {
    return impl_->GetTracks();
}

boost::shared_ptr<Track> Recording::newTrack(TrackClass trackClass) {
    return impl_->NewTrack(trackClass);
}

void Recording::eraseTrack(unsigned int id) {
    impl_->EraseTrack(id);
}

} // namespace drenn::multi_track_recorder
