#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>

#include "drenn/multi_track_recorder/internal/recovery/StoreVerifier.h"
#include "quarn/core/LogCapture.h"
#include "support/TestStore.h"
#include "support/store/Workload.h"

using namespace drenn::multi_track_recorder;
using testing::IsEmpty;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__arm__)
constexpr std::size_t kStates = 600; // Sanitizers and emulators are slow.
constexpr unsigned int kSteps = 150;
constexpr std::size_t kKillStride = 300;
constexpr unsigned int kRuns = 2;
#else
constexpr std::size_t kStates = 10000;
constexpr unsigned int kSteps = 500;
constexpr std::size_t kKillStride = 60;
constexpr unsigned int kRuns = 25;
#endif
constexpr unsigned int kRandomEach = 2;

/// One run of a store and what became of it.
struct Story {
    std::vector<DiskOperation> trace;
    std::vector<TrackLife> lives;
};

Story Tell(unsigned int seed) {
    SimFileSystem disk;
    disk.SetCapacity(std::uint64_t{1650} * 1024); // 1 MiB is held back, and the ring turns.
    Workload workload(disk, Workload::SmallStore(), seed);
    for (unsigned int step = 0; step != kSteps; ++step) {
        workload.Step();
    }
    EXPECT_THAT(workload.GetFaults(), IsEmpty());
    return {disk.GetTrace(), workload.GetLives()};
}

/// Opens what a power cut left and says what is wrong with it.
std::vector<std::string> Examine(std::size_t moment, SimFileSystem& disk,
                                 const std::vector<TrackLife>& lives) {
    const StoreOptions options = Workload::SmallStore();
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

/// The moments at which what must be there, or must not, is another.
std::set<std::size_t> ChangesOfDuty(const std::vector<TrackLife>& lives) {
    std::set<std::size_t> moments;
    const auto add = [&](std::size_t moment) {
        moments.insert(moment);
        moments.insert(moment + (moment == RecordLife::kNever ? 0 : 1));
    };
    for (const TrackLife& track : lives) {
        for (const std::size_t moment : {track.made, track.eraseBegun, track.erased}) {
            add(moment);
        }
        for (const RecordLife& record : track.records) {
            for (const std::size_t moment : {record.durable, record.eraseBegun, record.erased}) {
                add(moment);
            }
        }
    }
    return moments;
}

unsigned int NumberAt(Track& track, unsigned int index) {
    BlobRecord record;
    track.seekg(index);
    track >> record;
    unsigned int number = ~0U;
    std::memcpy(&number, record.blobs().at(0).data() + 8, sizeof number);
    return number;
}

/// What a recovered store has is durable from when it was opened, and what it has not is never to come.
void AdoptContent(Store& store, std::size_t killed, std::size_t recovered, std::vector<TrackLife>& lives) {
    std::map<unsigned int, boost::shared_ptr<Track>> tracks;
    for (const auto& recording : store.GetRecordings()) {
        for (const auto& track : recording.lock()->getTracks()) {
            tracks[track.lock()->getId()] = track.lock();
        }
    }
    for (TrackLife& life : lives) {
        const auto after = [&](std::size_t moment) { return moment > killed ? RecordLife::kNever : moment; };
        life.made = after(life.made);
        life.eraseBegun =
            life.erased > killed && life.eraseBegun <= killed ? life.eraseBegun : after(life.eraseBegun);
        life.erased = after(life.erased);
        for (RecordLife& record : life.records) {
            record.durable = after(record.durable);
            record.eraseBegun = after(record.eraseBegun);
            record.erased = after(record.erased);
        }
        const auto track = tracks.find(life.id);
        for (unsigned int i = 0; track != tracks.end() && i != track->second->size(); ++i) {
            RecordLife& record = life.records.at(NumberAt(*track->second, i));
            record.durable = std::min(record.durable, recovered);
            // Whether an erasure that was begun is done is known now: it is not.
            record.eraseBegun = RecordLife::kNever;
        }
    }
}

std::vector<unsigned int> Numbers(Track& track) {
    std::vector<unsigned int> numbers;
    for (unsigned int i = 0; i != track.size(); ++i) {
        numbers.push_back(static_cast<unsigned int>(std::stoul(TextAt(track, i))));
    }
    EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end()));
    return numbers;
}

