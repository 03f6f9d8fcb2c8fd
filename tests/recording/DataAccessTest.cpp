// What clients read: metadata in pages, and streams of records, while the recorder writes and erases.

#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "RecordReader.h"
#include "calvane/services/RecordingDataAccessImpl.h"
#include "recording/RecorderFixture.h"

using calvane_recording::Frame;
using calvane_recording::RecordReader;
using drenn::api::ServiceCursor;
using drenn::api::ServiceTime;
using quarn::calvane::RecordHeader;
using quarn::calvane::RecordingDataAccessImpl;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

class DataAccess : public RecorderTest {
protected:
    DataAccess() {
        RecordingManager::init();
        service.emplace(RecordingManager::getLogCookie());
    }

    /// Records with their numbers, a second apart.
    static void WriteNumbers(int first, int last, std::size_t size) {
        for (int number = first; number <= last; ++number) {
            std::string payload = std::to_string(number);
            payload.resize(size, '.');
            Advance(number);
            ASSERT_TRUE(TrackOf(VIDEO_TRACK).writeRecord(At(number), 0, payload.data(), payload.size()));
        }
    }
    static void WriteMetadata(double time, const std::string& payload) {
        Advance(time);
        ASSERT_TRUE(TrackOf(METADATA_TRACK).writeRecord(At(time), 0, payload.data(), payload.size()));
    }
    /// A page as the first characters of its records; the cursor goes on.
    std::string Page(ServiceCursor& cursor, double to) {
        std::vector<drenn::api::PayloadRecord> records;
        unsigned char more = 9;
        service->getMetadata(cursor, Service(to), &records, &cursor, &more);
        std::string text;
        for (const auto& record : records) {
            text += record.payload.empty() ? '-' : static_cast<char>(record.payload[0]);
        }
        return text + (more != 0 ? "+" : "");
    }
    /// Whatever the clock said before.
    static void AppendAsIs(int time) {
        RecordHeader header;
        header.ticks = quarn::calvane::ticksFromTime(At(time));
        const std::string payload = std::to_string(time);
        drenn::multi_track_recorder::BlobRecord record;
        record.add({&header, sizeof(header)});
        record.add({payload.data(), payload.size()});
        *TrackOf(VIDEO_TRACK).getTrack() << record;
    }
    RecordReader Open(double from, double to) {
        int fd = -1;
        service->openRecords(VIDEO_TRACK, Service(from), Service(to), &fd);
        return RecordReader(fd);
    }
    /// "2..5" for records, then what else comes, each with the time it tells.
    static std::string ReadAll(RecordReader& reader) {
        std::string text;
        double last = -1;
        const auto closeRun = [&] { text += last < 0 ? "" : Number(last) + " "; };
        for (;;) {
            const Frame frame = reader.Read();
            const double time = static_cast<double>(frame.time) / 1e6 - kStart;
            if (frame.kind == Frame::kRecord) {
                if ((frame.flags & 4) != 0) {
                    EXPECT_NE(frame.flags & RecordHeader::kDiscontinuity, 0U);
                    closeRun();
                    text += "damaged ";
                    last = -1;
                }
                EXPECT_EQ(std::stod(std::string(frame.payload.begin(), frame.payload.end())), time);
                if (last < 0 || time != last + 1) {
                    closeRun();
                    text += Number(time) + "..";
                }
                last = time;
                continue;
            }
            closeRun();
            last = -1;
            if (frame.kind == Frame::kFailed) {
                return text + std::string(frame.payload.begin(), frame.payload.end());
            }
            if (frame.kind == Frame::kEnd) {
                return text + "end" +
                       (frame.unreadable == 0 ? "" : ", " + std::to_string(frame.unreadable) + " damaged");
            }
            text += "erased after " + Number(time) + " ";
        }
    }
    /// Sockets and the like; files come and go with the store.
    static std::ptrdiff_t OpenDescriptors() {
        const std::filesystem::directory_iterator folder("/proc/self/fd");
        return std::count_if(begin(folder), end(folder), [](const auto& entry) {
            std::error_code gone; // The iterator's own.
            return std::filesystem::read_symlink(entry, gone).string().find(':') != std::string::npos;
        });
    }

