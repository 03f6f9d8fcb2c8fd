#include "drenn/multi_track_recorder/MultiTrackRecorder.h"

#include <boost/make_shared.hpp>

#include "drenn/multi_track_recorder/internal/Store.h"

namespace drenn::multi_track_recorder {

MultiTrackRecorder::MultiTrackRecorder(std::unique_ptr<Store> store) : store_(std::move(store)) {}

MultiTrackRecorder::~MultiTrackRecorder() = default;

boost::shared_ptr<MultiTrackRecorder> MultiTrackRecorder::create(const std::string& storage,
                                                                 const std::string& database,
                                                                 unsigned int maxPercent) {
    StoreOptions options;
    options.storage = storage;
    options.database = database;
    options.maxPercent = maxPercent;
    return boost::make_shared<MultiTrackRecorder>(std::make_unique<Store>(PosixFileSystem(), options));
}

boost::shared_ptr<MultiTrackRecorder> MultiTrackRecorder::openToRead(const std::string& storage,
                                                                     const std::string& database) {
    StoreOptions options;
    options.storage = storage;
    options.database = database;
    options.readOnly = true;
    options.background = false;
    return boost::make_shared<MultiTrackRecorder>(std::make_unique<Store>(PosixFileSystem(), options));
}

std::list<boost::weak_ptr<Recording>> MultiTrackRecorder::getRecordings() const {
    return store_->GetRecordings();
}

boost::shared_ptr<Recording> MultiTrackRecorder::newRecording() {
    return store_->NewRecording();
}

void MultiTrackRecorder::flush() {
    store_->Sync();
}

std::uint64_t MultiTrackRecorder::getBytes(TrackClass trackClass) const {
    return store_->GetBytes(trackClass == TrackClass::Sparse);
}

void MultiTrackRecorder::eraseOldest(TrackClass trackClass, std::uint64_t most) {
    store_->EraseOldest(trackClass == TrackClass::Sparse, most);
}

std::string MultiTrackRecorder::getIdentity() const {
    return store_->GetIdentity();
}

StoreState MultiTrackRecorder::getState() const {
    return store_->GetState();
}

std::vector<std::string> MultiTrackRecorder::getDamage() const {
    return store_->GetDamage();
}

boost::signals2::connection MultiTrackRecorder::connectToStateSignal(const StateSignal::slot_type& slot) {
    return store_->ConnectToStateSignal(slot);
}

} // namespace drenn::multi_track_recorder
