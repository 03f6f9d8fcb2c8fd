#include "record_source/CardSource.h"

#include <cstring>
#include <stdexcept>
#include <utility>

#include "calvane/recording/RecordHeader.h"
#include "calvane/recording/RecordingManager.h"
#include "drenn/multi_track_recorder/MultiTrackRecorder.h"

namespace calvane_recording {
namespace {

using drenn::multi_track_recorder::BlobRecord;
using drenn::multi_track_recorder::MultiTrackRecorder;
using drenn::multi_track_recorder::Recording;
using drenn::multi_track_recorder::Track;
using quarn::calvane::RecordHeader;

Time TimeOf(const RecordHeader& header) {
    static const std::int64_t kEpoch =
        quarn::calvane::ticksFromTime(boost::posix_time::ptime(boost::gregorian::date(1970, 1, 1)));
    return header.ticks - kEpoch;
}

RecordHeader HeaderOf(const Track::LeadingBytes& leading) {
    static_assert(sizeof(RecordHeader) == sizeof leading, "a record begins with its header");
    RecordHeader header;
    std::memcpy(&header, leading.data(), sizeof header);
    return header;
}

/// Nothing if it is damaged.
std::optional<RecordHeader> ReadHeader(const Track& track, unsigned int index) {
    try {
        const Track::Leading leading = track.getLeading(index);
        return leading.firstBlobBytes == sizeof(RecordHeader) ? std::make_optional(HeaderOf(leading.bytes))
                                                              : std::nullopt;
    } catch (const std::runtime_error&) {
        return std::nullopt; // The store has logged it.
    }
}

/// The same with the payload.
std::optional<RecordHeader> ReadRecord(Track& track, unsigned int index, BlobRecord& record) {
    try {
        track.seekg(index);
        track >> record;
    } catch (const std::runtime_error&) {
        return std::nullopt;
    }
    RecordHeader header;
    if (record.blobs().size() != 2 || record.blobs()[0].size() != sizeof header) {
        return std::nullopt;
    }
    std::memcpy(&header, record.blobs()[0].data(), sizeof header);
    return header;
}

/// The first record from `begin` on, and before `end`, whose header can be read.
std::optional<RecordHeader> ReadNextHeader(const Track& track, unsigned int& begin, unsigned int end) {
    for (; begin < end; ++begin) {
        if (const auto header = ReadHeader(track, begin)) {
            return header;
        }
    }
    return std::nullopt;
}

/// The first record whose time is not before `at`; the size if there is none.
unsigned int FirstNotBefore(const Track& track, Time at) {
    const auto known =
        track.findKnown([at](const Track::LeadingBytes& leading) { return TimeOf(HeaderOf(leading)) < at; });
    unsigned int low = known.before ? known.before->index + 1 : 0;
    unsigned int high = known.behind ? known.behind->index : track.size();
    while (low != high) {
        const unsigned int middle = low + (high - low) / 2;
        unsigned int readable = middle;
        const auto header = ReadNextHeader(track, readable, high);
        if (header && TimeOf(*header) < at) {
            low = readable + 1;
        } else {
            high = middle;
        }
    }
    return low;
}

class CardRecords : public IRecords {
public:
    CardRecords(Track& track, const Span& span)
        : track_(track), end_(span.last), next_(FirstNotBefore(track, span.first)) {}

    bool Read(Record& record) override {
        for (; next_ < track_.size(); ++next_) {
            const auto header = ReadRecord(track_, next_, stored_);
            if (!header) {
                ++losses_.unreadable;
                damageAhead_ = true;
                continue;
            }
            if (TimeOf(*header) > end_) {
                return false;
            }
            Take(*header, record);
            ++next_;
            return true;
        }
        return false;
    }
    Losses GetLosses() const override { return losses_; }

private:
    void Take(const RecordHeader& header, Record& record) {
        record.time = TimeOf(header);
        record.compositionOffset = header.compositionOffset();
        record.isKeyFrame = (header.flags & RecordHeader::kKeyFrame) != 0;
        record.isAfterGap =
            (header.flags & RecordHeader::kDiscontinuity) != 0 || std::exchange(damageAhead_, false);
        const auto& payload = stored_.blobs()[1];
        unsigned char* const bytes = record.SetSize(payload.size());
        if (payload.size() != 0) {
            std::memcpy(bytes, payload.data(), payload.size());
        }
        if (info_ == nullptr || next_ > infoLast_) {
            TakeInfo();
        }
        record.info = info_;
    }
    void TakeInfo() {
        std::string text;
        track_.seekg(next_);
        infoLast_ = track_.getInfoRange().second;
        track_.getInfo(text);
        auto info = std::make_shared<InfoMap>();
        quarn::calvane::RecordingManager::deserializeTrackInfo(text, *info);
        if (info_ == nullptr || *info != *info_) {
            info_ = std::move(info);
        }
    }

