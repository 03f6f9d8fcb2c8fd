// The catalogue: damage to it, its loss, and what verifying compares it with.

#include <gmock/gmock.h>

#include <cerrno>

#include "drenn/multi_track_recorder/internal/io/SqliteVfs.h"
#include "drenn/multi_track_recorder/internal/recovery/StoreRebuilding.h"
#include "drenn/multi_track_recorder/internal/recovery/StoreVerifier.h"
#include "quarn/core/LogCapture.h"
#include "support/ThrownText.h"
#include "support/store/NumberedStore.h"

using namespace drenn::multi_track_recorder;
using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

void Execute(SimFileSystem& disk, const std::string& sql) {
    const SqliteVfs vfs(disk);
    Database("/card/database/catalogue", vfs.Name()).Execute("PRAGMA locking_mode=EXCLUSIVE; " + sql);
}

/// A closed store with erased ranges and states behind them, in several segments of both lanes.
DiskImage SegmentsImage() {
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

TEST(Trust, NoFlippedBitOfTheCatalogueRemovesASegmentOrChangesARecord) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    const DiskImage good = ClosedImage();
    const std::string path = std::string(kDatabase) + "/catalogue";
    ASSERT_EQ(good.names.count(path + "-wal"), 0U);
    const std::size_t bits = good.files.at(good.names.at(path))->size() * 8;
    unsigned int refused = 0;
    for (std::size_t bit = 0; bit < bits && !HasFailure(); bit += 397) {
        DiskImage bad = good;
        Change(bad, path)[bit / 8] ^= static_cast<unsigned char>(1U << bit % 8);
        SimFileSystem disk(bad);
        try {
            const Store store(disk, Workload::SmallStore());
            EXPECT_EQ(Readable(store), kRecords) << bit;
        } catch (const std::runtime_error&) {
            ++refused;
            EXPECT_THAT(RebuildStore(disk, kStorage, kDatabase), IsEmpty()) << bit;
            EXPECT_EQ(OpenedTwice(disk.GetImage()), kRecords) << bit;
        }
        EXPECT_TRUE(disk.Exists(kSegment)) << bit;
    }
    EXPECT_GT(refused, bits / 397 / 4);
}

TEST(Trust, ACatalogueThatWasMadeToDoHarmDoesNone) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    const std::string path = std::string(kDatabase) + "/catalogue";
    const auto refusal = [&](SimFileSystem& disk) {
        return ThrownText<std::runtime_error>([&] { Store(disk, Workload::SmallStore()); });
    };
    SimFileSystem overlap(ClosedImage());
    Execute(overlap, "INSERT INTO extents VALUES(1, 2, 1, 50, 10)");
    EXPECT_THAT(refusal(overlap), HasSubstr("extents of a track that overlap"));

    // Each of its pages is whole, but not where it lies.
    const DiskImage good = ClosedImage();
    const std::size_t pages = good.files.at(good.names.at(path))->size() / 4096;
    ASSERT_GT(pages, 6U);
    for (std::size_t page = 1; page + 1 < pages; ++page) {
        DiskImage swapped = good;
        std::vector<unsigned char>& bytes = Change(swapped, path);
        const auto at = [&](std::size_t number) {
            return bytes.begin() + static_cast<std::ptrdiff_t>(4096 * number);
        };
        std::swap_ranges(at(page), at(page + 1), at(page + 1));
        SimFileSystem disk(swapped);
        EXPECT_THAT(refusal(disk), HasSubstr("malformed")) << page;
    }

    DiskImage unchecked = good;
    Change(unchecked, path)[20] = 0; // As if its pages had no room for checksums.
    SimFileSystem bare(unchecked);
    EXPECT_THAT(refusal(bare), HasSubstr("malformed"));

    SimFileSystem disk(OpenImage());
    Execute(disk, "CREATE TRIGGER harm AFTER INSERT ON extents BEGIN DELETE FROM extents; END");
    EXPECT_EQ(OpenedTwice(disk.GetImage()), kRecords);
}

// A catalogue as earlier versions made it: no room for checksums in its pages, and no table of damage.
TEST(Trust, AnEarlierCatalogueOpensAndGetsChecksums) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    const std::string path = std::string(kDatabase) + "/catalogue";
    SimFileSystem disk(ClosedImage());
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

