#pragma once

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "calvane/recording/RecordingManager.h"
#include "export/RecordedMedia.h"
#include "support/Emulation.h"
#include "support/PrivateBus.h"
#include "support/Program.h"

/// A recorder in the test's process, with a bus and a card folder of its own, and the programs that read from it.
class ExportTest : public testing::Test {
protected:
    using Recorder = quarn::calvane::RecordingManager;
    using Words = std::vector<std::string>;

    struct Answer {
        int status;
        std::string out;
        std::string err;
    };

    static constexpr std::int64_t kStart = 1'767'261'600'000'000; ///< 2026-01-01 10:00:00 UTC.

    ExportTest() {
        static const TempFolder settings; // Opened once by the process.
        setenv("DRENN_SETTINGS", settings.Path("settings.db").c_str(), 1);
        setenv("DRENN_DEVICE_INFORMATION", folder.Path("device.ini").c_str(), 1);
        folder.Write("device.ini", "[device]\nmodel.name = Camera\nserial.number = 7\n");
        std::filesystem::create_directory(folder.Path("card"));
        Recorder::setRecordingRootPath(folder.Path("card"));
        Recorder::init();
    }
    ~ExportTest() override { Recorder::deinit(); }

    Answer RunTool(const std::string& name, const Words& words) const {
        Program program(name, words, folder.Path());
        const int status = program.Wait();
        return {status, program.Out(), program.Err()};
    }
    /// calvane-recording; the program that it runs for media cannot be started by an emulated one.
    Answer Run(const Words& words) const {
        return RunTool(kEmulated ? "calvane-recording-media" : "calvane-recording", words);
    }
    void ExpectRuns(const Words& words) const {
        const Answer answer = Run(words);
        EXPECT_EQ(answer.status, 0) << answer.err;
        EXPECT_EQ(answer.err, "");
    }
    /// A file that ffmpeg makes.
    std::string Make(const std::string& name, const std::string& arguments) const {
        std::istringstream stream("-v error -y -nostdin " + arguments);
        Words words{std::istream_iterator<std::string>(stream), {}};
        words.push_back(name);
        const Answer answer = RunTool("/usr/bin/ffmpeg", words);
        EXPECT_EQ(answer.status, 0) << answer.err;
        return folder.Path(name);
    }
    void Record(const std::string& name) const {
        EXPECT_NE(RecordMedia(*Recorder::instance(), folder.Path(name), {kStart}), 0U);
    }
    /// Instead of what was recorded before: at an earlier time the recorder would take its clock to have been set back.
    void RecordAnew(const std::string& name) {
        Recorder::deinit();
        std::filesystem::remove_all(folder.Path("card/data"));
        std::filesystem::remove_all(folder.Path("card/database"));
        Recorder::init();
        Record(name);
    }

    /// A line for each packet of one stream ("v", "a"): with its times in the stream's units, or without.
    std::vector<std::string> PacketsOf(const std::string& name, const std::string& stream,
                                       bool withTimes = false) const {
        const Answer answer = RunTool("/usr/bin/ffmpeg", {"-v", "error", "-i", name, "-map", "0:" + stream,
                                                          "-c", "copy", "-f", "framemd5", "-"});
        EXPECT_EQ(answer.status, 0) << answer.err;
        std::vector<std::string> packets;
        std::istringstream lines(answer.out);
        for (std::string line; std::getline(lines, line);) {
            const bool isTimeBase = line.rfind("#tb", 0) == 0 && withTimes;
            if (line[0] != '#' || isTimeBase) {
                // Behind the fourth comma: the size and the hash.
                std::size_t begin = 0;
                for (int comma = 0; !withTimes && comma != 4; ++comma) {
                    begin = line.find(',', begin) + 1;
                }
                packets.push_back(line.substr(begin, line.find(", S=") - begin)); // Without side data.
            }
        }
        EXPECT_FALSE(packets.empty()) << name;
        if (withTimes) { // How long the last one lasts is known only to who cut it.
            std::string& last = packets.back();
            const std::size_t duration = last.find(',', last.find(',', last.find(',') + 1) + 1);
            last.erase(duration, last.find(',', duration + 1) - duration);
        }
        return packets;
    }
    void ExpectSamePackets(const std::string& exported, const std::string& original,
                           bool withTimes = false) const {
        for (const char* const stream : {"v", "a"}) {
            const auto has = [&](const std::string& name) {
                return Probe(name,
                             std::string("-select_streams ") + stream + " -show_entries stream=index") != "";
            };
            ASSERT_EQ(has(exported), has(original)) << stream;
            if (has(original)) {
                ExpectSameLines(PacketsOf(exported, stream, withTimes),
                                PacketsOf(original, stream, withTimes), exported + " " + stream);
            }
        }
    }
    static void ExpectSameLines(const std::vector<std::string>& got, const std::vector<std::string>& wanted,
                                const std::string& what) {
        const auto differ = std::mismatch(got.begin(), got.end(), wanted.begin(), wanted.end());
        const std::string gotLine = differ.first == got.end() ? "nothing" : *differ.first;
        const std::string wantedLine = differ.second == wanted.end() ? "nothing" : *differ.second;
        EXPECT_EQ(gotLine, wantedLine)
            << what << ", line " << differ.first - got.begin() << " of " << wanted.size();
    }
    /// What ffprobe prints, without the names of the sections and keys. It must have nothing to complain of.
    std::string Probe(const std::string& name, const std::string& arguments) const {
        std::istringstream stream("-v warning -of default=nw=1:nk=1 " + arguments);
        Words words{std::istream_iterator<std::string>(stream), {}};
        words.push_back(name);
        const Answer answer = RunTool("/usr/bin/ffprobe", words);
        EXPECT_EQ(answer.status, 0) << name;
        EXPECT_EQ(answer.err, "") << name;
        return answer.out;
    }
    double DurationOf(const std::string& name) const {
        return std::stod(Probe(name, "-show_entries format=duration"));
    }
    std::vector<std::string> Files() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(folder.Path())) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    const TempFolder folder;
    const PrivateBus bus;
};
