#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "drenn/multi_track_recorder/MultiTrackRecorder.h"
#include "drenn/multi_track_recorder/internal/Store.h"
#include "support/store/SimFileSystem.h"

/// What a record of one track of a workload holds: told by its number alone, so that every read can be checked.
struct TestRecord {
    unsigned int track;
    unsigned int number;

    std::vector<std::vector<unsigned char>> Blobs() const;
};

/// How the expected content of a store came about. Moments are numbers of the disk's operations: something that was done
/// before moment M is on the disk when the first M operations are.
struct RecordLife {
    static constexpr std::size_t kNever = std::numeric_limits<std::size_t>::max();

    std::string info;                ///< The text that holds for it.
    std::size_t durable = kNever;    ///< It has to be there from this moment on,
    std::size_t eraseBegun = kNever; ///< up to this one,
    std::size_t erased = kNever;     ///< and not be there any more from this one on.
};

struct TrackLife {
    unsigned int id;
    std::string recordingInfo;
    std::size_t made = RecordLife::kNever; ///< With its format.
    std::size_t eraseBegun = RecordLife::kNever;
    std::size_t erased = RecordLife::kNever;
    std::vector<RecordLife> records; ///< By number.
};

/// A small store with a model beside it, changed by random operations that are drawn from a seed.
class Workload {
public:
    /// `lives`: what there may be on the disk. What is found is durable from now on, since opening makes it so, and what
    /// is not must never come back.
    Workload(SimFileSystem& disk, const drenn::multi_track_recorder::StoreOptions& options, unsigned int seed,
             std::vector<TrackLife> lives = {});
    /// On any disk, whose operations `getMoment` counts.
    Workload(drenn::multi_track_recorder::IFileSystem& files, std::function<std::size_t()> getMoment,
             const drenn::multi_track_recorder::StoreOptions& options, unsigned int seed,
             std::vector<TrackLife> lives = {});
    ~Workload();

    /// From now on another thread commits, syncs or makes room in the middle of operations: it begins at one of the disk's
    /// changes, which waits until the other is done or waits for a lock.
    void Interrupt(SimFileSystem& disk) { interrupted_ = &disk; }
    /// Does one operation at random; compares what it touches with the model. Throws what the store throws.
    void Step();
    /// Closes and opens the store and compares all of it with the model.
    void Reopen();

    drenn::multi_track_recorder::Store& GetStore() { return *store_; }
    const std::vector<TrackLife>& GetLives() const { return lives_; }
    /// What was found different so far, one line each.
    const std::vector<std::string>& GetFaults() const { return faults_; }

    static drenn::multi_track_recorder::StoreOptions SmallStore();

private:
    using RecordingPtr = boost::shared_ptr<drenn::multi_track_recorder::Recording>;
    using TrackPtr = boost::shared_ptr<drenn::multi_track_recorder::Track>;
    struct OpenTrack {
        unsigned int number; // In lives_.
        RecordingPtr recording;
        TrackPtr track;
        std::string info;                  // That holds for what is appended next.
        std::vector<unsigned int> present; // Numbers of its records, by index.
        boost::signals2::scoped_connection connection;
    };

    void Open();
    void Find(const RecordingPtr& recording, const TrackPtr& track);
    void Adopt();
    void AdoptRecords(OpenTrack& open, TrackLife& life);
    void Connect(OpenTrack& open);
    void NewTrack();
    void EraseTrack(OpenTrack& open);
    void Append(OpenTrack& open);
    void SetInfo(OpenTrack& open);
    void Erase(OpenTrack& open);
    void Sync();
    void OnErase(unsigned int number, unsigned int first, unsigned int last);
    void FinishErasures();
    void Do(const std::function<void()>& action);
    std::pair<unsigned int, unsigned int> InfoRange(const OpenTrack& open, unsigned int index) const;
    void Compare(OpenTrack& open, unsigned int index);
    void Fault(const std::string& text) { faults_.push_back(text); }
    unsigned int Random(unsigned int below) { return static_cast<unsigned int>(random_() % below); }

    drenn::multi_track_recorder::IFileSystem& files_;
    const std::function<std::size_t()> getMoment_;
    const drenn::multi_track_recorder::StoreOptions options_;
    std::mt19937 random_;
    std::unique_ptr<drenn::multi_track_recorder::Store> store_;
    std::vector<std::unique_ptr<OpenTrack>> tracks_;
    std::vector<TrackLife> lives_;
    SimFileSystem* interrupted_ = nullptr;
    std::mutex erasingMutex_;
    // Tracks and records, until the step ends. Guarded by erasingMutex_.
    std::vector<std::pair<unsigned int, unsigned int>> erasing_;
    std::vector<std::string> faults_;
};

/// What may be left of it when the process dies or the power goes at a moment: what came later never came.
std::vector<TrackLife> LivesAt(std::size_t moment, std::vector<TrackLife> lives);

/// Compares a store with what it may hold at a moment; returns what is wrong.
std::vector<std::string> CheckAt(std::size_t moment, drenn::multi_track_recorder::Store& store,
                                 const std::vector<TrackLife>& lives);