// What saves a search reading: the first bytes of each segment's first record, and the segment's salt.
TEST(Trust, HintsAreKeptAndNotTrusted) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    SimFileSystem disk;
    StoreOptions options = Workload::SmallStore();
    options.segmentBytes = 8192;
    const auto numberOf = [](const Track::LeadingBytes& leading) {
        return static_cast<unsigned int>(
            std::stoul(std::string(leading.begin() + 7, leading.end()))); // Behind "record ".
    };
    std::map<unsigned int, unsigned int> known; // Number by index.
    const auto look = [&](const Store& store) {
        std::map<unsigned int, unsigned int> found;
        for (unsigned int wanted = 0; wanted <= kRecords; ++wanted) {
            const auto [before, behind, step] = OnlyTrack(store)->findKnown(
                [&](const Track::LeadingBytes& leading) { return numberOf(leading) < wanted; });
            for (const auto& record : {before, behind}) {
                if (record) {
                    found[record->index] = numberOf(record->leading);
                    EXPECT_EQ(TextAt(*OnlyTrack(store), record->index), NumberText(found[record->index]));
                }
            }
            EXPECT_TRUE(!before || found[before->index] < wanted) << wanted;
            EXPECT_TRUE(!behind || found[behind->index] >= wanted) << wanted;
            for (unsigned int index = 0; index != OnlyTrack(store)->size(); ++index) {
                const auto [last, next, none] = OnlyTrack(store)->findNear(
                    index, [&](const Track::Leading& leading) { return numberOf(leading.bytes) < wanted; });
                EXPECT_TRUE(last || next) << index;
                EXPECT_TRUE(!last || !next || last->index + 1 == next->index) << index;
                EXPECT_TRUE(next || last->index >= index) << index;
                EXPECT_TRUE(last || next->index <= index) << index;
                for (const auto& record : {last, next}) {
                    EXPECT_TRUE(!record || TextAt(*OnlyTrack(store), record->index) ==
                                               NumberText(numberOf(record->leading)))
                        << index;
                }
                EXPECT_TRUE(!last || numberOf(last->leading) < wanted) << index;
                EXPECT_TRUE(!next || numberOf(next->leading) >= wanted) << index;
            }
        }
        EXPECT_THROW(OnlyTrack(store)->findNear(OnlyTrack(store)->size(), [](const auto&) { return true; }),
                     std::out_of_range);
        return found;
    };
    {
        Store store(disk, options);
        const auto track = store.NewRecording()->newTrack();
        for (unsigned int i = 0; i != kRecords; ++i) {
            AppendText(*track, NumberText(i));
            if (i % 5 == 4) {
                store.Sync();
            }
        }
        known = look(store);
        ASSERT_GT(known.size(), 2U);
        const unsigned int second = std::next(known.begin())->first;
        track->eraseRange(second,
                          second + 1); // What is erased is not known any more, and moves the others up.
        const auto left = look(store);
        EXPECT_EQ(left.size(), known.size() - 1);
        EXPECT_EQ(left.rbegin()->first, known.rbegin()->first - 1);
        known = left;
    }
    {
        const Store again(disk, options);
        EXPECT_EQ(look(again), known);
    }
    Execute(disk, "UPDATE hints SET salt=x'0102030405060708', leading=leading || x'00'");
    EXPECT_EQ(OpenedTwice(disk.GetImage()), kRecords - 1);
    Execute(disk, "UPDATE hints SET salt=x'01', leading=x'02'");
    EXPECT_EQ(OpenedTwice(disk.GetImage()), kRecords - 1);
    Execute(disk, "DROP TABLE hints"); // As an earlier version made it.
    EXPECT_EQ(OpenedTwice(disk.GetImage()), kRecords - 1);
    EXPECT_THAT(VerifyStore(disk, kStorage, kDatabase), IsEmpty());
}

