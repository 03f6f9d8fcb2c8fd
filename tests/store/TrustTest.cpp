// Nothing that was durable is destroyed by opening, by repairing, by a flipped bit or by a card that was made to do harm.

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "drenn/multi_track_recorder/StoreInspection.h"
#include "drenn/multi_track_recorder/internal/io/SqliteVfs.h"
#include "drenn/multi_track_recorder/internal/recovery/StoreRebuilding.h"
#include "drenn/multi_track_recorder/internal/recovery/StoreVerifier.h"
#include "quarn/core/LogCapture.h"
#include "support/SmallCard.h"
#include "support/TestStore.h"
#include "support/ThrownText.h"
#include "support/store/Workload.h"

using namespace drenn::multi_track_recorder;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr char kStorage[] = "/card/data";
constexpr char kDatabase[] = "/card/database";
constexpr char kSegment[] = "/card/data/00000002-00000001.seg";
constexpr unsigned int kRecords = 100;

std::string NumberText(unsigned int number) {
    return "record " + std::to_string(number) + std::string(200, '.');
}

/// A store that a crash left open, with durable records in several blocks, an info text before each tenth.
DiskImage OpenStoreImage() {
    SimFileSystem disk;
    Store store(disk, Workload::SmallStore());
    const auto track = store.NewRecording()->newTrack();
    for (unsigned int i = 0; i != kRecords; ++i) {
        if (i % 10 == 0) {
            track->setInfo("info " + std::to_string(i));
            store.Sync();
        }
        AppendText(*track, NumberText(i));
    }
    store.Sync();
    return disk.GetImage();
}

/// The numbers of the records that can be read; every one must be what was appended, under its own info text or none.
std::vector<unsigned int> Readable(const Store& store) {
    std::vector<unsigned int> numbers;
    const auto track = store.GetRecordings().front().lock()->getTracks().front().lock();
    for (unsigned int i = 0; i != track->size(); ++i) {
        const std::string text = TextAt(*track, i);
        const auto number = static_cast<unsigned int>(std::stoul(text.substr(7)));
        EXPECT_EQ(text, NumberText(number));
        std::string info;
        track->seekg(i);
        track->getInfo(info);
        EXPECT_THAT(info, testing::AnyOf("info " + std::to_string(number / 10 * 10), "")) << text;
        numbers.push_back(number);
    }
    EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end()));
    return numbers;
}

std::vector<unsigned char>& Change(DiskImage& image, const std::string& path) {
    return image.Change(image.names.at(path));
}

bool operator==(const DiskImage& a, const DiskImage& b) {
    return a.names == b.names && std::all_of(a.names.begin(), a.names.end(), [&](const auto& name) {
               return *a.files.at(name.second) == *b.files.at(name.second);
           });
}

/// Opens what is there, and a second time, and says what can be read.
std::size_t OpenedTwice(const DiskImage& image, std::vector<std::string>* damage = nullptr) {
    SimFileSystem disk(image);
    std::size_t readable = 0;
    {
        const Store store(disk, Workload::SmallStore());
        readable = Readable(store).size();
        if (damage != nullptr) {
            *damage = store.GetDamage();
        }
    }
    const Store again(disk, Workload::SmallStore());
    EXPECT_EQ(Readable(again).size(), readable);
    return readable;
}

/// Puts the checksum of what is before it there.
void SealAt(std::vector<unsigned char>& file, std::size_t end) {
    Bytes sum;
    ByteWriter(sum).U64(ChecksumOf(file.data(), end, 0));
    std::copy(sum.begin(), sum.end(), file.begin() + static_cast<std::ptrdiff_t>(end));
}

} // namespace

