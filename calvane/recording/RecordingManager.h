#pragma once

#include <atomic>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "calvane/Export.h"
#include "calvane/recording/Coverage.h"
#include "calvane/recording/HistoryEvent.h"
#include "calvane/recording/RecordHeader.h"
#include "calvane/recording/RecordingSettings.h"
#include "calvane/recording/RecordingStatus.h"
#include "calvane/recording/RecordingTrack.h"
#include "calvane/recording/track_type.h"

namespace quarn::calvane {

class RecordingInformationImpl;
class RecordingSession;

/// The device's local recording: its store on the card, its tracks, its history, the services that tell of it. What it
/// does is done by parts of its own; see docs/design/recorder.md.
///
/// Threads:   init and deinit from one thread, before and after everything else. All other operations from any, without
///            locks of tracks held.
/// Errors:    std::runtime_error "Recording is currently disabled" from instance() as long as the card is missing
///            or unusable; DrennApiException; std::out_of_range for unknown tracks; what the store throws.
/// Lifetime:  setRecordingRootPath -> init -> use -> deinit, and again. A card that was unusable in init stays
///            unused until then; one that goes away and comes back while recording is taken up again by itself.
///            An init that throws is followed by deinit, too.
class CALVANE_API RecordingManager {
public:
    using Ptime = boost::posix_time::ptime;
    using Duration = boost::posix_time::time_duration;
    using InfoMap = std::map<std::string, std::string>;
    using RecordHeader = calvane::RecordHeader;

    enum HistoryEventType : int {
        RECORDING_STATE_EVENT = kRecordingStateEvent, ///< With kRecordingState.
        TRACK_DATA_PRESENT_EVENT =
            kTrackDataPresentEvent ///< With kTrackType, kTrackDataPresent, perhaps kReason.
    };

    // Keys of info maps.
    static const std::string kAudioBitsPerSample;
    static const std::string kAudioNumChannels;
    static const std::string kAudioSamplingFrequency;
    static const std::string kAudioBufferFormat;
    static const std::string kVideoEncoding;
    static const std::string kVideoWidth;
    static const std::string kVideoHeight;
    static const std::string kVideoFrameRateMilliHz;
    static const std::string kVideoBitrate;
    static const std::string kH264ProfileAndLevel;
    static const std::string kH264SeqParamSet;
    static const std::string kH264PicParamSet;
    // Keys of history records.
    static const std::string kHistoryEventType;
    static const std::string kRecordingState;
    static const std::string kTrackType;
    static const std::string kTrackDataPresent;
    static const std::string kReason; ///< A CoverageReason, unless data just stopped.

    static constexpr track_type kHistoryTrack = calvane::kHistoryTrack;
    /// At this time and before it the clock cannot have been set.
    static const Ptime kEarliestAllowedRecording;
    /// Records further apart than this belong together only if the history says so.
    static const Duration kLargestRecordGap;

    /// Why recording is disabled. 0: it is not, or the services could not be started; 4: there is no card, or it
    /// cannot be listed; 5: there is foreign data on it; 6: the recording could not be opened.
    static std::int32_t _recordingDisabledReason;

    // Lifecycle

    /// Where the card is mounted. Before init(). A slash is added to its end if there is none.
    static void setRecordingRootPath(const std::string& path);
    static const std::string& getRecordingRootPath();
    /// The share of the card in percent that is used before the oldest data is erased.
    static std::uint32_t getDiskMaxPercent();
    static void init();
    static void deinit();
    static RecordingManager* instance();
    /// Throws unless the card is there and holds nothing but recordings.
    static void validateStorageLocation();
    static void validateStorageDirectoryEntry(const std::filesystem::directory_entry& entry);
    /// Model name, comma, serial number.
    static std::string getDeviceInfoString();
    static void* getLogCookie() { return _logCookie; }
    /// Null before init() and after deinit().
    static std::shared_ptr<RecordingInformationImpl> getInformationService();

    RecordingManager();
    virtual ~RecordingManager();
    RecordingManager(const RecordingManager&) = delete;
    RecordingManager& operator=(const RecordingManager&) = delete;

    /// Whether nothing is recorded since the clock has come up behind the newest record and is not synchronised yet.
    bool isAwaitingClock() const;
    /// Returns when each track could take a record: its writer and whoever reads it are not stuck.
    void awaitWriters() const;
    /// Erases the records of all tracks.
    void clearAll();
    /// Any of the four. Throws std::out_of_range.
    RecordingTrack& getTrack(track_type type) const;

