#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include "calvane/Export.h"
#include "drenn/api/DrennApiRecordingInformationTargetImplBase.h"

namespace quarn::calvane {

/// Answers the service "recording_information": what is recorded, and with which attributes.
///
/// Threads: those of the middleware, at once with everything that the recorder does.
/// Errors:  std::runtime_error "Recording is currently disabled" from every operation as long as it is;
///          "Error fetching audio track info: ..." and "Error fetching video track info: ..." where the track has
///          no data at that time or its info is incomplete; "Unsupported recording format encountered" where
///          "Format" or "Encoding" is no buffer format code.
class CALVANE_API RecordingInformationImpl : public drenn::api::DrennApiRecordingInformationTargetImplBase {
public:
    explicit RecordingInformationImpl(void* logCookie);
    ~RecordingInformationImpl() override;

    unsigned int getRecordingSummary(unsigned int* firstSec, unsigned int* firstUsec, unsigned int* lastSec,
                                     unsigned int* lastUsec) override;
    /// 1 for a type that is no data track.
    unsigned int getTrackSummary(unsigned int trackType, unsigned int* firstSec, unsigned int* firstUsec,
                                 unsigned int* lastSec, unsigned int* lastUsec) override;
    /// Each output 1 or 0. `recording`: any of the others.
    unsigned int getRecordingState(unsigned int sec, unsigned int usec, unsigned char* recording,
                                   unsigned char* video, unsigned char* audio,
                                   unsigned char* metadata) override;
    unsigned int getAudioAttributes(unsigned int sec, unsigned int usec, unsigned int* bitsPerSample,
                                    unsigned int* channels, double* samplingFrequency, unsigned int* startSec,
                                    unsigned int* startUsec, unsigned int* endSec,
                                    unsigned int* endUsec) override;
    /// Bit rate and frame rate (Hz) are 0 where the producer did not tell them.
    unsigned int getVideoAttributes(unsigned int sec, unsigned int usec, unsigned int* encoding,
                                    unsigned int* width, unsigned int* height, unsigned int* bitrate,
                                    double* frameRate, unsigned int* startSec, unsigned int* startUsec,
                                    unsigned int* endSec, unsigned int* endUsec) override;

    static void updateEmptyRange(unsigned int& firstSec, unsigned int& firstUsec, unsigned int& lastSec,
                                 unsigned int& lastUsec);
    /// Seconds since 1970-01-01 00:00:00 UTC and microseconds.
    static void updateRange(const boost::posix_time::ptime& first, const boost::posix_time::ptime& last,
                            unsigned int& firstSec, unsigned int& firstUsec, unsigned int& lastSec,
                            unsigned int& lastUsec);
    /// The same, in another order.
    static void updateInfoRange(const boost::posix_time::ptime& start, unsigned int& startSec,
                                unsigned int& startUsec, const boost::posix_time::ptime& end,
                                unsigned int& endSec, unsigned int& endUsec);
};

} // namespace quarn::calvane