    std::optional<RecordingDataAccessImpl> service; // Beside the one on the bus.
};

TEST_F(DataAccess, MetadataComesInPagesThatErasingDoesNotDisturb) {
    const std::string filler(100000, '.');
    WriteMetadata(1, "a");
    for (const char* const name : {"b", "c", "d", "e", "f"}) {
        WriteMetadata(2, name + filler);
    }
    WriteMetadata(2, "");
    WriteMetadata(3, std::string(RecordingDataAccessImpl::kLongestReplyRecord + 1, 'g'));
    WriteMetadata(4, "h" + filler + filler + filler);
    WriteMetadata(5, "i");
    ServiceCursor cursor{Service(0), 0};
    EXPECT_EQ(Page(cursor, 5), "abc+");
    EXPECT_EQ(cursor.passed, 2U);
    RecordingManager::setMaxRetentionTime(boost::posix_time::milliseconds(3500)); // Takes "a".
    EXPECT_EQ(SizeOf(METADATA_TRACK), 9U);
    EXPECT_EQ(Page(cursor, 5), "de+");
    EXPECT_EQ(Page(cursor, 5), "f-+"); // What is too long does not take others with it.
    EXPECT_EQ(ThrownText<std::runtime_error>([&] { Page(cursor, 5); }),
              "A record of 4194305 bytes is too long for a reply; read it with openRecords");
    EXPECT_EQ(Page(cursor, 2), "");
    cursor = {Service(3), 1};
    EXPECT_EQ(Page(cursor, 5), "h+"); // One alone may be longer than a page.
    EXPECT_EQ(Page(cursor, 4), "");
    TrackOf(METADATA_TRACK).clearTrack(); // The cursor's own record, too.
    for (unsigned i = 0; i < RecordingDataAccessImpl::kMostReplyEntries + 2; ++i) {
        WriteMetadata(6, "j");
    }
    EXPECT_EQ(Page(cursor, 6), std::string(RecordingDataAccessImpl::kMostReplyEntries, 'j') + "+");
    EXPECT_EQ(Page(cursor, 6), "jj");
    EXPECT_EQ(Page(cursor, 6), "");
    EXPECT_THROW(Page(cursor, 5), std::invalid_argument);
}

TEST_F(DataAccess, AStreamHoldsTheRecordsOfItsSpan) {
    Write(VIDEO_TRACK, {1}, RecordHeader::kKeyFrame);
    ASSERT_TRUE(TrackOf(VIDEO_TRACK).writeRecord(At(1), RecordHeader::kDiscontinuity, nullptr, 0));
    RecordReader reader = Open(1, 1);
    const Frame first = reader.Read();
    EXPECT_EQ(std::string(first.payload.begin(), first.payload.end()), "data");
    EXPECT_EQ(first.flags, RecordHeader::kKeyFrame);
    EXPECT_EQ(first.time, std::int64_t{kStart + 1} * 1000000);
    const Frame second = reader.Read();
    EXPECT_TRUE(second.payload.empty());
    EXPECT_EQ(second.flags, RecordHeader::kDiscontinuity);
    EXPECT_EQ(reader.Read().kind, Frame::kEnd);
    EXPECT_THROW(reader.Read(), std::runtime_error);

    TrackOf(VIDEO_TRACK).clearTrack();
    WriteNumbers(10, 20, 100000);
    RecordReader inside = Open(11.5, 15.5);
    EXPECT_EQ(ReadAll(inside), "12..15 end");
    RecordReader behind = Open(21, 30);
    EXPECT_EQ(ReadAll(behind), "end");
    // What is no record of the recorder's is passed over, which the next record and the end tell.
    drenn::multi_track_recorder::BlobRecord broken;
    broken.add({"x", 1});
    *TrackOf(VIDEO_TRACK).getTrack() << broken << broken;
    WriteNumbers(21, 22, 10);
    RecordReader damaged = Open(0, 30);
    EXPECT_EQ(ReadAll(damaged), "10..20 damaged 21..22 end, 2 damaged");
    // A track whose times fall comes to an end, with what a search finds behind them.
    for (const int time : {5, 4, 23}) {
        AppendAsIs(time);
    }
    RecordReader falling = Open(10, 30);
    EXPECT_THAT(ReadAll(falling),
                testing::MatchesRegex("10\\.\\.20 damaged 21\\.\\.22 (erased after 22 )+(23\\.\\.23 )?"
                                      "end, 2 damaged"));
    TrackOf(VIDEO_TRACK).clearTrack();
    int fd = -1;
    EXPECT_THROW(service->openRecords(3, Service(1), Service(2), &fd), std::out_of_range);
    EXPECT_THROW(service->openRecords(0, Service(2), Service(1), &fd), std::invalid_argument);
    EXPECT_EQ(fd, -1);
}

