#include "drenn/multi_track_recorder/internal/TrackImpl.h"

#include <algorithm>
#include <limits>
#include <map>
#include <new>
#include <stdexcept>

#include "quarn/core/Logger.h"

namespace drenn::multi_track_recorder {
namespace {

constexpr std::size_t kMostMemory = std::size_t{128} * 1024 * 1024;

thread_local int locksHeld = 0;

std::uint64_t BytesOf(const BlobRecord& record) {
    std::uint64_t bytes = 0;
    for (const Blob& blob : record.blobs()) {
        bytes += blob.size();
    }
    return bytes;
}

} // namespace

TrackImpl::TrackImpl(StoreContext& context, Lane& lane, std::shared_ptr<TrackContent> content,
                     std::function<void()> relieve)
    : context_(context), lane_(lane), content_(std::move(content)), relieve_(std::move(relieve)) {}

void TrackImpl::Lock() const {
    mutex_.lock();
    ++locksHeld;
}

void TrackImpl::Unlock() const {
    --locksHeld;
    mutex_.unlock();
}

int TrackImpl::LocksHeld() {
    return locksHeld;
}

void TrackImpl::Detach(const std::string& reason) {
    const Guard guard(*this);
    detached_ = reason;
}

void TrackImpl::RequireAttached() const {
    if (!detached_.empty()) {
        throw std::runtime_error(Name() + ": " + detached_);
    }
}

std::string TrackImpl::Name() const {
    return "Track " + std::to_string(content_->id);
}

DataFormatVersion TrackImpl::GetFormat() const {
    const Guard guard(*this);
    RequireAttached();
    const std::lock_guard<std::mutex> lock(content_->mutex);
    return {content_->formatName, content_->formatVersion};
}

void TrackImpl::SetFormat(const DataFormatVersion& format) {
    const Guard guard(*this);
    RequireAttached();
    if (format.getName().size() > Track::kMaxInfoBytes) {
        throw std::runtime_error(Name() + ": a format's name of " + std::to_string(format.getName().size()) +
                                 " bytes is too long");
    }
    context_.Transact([&](Catalogue::Transaction& transaction) {
        transaction.SetFormat(content_->id, format.getName(), format.getVersion());
        transaction.Commit();
        const std::lock_guard<std::mutex> lock(content_->mutex);
        content_->formatName = format.getName();
        content_->formatVersion = format.getVersion();
    });
    lane_.NoteChange();
}

std::uint32_t TrackImpl::Size() const {
    const Guard guard(*this);
    RequireAttached();
    const std::lock_guard<std::mutex> lock(content_->mutex);
    return static_cast<std::uint32_t>(content_->survivors.Size());
}

void TrackImpl::Seek(std::uint32_t index) {
    const Guard guard(*this);
    RequireAttached();
    position_ = index;
}

std::uint32_t TrackImpl::Tell() const {
    const Guard guard(*this);
    RequireAttached();
    return position_;
}

/// Within the content's lock.
std::uint64_t TrackImpl::SerialAt(std::uint32_t index) const {
    const std::uint64_t size = content_->survivors.Size();
    if (index >= size) {
        throw std::out_of_range(Name() + " has no record " + std::to_string(index) + "; it has " +
                                std::to_string(size));
    }
    return content_->survivors.SerialAt(index);
}

void TrackImpl::Read(BlobRecord& record) {
    const Guard guard(*this);
    record.clear();
    RequireAttached();
    context_.RequireCard();
    const Place place = PlaceAt(position_);
    try {
        ReadPlace(place, record);
    } catch (const std::exception&) {
        record.clear();
        throw;
    }
    ++position_;
}

TrackImpl::Place TrackImpl::PlaceAt(std::uint32_t index) const {
    const std::lock_guard<std::mutex> lock(content_->mutex);
    Place place;
    place.serial = SerialAt(index);
    place.block = content_->FindPending(place.serial);
    place.segment = place.block == nullptr ? content_->FindSegment(place.serial) : nullptr;
    if (place.block == nullptr && place.segment == nullptr) {
        throw std::runtime_error(Name() + ": no segment has record " + std::to_string(place.serial));
    }
    return place;
}

void TrackImpl::ReadPlace(const Place& place, BlobRecord& record) const {
    if (place.block != nullptr) {
        place.block->Read(place.serial, record);
    } else {
        context_.cache.Get(*place.segment)->Read(content_->id, place.serial, record);
    }
}

void TrackImpl::CheckSizes(const BlobRecord& record) const {
    const std::uint64_t bytes = BytesOf(record);
    if (bytes > Track::kMaxRecordBytes) {
        throw std::runtime_error(Name() + ": a record of " + std::to_string(bytes) + " bytes is too large; " +
                                 std::to_string(Track::kMaxRecordBytes) + " are allowed");
    }
    if (record.blobs().size() > Track::kMaxRecordBlobs) {
        throw std::runtime_error(Name() + ": a record of " + std::to_string(record.blobs().size()) +
                                 " blobs has too many; " + std::to_string(Track::kMaxRecordBlobs) +
                                 " are allowed");
    }
}

/// While the store is attached: its context goes with it.
void TrackImpl::CheckFitsCard(const BlobRecord& record) const {
    const std::uint64_t bytes = BytesOf(record);
    if (bytes > context_.largestRecord) {
        throw std::runtime_error(Name() + ": a record of " + std::to_string(bytes) +
                                 " bytes is too large for the card of " + context_.options.storage +
                                 ", which has room for " + std::to_string(context_.largestRecord) +
                                 " in one record");
    }
}

void TrackImpl::Append(const BlobRecord& record) {
    CheckSizes(record);
    relieve_();
    const Guard guard(*this);
    RequireAttached();
    CheckFitsCard(record);
    context_.RequireGood();
    if (context_.memory > kMostMemory) {
        throw std::runtime_error(Name() + ": the device is too slow or full; " +
                                 std::to_string(context_.memory) + " bytes wait to be written");
    }
    const std::lock_guard<std::mutex> lock(content_->mutex);
    if (content_->survivors.Size() >= std::numeric_limits<std::uint32_t>::max()) {
        throw std::runtime_error(Name() + " is full");
    }
    PendingBlock& block = content_->OpenBlock();
    const std::uint64_t before = block.Count() == 0 ? 0 : block.Length();
    try {
        block.Append(record);
    } catch (const std::bad_alloc&) {
        if (block.Count() == 0) {
            content_->pending.pop_back();
        }
        throw;
    }
    context_.memory += static_cast<std::size_t>(block.Length() - before);
    content_->survivors.Append({content_->nextSerial, content_->nextSerial + 1});
    ++content_->nextSerial;
}

std::pair<std::uint32_t, std::uint32_t> TrackImpl::GetInfoRange() const {
    const Guard guard(*this);
    RequireAttached();
    const std::lock_guard<std::mutex> lock(content_->mutex);
    const std::uint64_t serial = SerialAt(position_);
    const auto& infos = content_->infos;
    const std::size_t info = content_->FindInfo(serial);
    const std::size_t next = info == infos.size() ? 0 : info + 1;
    const std::uint64_t first = info == infos.size() ? 0 : content_->survivors.IndexOf(infos[info].from);
    const std::uint64_t end = next == infos.size() ? content_->survivors.Size() //
                                                   : content_->survivors.IndexOf(infos[next].from);
    return {static_cast<std::uint32_t>(first), static_cast<std::uint32_t>(end - 1)};
}

std::string TrackImpl::GetInfo() const {
    const Guard guard(*this);
    RequireAttached();
    context_.RequireCard();
    InfoText info{0, nullptr, 0};
    {
        const std::lock_guard<std::mutex> lock(content_->mutex);
        const std::size_t place = content_->FindInfo(SerialAt(position_));
        if (place == content_->infos.size()) {
            return {};
        }
        info = content_->infos[place];
    }
    if (info.text != nullptr) {
        return *info.text;
    }
    if (lastInfo_.second == nullptr || lastInfo_.first != info.from) {
        lastInfo_ = {info.from, std::make_shared<const std::string>(
                                    context_.GetCatalogue()->GetInfo(content_->id, info.from))};
    }
    return *lastInfo_.second;
}

void TrackImpl::SetInfo(const std::string& text) {
    const Guard guard(*this);
    RequireAttached();
    if (text.size() > Track::kMaxInfoBytes) {
        throw std::runtime_error(Name() + ": an info text of " + std::to_string(text.size()) +
                                 " bytes is too large; " + std::to_string(Track::kMaxInfoBytes) +
                                 " are allowed");
    }
    context_.RequireGood();
    std::uint64_t lastFrom = 0;
    std::shared_ptr<const std::string> last = std::make_shared<const std::string>();
    {
        const std::lock_guard<std::mutex> lock(content_->mutex);
        if (!content_->infos.empty()) {
            lastFrom = content_->infos.back().from;
            last = content_->infos.back().text;
        }
    }
    if ((last != nullptr ? *last : context_.GetCatalogue()->GetInfo(content_->id, lastFrom)) == text) {
        return;
    }
    lastInfo_ = {};
    const std::uint64_t from = content_->nextSerial; // Changes under this track's lock only.
    Add(std::make_shared<PendingBlock>(BlockKind::Info, content_->id, from, Bytes(text.begin(), text.end())));
    const std::lock_guard<std::mutex> lock(content_->mutex);
    if (!content_->infos.empty() && content_->infos.back().from == from) {
        content_->infos.pop_back();
    }
    content_->infos.push_back({from, std::make_shared<const std::string>(text), InfoTag(from, text)});
}

void TrackImpl::Raise(std::uint32_t first, std::uint32_t last) const {
    try {
        eraseRangeSignal_(first, last);
    } catch (const std::exception& error) {
        context_.logger.Error("%s: a slot of the erase-range signal failed: %s", Name().c_str(),
                              error.what());
    }
}

void TrackImpl::EraseRange(std::uint32_t first, std::uint32_t last) {
    const Guard guard(*this);
    RequireAttached();
    context_.RequireGood();
    last = std::min(last, Size());
    if (first >= last) {
        return;
    }
    SerialRange range{};
    {
        const std::lock_guard<std::mutex> lock(content_->mutex);
        // What was erased before the first and behind the last goes with them, so that ranges join.
        range.first =
            first == 0 ? content_->erased.FirstSerial() : content_->survivors.SerialAt(first - 1) + 1;
        range.end = content_->survivors.SerialAt(last - 1) + 1;
    }
    Raise(first, last);
    Bytes end;
    ByteWriter(end).U64(range.end);
    const auto marker =
        std::make_shared<PendingBlock>(BlockKind::Erased, content_->id, range.first, std::move(end));
    Add(marker);
    try {
        lane_.Sync();
        EraseSerials(range);
    } catch (const std::exception&) {
        DropMarker(marker);
        throw;
    }
    DropMarker(marker);
}

/// Behind what was appended before.
void TrackImpl::Add(const std::shared_ptr<PendingBlock>& block) {
    const std::lock_guard<std::mutex> lock(content_->mutex);
    if (!content_->pending.empty()) {
        content_->pending.back()->isOpen = false;
    }
    content_->pending.push_back(block);
    context_.memory += static_cast<std::size_t>(block->Length());
}

void TrackImpl::DropMarker(const std::shared_ptr<PendingBlock>& block) {
    const std::lock_guard<std::mutex> lock(content_->mutex);
    content_->marked.reset();
    const auto place = std::find(content_->pending.begin(), content_->pending.end(), block);
    if (place != content_->pending.end()) {
        content_->pending.erase(place);
        context_.memory -= static_cast<std::size_t>(block->Length());
    }
}

void TrackImpl::EraseOldest(std::uint64_t end) {
    const Guard guard(*this);
    std::uint64_t count = 0;
    {
        const std::lock_guard<std::mutex> lock(content_->mutex);
        count = content_->survivors.IndexOf(end);
    }
    if (detached_.empty() && count > 0) {
        Raise(0, static_cast<std::uint32_t>(count));
        const std::lock_guard<std::mutex> lock(content_->mutex);
        content_->Forget({0, end});
    }
}

void TrackImpl::EraseSerials(SerialRange range) {
    context_.Transact([&](Catalogue::Transaction& transaction) {
        ErasedRanges erased;
        {
            const std::lock_guard<std::mutex> lock(content_->mutex);
            erased = content_->erased;
        }
        erased.Add(range);
        transaction.SetErased(content_->id, erased.FirstSerial(), erased.Ranges());
        Remove(transaction, range);
        const std::lock_guard<std::mutex> lock(content_->mutex);
        content_->SetErased(erased);
    });
}

/// Commits, with the segments that die with these records as to be removed, and forgets the records.
void TrackImpl::Remove(Catalogue::Transaction& transaction, SerialRange range) {
    std::map<std::shared_ptr<Segment>, std::uint64_t> erasedIn;
    {
        const std::lock_guard<std::mutex> lock(content_->mutex);
        for (const Extent& extent : content_->extents) {
            const std::uint64_t first = std::max(range.first, extent.range.first);
            const std::uint64_t end = std::min(range.end, extent.range.end);
            if (first < end) {
                erasedIn[extent.segment] += content_->survivors.CountIn({first, end});
            }
        }
    }
    std::vector<std::shared_ptr<Segment>> dead;
    for (const auto& [segment, count] : erasedIn) {
        if (segment->DiesWhenEmpty() && !lane_.IsNewest(segment->key) && segment->survivors == count) {
            transaction.SetRemoving(segment->key);
            dead.push_back(segment);
        }
    }
    transaction.Commit();
    for (const auto& segment : dead) {
        segment->isRemoving = true;
    }
    const std::lock_guard<std::mutex> lock(content_->mutex);
    content_->Forget(range);
}

void TrackImpl::EraseAll() {
    const Guard guard(*this);
    RequireAttached();
    context_.RequireGood();
    const std::uint32_t size = Size();
    if (size > 0) {
        Raise(0, size);
    }
    // From here on the lane's state is without the track, so a rebuilt catalogue is, too.
    lane_.Remove(content_->id);
    try {
        lane_.WriteState();
        context_.Transact([&](Catalogue::Transaction& transaction) {
            transaction.RemoveTrack(content_->id);
            Remove(transaction, {0, content_->nextSerial});
            const std::lock_guard<std::mutex> lock(content_->mutex);
            content_->isErased = true;
            for (const auto& block : content_->pending) {
                context_.memory -= static_cast<std::size_t>(block->Length());
            }
            content_->pending.clear();
        });
    } catch (const std::exception&) {
        lane_.Add(content_);
        throw;
    }
    Detach("it was erased from its recording");
}

boost::signals2::connection TrackImpl::ConnectToEraseRangeSignal(
    const Track::EraseRangeSignal::slot_type& slot) {
    const Guard guard(*this);
    RequireAttached();
    return eraseRangeSignal_.connect(slot);
}

} // namespace drenn::multi_track_recorder