TEST(Trust, ABitThatFlipsInAnOpenSegmentCostsWhatItIsIn) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    const DiskImage good = OpenStoreImage();
    ASSERT_EQ(OpenedTwice(good), kRecords);
    const std::size_t size = good.files.at(good.names.at(kSegment))->size();
    for (std::size_t byte = 0; byte < size && !HasFailure(); byte += 37) {
        if (byte >= 52 && byte < kSegmentHeaderBytes) {
            continue; // Nothing is there.
        }
        DiskImage bad = good;
        Change(bad, kSegment)[byte] ^= 4;
        std::vector<std::string> damage;
        EXPECT_GE(OpenedTwice(bad, &damage), kRecords - 10) << byte; // At most a block of ten.
        EXPECT_THAT(damage, Contains(HasSubstr(kSegment))) << byte;
        SimFileSystem disk(bad);
        const VerifyReport report = ExamineStore(disk, kStorage, kDatabase);
        EXPECT_FALSE(report.wrong.empty() && report.notes.empty()) << byte;
        EXPECT_TRUE(disk.GetImage() == bad) << "verify changed something";
    }
}

TEST(Trust, ASectorThatCannotBeReadCostsWhatIsInIt) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    SimFileSystem disk(OpenStoreImage());
    disk.SetBadBytes(kSegment, 8192, 12288);
    const Store store(disk, Workload::SmallStore());
    EXPECT_GE(Readable(store).size(), kRecords - 40);
    EXPECT_EQ(store.GetState(), StoreState::Good);
    EXPECT_THAT(store.GetDamage(), Contains(HasSubstr("Input/output error")));
}

TEST(Trust, WhatCannotBeReadAtAllIsSetAsideAndGivesWayFirst) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    DiskImage bad = OpenStoreImage();
    std::vector<unsigned char>& segment = Change(bad, kSegment);
    std::fill(segment.begin(), segment.end(), static_cast<unsigned char>(0x5a));
    SimFileSystem disk(bad);
    {
        const Store store(disk, Workload::SmallStore());
        EXPECT_THAT(store.GetDamage(), Contains(HasSubstr(".aside")));
    }
    const std::string aside = std::string(kSegment) + ".aside";
    ASSERT_TRUE(disk.Exists(aside));
    EXPECT_THAT(VerifyStore(disk, kStorage, kDatabase), IsEmpty());
    disk.capacity = std::uint64_t{3} << 20U;
    Store store(disk, Workload::SmallStore());
    const auto track = store.GetRecordings().front().lock()->getTracks().front().lock();
    AppendText(*track, NumberText(0));
    store.Sync();
    disk.capacity = std::uint64_t{1400} << 10U;
    store.Keep();
    EXPECT_FALSE(disk.Exists(aside));
}

TEST(Trust, ALaterVersionIsRefusedByNameAndNothingIsChanged) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    const DiskImage good = OpenStoreImage();
    std::vector<DiskImage> later(3, good);
    std::vector<unsigned char>& segment = Change(later[0], kSegment);
    segment[8] = 2;
    SealAt(segment, 44);
    Change(later[1], "/card/data/store")[8] = 2;
    SealAt(Change(later[1], "/card/data/store"), 28);
    {
        SimFileSystem disk(good);
        const SqliteVfs vfs(disk);
        Database("/card/database/catalogue", vfs.Name())
            .Execute("PRAGMA locking_mode=EXCLUSIVE; UPDATE store SET version=2");
        later[2] = disk.GetImage();
    }
    for (const DiskImage& image : later) {
        SimFileSystem disk(image);
        EXPECT_THAT(ThrownText<std::runtime_error>([&] { Store(disk, Workload::SmallStore()); }),
                    AllOf(HasSubstr("later version (2"), HasSubstr("/card/")));
        EXPECT_TRUE(disk.GetImage() == image);
        EXPECT_THAT(ThrownText<std::runtime_error>([&] { RebuildStore(disk, kStorage, kDatabase); }),
                    Not(IsEmpty()));
        EXPECT_EQ(disk.Exists(kSegment), true);
    }
}