TEST_F(DataAccess, AStreamHasWhatADecoderNeeds) {
    RecordingTrack& video = TrackOf(VIDEO_TRACK);
    const auto write = [&](double time, std::int64_t offset) {
        Advance(time);
        return video.writeRecord(At(time), RecordHeader::kKeyFrame, "x", 1, offset);
    };
    constexpr std::int64_t kMost = (std::int64_t{1} << 47) - 1;
    video.setInfo({{"Width", "640"}});
    EXPECT_TRUE(write(1, 0));
    EXPECT_TRUE(write(2, -40000));
    video.setInfo({{"Width", "1280"}});
    EXPECT_TRUE(write(3, kMost));
    EXPECT_TRUE(write(4, -kMost - 1));
    EXPECT_THROW(write(5, kMost + 1), std::invalid_argument);
    EXPECT_THROW(write(5, -kMost - 2), std::invalid_argument);
    EXPECT_EQ(SizeOf(VIDEO_TRACK), 4U);

    const auto read = [](RecordReader reader) {
        std::string text;
        for (Frame frame = reader.Read(); frame.kind != Frame::kEnd; frame = reader.Read()) {
            text += frame.kind == Frame::kInfo ? std::string(frame.payload.begin(), frame.payload.end())
                                               : std::to_string(frame.compositionOffset) + "\n";
        }
        return text;
    };
    EXPECT_EQ(read(Open(1, 4)), "Width\n640\n0\n-40000\nWidth\n1280\n" + std::to_string(kMost) + "\n" +
                                    std::to_string(-kMost - 1) + "\n");
    EXPECT_EQ(read(Open(2.5, 3)), "Width\n1280\n" + std::to_string(kMost) + "\n");
}

