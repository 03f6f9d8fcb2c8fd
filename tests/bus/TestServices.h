#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "drenn/api/DrennApiRecordingDataAccessTargetRun.h"
#include "drenn/api/DrennApiRecordingInformationTargetRun.h"
#include "drenn/api/generated/RecordingInformation1Proxy.h"

/// Answers with numbers that tell the arguments apart.
class FakeInformation : public drenn::api::DrennApiRecordingInformationTargetImplBase {
public:
    FakeInformation() : DrennApiRecordingInformationTargetImplBase(nullptr) {}

    unsigned int getRecordingSummary(unsigned int* firstSec, unsigned int* firstUsec, unsigned int* lastSec,
                                     unsigned int* lastUsec) override {
        ++calls;
        std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
        *firstSec = 1, *firstUsec = 2, *lastSec = 3, *lastUsec = 4;
        return 0;
    }
    unsigned int getTrackSummary(unsigned int trackType, unsigned int* firstSec, unsigned int* firstUsec,
                                 unsigned int* lastSec, unsigned int* lastUsec) override {
        if (trackType == 99) {
            throw std::runtime_error("Recording is currently disabled");
        }
        *firstSec = trackType, *firstUsec = 6, *lastSec = 7, *lastUsec = 8;
        return trackType > 2 ? 1 : 0;
    }
    unsigned int getRecordingState(unsigned int sec, unsigned int usec, unsigned char* recording,
                                   unsigned char* video, unsigned char* audio,
                                   unsigned char* metadata) override {
        *recording = 1, *video = 2, *audio = static_cast<unsigned char>(sec),
        *metadata = static_cast<unsigned char>(usec);
        return 0;
    }
    unsigned int getAudioAttributes(unsigned int sec, unsigned int usec, unsigned int* bitsPerSample,
                                    unsigned int* channels, double* samplingFrequency, unsigned int* startSec,
                                    unsigned int* startUsec, unsigned int* endSec,
                                    unsigned int* endUsec) override {
        *bitsPerSample = 16, *channels = 2, *samplingFrequency = 44100.5;
        *startSec = sec, *startUsec = usec, *endSec = 13, *endUsec = 14;
        return 0;
    }
    unsigned int getVideoAttributes(unsigned int sec, unsigned int usec, unsigned int* encoding,
                                    unsigned int* width, unsigned int* height, unsigned int* bitrate,
                                    double* frameRate, unsigned int* startSec, unsigned int* startUsec,
                                    unsigned int* endSec, unsigned int* endUsec) override {
        *encoding = 21, *width = 1920, *height = 1080, *bitrate = 24, *frameRate = 29.97;
        *startSec = sec, *startUsec = usec, *endSec = 27, *endUsec = 28;
        return 0;
    }

    std::atomic<int> calls{0};
    std::atomic<int> delayMs{0};
};

/// A client with a connection of its own, as in another process; keeps the events.
class InformationClient : public sdbus::ProxyInterfaces<com::drenn::RecordingInformation1_proxy> {
public:
    explicit InformationClient(const std::string& address)
        : ProxyInterfaces(sdbus::createSessionBusConnectionWithAddress(address),
                          "com.drenn.recording_information", "/com/drenn/recording_information") {
        registerProxy();
    }
    virtual ~InformationClient() { unregisterProxy(); }

    std::vector<std::string> Events() const {
        const std::lock_guard<std::mutex> guard(lock_);
        return events_;
    }

private:
    void onDataPresent(const std::uint32_t& trackType, const std::uint8_t& present) override {
        Add("present " + std::to_string(trackType) + " " + std::to_string(present));
    }
    void onDataDeleted(const std::uint32_t& trackType, const std::uint32_t& startSec,
                       const std::uint32_t& startUsec, const std::uint32_t& endSec,
                       const std::uint32_t& endUsec) override {
        Add("deleted " + std::to_string(trackType) + " " + std::to_string(startSec) + " " +
            std::to_string(startUsec) + " " + std::to_string(endSec) + " " + std::to_string(endUsec));
    }
    void Add(const std::string& event) {
        const std::lock_guard<std::mutex> guard(lock_);
        events_.push_back(event);
    }

    mutable std::mutex lock_;
    std::vector<std::string> events_;
};