    // History

    /// Throws std::invalid_argument for a key or a value with a line feed.
    static void serializeTrackInfo(const InfoMap& info, std::string& out);
    static void deserializeTrackInfo(const std::string& in, InfoMap& out);
    /// Appends to the history at once. What goes wrong is logged.
    void writeHistoryRecord(const Ptime& t, const std::string& serializedInfo);
    /// The caller holds the history track's lock.
    void getHistoryRecord(unsigned int index, InfoMap& info, Ptime& t) const;
    void queueTrackRecordingHistoryRecord(const Ptime& t, track_type type, bool present);
    /// Writes the queued events that are at least 1.5 s old. The host calls it several times a second.
    void processHistorySaveQueue();
    /// Tells clients at once, and the history after its hold time.
    void notifyTrackRecordingDataPresentChange(const Ptime& t, track_type type, bool present,
                                               CoverageReason reason = CoverageReason::Stopped);
    /// Closes what was open when the device went down.
    void correctHistoryAfterReboot();
    static HistoryEventType getEventType(const InfoMap& info);
    /// By the history alone; see getCoverage.
    bool isDataAvailable(const Ptime& t, track_type type) const;
    bool isDataAvailable(const Ptime& t) const;
    /// Of a track's first records.
    static void getTrackInfo(const drenn::multi_track_recorder::Track& track, InfoMap& info);

    // Retention and time

    static Duration getMaxRetentionTime();
    /// 0, less and special durations mean no limit; special ones are stored as 0. One whose seconds an int does
    /// not hold becomes the nearest that it holds, about 68 years.
    /// Both settings change in one transaction.
    static void setMaxRetentionTime(const Duration& rt);
    /// How much space is taken at most; 0: as much as there is. A part of a MiB counts as one. The oldest segments are erased
    /// when a class of tracks takes more; the one that is being written, of some 16 MiB, does not count.
    static RecordingSpace getMaxSpace();
    static void setMaxSpace(const RecordingSpace& space);
    /// Takes over a limit that another process has set, when two calls in a row have read it: somebody may be setting
    /// one after the other. Returns whether a limit has changed. Nothing is written.
    static bool takeMaxRetentionTimeSetting();
    void enforceMaxRetentionTime();
    /// Erases what is recorded from `t` on, and the record before it.
    void eraseDataFrom(const Ptime& t);
    /// Of all data tracks. The caller passes not-a-date-time twice.
    bool getRecordingTimePeriod(Ptime& first, Ptime& last) const;
    /// The time of the record that follows the one at `t`; not-a-date-time if there is none.
    Ptime getEarliestDataAfter(const Ptime& t, track_type type) const;
    Ptime getEarliestDataAfter(const Ptime& t) const;
    static void updateEarliest(Ptime& current, const Ptime& candidate);
    static void updateLatest(Ptime& current, const Ptime& candidate);
    /// Splits a record. `data` points into it. False if it has not two blobs.
    static bool getPlaybackInfo(const drenn::multi_track_recorder::BlobRecord& record,
                                const unsigned char*& data, unsigned int& size, RecordHeader& header);

    // Queries that look at history, records and what is being recorded at the moment

    /// Where a data track has data between two times, in order and without a gap; at one time if both are the
    /// same. Throws std::invalid_argument for special times and if `to` is earlier than `from`.
    std::vector<CoverageSpan> getCoverage(track_type type, const Ptime& from, const Ptime& to) const;
    /// The same, up to `max` spans, at least one. A span that reaches over the end of a page goes on with the next.
    CoveragePage findCoverage(track_type type, const Ptime& from, const Ptime& to, unsigned int max) const;
    /// Whether there is data at `t`, by the same rules.
    bool isRecordedAt(const Ptime& t, track_type type) const;
    /// Up to `max` events between two times, both included, oldest first or newest first. `cursor` starts as
    /// {from, 0}, or {to, 0} backwards, and goes on with the page's `next`.
    HistoryPage findHistory(const Ptime& from, const Ptime& to, bool backward, unsigned int max,
                            const HistoryCursor& cursor) const;
    /// The event at the cursor or the first one after it, and where to go on; no event if there is none.
    HistoryPage getHistoryEvent(const HistoryCursor& cursor) const;
    TrackStatus getTrackStatus(track_type type) const;

private:
    static void enforceLimits();

    static std::atomic<RecordingManager*> _singleton;
    static void* _logCookie;

    std::unique_ptr<RecordingSession> _session; // From construction to destruction.
};

} // namespace quarn::calvane
