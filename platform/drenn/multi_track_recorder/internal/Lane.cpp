#include "drenn/multi_track_recorder/internal/Lane.h"

#include <algorithm>

#include "quarn/core/Logger.h"

namespace drenn::multi_track_recorder {
namespace {

// Texts in a state, which begins every segment, are at most this share of it. Longer ones are in their own blocks and
// in the catalogue only.
constexpr std::uint32_t kStateTextsShare = 64;
constexpr std::uint32_t kLeastStateTexts = 4096;
// Offsets have 32 bits.
constexpr std::uint64_t kLargestSegment = 1ULL << 32U;

} // namespace

Lane::Lane(StoreContext& context, SegmentKey next, std::uint32_t recording, bool sparse)
    : context_(context),
      id_(next.lane),
      recording_(recording),
      sparse_(sparse),
      nextSequence_(next.sequence) {}

void Lane::Add(const std::shared_ptr<TrackContent>& track) {
    const std::lock_guard<std::mutex> lock(tablesMutex_);
    tracks_[track->id] = track;
    hasChanged_ = true;
}

void Lane::Remove(std::uint32_t track) {
    const std::lock_guard<std::mutex> lock(tablesMutex_);
    tracks_.erase(track);
    hasChanged_ = true;
}

std::vector<std::shared_ptr<TrackContent>> Lane::Tracks() const {
    const std::lock_guard<std::mutex> lock(tablesMutex_);
    std::vector<std::shared_ptr<TrackContent>> tracks;
    for (const auto& [id, track] : tracks_) {
        tracks.push_back(track);
    }
    return tracks;
}

void Lane::Add(const std::shared_ptr<Segment>& segment) {
    const std::lock_guard<std::mutex> lock(tablesMutex_);
    segments_.push_back(segment);
    newest_ = segment->length > 0 ? segment->key : newest_;
}

void Lane::Forget(SegmentKey segment) {
    const std::lock_guard<std::mutex> lock(tablesMutex_);
    segments_.erase(std::remove_if(segments_.begin(), segments_.end(),
                                   [&](const auto& each) { return each->key == segment; }),
                    segments_.end());
}

std::vector<std::shared_ptr<Segment>> Lane::SealedSegments() const {
    const std::lock_guard<std::mutex> lock(tablesMutex_);
    return segments_;
}

bool Lane::IsNewest(SegmentKey segment) const {
    const std::lock_guard<std::mutex> lock(tablesMutex_);
    return segment == newest_;
}

void Lane::SetRecordingInfo(const std::string& info) {
    const std::lock_guard<std::mutex> lock(tablesMutex_);
    recordingInfo_ = info;
    hasChanged_ = true;
}

void Lane::NoteChange() {
    const std::lock_guard<std::mutex> lock(tablesMutex_);
    hasChanged_ = true;
}

void Lane::Commit() {
    const std::lock_guard<std::mutex> lock(writeMutex_);
    Guard([this] { CommitLocked(); });
}

void Lane::Sync() {
    const std::lock_guard<std::mutex> lock(writeMutex_);
    Guard([this] {
        CommitLocked();
        SyncLocked();
    });
}

bool Lane::BeginSync() {
    const std::lock_guard<std::mutex> lock(writeMutex_);
    bool needsSync = false;
    Guard([&] {
        CommitLocked();
        needsSync = writer_ != nullptr && writer_->NeedsSync();
        if (needsSync) {
            writer_->WriteOut();
        }
    });
    return needsSync;
}

void Lane::EndSync() {
    const std::lock_guard<std::mutex> lock(writeMutex_);
    Guard([this] {
        if (writer_ != nullptr && writer_->IsBroken()) {
            CommitLocked(); // The second try, in a new segment.
        }
        SyncLocked();
    });
}

void Lane::WriteState() {
    const std::lock_guard<std::mutex> lock(writeMutex_);
    Guard([this] {
        if (writer_ == nullptr && SealedSegments().empty()) {
            return;
        }
        if (writer_ == nullptr || writer_->IsBroken()) {
            StartSegment();
        }
        StageState();
        writer_->Write();
        SyncLocked();
    });
}

void Lane::Seal() {
    const std::lock_guard<std::mutex> lock(writeMutex_);
    Guard([this] {
        CommitLocked();
        SyncLocked();
        SealLocked();
    });
}

void Lane::Detach() {
    const std::lock_guard<std::mutex> lock(writeMutex_);
    if (writer_ != nullptr) {
        writer_->Break();
        writer_.reset();
    }
    extents_.clear();
    infos_.clear();
}

void Lane::Attach(std::uint32_t nextSequence) {
    const std::lock_guard<std::mutex> lock(writeMutex_);
    nextSequence_ = nextSequence;
    const std::lock_guard<std::mutex> tables(tablesMutex_);
    segments_.clear();
}

void Lane::MarkDead() {
    if (DeadSegments().empty()) {
        return;
    }
    context_.Transact([this](Catalogue::Transaction& transaction) {
        const std::vector<std::shared_ptr<Segment>> dead = DeadSegments();
        for (const auto& segment : dead) {
            transaction.SetRemoving(segment->key);
        }
        transaction.Commit();
        for (const auto& segment : dead) {
            segment->isRemoving = true;
        }
    });
}

std::vector<std::shared_ptr<Segment>> Lane::DeadSegments() const {
    const std::lock_guard<std::mutex> lock(tablesMutex_);
    std::vector<std::shared_ptr<Segment>> dead;
    std::copy_if(segments_.begin(), segments_.end(), std::back_inserter(dead), [this](const auto& segment) {
        return segment->survivors == 0 && segment->DiesWhenEmpty() && !(segment->key == newest_);
    });
    return dead;
}

void Lane::Guard(const std::function<void()>& action) {
    context_.RequireGood();
    const auto distrust = [this](const FileError& error) {
        NoteChange(); // The state may not have been written.
        if (error.IsOutOfSpace()) {
            throw error;
        }
        if (writer_ != nullptr) {
            writer_->Break();
        }
    };
    try {
        try {
            action();
        } catch (const FileError& error) {
            distrust(error);
            context_.logger.Warning("%s; going on in a new segment", error.what());
            action();
        }
    } catch (const FileError& error) {
        if (!error.IsOutOfSpace()) {
            distrust(error);
            context_.BecomeReadOnly(error.what());
        }
        throw;
    }
}

void Lane::CommitLocked() {
    const std::vector<std::shared_ptr<PendingBlock>> batch = TakeBatch();
    if (batch.empty()) {
        return;
    }
    std::uint64_t length = 0;
    for (const auto& block : batch) {
        length += block->Length();
    }
    if (writer_ == nullptr || writer_->IsBroken() || writer_->IsFullFor(length)) {
        StartSegment();
    }
    StageState();
    for (const auto& block : batch) {
        if (!writer_->HasRoomFor(block->Length())) {
            writer_->Write();
            StartSegment();
            StageState();
        }
        writer_->Stage(block);
    }
    writer_->Write();
}

/// At the beginning of a segment, and when something of it has changed.
void Lane::StageState() {
    bool hasChanged = false;
    {
        const std::lock_guard<std::mutex> lock(tablesMutex_);
        std::swap(hasChanged, hasChanged_);
    }
    if (hasChanged || writer_->IsEmpty()) {
        writer_->Stage(MakeState());
    }
}

/// What is in memory and not written, and closes the blocks that were being filled.
std::vector<std::shared_ptr<PendingBlock>> Lane::TakeBatch() {
    std::vector<std::shared_ptr<PendingBlock>> batch;
    for (const auto& track : Tracks()) {
        const std::lock_guard<std::mutex> lock(track->mutex);
        for (const auto& block : track->pending) {
            if (!block->isWritten && (block->Kind() != BlockKind::Records || block->Count() > 0)) {
                block->isOpen = false;
                batch.push_back(block);
            }
        }
    }
    return batch;
}

void Lane::StartSegment() {
    if (writer_ != nullptr) {
        if (!writer_->IsBroken()) {
            SyncLocked();
        }
        SealLocked();
    }
    // A number is used once, even if making the file fails half way.
    const SegmentKey key{id_, nextSequence_++};
    writer_ = std::make_unique<SegmentWriter>(context_, key);
}

std::shared_ptr<PendingBlock> Lane::MakeState() {
    LaneState state;
    state.recording = recording_;
    state.sparse = sparse_;
    {
        const std::lock_guard<std::mutex> lock(tablesMutex_);
        state.recordingInfo = recordingInfo_;
    }
    std::size_t room = std::max(kLeastStateTexts, context_.options.segmentBytes / kStateTextsShare);
    for (const auto& track : Tracks()) {
        TrackState each = StateOf(*track);
        each.isInfoElsewhere = each.info.size() > room;
        if (each.isInfoElsewhere) {
            each.info.clear();
        }
        room -= each.info.size();
        state.tracks.push_back(std::move(each));
    }
    return std::make_shared<PendingBlock>(BlockKind::State, 0, 0, EncodeBody(state));
}

TrackState Lane::StateOf(TrackContent& track) {
    TrackState state;
    bool isInCatalogue = false;
    {
        const std::lock_guard<std::mutex> lock(track.mutex);
        state.id = track.id;
        state.formatName = track.formatName;
        state.formatVersion = track.formatVersion;
        ErasedRanges erased = track.erased;
        if (track.marked) {
            erased.Add(*track.marked); // This state may be the first thing behind the marker.
        }
        state.firstSerial = erased.FirstSerial();
        state.erased = erased.Ranges();
        state.nextSerial = track.FirstUnwritten();
        const std::size_t info = track.FindInfo(state.nextSerial);
        if (info < track.infos.size()) {
            state.infoFrom = track.infos[info].from;
            isInCatalogue = track.infos[info].text == nullptr;
            state.info = isInCatalogue ? std::string() : *track.infos[info].text;
        }
    }
    if (isInCatalogue) {
        state.info = context_.GetCatalogue()->GetInfo(state.id, state.infoFrom);
    }
    return state;
}

void Lane::SyncLocked() {
    if (writer_ == nullptr || !writer_->NeedsSync()) {
        return;
    }
    const std::vector<SegmentWriter::Placed> synced = writer_->Sync();
    {
        const std::lock_guard<std::mutex> lock(tablesMutex_);
        newest_ =
            writer_->GetSegment()->key; // Its state is durable, so the one before is not needed for its own.
    }
    for (const SegmentWriter::Placed& placed : synced) {
        Publish(placed);
    }
}

/// Moves a durable block from memory to the tables.
void Lane::Publish(const SegmentWriter::Placed& placed) {
    const PendingBlock& block = *placed.block;
    if (block.Kind() == BlockKind::State) {
        return;
    }
    if (block.Kind() == BlockKind::Records) {
        writer_->Directory().Add(
            {block.Track(), block.Count(), block.FirstSerial(), placed.offset, block.Hint().leading});
        const auto before = std::find_if(extents_.begin(), extents_.end(), [&](const ExtentRow& extent) {
            return extent.track == block.Track() && extent.firstSerial + extent.count == block.FirstSerial();
        });
        if (before != extents_.end()) {
            before->count += block.Count();
            before->hint->Add(block.Hint());
        } else {
            extents_.push_back({block.Track(), writer_->GetSegment()->key, block.FirstSerial(), block.Count(),
                                block.Hint()});
        }
    }
    std::shared_ptr<TrackContent> track;
    {
        const std::lock_guard<std::mutex> lock(tablesMutex_);
        const auto found = tracks_.find(block.Track());
        if (found == tracks_.end()) {
            return; // Erased meanwhile.
        }
        track = found->second;
    }
    const std::lock_guard<std::mutex> lock(track->mutex);
    if (track->isErased || track->pending.empty() || track->pending.front() != placed.block) {
        return;
    }
    if (block.Kind() == BlockKind::Records) {
        track->AddExtent(writer_->GetSegment(), {block.FirstSerial(), block.EndSerial()}, block.Hint());
    } else if (block.Kind() == BlockKind::Info) {
        const std::string text(block.Body().begin(), block.Body().end());
        infos_.emplace_back(track,
                            InfoText{block.FirstSerial(), std::make_shared<const std::string>(text), 0});
    } else if (block.Kind() == BlockKind::Erased) {
        track->marked = {block.FirstSerial(), ByteReader(block.Body().data(), block.Body().size()).U64()};
    }
    context_.memory -= static_cast<std::size_t>(block.Length());
    track->pending.pop_front();
}

void Lane::SealLocked() {
    if (writer_ == nullptr) {
        return;
    }
    const std::shared_ptr<Segment> segment = writer_->GetSegment();
    segment->length = writer_->SyncedEnd();
    const auto seal = [&](Catalogue::Transaction& transaction) {
        transaction.AddSegment({segment->key, segment->length, segment->time, false, std::nullopt});
        for (const ExtentRow& extent : extents_) {
            transaction.AddExtent(extent);
        }
        transaction.AddHint(segment->key, *segment->salt, extents_);
        if (writer_->IsBroken() && segment->length > 0) {
            transaction.AddDamage(
                {segment->key, segment->length, kLargestSegment, DamageRow::Kind::Unfinished});
        }
        for (const auto& [track, info] : infos_) {
            const std::lock_guard<std::mutex> lock(track->mutex);
            if (!track->isErased) {
                // Also one whose records are erased: an older text may be in its place.
                transaction.AddInfo({track->id, info.from, *info.text});
            }
        }
        transaction.Commit();
        segment->isSealed = true;
        Add(segment);
    };
    // If a power cut takes it back, opening reads the segment through. Behind the last good sync of one that is broken there may
    // be half of what the next one has as a whole, so that must not happen to it.
    context_.Transact(
        seal, writer_->IsBroken() ? Catalogue::Durability::AtOnce : Catalogue::Durability::WithSyncLog);
    if (!writer_->IsBroken()) {
        try {
            writer_->WriteFooter();
            context_.directories.Append(segment->key,
                                        EncodeDirectory(writer_->Directory().List(), *segment->salt));
        } catch (const FileError&) {
            // Only opening it takes longer now.
        }
    }
    context_.cache.Unpin(*segment);
    writer_.reset();
    extents_.clear();
    ForgetTexts();
}

/// The catalogue has the texts now. The newest of a track stays: it is asked for most.
void Lane::ForgetTexts() {
    for (const auto& [track, sealed] : infos_) {
        const std::lock_guard<std::mutex> lock(track->mutex);
        for (std::size_t i = 0; i + 1 < track->infos.size(); ++i) {
            const auto& text = track->infos[i].text; // A newer one may have taken the place.
            if (track->infos[i].from == sealed.from && text != nullptr && *text == *sealed.text) {
                track->infos[i].text = nullptr;
            }
        }
    }
    infos_.clear();
}

} // namespace drenn::multi_track_recorder
