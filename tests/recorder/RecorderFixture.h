#pragma once

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "support/PrivateBus.h"
#include "support/Program.h"
#include "support/WaitUntil.h"

using nlohmann::json;

/// What a program wrote, and how it ended.
struct Answer {
    int status;
    std::string out;
    std::string err;
};

/// The recorder's daemon on a bus and a card folder of the test's own, and its clients.
class RecorderTest : public testing::Test {
protected:
    RecorderTest() {
        setenv("DRENN_SETTINGS", folder.Path("settings.db").c_str(), 1);
        setenv("DRENN_DEVICE_INFORMATION", folder.Path("device.ini").c_str(), 1);
        SetSerialNumber("7");
        std::filesystem::create_directory(folder.Path("card"));
    }

    void SetSerialNumber(const std::string& number) const {
        folder.Write("device.ini", "[device]\nmodel.name = Camera\nserial.number = " + number + "\n");
    }
    /// A description that records video from the test source with these settings.
    std::string DescribeVideo(const std::string& settings) const {
        return folder.Write("video.ini",
                            "[calvane]\nt.pipelines = p\n[p]\nt.pipeline.head = s\n[s]\n"
                            "t.plugin.type = TestRecordSource\nt.plugin.module = testrecords.so\n"
                            "t.pipeline.next = r\n" +
                                settings +
                                "[r]\nt.plugin.type = RecordingSink\nt.plugin.module = recording.so\n"
                                "track = video\n");
    }

    void Start(const std::string& description = {}) {
        std::vector<std::string> arguments{"--root", card};
        if (!description.empty()) {
            arguments.push_back(description);
        }
        recorder = std::make_unique<Program>("calvane-recorder", arguments, folder.Path());
    }
    /// Starts it and waits until it answers; first "Recording is currently disabled", with a card the span.
    void StartAndWait(const std::string& description = {}, int status = 0) {
        Start(description);
        ASSERT_TRUE(WaitUntil([&] {
            const Answer answer = Ask({"summary"});
            return answer.status == status && answer.err.find("does not run") == std::string::npos;
        }));
    }
    int Stop() {
        recorder->Signal(SIGTERM);
        return recorder->Wait();
    }
    Answer Ask(const std::vector<std::string>& arguments) const {
        Program client("calvane-recording", arguments, folder.Path());
        const int status = client.Wait();
        return {status, client.Out(), client.Err()};
    }
    json AskJson(std::vector<std::string> arguments) const {
        arguments.emplace_back("--json");
        const Answer answer = Ask(arguments);
        EXPECT_EQ(answer.status, 0) << answer.err;
        return json::parse(answer.out, nullptr, false);
    }
    /// How long a track is recorded, in records.
    std::size_t CountRecords(const std::string& track, const std::string& to = "now") const {
        const Answer answer = Ask({"read", "--track", track, "--list", "--to", to});
        EXPECT_EQ(answer.status, 0) << answer.err;
        return static_cast<std::size_t>(std::count(answer.out.begin(), answer.out.end(), '\n'));
    }
    /// Compares what is read back with what the test source sent; whole, from its first record on.
    void ExpectRecordsAreRight(const std::string& track) const {
        const std::string to = AskJson({"tracks"})[track]["last"]; // It may go on.
        const Answer answer = Ask({"read", "--track", track, "--to", to});
        EXPECT_EQ(answer.status, 0) << answer.err;
        const std::string file = folder.Write("records.bin", answer.out);
        Program check("/usr/bin/env",
                      {"python3", CALVANE_SOURCE_DIR "/examples/check-test-records.py", track,
                       std::to_string(CountRecords(track, to)), file},
                      folder.Path());
        EXPECT_EQ(check.Wait(), 0) << check.Err();
    }
    void ExpectStoreIsGood() const {
        Program verify("calvane-store", {"verify", card}, folder.Path());
        EXPECT_EQ(verify.Wait(), 0) << verify.Out() << verify.Err();
    }

    static constexpr const char* kDescription = CALVANE_SOURCE_DIR "/examples/recorder.ini";
    const TempFolder folder;
    std::string card = folder.Path("card");
    PrivateBus bus;
    std::unique_ptr<Program> recorder;
};