// What saves reading the records between two that are known: how far one is from the next at most.
TEST(Trust, StepsBetweenKnownRecordsAreThoseOfAllRecords) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    SimFileSystem disk;
    StoreOptions options = Workload::SmallStore();
    options.segmentBytes = 8192;
    constexpr unsigned int kCount = 200;
    constexpr unsigned int kErased = 100;
    constexpr unsigned int kFallen = 150;
    std::vector<std::uint64_t> numbers;
    for (unsigned int i = 0; i != kCount; ++i) {
        numbers.push_back(i == kFallen ? numbers.back() - 500 : 1000 * i + i * 7919 % 997);
    }
    /// By the record in front of it, how far apart records are, or nothing.
    using Steps = std::map<std::uint64_t, std::optional<std::uint64_t>>;
    const auto find = [&](const Store& store) {
        Steps steps;
        for (std::uint64_t wanted = 1; wanted != kCount; ++wanted) {
            const auto orderOf = [](const Track::LeadingBytes& leading) {
                return ByteReader(leading.data(), 8).U64();
            };
            const auto known = OnlyTrack(store)->findKnown(
                [&](const Track::LeadingBytes& leading) { return orderOf(leading) < wanted; });
            if (known.before && known.behind) {
                const auto first = static_cast<std::size_t>(orderOf(known.before->leading));
                const auto last = static_cast<std::size_t>(orderOf(known.behind->leading));
                std::uint64_t largest = 0;
                for (std::size_t i = first; i != last; ++i) {
                    largest = std::max(largest, numbers[i + 1] - numbers[i]);
                }
                const bool isWhole = last - first == known.behind->index - known.before->index;
                EXPECT_TRUE(isWhole ? !known.step || known.step == largest : !known.step) << wanted;
                steps[first] = known.step;
            }
        }
        return steps;
    };
    const auto countUnknown = [](const Steps& steps) {
        return std::count_if(steps.begin(), steps.end(), [](const auto& each) { return !each.second; });
    };
    Steps steps;
    {
        Store store(disk, options);
        const auto track = store.NewRecording()->newTrack();
        for (unsigned int i = 0; i != kCount; ++i) {
            Bytes record;
            ByteWriter writer(record);
            writer.U64(i);
            writer.U64(numbers[i]);
            record.resize(400);
            AppendText(*track, std::string(record.begin(), record.end()));
            if (i % 3 == 2) {
                store.Sync();
            }
        }
        steps = find(store);
        ASSERT_GT(steps.size(), 20U);
        EXPECT_EQ(countUnknown(steps), 0);
        track->eraseRange(kErased, kErased + 1);
        steps = find(store);
        EXPECT_EQ(countUnknown(steps), 1);
    }
    {
        const Store again(disk, options);
        EXPECT_EQ(find(again), steps);
    }
    Execute(
        disk,
        "UPDATE hints SET leading=x'00' WHERE sequence=5"); // Then nothing tells of what is between its neighbours.
    {
        const Store again(disk, options);
        const Steps fewer = find(again);
        EXPECT_EQ(fewer.size(), steps.size() - 1);
        EXPECT_EQ(countUnknown(fewer), 2);
        steps = fewer;
    }
    Execute(disk, "UPDATE hints SET leading=substr(leading, 1, 28)"); // As an earlier version made them.
    const Store earlier(disk, options);
    const Steps unknown = find(earlier);
    EXPECT_EQ(unknown.size(), steps.size());
    EXPECT_EQ(countUnknown(unknown), static_cast<std::ptrdiff_t>(steps.size()));
}

TEST(Trust, OneRowAloneRemovesNoSegment) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    SimFileSystem disk(ClosedImage());
    Execute(disk, "UPDATE segments SET removing=1");
    EXPECT_THAT(VerifyStore(disk, kStorage, kDatabase), Contains(HasSubstr("Invariant 8")));
    Store store(disk, Workload::SmallStore());
    store.Keep();
    EXPECT_EQ(Readable(store), kRecords);
    EXPECT_TRUE(disk.Exists(kSegment));
}

TEST(Trust, RebuildSavesWhatCanBeReadOrChangesNothing) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    DiskImage lost = WithoutCatalogue(OpenImage());
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
    SimFileSystem closed(ClosedImage());
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { RebuildStore(closed, kStorage, kDatabase); }),
                HasSubstr("is whole"));
    closed.Remove("/card/data/store");
    EXPECT_THAT(RebuildStore(closed, kStorage, kDatabase), IsEmpty());
    EXPECT_EQ(OpenedTwice(closed.GetImage()), kRecords);
}