// After a sync that failed pages count as clean: what was written before it must not count as durable, whatever the error.
TEST(Trust, AFileWhoseSyncFailedIsNotTrustedBeyondTheLastGoodOne) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    for (const int error : {ENOSPC, EDQUOT, EIO}) {
        bool hasFailed = false;
        std::string failed;
        bool isUsedAgain = false;
        SimFileSystem disk;
        Store store(disk, Workload::SmallStore());
        const auto track = store.NewRecording()->newTrack();
        AppendText(*track, "first");
        store.Sync();
        AppendText(*track, "second");
        disk.SetFault([&](const std::string& operation, const std::string& path) {
            if (operation == "sync" && path.find(".seg") != std::string::npos &&
                !std::exchange(hasFailed, true)) {
                failed = path;
                return error;
            }
            isUsedAgain = isUsedAgain || (path == failed && (operation == "write" || operation == "sync"));
            return 0;
        });
        store.Sync();
        EXPECT_TRUE(hasFailed);
        EXPECT_FALSE(isUsedAgain) << error;
        AppendText(*track, "third");
        store.Sync();
        SimFileSystem left(
            PowerCuts(disk.GetTrace()).Durable()); // The device never got what that sync was for.
        const Store again(left, Workload::SmallStore());
        const auto found = again.GetRecordings().front().lock()->getTracks().front().lock();
        ASSERT_EQ(found->size(), 3U) << error;
        EXPECT_EQ(TextAt(*found, 0) + TextAt(*found, 1) + TextAt(*found, 2), "firstsecondthird");
    }
}

TEST(Trust, NoFlippedBitOfTheCatalogueRemovesASegmentOrChangesARecord) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    SimFileSystem made(OpenStoreImage());
    { const Store closed(made, Workload::SmallStore()); }
    const DiskImage good = made.GetImage();
    const std::string path = std::string(kDatabase) + "/catalogue";
    ASSERT_FALSE(made.Exists(path + "-wal"));
    const std::size_t bits = good.files.at(good.names.at(path))->size() * 8;
    unsigned int refused = 0;
    for (std::size_t bit = 0; bit < bits && !HasFailure(); bit += 397) {
        DiskImage bad = good;
        Change(bad, path)[bit / 8] ^= static_cast<unsigned char>(1U << bit % 8);
        SimFileSystem disk(bad);
        try {
            const Store store(disk, Workload::SmallStore());
            EXPECT_EQ(Readable(store).size(), kRecords) << bit;
        } catch (const std::runtime_error&) {
            ++refused;
            EXPECT_THAT(RebuildStore(disk, kStorage, kDatabase), IsEmpty()) << bit;
            EXPECT_EQ(OpenedTwice(disk.GetImage()), kRecords) << bit;
        }
        EXPECT_TRUE(disk.Exists(kSegment)) << bit;
    }
    EXPECT_GT(refused, bits / 397 / 4);
}

// A catalogue as earlier versions made it: no room for checksums in its pages, and no table of damage.
TEST(Trust, AnEarlierCatalogueOpensAndGetsChecksums) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    const std::string path = std::string(kDatabase) + "/catalogue";
    SimFileSystem disk(OpenStoreImage());
    { const Store closed(disk, Workload::SmallStore()); }
    {
        const SqliteVfs vfs(disk);
        Database earlier(path + ".earlier", vfs.Name());
        earlier.Execute("PRAGMA locking_mode=EXCLUSIVE; ATTACH '" + path + "' AS made");
        std::vector<std::pair<std::string, std::string>> tables;
        for (Statement row(earlier,
                           "SELECT name, sql FROM made.sqlite_master WHERE type='table' AND name NOT IN"
                           " ('damage', 'sqlite_sequence')");
             row.Step();) {
            tables.emplace_back(row.Text(0), row.Text(1));
        }
        for (const auto& [name, sql] : tables) {
            earlier.Execute(sql);
            earlier.Execute("INSERT INTO main." + name + " SELECT * FROM made." + name);
        }
    }
    disk.Rename(path + ".earlier", path);
    const auto reserved = [&] {
        unsigned char header[21] = {};
        disk.Open(path, OpenMode::Read)->Read(0, header, sizeof header);
        return static_cast<int>(header[20]);
    };
    ASSERT_EQ(reserved(), 0);
    EXPECT_THAT(VerifyStore(disk, kStorage, kDatabase), IsEmpty());
    EXPECT_EQ(OpenedTwice(disk.GetImage()), kRecords);
    { const Store converted(disk, Workload::SmallStore()); }
    EXPECT_EQ(reserved(), SqliteVfs::kReservedBytes);
    EXPECT_THAT(VerifyStore(disk, kStorage, kDatabase), IsEmpty());
}

