#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "InputStream.h"
#include "Library.h"

struct AVFormatContext;
struct AVInputFormat;

namespace calvane_media {

/// What to open, and how.
struct InputSettings {
    std::string url;
    std::string format;  ///< Name of an input format; empty: found from the content.
    std::string options; ///< See Options::Parse.
    std::int64_t timeoutMicroseconds = 10'000'000;
};

/// A file, address or device that the library reads packets from.
///
/// Threads:   one at a time; Cancel from any.
/// Errors:    std::runtime_error that names the address and what is wrong.
/// Lifetime:  Open -> Read ... -> Open again, if wanted.
class MediaInput {
public:
    enum class Status { Packet, Nothing, Damaged, End, Failed };

    explicit MediaInput(InputSettings settings);
    ~MediaInput();
    MediaInput(const MediaInput&) = delete;
    MediaInput& operator=(const MediaInput&) = delete;

    /// Opens it and finds out about its streams. What takes longer than the timeout fails.
    void Open();
    /// The best stream of each kind. Of the others no packets come.
    std::vector<InputStream> GetStreams() const;
    /// From now on no packets come of other kinds.
    void Select(const std::set<StreamKind>& kinds);
    /// Reads the next packet into `packet`, which is empty. After End and Failed, GetProblem says why. Damaged: some
    /// input was passed over. Nothing: a device has nothing at the moment.
    Status Read(AVPacket& packet);
    const std::string& GetProblem() const { return problem_; }

    /// Whether packets come when they come, as from a camera. After Open.
    bool IsLive() const;
    /// In microseconds; 0: not known. After Open.
    std::int64_t GetDuration() const;
    /// When Open began to take packets in, in UTC.
    std::int64_t GetBeginning() const { return beginning_; }
    std::string GetName() const { return WithoutCredentials(settings_.url); }
    /// Whatever blocks returns soon, and fails; so does all that comes later.
    void Cancel() { cancelled_ = true; }

    /// Whether it is a file or is generated here: nothing that a reader has to wait for.
    static bool IsLocal(const InputSettings& settings);

private:
    struct Close {
        void operator()(AVFormatContext* context) const;
    };

    static int IsInterrupted(void* input);
    const AVInputFormat* FindFormat() const;
    void FindHost();
    std::string Address() const;
    void BeginToWait();
    std::string Explain(int code) const;

    const InputSettings settings_;
    std::atomic<bool> cancelled_{false};
    std::int64_t deadline_ = 0; // By the steady clock.
    std::int64_t beginning_ = 0;
    std::string problem_;
    std::unique_ptr<AVFormatContext, Close> context_;
    int damagedInARow_ = 0;
};

} // namespace calvane_media
