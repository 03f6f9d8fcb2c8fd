#pragma once

#include <atomic>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/signals2/connection.hpp>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "calvane/recording/RecordingTrack.h"
#include "quarn/osa/Runnable.h"
#include "quarn/osa/Thread.h"

namespace drenn::multi_track_recorder {
class Track;
}

namespace quarn::calvane {

/// Sends the records of a track between two times into a socket, each as a frame; docs/reference/bus-interfaces.md
/// describes them. What is newer than the newest record at its beginning is left out: a stream that follows a fast
/// producer would not end. It waits as long as nobody reads, with one record in memory and no lock held. A record that cannot be
/// read is passed over, which the next frame and the last one tell.
///
/// Threads:  one of its own reads and writes. Erasing moves its place on the thread that erases, which holds the
///           track's lock then, as the reading does.
/// Lifetime: ends by itself behind the last record, when the reader goes, when it has read nothing for ten minutes, and
///           when it is destroyed.
class RecordStream : public osa::Runnable {
public:
    using Ptime = boost::posix_time::ptime;

    /// Takes `socket` over.
    RecordStream(RecordingTrack& track, const Ptime& from, const Ptime& to, int socket);
    ~RecordStream() override;
    RecordStream(const RecordStream&) = delete;
    RecordStream& operator=(const RecordStream&) = delete;

    bool hasEnded() const { return _ended; }

private:
    enum class FrameKind : std::uint8_t { Record = 0, Erased = 1, End = 2, Failed = 3, Info = 4 };

    /// An eventfd.
    class Event {
    public:
        Event();
        ~Event();
        Event(const Event&) = delete;
        Event& operator=(const Event&) = delete;
        int number() const { return _descriptor; }

    private:
        const int _descriptor;
    };

    /// What is to be done next: send the frame, or read on, since the record could not be read.
    enum class Step { Send, SendLast, ReadOn };

    void Run() override;
    void Stop() override;
    void disconnect();
    void sendFailure(const char* text) noexcept;
    void sendAll();
    Step readNext();
    bool putChangedInfo();
    bool resumeBehindErased();
    void putEnd();
    void onEraseRange(unsigned int first, unsigned int last);
    bool isToBeSent(unsigned int index) const;
    void putFrame(FrameKind kind, unsigned int flags, const Ptime& time, const void* data, std::size_t size,
                  std::int64_t compositionOffset = 0);
    bool sendFrame();
    bool waitWritable() const;

    RecordingTrack& _track;
    const boost::shared_ptr<drenn::multi_track_recorder::Track> _store;
    Ptime _to; // Set before the thread runs.
    const int _socket;
    const Event _stop;
    std::atomic<bool> _ended{false};

    // Guarded by the track's lock.
    unsigned int _next = 0;           // The index of the record to be read.
    Ptime _lastTime;                  // Nothing before this time is left to be sent.
    unsigned int _sentOfLastTime = 0; // So many records of exactly that time were sent.
    bool _erased = false;             // Some of what was to be sent is gone.

    // The thread's own.
    std::uint64_t _unreadable = 0; // Records that were passed over.
    bool _damageAhead = false;     // Some of them since the last frame.
    std::string _info;             // Which the client knows.

    std::vector<unsigned char> _frame;

    boost::signals2::connection _connection;
    osa::Thread _thread;
};

/// The streams that are open.
///
/// Threads: one at a time.
class RecordStreams {
public:
    static constexpr std::size_t kMost = 16;
    static constexpr std::ptrdiff_t kMostOfOneClient = 4;

    /// Returns the end to read from, the caller's to close. Throws std::runtime_error when kMost are open, or
    /// kMostOfOneClient for a client that has a name.
    int open(RecordingTrack& track, const RecordStream::Ptime& from, const RecordStream::Ptime& to,
             const std::string& client);

private:
    struct Open {
        Open(std::string name, RecordingTrack& track, const RecordStream::Ptime& from,
             const RecordStream::Ptime& to, int socket)
            : client(std::move(name)), stream(track, from, to, socket) {}
        const std::string client;
        RecordStream stream;
    };

    std::list<Open> _streams;
};

} // namespace quarn::calvane
