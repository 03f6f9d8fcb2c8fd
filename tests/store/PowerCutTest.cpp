#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <random>
#include <set>
#include <unordered_set>

#include "drenn/multi_track_recorder/internal/io/Catalogue.h"
#include "drenn/multi_track_recorder/internal/io/SqliteVfs.h"
#include "drenn/multi_track_recorder/internal/recovery/Opening.h"
#include "drenn/multi_track_recorder/internal/recovery/StoreVerifier.h"
#include "quarn/core/LogCapture.h"
#include "support/Effort.h"
#include "support/TestStore.h"
#include "support/store/Workload.h"

using namespace drenn::multi_track_recorder;
using testing::IsEmpty;
using Kind = DiskOperation::Kind;

namespace {

constexpr unsigned int kGenerations = 5;
constexpr unsigned int kSteps = 150;
constexpr unsigned int kRandomEach = 2;
constexpr std::uint64_t kCapacity = 1650 * 1024; // More than these few steps fill.
constexpr std::uint64_t kSmall = 400 * 1024;     // The ring turns.

/// Opens what a power cut left and says what is wrong with it.
std::vector<std::string> Examine(std::size_t moment, const DiskImage& image,
                                 const std::vector<TrackLife>& lives) {
    const StoreOptions options = Workload::SmallStore();
    SimFileSystem disk(image);
    disk.isTracing = false;
    try {
        {
            Store store(disk, options);
            std::vector<std::string> faults = CheckAt(moment, store, lives);
            if (!faults.empty()) {
                return faults;
            }
        }
        return VerifyStore(disk, options.storage, options.database);
    } catch (const std::exception& error) {
        return {error.what()};
    }
}

bool IsChange(const std::string& operation) {
    return operation == "write" || operation == "sync" || operation == "truncate" || operation == "rename" ||
           operation == "remove" || operation == "sync folder" || operation == "reserve";
}

/// A disk and the processes that use it one after the other. Each is killed or loses its power at some moment, and the next
/// one goes on with what that left.
class Generations {
public:
    explicit Generations(unsigned int seed) : random_(seed), capacity_(seed % 2 == 0 ? kSmall : kCapacity) {}

    /// What one process does, in whose way there may be errors of the device.
    void Live() {
        SimFileSystem disk(cached_, before_, first_);
        disk.capacity = capacity_;
        begin_ = disk.GetMoment();
        const bool isFaulty = Random(2) == 0;
        disk.SetFault(isFaulty ? RandomFault() : nullptr);
        try {
            Workload workload(disk, Workload::SmallStore(), Random(~0U), lives_);
            if (Random(2) == 0) {
                workload.Interrupt(disk);
            }
            try {
                for (unsigned int step = 0; step != kSteps; ++step) {
                    workload.Step();
                }
            } catch (const std::exception& error) { // Told to the caller, who cannot know what was done.
                EXPECT_TRUE(isFaulty) << error.what();
            }
            lives_ = workload.GetLives();
            EXPECT_THAT(workload.GetFaults(), IsEmpty());
        } catch (const std::exception& error) {
            EXPECT_TRUE(isFaulty) << error.what();
        }
        trace_ = disk.GetTrace();
    }

    /// Every state that the power may leave when it goes while that process lives.
    void ForEachCut(const std::function<void(std::size_t moment, const DiskImage& image)>& check) const {
        PowerCuts(trace_, start_, first_).ForEach(kRandomEach, 1, check, begin_);
    }

    /// It ends at some moment, or when it has closed its store.
    void Die() {
        const std::size_t closed = first_ + trace_.size();
        const std::size_t end =
            Random(4) == 0 ? closed : begin_ + Random(static_cast<unsigned int>(closed - begin_ + 1));
        const auto left = trace_.begin() + static_cast<std::ptrdiff_t>(end - first_);
        // What a failed sync was for may be in the page cache and nowhere else: whoever finds it there is deceived.
        const bool mayBeKilled = std::none_of(trace_.begin(), left, [](const DiskOperation& operation) {
            return operation.kind == Kind::FailedSync;
        });
        lives_ = LivesAt(end, lives_);
        if (mayBeKilled && Random(2) == 0) {
            before_.assign(trace_.begin(), left);
            cached_ = start_;
            std::for_each(trace_.begin(), left, [&](const auto& operation) { cached_.Apply(operation); });
            return;
        }
        std::vector<DiskImage> images;
        PowerCuts(trace_, start_, first_)
            .ForEach(
                kRandomEach, Random(~0U), [&](std::size_t, const DiskImage& each) { images.push_back(each); },
                end, end);
        start_ = cached_ = images[Random(static_cast<unsigned int>(images.size()))];
        before_.clear();
        first_ = end + 1;
    }

    const std::vector<TrackLife>& GetLives() const { return lives_; }

private:
    unsigned int Random(unsigned int below) { return static_cast<unsigned int>(random_() % below); }
    SimFileSystem::Fault RandomFault() {
        constexpr int kErrors[] = {EIO, ENOSPC, EDQUOT, EROFS};
        return [number = Random(150), isSticking = Random(2) == 0, error = kErrors[Random(4)], changes = 0U](
                   const char* operation, const std::string&) mutable {
            changes += IsChange(operation) ? 1U : 0U;
            const bool fails = IsChange(operation) && (changes == number || (isSticking && changes > number));
            return fails ? error : 0;
        };
    }