TEST(Trust, OneRowAloneRemovesNoSegment) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    SimFileSystem disk(OpenStoreImage());
    { const Store closed(disk, Workload::SmallStore()); }
    {
        const SqliteVfs vfs(disk);
        Database("/card/database/catalogue", vfs.Name())
            .Execute("PRAGMA locking_mode=EXCLUSIVE; UPDATE segments SET removing=1");
    }
    EXPECT_THAT(VerifyStore(disk, kStorage, kDatabase), Contains(HasSubstr("Invariant 8")));
    Store store(disk, Workload::SmallStore());
    store.Keep();
    EXPECT_EQ(Readable(store).size(), kRecords);
    EXPECT_TRUE(disk.Exists(kSegment));
}

TEST(Trust, RebuildSavesWhatCanBeReadOrChangesNothing) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    DiskImage lost = OpenStoreImage();
    for (const char* name : {"catalogue", "catalogue-wal"}) {
        lost.names.erase(std::string(kDatabase) + "/" + name);
    }
    Change(lost, kSegment)[20000] ^= 1;
    {
        SimFileSystem full(lost);
        full.capacity = full.GetUsed() + 20000;
        EXPECT_THAT(ThrownText<std::runtime_error>([&] { RebuildStore(full, kStorage, kDatabase); }),
                    AllOf(HasSubstr("takes about"), HasSubstr("are free")));
        EXPECT_FALSE(full.Exists("/card/database/catalogue"));
        EXPECT_FALSE(full.Exists("/card/database/catalogue.new"));
    }
    SimFileSystem disk(lost);
    disk.Open("/card/data/00000002-00000007.seg", OpenMode::Create)->Write(0, "x", 1);
    disk.SetFault([](const std::string& operation, const std::string& path) {
        return operation == "open" && path.find("00000007.seg") != std::string::npos ? EIO : 0;
    });
    EXPECT_THAT(RebuildStore(disk, kStorage, kDatabase),
                AllOf(Contains(HasSubstr("00000007.seg")), Contains(HasSubstr("cannot be read"))));
    EXPECT_THAT(VerifyStore(disk, kStorage, kDatabase), IsEmpty());
    EXPECT_GE(OpenedTwice(disk.GetImage()), kRecords - 1);
    // Where only the identity is missing, that is made again.
    SimFileSystem closed(OpenStoreImage());
    { const Store store(closed, Workload::SmallStore()); }
    closed.Remove("/card/data/store");
    EXPECT_THAT(RebuildStore(closed, kStorage, kDatabase), IsEmpty());
    EXPECT_EQ(OpenedTwice(closed.GetImage()), kRecords);
}

