#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <chrono>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "calvane/recording/RecordingManager.h"

// One measurement each: prints its figures as an object of JSON. Times are in seconds.

using Clock = std::chrono::steady_clock;
using Ptime = boost::posix_time::ptime;

inline double SecondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

/// The process's recorder on a card, for as long as this lives.
class Recorder {
public:
    /// Throws unless the card can be used.
    explicit Recorder(const std::string& card);
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    double SecondsOfInit() const { return secondsOfInit_; }
    static quarn::calvane::RecordingManager& Manager() {
        return *quarn::calvane::RecordingManager::instance();
    }
    /// The track with most records, in which times are looked up.
    static quarn::calvane::RecordingTrack& Audio() { return Manager().getTrack(quarn::calvane::AUDIO_TRACK); }

private:
    double secondsOfInit_ = 0;
};

/// Times in microseconds after the track's first one, the same for each who looks them up.
std::vector<std::int64_t> RandomTimes(std::int64_t span, std::uint32_t count);

double MedianOf(std::vector<double> values);

void MeasureLookUps(const std::string& card, std::uint32_t count);
/// The times of the card's audio track as a table with an index.
void FillTable(const std::string& card, const std::string& file);
void MeasureTable(const std::string& file, std::uint32_t count);
void MeasureCalls(const std::string& card, std::uint32_t count);
/// Nothing but getRecordingState, of one service, "recording_information" or "plain": for counting instructions.
void MeasureAsking(const std::string& card, std::uint32_t count, const std::string& name);
/// What recording in real time takes of a processor.
void MeasureRecording(const std::string& card, std::uint32_t seconds);
/// The same records into one file.
void MeasureRawFile(const std::string& file, std::uint32_t seconds);
/// Delays of a writer in real time; halfway through, data older than `limit` seconds is erased unless it is 0.
void MeasureRetention(const std::string& card, std::uint32_t seconds, std::uint32_t limit);
/// Delays of a producer in real time, of records and of events, while the audio's coverage is asked for without a pause.
void MeasureCoverage(const std::string& card, std::uint32_t seconds, bool isAsked);
/// What it takes to make a second's records durable.
void MeasureCommits(const std::string& folder, std::uint32_t count);
