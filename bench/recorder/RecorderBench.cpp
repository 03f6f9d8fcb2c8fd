// calvane_recorder_bench: one measurement on one card, as a line of JSON. bench/recorder.py makes the cards, empties
// the page cache and puts the figures together.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "Measurements.h"
#include "drenn/multi_track_recorder/Track.h"

using quarn::calvane::RecordingManager;

Recorder::Recorder(const std::string& card) {
    RecordingManager::setRecordingRootPath(card);
    const auto begin = Clock::now();
    RecordingManager::init();
    secondsOfInit_ = SecondsSince(begin);
    RecordingManager::instance();
}

Recorder::~Recorder() {
    RecordingManager::deinit();
}

std::vector<std::int64_t> RandomTimes(std::int64_t span, std::uint32_t count) {
    std::mt19937_64 random(4);
    std::vector<std::int64_t> times(count);
    std::generate(times.begin(), times.end(),
                  [&] { return static_cast<std::int64_t>(random() % static_cast<std::uint64_t>(span)); });
    return times;
}

double MedianOf(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.at(values.size() / 2);
}

namespace {

void MeasureStart(const std::string& card) {
    const Recorder recorder(card);
    std::printf("{\"init\": %f, \"records\": %u}\n", recorder.SecondsOfInit(),
                Recorder::Audio().getTrack()->size());
}

void Run(const std::vector<std::string>& words) {
    const auto number = [&](std::size_t place) {
        return static_cast<std::uint32_t>(std::strtoul(words[place].c_str(), nullptr, 10));
    };
    const auto is = [&](const char* verb, std::size_t count) {
        return words[0] == verb && words.size() == count;
    };
    if (is("lookup", 3)) {
        MeasureLookUps(words[1], number(2));
    } else if (is("fill-table", 3)) {
        FillTable(words[1], words[2]);
    } else if (is("table", 3)) {
        MeasureTable(words[1], number(2));
    } else if (is("calls", 3)) {
        MeasureCalls(words[1], number(2));
    } else if (is("ask", 4)) {
        MeasureAsking(words[1], number(2), words[3]);
    } else if (is("record", 3)) {
        MeasureRecording(words[1], number(2));
    } else if (is("raw", 3)) {
        MeasureRawFile(words[1], number(2));
    } else if (is("start", 2)) {
        MeasureStart(words[1]);
    } else if (is("retention", 4)) {
        MeasureRetention(words[1], number(2), number(3));
    } else if (is("coverage", 4)) {
        MeasureCoverage(words[1], number(2), number(3) != 0);
    } else if (is("commits", 3)) {
        MeasureCommits(words[1], number(2));
    } else {
        throw std::runtime_error(
            "usage: calvane_recorder_bench lookup CARD COUNT | fill-table CARD FILE | table FILE COUNT | "
            "calls CARD COUNT | ask CARD COUNT SERVICE | record CARD SECONDS | raw FILE SECONDS | start CARD "
            "| "
            "retention CARD SECONDS LIMIT | coverage CARD SECONDS ASKED | commits FOLDER COUNT");
    }
}

} // namespace

int main(int argc, char** argv) {
    try {
        const std::vector<std::string> words(argv + 1, argv + argc);
        Run(words.empty() ? std::vector<std::string>{"help"} : words);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "calvane_recorder_bench: %s\n", error.what());
        return 1;
    }
    return 0;
}