    std::mt19937 random_;
    const std::uint64_t capacity_;
    DiskImage start_;                   // What was durable at the moment first_.
    std::size_t first_ = 0;             // At which the trace begins.
    DiskImage cached_;                  // What the next process finds.
    std::vector<DiskOperation> before_; // Of those that were killed, in the page cache.
    std::size_t begin_ = 0;             // When the newest process began.
    std::vector<DiskOperation> trace_;
    std::vector<TrackLife> lives_;
};

/// The moments at which what must be there, or must not, is another.
std::set<std::size_t> ChangesOfDuty(const std::vector<TrackLife>& lives) {
    std::set<std::size_t> moments;
    const auto add = [&](std::initializer_list<std::size_t> all) {
        for (const std::size_t moment : all) {
            moments.insert({moment, std::max(moment, moment + 1)});
        }
    };
    for (const TrackLife& track : lives) {
        add({track.made, track.eraseBegun, track.erased});
        for (const RecordLife& record : track.records) {
            add({record.durable, record.eraseBegun, record.erased});
        }
    }
    return moments;
}

/// What a sync is of.
std::string KindOf(const DiskOperation& sync) {
    const std::string name = sync.path.substr(sync.path.rfind('/') + 1);
    return name.find(".seg") == std::string::npos ? name : "segment";
}

} // namespace

// Recovery, its own syncs and those of the processes before it, errors of the device, kill and power cuts, again and again.
TEST(PowerCut, LosesNothingThatWasDurableAndBringsNothingBack) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    const std::size_t states = Effort(10000);
    std::size_t distinct = 0;
    for (unsigned int seed = 0; distinct < states && !HasFailure(); ++seed) {
        Generations run(seed);
        for (unsigned int generation = 0; generation != kGenerations && !HasFailure(); ++generation) {
            run.Live();
            const std::set<std::size_t> changes = ChangesOfDuty(run.GetLives());
            std::unordered_set<std::uint64_t> opened;
            run.ForEachCut([&](std::size_t moment, const DiskImage& image) {
                const auto duty = std::distance(changes.begin(), changes.upper_bound(moment));
                if (HasFailure() || distinct >= states ||
                    !opened.insert(HashOf(image) + static_cast<std::uint64_t>(duty) * 0x9E3779B97F4A7C15U)
                         .second) {
                    return;
                }
                ++distinct;
                EXPECT_THAT(Examine(moment, image, run.GetLives()), IsEmpty())
                    << "seed " << seed << " generation " << generation << " moment " << moment;
            });
            run.Die();
        }
    }
    std::cout << distinct << " different states of the disk were opened\n";
}

// Opening reads through what is not sealed for certain. That is to stay one segment, however long the store lives.
TEST(PowerCut, LeavesOneSegmentToBeReadThrough) {
    SimFileSystem disk;
    const StoreOptions options = Workload::SmallStore();
    Store store(disk, options);
    const auto track = store.NewRecording()->newTrack();
    std::size_t segments = 0;
    for (unsigned int second = 0; second != 60; ++second) {
        for (unsigned int i = 0; i != 10; ++i) {
            AppendText(*track, std::string(300, 'x'));
        }
        store.Sync();
        SimFileSystem left(PowerCuts(disk.GetTrace()).Durable());
        const SqliteVfs vfs(left, SqliteVfs::Access::ReadOnly);
        Catalogue catalogue(options.database + "/catalogue", vfs.Name(), Catalogue::Mode::ReadOnly);
        const std::size_t sealed = catalogue.Load().segments.size();
        segments = ListSegments(left, options.storage).size();
        EXPECT_EQ(segments - sealed, 1U) << "second " << second;
    }
    EXPECT_GT(segments, 4U);
}

// The test of the test: of each kind there is a sync that is missed when it alone is left out.
TEST(PowerCut, IsNoticedWhereOneSyncIsMissing) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    SimFileSystem disk;
    disk.capacity = kCapacity;
    Workload workload(disk, Workload::SmallStore(), 7);
    for (unsigned int step = 0; step != 500; ++step) {
        workload.Step();
    }
    std::set<std::string> kinds{"card", "data", "store.new", "segment", "catalogue", "catalogue-wal"};
    const std::vector<DiskOperation> trace = disk.GetTrace();
    for (std::size_t place = 0; place != trace.size(); ++place) {
        const DiskOperation& sync = trace[place];
        if ((sync.kind != Kind::SyncFile && sync.kind != Kind::SyncFolder) ||
            kinds.count(KindOf(sync)) == 0) {
            continue;
        }
        std::vector<DiskOperation> careless = trace;
        careless[place] = {Kind::SyncFile, ~0U, "", "", 0, {}};
        std::unordered_set<std::uint64_t> opened;
        const auto look = [&](std::size_t moment, const DiskImage& image) {
            if (kinds.count(KindOf(sync)) != 0 && opened.insert(HashOf(image)).second &&
                !Examine(moment, image, workload.GetLives()).empty()) {
                kinds.erase(KindOf(sync));
            }
        };
        PowerCuts(careless).ForEach(8, 7, look, place, place + 200);
    }
    EXPECT_THAT(kinds, IsEmpty()) << "nobody misses any of these syncs";
}
