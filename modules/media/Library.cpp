#include "Library.h"

extern "C" {
#include <libavutil/error.h>
#include <libavutil/log.h>
}

#include <array>
#include <chrono>
#include <mutex>
#include <new>
#include <stdexcept>

#include "quarn/core/Logger.h"

namespace calvane_media {

using quarn::core::Logger;
using quarn::core::LogLevel;

namespace {

constexpr int kLinesInARow = 20;
constexpr std::int64_t kRowMicroseconds = 10'000'000;

std::mutex lock;
// Guarded by lock.
int users = 0;
int lines = 0; // In this row.
std::int64_t rowBegin = 0;
unsigned long long suppressed = 0;

LogLevel LevelOf(int level) {
    if (level <= AV_LOG_ERROR) {
        return LogLevel::Warning;
    }
    return level <= AV_LOG_WARNING   ? LogLevel::Information
           : level <= AV_LOG_VERBOSE ? LogLevel::Debug
                                     : LogLevel::Trace;
}

/// Whether another line may pass; damaged input can make the library write thousands.
bool TakeLine(Logger& logger) {
    const std::lock_guard<std::mutex> guard(lock);
    const std::int64_t now = SteadyNow();
    if (now - rowBegin > kRowMicroseconds) {
        if (suppressed != 0) {
            logger.Information("%llu lines were left out", suppressed);
        }
        rowBegin = now;
        lines = 0;
        suppressed = 0;
    }
    if (lines < kLinesInARow) {
        ++lines;
        return true;
    }
    ++suppressed;
    return false;
}

void OnLine(void* context, int level, const char* format, va_list arguments) {
    static Logger* const logger = Logger::GetLogger("ffmpeg");
    const LogLevel ours = LevelOf(level);
    if (!logger->IsEnabled(ours) || !TakeLine(*logger)) {
        return;
    }
    std::array<char, 1024> text{};
    int prefix = 1;
    av_log_format_line2(context, level, format, arguments, text.data(), static_cast<int>(text.size()),
                        &prefix);
    std::string line = WithoutCredentials(text.data());
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.pop_back();
    }
    if (!line.empty()) {
        logger->Log(ours, "%s", line.c_str());
    }
}

} // namespace

PacketPtr MakePacket() {
    PacketPtr packet(av_packet_alloc());
    if (!packet) {
        throw std::bad_alloc();
    }
    return packet;
}

std::string ErrorText(int code) {
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
    av_strerror(code, text.data(), text.size());
    return text.data();
}

std::string WithoutCredentials(std::string text) {
    static constexpr char kScheme[] = "://";
    for (std::size_t at = text.find(kScheme); at != std::string::npos; at = text.find(kScheme, at)) {
        at += sizeof kScheme - 1;
        const std::size_t end = text.find_first_of("/ '\"", at);
        const std::size_t host = text.substr(at, end - at).rfind('@');
        if (host != std::string::npos) {
            text.replace(at, host, "...");
        }
    }
    return text;
}

std::int64_t UtcNow() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::int64_t SteadyNow() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void Options::Parse(const std::string& text) {
    const int code = av_dict_parse_string(&dictionary_, text.c_str(), "=", ", ", 0);
    if (code < 0) {
        throw std::runtime_error("\"" + text + "\" is no list such as \"framerate=25, video_size=1280x720\"");
    }
}

void Options::Default(const char* key, const char* value) {
    av_dict_set(&dictionary_, key, value, AV_DICT_DONT_OVERWRITE);
}

std::string Options::FirstUnused() const {
    const AVDictionaryEntry* const entry = av_dict_get(dictionary_, "", nullptr, AV_DICT_IGNORE_SUFFIX);
    return entry != nullptr ? entry->key : "";
}

LibraryLog::LibraryLog() {
    const std::lock_guard<std::mutex> guard(lock);
    if (users++ == 0) {
        av_log_set_callback(OnLine);
    }
}

LibraryLog::~LibraryLog() {
    const std::lock_guard<std::mutex> guard(lock);
    if (--users == 0) {
        av_log_set_callback(av_log_default_callback);
    }
}

} // namespace calvane_media
