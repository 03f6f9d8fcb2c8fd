#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "InputStream.h"
#include "Library.h"
#include "ParameterWatch.h"
#include "calvane/buffer/Buffer.h"
#include "calvane/graph/Source.h"

namespace calvane_media {

/// Makes buffers of a stream's packets and pushes them through an output of a plugin.
///
/// A buffer shares the packet's memory. Its format has the codec's FourCC as code and the properties that RecordingSink
/// reads, and its timestamp is the packet's decode time in UTC. Metadata:
///
///     KeyFrame             1 if it can be decoded without those before it
///     FirstAfterGap        1 if data is missing in front of it
///     CompositionOffsetUs  presentation time less decode time, in microseconds; absent if 0
///     info                 with KeyFrame: the track's info as text, see CodecInfo
///
/// Threads: one.
class MediaOutput {
public:
    explicit MediaOutput(quarn::calvane::Source& source) : source_(source) {}

    /// From now on packets are of this stream. Announces the format.
    void Open(InputStream stream);
    bool IsOpen() const { return watch_ != nullptr; }
    void Close() { watch_.reset(); }

    /// `time`: of decoding, in microseconds of UTC. One that lies before the last packet's becomes that; returns false
    /// then.
    bool Push(PacketPtr packet, std::int64_t time, std::int64_t compositionOffset);
    /// Something is missing in front of the next packet; time may go back, too.
    void MarkGap(bool mayGoBack = false);
    unsigned long long GetCount() const { return count_; }

private:
    void Describe();

    quarn::calvane::Source& source_;
    InputStream stream_;
    std::unique_ptr<ParameterWatch> watch_;
    quarn::calvane::BufferFormat format_;
    std::string info_;
    std::int64_t lastTime_ = 0;
    bool gap_ = false;
    unsigned long long count_ = 0;
};

} // namespace calvane_media
