#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "calvane/recording/internal/RecordingSession.h"
#include "calvane/recording/internal/StoredRecord.h"
#include "calvane/recording/internal/TrackLock.h"
#include "calvane/services/internal/RecordStream.h"
#include "calvane/services/internal/ServiceTime.h"
#include "drenn/multi_track_recorder/Track.h"

namespace quarn::calvane {
namespace {

constexpr std::uint8_t kStreamVersion = 2;
// What a record's flags have, too, when some in front of it could not be read.
constexpr unsigned int kDamageFlags = 4 | RecordHeader::kDiscontinuity;
constexpr int kIdleMilliseconds = 600'000;
constexpr unsigned int kStackBytes = 256 * 1024;

void putLittleEndian(std::vector<unsigned char>& bytes, std::uint64_t value, int count) {
    for (int i = 0; i != count; ++i) {
        bytes.push_back(static_cast<unsigned char>(value >> (8 * i)));
    }
}

} // namespace

RecordStream::Event::Event() : _descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (_descriptor < 0) {
        throw std::system_error(errno, std::generic_category(), "Cannot make an event descriptor");
    }
}

RecordStream::Event::~Event() {
    close(_descriptor);
}

RecordStream::RecordStream(RecordingTrack& track, const Ptime& from, const Ptime& to, int socket)
    : _track(track),
      _store(track.getTrack()),
      _socket(socket),
      _lastTime(from),
      _thread("RecordStream", this, kStackBytes, 0) {
    try {
        {
            const TrackLock lock(*_store);
            Ptime oldest;
            Ptime newest(boost::posix_time::neg_infin);
            track.getRecordingTimePeriod(oldest, newest);
            _to = std::min(to, newest);
            _next = track.getFirstIndexNotBefore(from);
            _connection = _store->connectToEraseRangeSignal(
                [this](unsigned int first, unsigned int last) { onEraseRange(first, last); });
        }
        _thread.Run();
    } catch (...) {
        disconnect();
        throw;
    }
}

RecordStream::~RecordStream() {
    RecordStream::Stop();
    _thread.Join();
    disconnect();
    close(_socket);
}

/// On return no erasing is on its way here any more.
void RecordStream::disconnect() {
    try {
        const TrackLock lock(*_store);
        _connection.disconnect();
    } catch (const std::exception&) { // The track is gone, and nothing erases it any more.
        _connection.disconnect();
    }
}

void RecordStream::Stop() {
    eventfd_write(_stop.number(), 1);
}

void RecordStream::Run() {
    try {
        sendAll();
    } catch (const std::exception& problem) {
        sendFailure(problem.what());
    }
    shutdown(_socket, SHUT_RDWR);
    _ended = true;
}

/// The reason may be that there is no memory.
void RecordStream::sendFailure(const char* text) noexcept {
    try {
        putFrame(FrameKind::Failed, 0, _lastTime, text, std::strlen(text));
        sendFrame();
    } catch (const std::exception&) { // The client sees that the last frame is missing.
    }
}

void RecordStream::sendAll() {
    for (Step step = Step::ReadOn; step != Step::SendLast;) {
        step = readNext();
        if (step == Step::ReadOn) {
            RecordingSession::current().card().require(); // Otherwise all records would count as damaged.
        }
        if (step == Step::ReadOn ? !waitWritable() : !sendFrame()) {
            return;
        }
    }
}

/// Makes the next frame, if the next record can be read.
RecordStream::Step RecordStream::readNext() {
    const TrackLock lock(*_store);
    const ReadPositionKeeper keeper(*_store);
    if (_next >= _store->size() && !_erased) {
        putEnd();
        return Step::SendLast;
    }
    if (resumeBehindErased()) {
        putFrame(FrameKind::Erased, 0, _lastTime, nullptr, 0);
        return Step::Send;
    }
    const std::optional<Ptime> time = _track.findTimestamp(_next);
    if (time && *time > _to) {
        putEnd();
        return Step::SendLast;
    }
    try {
        const StoredRecord record(*_store, _next);
        if (putChangedInfo()) {
            return Step::Send;
        }
        const unsigned int damage = _damageAhead ? kDamageFlags : 0;
        putFrame(FrameKind::Record, record.flags() | damage, record.time(), record.data(), record.size(),
                 record.compositionOffset());
        _sentOfLastTime = record.time() == _lastTime ? _sentOfLastTime + 1 : 1;
        _lastTime = record.time();
        _damageAhead = false;
    } catch (const std::exception& problem) {
        _track.notePassedOver(_next, problem.what());
        ++_unreadable;
        _damageAhead = true;
    }
    ++_next;
    return _damageAhead ? Step::ReadOn : Step::Send;
}