    Track& track_;
    const Time end_;
    unsigned int next_;
    unsigned int infoLast_ = 0;
    std::shared_ptr<const InfoMap> info_;
    BlobRecord stored_{-1};
    Losses losses_;
    bool damageAhead_ = false;
};

boost::shared_ptr<Recording> ChooseRecording(const MultiTrackRecorder& store, const std::string& folder,
                                             const std::string& device) {
    std::string names;
    boost::shared_ptr<Recording> found;
    unsigned int count = 0;
    for (const auto& each : store.getRecordings()) {
        const auto recording = each.lock(); // The store keeps it.
        std::string name;
        recording->getInfo(name);
        names += (names.empty() ? "\"" : ", \"") + name + "\"";
        ++count;
        if (device.empty() || name == device) {
            found = recording;
        }
    }
    if (found == nullptr || (device.empty() && count != 1)) {
        throw std::runtime_error(folder + (count == 0
                                               ? " has no recording"
                                               : " has the recordings of " + names +
                                                     (device.empty() ? ": choose with --device"
                                                                     : ", and none of \"" + device + "\"")));
    }
    return found;
}

} // namespace

CardSource::CardSource(const std::string& folder, const std::string& device)
    : store_(MultiTrackRecorder::openToRead(folder + "/data", folder + "/database")) {
    TakeTracks(*ChooseRecording(*store_, folder, device));
}

CardSource::~CardSource() = default;

void CardSource::TakeTracks(const Recording& recording) {
    for (const auto& each : recording.getTracks()) {
        const auto track = each.lock();
        for (const TrackKind kind : {TrackKind::Video, TrackKind::Audio, TrackKind::Metadata}) {
            if (track->size() != 0 &&
                track->getFormat().getName() == std::to_string(static_cast<unsigned int>(kind))) {
                tracks_.emplace(kind, track); // Of several the first.
            }
        }
    }
}

Track* CardSource::Find(TrackKind track) const {
    const auto found = tracks_.find(track);
    return found == tracks_.end() ? nullptr : found->second.get();
}

Span CardSource::GetSpan(TrackKind kind) {
    Track* const track = Find(kind);
    unsigned int index = 0;
    const auto first = track != nullptr ? ReadNextHeader(*track, index, track->size()) : std::nullopt;
    for (index = first ? track->size() : 0; index-- != 0;) {
        if (const auto last = ReadHeader(*track, index)) {
            return {TimeOf(*first), TimeOf(*last)};
        }
    }
    return {};
}

std::unique_ptr<IRecords> CardSource::Open(TrackKind kind, const Span& span) {
    class NoRecords : public IRecords {
        bool Read(Record& /*record*/) override { return false; }
        Losses GetLosses() const override { return {}; }
    };
    Track* const track = Find(kind);
    if (track == nullptr) {
        return std::make_unique<NoRecords>();
    }
    return std::make_unique<CardRecords>(*track, span);
}

std::optional<IRecordSource::KeyFrame> CardSource::FindKeyFrame(TrackKind kind, Time at) {
    Track* const track = Find(kind);
    std::optional<Time> last;
    std::optional<Time> goesOnUntil;
    for (unsigned int index = track != nullptr ? FirstNotBefore(*track, at + 1) : 0; index-- != 0;) {
        const auto header = ReadHeader(*track, index);
        if (!header) {
            continue;
        }
        const Time time = TimeOf(*header);
        if (time < at - kFarthestKeyFrame) {
            break;
        }
        if (last && !goesOnUntil) {
            goesOnUntil = GapAfter(*last, *last - time);
        }
        last = last.value_or(time);
        if ((header->flags & RecordHeader::kKeyFrame) != 0) {
            return KeyFrame{time, time + header->compositionOffset(),
                            goesOnUntil.value_or(GapAfter(*last, 0))};
        }
    }
    return std::nullopt;
}

} // namespace calvane_recording