TEST_F(DataAccess, AReaderThatSleepsHoldsUpNobodyAndIsToldWhatWasErased) {
    constexpr std::size_t kLarge = 100000; // The socket holds some of them.
    constexpr int kLast = 200;
    WriteNumbers(1, 50, kLarge);
    RecordReader fifty = Open(0, kLast);
    ASSERT_EQ(fifty.Read().kind, Frame::kRecord);
    WriteNumbers(51, kLast, kLarge);
    EXPECT_EQ(ReadAll(fifty), "2..50 end") << "what was written since it was opened";
    RecordReader all = Open(0, kLast);
    RecordReader span = Open(40, 60);
    ASSERT_EQ(all.Read().kind, Frame::kRecord);
    const auto track = TrackOf(VIDEO_TRACK).getTrack();
    track->eraseRange(99, 149);         // 100 to 149: ahead of the one, behind the end of the other.
    track->eraseRange(0, 1);            // What both have passed.
    track->eraseRange(198 - 50, 10000); // The last.
    RecordingManager::setMaxRetentionTime(boost::posix_time::seconds(kLast - 30)); // Up to 30.
    EXPECT_EQ(ReadAll(span), "40..60 end");
    // Those that were on their way, with a word of each erasing that came between, and then what is left.
    const std::string text = ReadAll(all);
    ASSERT_THAT(text, testing::EndsWith(" 31..99 150..199 end"));
    const std::string before = text.substr(0, text.size() - std::strlen(" 31..99 150..199 end"));
    const std::size_t word = before.rfind("erased after ");
    ASSERT_NE(word, std::string::npos) << text;
    EXPECT_LT(std::stoi(before.substr(word + std::strlen("erased after "))), 30) << text;

    // What is erased ahead, and the clock that goes back under a reader.
    RecordReader ahead = Open(50, 1000);
    ahead.Read();
    track->eraseRange(SizeOf(VIDEO_TRACK) - 10, 10000);
    EXPECT_THAT(ReadAll(ahead),
                testing::MatchesRegex("(51\\.\\.5. )?erased after 5. 5.\\.\\.99 150\\.\\.189 end"));
    RecordReader back = Open(180, 1000);
    back.Read();
    WriteNumbers(100, 120, 10);
    EXPECT_THAT(ReadAll(back), testing::MatchesRegex("(181\\.\\.18. )?(erased after 18. )+end"));
}

TEST_F(DataAccess, SixteenStreamsAtOnceAndNoneStaysWhenItsReaderGoes) {
    WriteNumbers(1, 20, 100000);
    const std::ptrdiff_t before = OpenDescriptors();
    for (int round = 0; round < 3; ++round) {
        std::vector<std::unique_ptr<RecordReader>> readers;
        int fd = -1;
        const auto open = [&] { return service->openRecords(VIDEO_TRACK, Service(1), Service(20), &fd); };
        ASSERT_TRUE(WaitUntil([&] { // The last round's may be just leaving.
            while (readers.size() < 16 && ThrownText<std::runtime_error>(open) == "nothing was thrown") {
                readers.push_back(std::make_unique<RecordReader>(fd));
            }
            return readers.size() == 16;
        }));
        EXPECT_EQ(ThrownText<std::runtime_error>(open), "Too many record streams are open; the most are 16");
        readers[3]->Read();
        readers.clear();
    }
    service.reset();
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(SizeOf(VIDEO_TRACK), 20U);
    TrackOf(VIDEO_TRACK).clearTrack(); // Nobody listens any more.
}

TEST_F(DataAccess, EndingTheRecorderEndsTheStreamsOfItsClients) {
    WriteNumbers(1, 50, 100000);
    service.reset();
    const auto connection = sdbus::createSessionBusConnectionWithAddress(bus.Address());
    const auto proxy = sdbus::createProxy(*connection, "com.drenn.recording_data_access",
                                          "/com/drenn/recording_data_access");
    std::vector<std::unique_ptr<RecordReader>> readers;
    sdbus::UnixFd fd;
    const auto open = [&] {
        proxy->callMethod("openRecords")
            .onInterface("com.drenn.RecordingDataAccess1")
            .withArguments(0U, kStart, 0U, kStart + 100, 0U)
            .storeResultsTo(fd);
    };
    for (int i = 0; i < 4; ++i) {
        open();
        readers.push_back(std::make_unique<RecordReader>(fd.release()));
    }
    EXPECT_EQ(readers[0]->Read().kind, Frame::kRecord);
    EXPECT_THAT(ThrownText<sdbus::Error>(open), HasSubstr("of one client are open; the most are 4"));
    RecordingManager::deinit();
    for (const auto& reader : readers) {
        EXPECT_EQ(ThrownText<std::runtime_error>([&] { ReadAll(*reader); }),
                  "The recorder ended the stream of records too early");
    }
}

} // namespace