TEST(Trust, WhatCannotBeChangedCanStillBeRead) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    const DiskImage good = OpenStoreImage();
    const auto opened = [&](SimFileSystem& disk) {
        Store store(disk, Workload::SmallStore());
        EXPECT_EQ(store.GetState(), StoreState::ReadOnly);
        store.Keep();
        EXPECT_EQ(store.GetState(), StoreState::ReadOnly);
        EXPECT_EQ(Readable(store).size(), kRecords);
        const auto track = store.GetRecordings().front().lock()->getTracks().front().lock();
        EXPECT_THAT(ThrownText<std::runtime_error>([&] { AppendText(*track, "x"); }), HasSubstr("read-only"));
    };
    for (const int error : {EROFS, ENOSPC}) {
        SimFileSystem disk(good);
        disk.SetFault([error](const std::string& operation, const std::string&) {
            const bool grows = operation == "write" || operation == "create" || operation == "reserve";
            const bool changes = operation == "truncate" || operation == "remove" || operation == "rename";
            return grows || (changes && error == EROFS) ? error : 0;
        });
        opened(disk);
        EXPECT_TRUE(error != EROFS || disk.GetImage() == good);
        EXPECT_THAT(VerifyStore(disk, kStorage, kDatabase), IsEmpty());
    }
    SimFileSystem disk(good);
    { const Store closed(disk, Workload::SmallStore()); }
    disk.Open("/card/data/store", OpenMode::ReadWrite)->Write(15, "x", 1);
    opened(disk);
    disk.Remove("/card/data/store");
    opened(disk);
}

TEST(Trust, AStoreOpensForChangesWhenThereIsRoomAgain) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    SimFileSystem disk(OpenStoreImage());
    disk.SetFault(
        [](const std::string& operation, const std::string&) { return operation == "write" ? ENOSPC : 0; });
    Store store(disk, Workload::SmallStore());
    ASSERT_EQ(store.GetState(), StoreState::ReadOnly);
    disk.SetFault(nullptr);
    store.Keep();
    EXPECT_EQ(store.GetState(), StoreState::Good);
    EXPECT_EQ(Readable(store).size(), kRecords);
}

TEST(Trust, ARecordThatTheCardHasNoRoomForIsRefusedByName) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    SimFileSystem disk;
    disk.capacity = std::uint64_t{64} << 20U;
    StoreOptions options = Workload::SmallStore();
    options.segmentBytes = 16U << 20U;
    options.maxPercent = 98;
    Store store(disk, options);
    const auto track = store.NewRecording()->newTrack();
    for (unsigned int i = 0; i != 50; ++i) {
        AppendText(*track, std::string(500000, 'x'));
    }
    store.Sync();
    const unsigned int before = track->size();
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { AppendText(*track, std::string(60U << 20U, 'l')); }),
                AllOf(HasSubstr("62914560 bytes"), HasSubstr(kStorage)));
    EXPECT_EQ(track->size(), before);
    AppendText(*track,
               std::string(15U << 20U, 'l')); // The largest that is taken becomes durable, and others stay.
    store.Sync();
    EXPECT_GT(track->size(), 10U);
}

TEST(Trust, LargeInfoTextsAreNotWrittenWithEverySegment) {
    SimFileSystem disk;
    StoreOptions options = Workload::SmallStore();
    options.segmentBytes = 1U << 20U;
    Store store(disk, options);
    const auto recording = store.NewRecording();
    std::vector<boost::shared_ptr<Track>> tracks;
    std::uint64_t given = 0;
    for (unsigned int i = 0; i != 17; ++i) {
        tracks.push_back(recording->newTrack());
        tracks.back()->setInfo(std::string(100000, static_cast<char>('a' + i)));
        given += 100000;
    }
    for (unsigned int i = 0; i != 400; ++i) {
        AppendText(*tracks[i % 17], std::string(20000, 'r'));
        given += 20000;
        store.Sync();
    }
    std::uint64_t written = 0;
    for (const DiskOperation& operation : disk.GetTrace()) {
        written += operation.path.find(".seg") != std::string::npos ? operation.bytes.size() : 0;
    }
    EXPECT_LT(written, given + given / 10);
}

