#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <new>
#include <random>

#include "drenn/multi_track_recorder/internal/recovery/StoreVerifier.h"
#include "support/Effort.h"
#include "support/TempFolder.h"
#include "support/WaitUntil.h"
#include "support/store/Workload.h"

using namespace drenn::multi_track_recorder;
using testing::IsEmpty;

namespace {

/// What the writer tells, in memory that outlives it.
struct Told {
    std::atomic<unsigned int> flushed{0}; ///< So many records must be there.
};

boost::shared_ptr<Track> OnlyTrack(MultiTrackRecorder& recorder, boost::shared_ptr<Recording>& recording) {
    const auto recordings = recorder.getRecordings();
    recording = recordings.empty() ? recorder.newRecording() : recordings.front().lock();
    const auto tracks = recording->getTracks();
    return tracks.empty() ? recording->newTrack() : tracks.front().lock();
}

// Appends until it is killed.
[[noreturn]] void Write(const std::string& storage, const std::string& database, Told& told) {
    const auto recorder = MultiTrackRecorder::create(storage, database, 100);
    boost::shared_ptr<Recording> recording;
    const auto track = OnlyTrack(*recorder, recording);
    for (unsigned int number = track->size();; ++number) {
        BlobRecord record;
        for (const auto& blob : TestRecord{0, number}.Blobs()) {
            record.add(Blob(std::vector<unsigned char>(blob)));
        }
        *track << record;
        if (number % 16 == 0) {
            recorder->flush();
            told.flushed = number + 1;
        }
    }
}

} // namespace

TEST(Kill, LosesNothingThatWasFlushed) {
    const TempFolder folder;
    void* const memory =
        mmap(nullptr, sizeof(Told), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, memory);
    Told& told = *new (memory) Told;
    std::mt19937 random(3);
    for (std::size_t round = 0; round != Effort(200) && !HasFailure(); ++round) {
        const pid_t writer = fork();
        ASSERT_GE(writer, 0);
        if (writer == 0) {
            try {
                Write(folder.Path("data"), folder.Path("database"), told);
            } catch (const std::exception& error) {
                (void)!write(STDERR_FILENO, error.what(), std::strlen(error.what()));
                _exit(1);
            }
        }
        if (round % 2 == 0) { // In the other rounds it is killed while it opens the store, too.
            WaitUntil([&told, before = told.flushed.load()] { return told.flushed != before; });
        }
        usleep(2000 + static_cast<useconds_t>(random() % 40000));
        kill(writer, SIGKILL);
        int status = 0;
        ASSERT_EQ(writer, waitpid(writer, &status, 0));
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer failed by itself";
        const auto recorder = MultiTrackRecorder::create(folder.Path("data"), folder.Path("database"), 100);
        boost::shared_ptr<Recording> recording;
        const auto track = OnlyTrack(*recorder, recording);
        EXPECT_GE(track->size(), told.flushed);
        for (unsigned int number = track->size() - std::min(track->size(), 100U); number < track->size();
             ++number) {
            BlobRecord record;
            track->seekg(number);
            *track >> record;
            const auto expected = TestRecord{0, number}.Blobs();
            ASSERT_EQ(expected.size(), record.blobs().size());
            for (std::size_t blob = 0; blob != expected.size(); ++blob) {
                EXPECT_EQ(expected[blob], std::vector<unsigned char>(
                                              record.blobs()[blob].data(),
                                              record.blobs()[blob].data() + record.blobs()[blob].size()));
            }
        }
    }
    EXPECT_GT(told.flushed, 0U);
    EXPECT_THAT(VerifyStore(PosixFileSystem(), folder.Path("data"), folder.Path("database")), IsEmpty());
    munmap(memory, sizeof(Told));
}
