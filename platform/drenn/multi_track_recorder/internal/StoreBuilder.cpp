#include "drenn/multi_track_recorder/internal/StoreBuilder.h"

#include <algorithm>
#include <stdexcept>

namespace drenn::multi_track_recorder {
namespace {

/// The tables of a track anew, from the catalogue.
void Clear(TrackContent& track, const TrackRow& row) {
    track.formatName = row.formatName;
    track.formatVersion = row.formatVersion;
    track.nextSerial = std::max(row.nextSerial, row.firstSerial);
    track.extents.clear();
    track.survivors = Survivors();
    track.erased = ErasedRanges();
    track.infos.clear();
}

/// What was appended and not durable when the card went: it goes on behind what is there, if it fits.
void TakePending(TrackContent& track, StoreContext& context) {
    auto& pending = track.pending;
    const auto isDurable = [&](const std::shared_ptr<PendingBlock>& block) {
        return block->Kind() == BlockKind::Erased ||
               (block->Kind() == BlockKind::Records ? block->EndSerial() <= track.nextSerial
                                                    : block->FirstSerial() < track.nextSerial);
    };
    std::uint64_t next = track.nextSerial;
    bool fits = true;
    for (auto block = pending.begin(); block != pending.end();) {
        const bool isRecords = (*block)->Kind() == BlockKind::Records;
        fits = fits && (!isRecords || isDurable(*block) || (*block)->FirstSerial() == next);
        if (!fits || isDurable(*block)) {
            context.memory -= static_cast<std::size_t>((*block)->Length());
            block = pending.erase(block);
            continue;
        }
        if (isRecords) {
            track.survivors.Append({(*block)->FirstSerial(), (*block)->EndSerial()});
            next = (*block)->EndSerial();
        } else {
            const std::string text((*block)->Body().begin(), (*block)->Body().end());
            const std::uint64_t from = (*block)->FirstSerial();
            track.infos.push_back({from, std::make_shared<const std::string>(text), InfoTag(from, text)});
        }
        ++block;
    }
    track.nextSerial = next;
}

} // namespace

StoreBuilder::StoreBuilder(StoreContext& context, StoreTables& tables, const OpenedStore& opened)
    : context_(context), tables_(tables), opened_(opened), content_(opened.content) {}

void StoreBuilder::Build() {
    BuildRecordings();
    BuildTracks();
    BuildSegments();
    AddExtents();
    Erase();
    AddInfos();
    for (const auto& track : tracks_) {
        Change(track.first, [this](TrackContent& each) { TakePending(each, context_); });
    }
    TellDamage();
}

void StoreBuilder::BuildRecordings() {
    for (const auto& recording : tables_.Recordings()) {
        recordings_[recording->Id()] = recording;
    }
    for (const RecordingRow& row : content_.recordings) {
        std::shared_ptr<RecordingImpl>& recording = recordings_[row.id];
        if (recording == nullptr) {
            recording = tables_.Add(row).impl;
        }
        for (const bool sparse : {false, true}) {
            const auto next = opened_.nextSequences.find(LaneOf(row.id, sparse));
            recording->GetLane(sparse).Attach(next == opened_.nextSequences.end() ? 1 : next->second);
        }
    }
}

void StoreBuilder::BuildTracks() {
    std::map<std::uint32_t, std::shared_ptr<TrackContent>> known;
    for (const auto& [id, recording] : recordings_) {
        for (const auto& track : recording->Tracks()) {
            known[track->Content()->id] = track->Content();
        }
    }
    for (const TrackRow& row : content_.tracks) {
        const auto recording = recordings_.find(row.recording);
        if (recording == recordings_.end()) {
            throw std::runtime_error("The catalogue " + context_.folders.Catalogue() + " has track " +
                                     std::to_string(row.id) + " of recording " +
                                     std::to_string(row.recording) + ", which it does not have");
        }
        const bool isNew = known.find(row.id) == known.end();
        const auto track =
            isNew ? std::make_shared<TrackContent>(row.id, row.recording, row.sparse) : known[row.id];
        {
            const std::lock_guard<std::mutex> lock(track->mutex);
            Clear(*track, row);
        }
        if (isNew) {
            recording->second->Add(track);
        }
        tracks_[row.id] = track;
    }
}

void StoreBuilder::BuildSegments() {
    for (const SegmentRow& row : content_.segments) {
        auto segment = std::make_shared<Segment>(row.key, context_.folders.PathOf(row.key));
        segment->length = row.length;
        segment->time = row.time;
        segment->salt = row.salt;
        segment->isSealed = true;
        segment->isRemoving = row.removing;
        segments_[row.key] = segment;
        context_.SetLowestTime(row.time);
        const auto recording = recordings_.find(row.key.lane / 2);
        if (recording != recordings_.end()) {
            recording->second->GetLane(row.key.lane % 2 != 0).Add(segment);
        }
    }
    for (const DamageRow& row : content_.damage) {
        const auto segment = segments_.find(row.segment);
        if (segment != segments_.end()) {
            segment->second->isDamaged = true;
        }
    }
}

void StoreBuilder::AddExtents() {
    for (const ExtentRow& row : content_.extents) {
        Change(row.track, [&](TrackContent& track) {
            const SerialRange range{row.firstSerial, row.firstSerial + row.count};
            const auto segment = segments_.find(row.segment);
            if (segment == segments_.end()) {
                throw std::runtime_error("The catalogue " + context_.folders.Catalogue() +
                                         " has records in " + context_.folders.PathOf(row.segment) +
                                         ", which it does not have");
            }
            track.AddExtent(segment->second, range, row.hint);
            track.survivors.Append(range);
        });
    }
}

/// What is erased does not survive; what nothing survives of can be removed.
void StoreBuilder::Erase() {
    std::map<std::uint32_t, std::vector<SerialRange>> erased;
    for (const ErasedRow& row : content_.erased) {
        erased[row.track].push_back(row.range);
    }
    for (const TrackRow& row : content_.tracks) {
        Change(row.id, [&](TrackContent& track) {
            const std::vector<SerialRange>& ranges = erased[row.id];
            track.Forget({0, row.firstSerial});
            for (const SerialRange& range : ranges) {
                track.Forget(range);
                track.nextSerial = std::max(track.nextSerial, range.end);
            }
            track.SetErased({row.firstSerial, ranges});
        });
    }
    for (const auto& [key, segment] : segments_) {
        segment->isRemoving =
            segment->isRemoving && segment->survivors == 0; // One row alone removes nothing.
    }
}

void StoreBuilder::AddInfos() {
    for (const InfoRow& row : content_.infos) {
        Change(row.track, [&](TrackContent& track) {
            track.infos.push_back(
                {row.from, row.hasText ? std::make_shared<const std::string>(row.text) : nullptr, 0});
        });
    }
}

void StoreBuilder::TellDamage() {
    std::vector<std::string> damage = opened_.told;
    for (const DamageRow& row : content_.damage) {
        damage.push_back(ToText(row, context_.folders.PathOf(row.segment)));
    }
    tables_.SetDamage(std::move(damage));
}

void StoreBuilder::Change(std::uint32_t track, const std::function<void(TrackContent&)>& change) const {
    const auto found = tracks_.find(track);
    if (found != tracks_.end()) {
        const std::lock_guard<std::mutex> lock(found->second->mutex);
        change(*found->second);
    }
}

} // namespace drenn::multi_track_recorder