TEST(Trust, ACardThatWasMadeToDoHarmIsRefusedByName) {
    TestStore test;
    AppendText(*test.NewTrack(), "kept");
    test.store = nullptr;
    test.folder.Write("victim", "untouched");
    const std::string victim = test.folder.Path("victim");
    const auto plant = [&](const std::string& path) {
        std::vector<std::function<void()>> kinds;
        kinds.emplace_back([&, path] { std::filesystem::create_symlink(victim, path); });
        kinds.emplace_back([path] { ASSERT_EQ(mkfifo(path.c_str(), 0600), 0); });
        kinds.emplace_back([path] { std::filesystem::create_directory(path); });
        return kinds;
    };
    for (const std::string name :
         {"data/store.new", "data/00000002-00000002.seg", "database/catalogue-wal", "database/reserve",
          "database/catalogue.new", "data/00000002-00000003.seg.aside"}) {
        const std::string path = test.folder.Path(name);
        std::filesystem::remove(path);
        for (const auto& kind : plant(path)) {
            kind();
            try {
                test.Open();
                EXPECT_EQ(TextAt(*test.GetTrack(), 0), "kept");
                test.store = nullptr;
                StoreInspection(test.folder.Path()).Verify();
            } catch (const std::runtime_error& error) {
                EXPECT_THAT(error.what(), HasSubstr(test.folder.Path()));
            }
            EXPECT_EQ(test.folder.Read("victim"), "untouched") << name;
            std::filesystem::remove(path);
        }
    }
    std::filesystem::rename(test.options.storage, test.folder.Path("elsewhere"));
    std::filesystem::create_directory_symlink(test.folder.Path("elsewhere"), test.options.storage);
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { test.Open(); }), HasSubstr(test.options.storage));
}

TEST(Trust, TheLockIsOfTheFoldersAndLongPathsWork) {
    TestStore test;
    std::filesystem::remove(test.options.database + "/lock"); // There may be one of an earlier version.
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { Store(PosixFileSystem(), test.options); }),
                HasSubstr("open in another process"));
    std::string deep = test.folder.Path();
    for (unsigned int i = 0; i != 6; ++i) {
        deep += "/" + std::string(100, static_cast<char>('a' + i));
        std::filesystem::create_directory(deep);
    }
    test.options.storage = deep + "/data";
    test.options.database = deep + "/database";
    test.Open();
    AppendText(*test.NewTrack(), "deep");
    EXPECT_THAT(test.Verify(), IsEmpty());
    test.options.database = "/" + std::string(5000, 'x');
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { test.Open(); }), HasSubstr("File name too long"));
}

namespace {

/// A closed store with erased ranges and states behind them, in several segments of both lanes.
DiskImage ClosedStoreImage() {
    SimFileSystem disk;
    StoreOptions options = Workload::SmallStore();
    options.segmentBytes = 8192;
    {
        Store store(disk, options);
        const auto recording = store.NewRecording();
        const auto track = recording->newTrack();
        const auto sparse = recording->newTrack(TrackClass::Sparse);
        for (unsigned int i = 0; i != kRecords; ++i) {
            if (i % 30 == 0) {
                track->setInfo("info " + std::to_string(i));
            }
            AppendText(*track, NumberText(i));
            AppendText(*sparse, NumberText(i));
            if (i % 5 == 4) {
                store.Sync();
            }
            if (i == 40) {
                track->eraseRange(20, 23);
                track->eraseRange(0, 2);
            }
        }
    }
    return disk.GetImage();
}

} // namespace

