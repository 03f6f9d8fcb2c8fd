#pragma once

#include <cstdint>
#include <memory>
#include <string>

extern "C" {
#include <libavcodec/packet.h>
#include <libavutil/dict.h>
}

namespace calvane_media {

struct FreePacket {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
using PacketPtr = std::unique_ptr<AVPacket, FreePacket>;

/// An empty packet. Throws std::bad_alloc.
PacketPtr MakePacket();

/// What went wrong, from an error code of the library.
std::string ErrorText(int code);

/// The text without names and passwords in the addresses that it has, for error texts and the log.
std::string WithoutCredentials(std::string text);

/// A point in time, in microseconds.
std::int64_t UtcNow();
std::int64_t SteadyNow();

/// Options of the library, as a dictionary that frees itself.
class Options {
public:
    Options() = default;
    ~Options() { av_dict_free(&dictionary_); }
    Options(const Options&) = delete;
    Options& operator=(const Options&) = delete;

    /// Adds "KEY=VALUE KEY=VALUE ...", separated by blanks or commas; quotes and backslashes as in the library's own
    /// programs. Throws std::runtime_error for anything else.
    void Parse(const std::string& text);
    /// Adds one, unless it is there.
    void Default(const char* key, const char* value);
    /// The first option that nothing took, or an empty text.
    std::string FirstUnused() const;
    AVDictionary** Get() { return &dictionary_; }

private:
    AVDictionary* dictionary_ = nullptr;
};

/// Directs what the library logs to the logger "ffmpeg" as long as one of these lives. What the library calls errors are
/// warnings here, since damaged input is survived; no more than a few lines a second pass.
///
/// Threads: any.
class LibraryLog {
public:
    LibraryLog();
    ~LibraryLog();
    LibraryLog(const LibraryLog&) = delete;
    LibraryLog& operator=(const LibraryLog&) = delete;
};

} // namespace calvane_media
