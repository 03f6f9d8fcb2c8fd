#pragma once

extern "C" {
#include <libavformat/avformat.h>
}

#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "TimeText.h"
#include "media/CodecInfo.h"
#include "media_export/IOutput.h"

namespace calvane_export {

using calvane_recording::Time;

enum class Container { Mp4, Matroska, MpegTs };

/// As the ends of file names: mp4, mkv, ts. Throws std::invalid_argument that names the text.
Container ParseContainer(const std::string& name);
const char* NameOf(Container container);
/// Whether text can go with the pictures, as subtitles.
bool CanHoldText(Container container);

struct MovieOptions {
    Container container = Container::Mp4;
    /// An mp4 file in fragments, which can be played while it is written. Always so where the output cannot seek.
    bool fragmented = false;
    Time start = 0; ///< When it was 0 in the file; in its metadata.
    /// A fragment is not longer, in microseconds; 0: one for each key frame.
    Time fragmentTime = 0;
};

/// A packet as it was recorded. Times are in microseconds from the begin of the file.
struct Packet {
    std::size_t stream = 0;
    std::int64_t decodeTime = 0;
    std::int64_t compositionOffset = 0;
    std::int64_t duration = 0;
    bool isKeyFrame = false;
    const std::uint8_t* data = nullptr; ///< With AV_INPUT_BUFFER_PADDING_SIZE zero bytes behind it.
    std::size_t size = 0;
};

/// Writes packets of media into a file without changing them, but for the form that a container demands.
///
/// Threads:  one.
/// Errors:   std::runtime_error that names the container and what it cannot hold, and what the output throws.
/// Lifetime: AddStream for each, Begin, Write in the order of decode times, End. A file that was not ended is unusable.
class MovieWriter {
public:
    static constexpr std::size_t kLongestText = 65535;

    /// `output` outlives it.
    MovieWriter(IOutput& output, const MovieOptions& options);
    ~MovieWriter();
    MovieWriter(const MovieWriter&) = delete;
    MovieWriter& operator=(const MovieWriter&) = delete;

    /// Returns its number.
    std::size_t AddStream(const calvane_media::CodecInfo& codec);
    bool Supports(AVCodecID codec) const;
    /// One of subtitles, which are written with WriteText. Only where CanHoldText.
    std::size_t AddTextStream();
    void Begin();
    void Write(const Packet& packet);
    /// At most kLongestText bytes.
    void WriteText(const Packet& packet);
    /// From the next packet on all times are less by so much, in microseconds.
    void Join(std::int64_t missing);
    void End();

private:
    struct Stream;
    struct FreeContext {
        void operator()(AVFormatContext* context) const;
    };

    static int WriteBytes(void* self, std::uint8_t* bytes, int length);
    static std::int64_t Seek(void* self, std::int64_t offset, int whence);
    void OpenOutput();
    Stream& AddAny(AVCodecID codec);
    /// Throws when `result` is an error: what the output threw, else `what` and the reason.
    void Check(int result, const std::string& what);

    IOutput& output_;
    const MovieOptions options_;
    std::exception_ptr outputError_;
    std::unique_ptr<AVFormatContext, FreeContext> context_;
    std::vector<Stream> streams_;
    std::vector<std::uint8_t> text_;
    AVPacket* const packet_;
    std::int64_t position_ = 0;
    std::int64_t missing_ = 0;
    bool hasBegun_ = false;
};

} // namespace calvane_export