/// Whether a frame was made since the next record has another info than the client knows. Within the lock. The frame has
/// the time of the one before it: the next record may be erased before it is sent, and times of frames never fall.
bool RecordStream::putChangedInfo() {
    std::string info;
    _store->seekg(_next);
    _store->getInfo(info);
    if (info == _info) {
        return false;
    }
    putFrame(FrameKind::Info, 0, _lastTime, info.data(), info.size());
    _info = std::move(info);
    return true;
}

/// Whether data is missing in front of the next record because it was erased. Within the lock.
bool RecordStream::resumeBehindErased() {
    const std::optional<Ptime> time = _erased ? std::nullopt : _track.findTimestamp(_next);
    if (time && *time < _lastTime) {
        // An erasing that was announced has failed after all, or times that fall; never back, so that it ends.
        _next = std::max(_next + 1, _track.getFirstIndexNotBefore(_lastTime) + _sentOfLastTime);
        return true;
    }
    return std::exchange(_erased, false);
}

void RecordStream::putEnd() {
    std::vector<unsigned char> unreadable;
    putLittleEndian(unreadable, _unreadable, 8);
    putFrame(FrameKind::End, 0, _lastTime, unreadable.data(), unreadable.size());
}

void RecordStream::onEraseRange(unsigned int first, unsigned int last) {
    if (last <= _next) {
        _next -= last - first;
        return;
    }
    _erased = _erased || isToBeSent(std::max(first, _next));
    _next = std::min(first, _next);
}

/// Whether the record at an index from _next on is before the end. One that cannot be read may be.
bool RecordStream::isToBeSent(unsigned int index) const {
    try {
        return _track.getTimestampAtIndex(index) <= _to;
    } catch (const std::exception&) {
        return true;
    }
}

void RecordStream::putFrame(FrameKind kind, unsigned int flags, const Ptime& time, const void* data,
                            std::size_t size, std::int64_t compositionOffset) {
    _frame.clear();
    putLittleEndian(_frame, static_cast<std::uint8_t>(kind), 1);
    putLittleEndian(_frame, kStreamVersion, 1);
    putLittleEndian(_frame, flags, 2);
    putLittleEndian(_frame, size, 4);
    putLittleEndian(_frame, static_cast<std::uint64_t>(unixMicrosecondsFromTime(time)), 8);
    putLittleEndian(_frame, static_cast<std::uint64_t>(compositionOffset), 8);
    const auto* const bytes = static_cast<const unsigned char*>(data);
    _frame.insert(_frame.end(), bytes, bytes + size);
}

/// False when the reader has gone or the stream is to end.
bool RecordStream::sendFrame() {
    std::size_t sent = 0;
    while (sent != _frame.size()) {
        if (!waitWritable()) {
            return false;
        }
        const ssize_t count =
            send(_socket, _frame.data() + sent, _frame.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count >= 0) {
            sent += static_cast<std::size_t>(count);
        } else if (errno != EAGAIN && errno != EINTR) {
            return false;
        }
    }
    return true;
}

bool RecordStream::waitWritable() const {
    std::array<pollfd, 2> waits{{{_socket, POLLOUT, 0}, {_stop.number(), POLLIN, 0}}};
    int ready = -1;
    while ((ready = poll(waits.data(), waits.size(), kIdleMilliseconds)) < 0) {
        if (errno != EINTR) {
            return false;
        }
    }
    return ready != 0 && waits[1].revents == 0 && (waits[0].revents & (POLLHUP | POLLERR)) == 0;
}

int RecordStreams::open(RecordingTrack& track, const RecordStream::Ptime& from, const RecordStream::Ptime& to,
                        const std::string& client) {
    _streams.remove_if([](const Open& open) { return open.stream.hasEnded(); });
    const auto own = std::count_if(_streams.begin(), _streams.end(),
                                   [&](const Open& open) { return open.client == client; });
    if (!client.empty() && own >= kMostOfOneClient) {
        throw std::runtime_error("Too many record streams of one client are open; the most are " +
                                 std::to_string(kMostOfOneClient));
    }
    if (_streams.size() >= kMost) {
        throw std::runtime_error("Too many record streams are open; the most are " + std::to_string(kMost));
    }
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw std::system_error(errno, std::generic_category(), "Cannot make a record stream");
    }
    try {
        _streams.emplace_back(client, track, from, to, ends[0]);
    } catch (...) {
        close(ends[0]);
        close(ends[1]);
        throw;
    }
    return ends[1];
}

} // namespace quarn::calvane