TEST(Trust, ARebuildThatIsCutShortIsDoneAgain) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    const std::string catalogue = std::string(kDatabase) + "/catalogue";
    DiskImage damaged = ClosedImage();
    Change(damaged, catalogue)[40] ^= 1;
    DiskImage withLog = OpenImage();
    Change(withLog, catalogue)[40] ^= 1;
    Change(withLog, catalogue + "-wal")[40] ^= 1;
    for (const DiskImage& bad : {damaged, withLog}) {
        SimFileSystem disk(bad);
        EXPECT_THROW(Store(disk, Workload::SmallStore()), std::runtime_error);
        RebuildStore(disk, kStorage, kDatabase);
        EXPECT_FALSE(disk.Exists(catalogue + "-wal")) << "the new catalogue would take it for its own";
        unsigned int again = 0;
        PowerCuts(disk.GetTrace(), bad).ForEach(4, 7, [&](std::size_t moment, const DiskImage& image) {
            SimFileSystem left(image);
            try {
                const Store store(left, Workload::SmallStore());
                EXPECT_EQ(Readable(store), kRecords) << moment;
            } catch (const std::runtime_error&) {
                ++again;
                RebuildStore(left, kStorage, kDatabase);
                EXPECT_EQ(OpenedTwice(left.GetImage()), kRecords) << moment;
            }
            EXPECT_THAT(VerifyStore(left, kStorage, kDatabase), IsEmpty()) << moment;
        });
        EXPECT_GT(again, 10U);
    }
}

TEST(Trust, VerifyNoticesEveryFaultThatIsPlanted) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    const DiskImage good = SegmentsImage();
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
        {"UPDATE infos SET text=x'41' WHERE from_serial=30", "is another one in the catalogue"},
        {"UPDATE infos SET text=x'' WHERE from_serial=30", "is another one in the catalogue"},
        {"DELETE FROM infos WHERE from_serial=60", "Invariant 11"},
        {"INSERT INTO infos VALUES(1, 9999, x'')", "Invariant 11"},
        {"INSERT INTO infos VALUES(77, 0, x'')", "Invariant 11"},
    };
    for (const auto& [sql, expected] : planted) {
        SimFileSystem disk(good);
        Execute(disk, sql);
        EXPECT_THAT(VerifyStore(disk, kStorage, kDatabase), Contains(HasSubstr(expected))) << sql;
    }
}

// A later sync of it would succeed, and what comes behind the lost part would be taken for durable.
TEST(Trust, ALogThatCouldNotBeSyncedIsNotReliedOn) {
    SimFileSystem disk;
    const SqliteVfs vfs(disk);
    const std::string path = std::string(kDatabase) + "/catalogue";
    {
        Catalogue catalogue(path, vfs.Name(), Catalogue::Mode::OpenOrMake);
        {
            Catalogue::Transaction making(catalogue);
            making.Make(StoreId{1});
            making.Commit();
        }
        disk.SetFault([failed = false](const std::string& operation, const std::string&) mutable {
            return operation == "sync" && !std::exchange(failed, true) ? EIO : 0;
        });
        {
            Catalogue::Transaction later(catalogue, Catalogue::Durability::WithSyncLog);
            later.AddRecording();
            later.Commit();
        }
        EXPECT_TRUE(catalogue.BeginSyncLog());
        EXPECT_THROW(catalogue.SyncLog(), FileError);
        EXPECT_THROW(Catalogue::Transaction{catalogue}, FileError);
    }
    EXPECT_TRUE(disk.Exists(path + "-wal")); // To be read when the catalogue is opened anew.
}

TEST(Trust, VerifyComparesFootersWithTheirSegments) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    DiskImage bad = SegmentsImage();
    std::vector<unsigned char>& segment = Change(bad, "/card/data/00000003-00000001.seg");
    const auto header = DecodeSegmentHeader(segment.data(), segment.size());
    const std::vector<unsigned char>& another = Change(bad, "/card/data/00000003-00000002.seg");
    EXPECT_NE(header->salt, DecodeSegmentHeader(another.data(), another.size())->salt);
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
