#include "drenn/multi_track_recorder/Track.h"

#include "drenn/multi_track_recorder/internal/TrackImpl.h"

namespace drenn::multi_track_recorder {

Track::Track(std::shared_ptr<TrackImpl> impl) : impl_(std::move(impl)) {}

Track::~Track() = default;

unsigned int Track::getId() const {
    return impl_->Content()->id;
}

DataFormatVersion Track::getFormat() const {
    return impl_->GetFormat();
}

void Track::setFormat(const DataFormatVersion& format) {
    impl_->SetFormat(format);
}

unsigned int Track::size() const {
    return impl_->Size();
}

void Track::seekg(unsigned int index) {
    impl_->Seek(index);
}

unsigned int Track::tellg() const {
    return impl_->Tell();
}

Track& Track::operator>>(BlobRecord& record) {
    impl_->Read(record);
    return *this;
}

Track& Track::operator<<(const BlobRecord& record) {
    impl_->Append(record);
    return *this;
}

std::pair<unsigned int, unsigned int> Track::getInfoRange() const {
    return impl_->GetInfoRange();
}

template <>
DRENN_API void Track::getInfo<std::string>(std::string& info) const {
    info = impl_->GetInfo();
}

template <>
DRENN_API void Track::setInfo<std::string>(const std::string& info) {
    impl_->SetInfo(info);
}

void Track::eraseRange(unsigned int first, unsigned int last) {
    impl_->EraseRange(first, last);
}

boost::signals2::connection Track::connectToEraseRangeSignal(const EraseRangeSignal::slot_type& slot) {
    return impl_->ConnectToEraseRangeSignal(slot);
}

Track::Leading Track::getLeading(unsigned int index) const {
    return impl_->GetLeading(index);
}

Track::KnownRecords Track::findKnown(const std::function<bool(const LeadingBytes&)>& isBefore) const {
    return impl_->FindKnown(isBefore);
}

Track::KnownRecords Track::findNear(unsigned int index,
                                    const std::function<bool(const Leading&)>& isBefore) const {
    return impl_->FindNear(index, isBefore);
}

void Track::lock() const {
    impl_->Lock();
}

void Track::unlock() const {
    impl_->Unlock();
}

} // namespace drenn::multi_track_recorder