MATCHER_P(Contains, expected, "") {
    return std::includes(arg.begin(), arg.end(), expected.begin(), expected.end());
}

bool IsSync(const DiskOperation& operation) {
    return operation.kind == DiskOperation::Kind::SyncFile ||
           operation.kind == DiskOperation::Kind::SyncFolder;
}

/// What a sync is of, so that all of one kind can be left out.
std::string KindOf(const DiskOperation& sync) {
    const std::string kind = sync.kind == DiskOperation::Kind::SyncFolder ? "folder " : "file ";
    const std::string name = sync.path.substr(sync.path.rfind('/') + 1);
    const bool isSegment =
        sync.path.find("/data/") != std::string::npos && name.find("store") == std::string::npos;
    return kind + (isSegment ? "segment" : name);
}

} // namespace

TEST(PowerCut, LosesNothingThatWasDurableAndBringsNothingBack) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    const char* const wanted = std::getenv("CALVANE_STORE_STATES"); // A long run, of so many states.
    const std::size_t states = wanted == nullptr ? kStates : std::strtoul(wanted, nullptr, 10);
    std::size_t distinct = 0;
    for (unsigned int seed = 0; distinct < states && !HasFailure(); ++seed) {
        const Story story = Tell(seed);
        const std::set<std::size_t> changes = ChangesOfDuty(story.lives);
        std::set<std::uint64_t> opened;
        PowerCuts(story.trace).ForEach(kRandomEach, seed, [&](std::size_t moment, const DiskImage& image) {
            const auto duty = std::distance(changes.begin(), changes.upper_bound(moment));
            if (HasFailure() || distinct >= states ||
                !opened.insert(HashOf(image) + static_cast<std::uint64_t>(duty) * 0x9E3779B97F4A7C15U)
                     .second) {
                return;
            }
            ++distinct;
            SimFileSystem disk(image);
            EXPECT_THAT(Examine(moment, disk, story.lives), IsEmpty())
                << "seed " << seed << " moment " << moment;
        });
    }
    RecordProperty("states", static_cast<int>(distinct));
    std::cout << distinct << " different states of the disk were opened\n";
}

// The power goes again while the store is being put in order.
TEST(PowerCut, DuringRecoveryChangesNothing) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    const Story story = Tell(99);
    std::size_t chosen = 0;
    PowerCuts(story.trace).ForEach(1, 99, [&](std::size_t moment, const DiskImage& image) {
        if (++chosen % 400 != 0 || HasFailure()) {
            return;
        }
        SimFileSystem disk(image);
        EXPECT_THAT(Examine(moment, disk, story.lives), IsEmpty());
        PowerCuts(disk.GetTrace(), image).ForEach(1, 1, [&](std::size_t, const DiskImage& again) {
            SimFileSystem second(again);
            EXPECT_THAT(Examine(moment, second, story.lives), IsEmpty()) << "moment " << moment;
        });
    });
}

// First the process is killed, then the power goes: what recovery finds in the page cache is not durable, and what it
// makes of it must be.
TEST(PowerCut, AfterAKillFindsWhatRecoveryPromised) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    const Story story = Tell(98);
    for (std::size_t killed = 50; killed < story.trace.size() && !HasFailure(); killed += kKillStride) {
        std::vector<DiskOperation> trace(story.trace.begin(),
                                         story.trace.begin() + static_cast<std::ptrdiff_t>(killed));
        DiskImage cached;
        for (const DiskOperation& operation : trace) {
            cached.Apply(operation);
        }
        SimFileSystem disk(cached);
        std::vector<TrackLife> lives = story.lives;
        std::size_t recovered = 0;
        {
            Store store(disk, Workload::SmallStore());
            recovered = killed + disk.GetTraceLength();
            AdoptContent(store, killed, recovered, lives);
        }
        const std::vector<DiskOperation> more = disk.GetTrace();
        trace.insert(trace.end(), more.begin(), more.end());
        PowerCuts(trace).ForEach(
            1, 98,
            [&](std::size_t moment, const DiskImage& image) {
                SimFileSystem left(image);
                EXPECT_THAT(Examine(std::min(moment, recovered), left, lives), IsEmpty())
                    << "killed at " << killed << ", cut at " << moment;
            },
            killed);
    }
}

