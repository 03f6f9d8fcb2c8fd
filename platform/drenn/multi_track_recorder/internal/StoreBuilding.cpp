#include <algorithm>

#include "drenn/multi_track_recorder/internal/Store.h"

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

/// Makes the tables in memory from the catalogue; recordings and tracks that are there already stay who they are.
void Store::Build(const OpenedStore& opened) {
    const CatalogueContent& content = opened.content;
    std::map<std::uint32_t, std::shared_ptr<RecordingImpl>> recordings;
    std::map<std::uint32_t, std::shared_ptr<TrackImpl>> tracks;
    for (const auto& recording : tables_->Recordings()) {
        recordings[recording->Id()] = recording;
        for (const auto& track : recording->Tracks()) {
            tracks[track->Content()->id] = track;
        }
    }
    for (const RecordingRow& row : content.recordings) {
        std::shared_ptr<RecordingImpl>& recording = recordings[row.id];
        if (recording == nullptr) {
            recording = tables_->Add(row).impl;
        }
        for (const bool sparse : {false, true}) {
            const auto next = opened.nextSequences.find(LaneOf(row.id, sparse));
            recording->GetLane(sparse).Attach(next == opened.nextSequences.end() ? 1 : next->second);
        }
    }
    std::map<std::uint32_t, std::shared_ptr<TrackContent>> contents;
    for (const TrackRow& row : content.tracks) {
        const auto recording = recordings.find(row.recording);
        if (recording == recordings.end()) {
            throw std::runtime_error("The catalogue " + context_->folders.Catalogue() + " has track " +
                                     std::to_string(row.id) + " of recording " +
                                     std::to_string(row.recording) + ", which it does not have");
        }
        const auto known = tracks.find(row.id);
        auto track = known != tracks.end()
                         ? known->second->Content()
                         : std::make_shared<TrackContent>(row.id, row.recording, row.sparse);
        {
            const std::lock_guard<std::mutex> lock(track->mutex);
            Clear(*track, row);
        }
        if (known == tracks.end()) {
            recording->second->Add(track);
        }
        contents[row.id] = std::move(track);
    }
    BuildTables(content, recordings, contents);
}

void Store::BuildTables(const CatalogueContent& content,
                        const std::map<std::uint32_t, std::shared_ptr<RecordingImpl>>& recordings,
                        const std::map<std::uint32_t, std::shared_ptr<TrackContent>>& tracks) {
    const SegmentsByKey segments = BuildSegments(content, recordings);
    const auto with = [&](std::uint32_t id, auto action) {
        const auto track = tracks.find(id);
        if (track != tracks.end()) {
            const std::lock_guard<std::mutex> lock(track->second->mutex);
            action(*track->second);
        }
    };
    for (const ExtentRow& row : content.extents) {
        with(row.track, [&](TrackContent& track) {
            const SerialRange range{row.firstSerial, row.firstSerial + row.count};
            const auto segment = segments.find(row.segment);
            if (segment == segments.end()) {
                throw std::runtime_error("The catalogue " + context_->folders.Catalogue() +
                                         " has records in " + context_->folders.PathOf(row.segment) +
                                         ", which it does not have");
            }
            track.AddExtent(segment->second, range);
            track.survivors.Append(range);
        });
    }
    std::map<std::uint32_t, std::vector<SerialRange>> erased;
    for (const ErasedRow& row : content.erased) {
        erased[row.track].push_back(row.range);
    }
    for (const TrackRow& row : content.tracks) {
        with(row.id, [&](TrackContent& track) {
            const std::vector<SerialRange>& ranges = erased[row.id];
            track.Forget({0, row.firstSerial});
            for (const SerialRange& range : ranges) {
                track.Forget(range);
                track.nextSerial = std::max(track.nextSerial, range.end);
            }
            track.SetErased({row.firstSerial, ranges});
        });
    }
    for (const auto& [key, segment] : segments) {
        segment->isRemoving =
            segment->isRemoving && segment->survivors == 0; // One row alone removes nothing.
    }
    for (const InfoRow& row : content.infos) {
        with(row.track, [&](TrackContent& track) {
            track.infos.push_back(
                {row.from, row.hasText ? std::make_shared<const std::string>(row.text) : nullptr, 0});
        });
    }
    for (const auto& track : tracks) {
        with(track.first, [&](TrackContent& each) { TakePending(each, *context_); });
    }
}

Store::SegmentsByKey Store::BuildSegments(
    const CatalogueContent& content,
    const std::map<std::uint32_t, std::shared_ptr<RecordingImpl>>& recordings) {
    SegmentsByKey segments;
    for (const SegmentRow& row : content.segments) {
        auto segment = std::make_shared<Segment>(row.key, context_->folders.PathOf(row.key));
        segment->length = row.length;
        segment->time = row.time;
        segment->isSealed = true;
        segment->isRemoving = row.removing;
        segments[row.key] = segment;
        context_->SetLowestTime(row.time);
        const auto recording = recordings.find(row.key.lane / 2);
        if (recording != recordings.end()) {
            recording->second->GetLane(row.key.lane % 2 != 0).Add(segment);
        }
    }
    for (const DamageRow& row : content.damage) {
        const auto segment = segments.find(row.segment);
        if (segment != segments.end()) {
            segment->second->isDamaged = true;
        }
    }
    return segments;
}

} // namespace drenn::multi_track_recorder
