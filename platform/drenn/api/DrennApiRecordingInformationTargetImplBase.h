#pragma once

#include <memory>

#include "drenn/Export.h"
#include "drenn/api/ServiceTarget.h"

namespace drenn::api {

class InformationEvents;

/// What a program derives from to answer the service "recording_information"; DrennApiRecordingInformationTargetRun
/// puts it on the bus. docs/reference/bus-interfaces.md describes operations and events as clients see them.
///
/// Each operation returns 0, or another number, which the client then gets as an error; what it throws reaches
/// the client as an error with its text. Points in time are seconds since 1970-01-01 UTC and microseconds.
///
/// Threads: operations are called on the runner's thread, one at a time. Events may be sent from any thread and
///          under any lock: they go into a bounded queue and the call returns at once.
class DRENN_API DrennApiRecordingInformationTargetImplBase : public ServiceTarget {
public:
    /// `logCookie`: a handle of drenn_core_logging_init, or null; it must live as long as this object.
    explicit DrennApiRecordingInformationTargetImplBase(void* logCookie);
    ~DrennApiRecordingInformationTargetImplBase() override;
    DrennApiRecordingInformationTargetImplBase(const DrennApiRecordingInformationTargetImplBase&) = delete;
    DrennApiRecordingInformationTargetImplBase& operator=(const DrennApiRecordingInformationTargetImplBase&) =
        delete;

    virtual unsigned int getRecordingSummary(unsigned int* firstSec, unsigned int* firstUsec,
                                             unsigned int* lastSec, unsigned int* lastUsec) = 0;
    virtual unsigned int getTrackSummary(unsigned int trackType, unsigned int* firstSec,
                                         unsigned int* firstUsec, unsigned int* lastSec,
                                         unsigned int* lastUsec) = 0;
    virtual unsigned int getRecordingState(unsigned int sec, unsigned int usec, unsigned char* recording,
                                           unsigned char* video, unsigned char* audio,
                                           unsigned char* metadata) = 0;
    virtual unsigned int getAudioAttributes(unsigned int sec, unsigned int usec, unsigned int* bitsPerSample,
                                            unsigned int* channels, double* samplingFrequency,
                                            unsigned int* startSec, unsigned int* startUsec,
                                            unsigned int* endSec, unsigned int* endUsec) = 0;
    virtual unsigned int getVideoAttributes(unsigned int sec, unsigned int usec, unsigned int* encoding,
                                            unsigned int* width, unsigned int* height, unsigned int* bitrate,
                                            double* frameRate, unsigned int* startSec,
                                            unsigned int* startUsec, unsigned int* endSec,
                                            unsigned int* endUsec) = 0;

    /// Tells clients that a track's data became present (not 0) or absent.
    void sendEventDataPresent(unsigned int trackType, unsigned char present);
    /// Tells clients that the data of a track between two points in time, both included, was deleted.
    void sendEventDataDeleted(unsigned int trackType, unsigned int startSec, unsigned int startUsec,
                              unsigned int endSec, unsigned int endUsec);

private:
    friend class DrennApiRecordingInformationTargetRun;

    const std::unique_ptr<InformationEvents> events_;
};

} // namespace drenn::api