// Crash, recovery, more records, and again.
TEST(PowerCut, GoesOnForGenerations) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    std::mt19937 random(4);
    for (unsigned int run = 0; run != kRuns && !HasFailure(); ++run) {
        DiskImage image;
        std::vector<unsigned int> durable; // Numbers of the records that must be there.
        unsigned int next = 0;
        for (unsigned int generation = 0; generation != 8 && !HasFailure(); ++generation) {
            SimFileSystem disk(image);
            disk.SetCapacity(std::uint64_t{8} << 20U);
            std::size_t synced = 0;
            std::vector<unsigned int> before = durable;
            std::vector<unsigned int> after = durable;
            {
                Store store(disk, Workload::SmallStore());
                const auto recordings = store.GetRecordings();
                const auto recording = recordings.empty() ? store.NewRecording() : recordings.front().lock();
                const auto tracks = recording->getTracks();
                const auto track = tracks.empty() ? recording->newTrack() : tracks.front().lock();
                EXPECT_THAT(Numbers(*track), Contains(durable))
                    << "run " << run << " generation " << generation;
                before = after = Numbers(*track); // Opening makes durable what it found.
                const std::size_t begun = disk.GetTraceLength();
                for (unsigned int i = 0; i != 60; ++i) {
                    AppendText(*track, std::to_string(next));
                    after.push_back(next++);
                    if (i % 7 == 0) {
                        store.Commit();
                    }
                }
                store.Sync();
                synced = disk.GetTraceLength();
                for (unsigned int i = 0; i != 20; ++i) {
                    AppendText(*track, std::to_string(next++));
                }
                store.Commit();
                const std::size_t end = disk.GetTraceLength();
                const std::size_t cut = begun + random() % (end - begun + 1);
                std::size_t chosen = random() % 5;
                std::vector<DiskOperation> trace = disk.GetTrace();
                trace.resize(cut);
                DiskImage left;
                PowerCuts(trace, image)
                    .ForEach(
                        2, run * 100 + generation,
                        [&](std::size_t, const DiskImage& each) {
                            if (left.names.empty() || chosen-- > 0) {
                                left = each;
                            }
                        },
                        cut);
                durable = cut >= synced ? after : before;
                image = left;
            }
        }
    }
}

// The test of the test: each kind of sync is needed for something.
TEST(PowerCut, IsNoticedWhereASyncIsMissing) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    const Story story = Tell(7);
    std::map<std::string, unsigned int> kinds;
    for (const DiskOperation& operation : story.trace) {
        // Folders themselves are there at once on the simulated disk.
        if (IsSync(operation) && operation.path != "/card") {
            ++kinds[KindOf(operation)];
        }
    }
    for (const auto& [kind, count] : kinds) {
        std::vector<DiskOperation> careless = story.trace;
        for (DiskOperation& operation : careless) {
            if (IsSync(operation) && KindOf(operation) == kind) {
                operation = {DiskOperation::Kind::SyncFile, 0, "nothing", "", 0, {}};
            }
        }
        unsigned int noticed = 0;
        PowerCuts(careless).ForEach(kRandomEach, 7, [&](std::size_t moment, const DiskImage& image) {
            if (noticed == 0) {
                SimFileSystem disk(image);
                noticed += Examine(moment, disk, story.lives).empty() ? 0U : 1U;
            }
        });
        EXPECT_NE(0U, noticed) << "nobody misses the " << count << " syncs of " << kind;
    }
}