TEST(Trust, VerifyNoticesEveryFaultThatIsPlanted) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    const DiskImage good = ClosedStoreImage();
    SimFileSystem whole(good);
    const VerifyReport report = ExamineStore(whole, kStorage, kDatabase);
    EXPECT_THAT(report.wrong, IsEmpty());
    EXPECT_THAT(report.notes, IsEmpty());
    EXPECT_THAT(report.checked, AllOf(HasSubstr("200 records"), Not(HasSubstr(" 0 footers"))));
    const std::vector<std::pair<std::string, std::string>> planted{
        {"UPDATE store SET id=x'000102030405060708090a0b0c0d0e0f'", "Invariant 1: /card/data/store"},
        {"DELETE FROM segments WHERE sequence=1", "Invariant 2"},
        {"INSERT INTO segments VALUES(2, 900, 5000, 1, 0)", "Invariant 2"},
        {"UPDATE segments SET length=length-1 WHERE sequence=1", "Invariant 4"},
        {"UPDATE segments SET length=length+80 WHERE sequence=1", "Invariant 4"},
        {"UPDATE tracks SET next_serial=7 WHERE id=1", "Invariant 5"},
        {"UPDATE extents SET count=count-1 WHERE sequence=1", "Invariant 6"},
        {"DELETE FROM extents WHERE sequence=2 AND lane=3", "Invariant 6"},
        {"UPDATE extents SET first_serial=1, count=count-1 WHERE sequence=1 AND lane=3", "Invariant 6"},
        {"INSERT INTO extents VALUES(7, 2, 950, 0, 1)", "Invariant 6"},
        {"INSERT INTO erased VALUES(1, 1, 3)", "Invariant 7"},
        {"DELETE FROM erased", "Invariant 7"},
        {"UPDATE tracks SET first_serial=0 WHERE id=1", "Invariant 7"},
        {"UPDATE segments SET removing=1 WHERE sequence=2", "Invariant 8"},
        {"UPDATE tracks SET first_serial=30 WHERE id=2", "Invariant 8"},
        {"UPDATE tracks SET recording=9 WHERE id=1", "Invariant 9: track 1 is of recording 9"},
        {"UPDATE tracks SET sparse=1 WHERE id=1", "Invariant 9"},
        {"INSERT INTO erased VALUES(2, 50, 52)", "Invariant 10"},
        {"UPDATE tracks SET first_serial=5 WHERE id=1", "Invariant 10"},
        {"UPDATE infos SET text=x'41' WHERE from_serial=30", "Invariant 11"},
        {"DELETE FROM infos WHERE from_serial=60", "Invariant 11"},
        {"INSERT INTO infos VALUES(1, 9999, x'')", "Invariant 11"},
        {"INSERT INTO infos VALUES(77, 0, x'')", "Invariant 11"},
    };
    for (const auto& [sql, expected] : planted) {
        SimFileSystem disk(good);
        {
            const SqliteVfs vfs(disk);
            Database("/card/database/catalogue", vfs.Name()).Execute("PRAGMA locking_mode=EXCLUSIVE; " + sql);
        }
        EXPECT_THAT(VerifyStore(disk, kStorage, kDatabase), Contains(HasSubstr(expected))) << sql;
    }
}

TEST(Trust, VerifyComparesFootersWithTheirSegments) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    DiskImage bad = ClosedStoreImage();
    std::vector<unsigned char>& segment = Change(bad, "/card/data/00000003-00000001.seg");
    const auto header = DecodeSegmentHeader(segment.data(), segment.size());
    const std::string magic = "CFTR";
    const auto begin = std::search(segment.begin(), segment.end(), magic.begin(), magic.end());
    ASSERT_NE(begin, segment.end());
    auto directory = *DecodeFooter(Bytes(begin, segment.end()), header->salt);
    ++directory.front().count;
    const Bytes other = EncodeFooter(directory, header->salt);
    std::copy(other.begin(), other.end(), begin);
    SimFileSystem disk(bad);
    EXPECT_THAT(VerifyStore(disk, kStorage, kDatabase),
                Contains(AllOf(HasSubstr("Invariant 6"), HasSubstr("footer"))));
    Change(bad, "/card/data/00000003-00000001.seg").back() ^= 1;
    SimFileSystem torn(bad);
    EXPECT_THAT(ExamineStore(torn, kStorage, kDatabase).notes, Contains(HasSubstr("footer")));
}
