#pragma once

#include <chrono>
#include <cstddef>
#include <stdexcept>
#include <string>

#include "http/TlsContext.h"

namespace calvane_web {

/// The client is gone, or does not read or write in time.
class Disconnected : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// A connection to a client, with TLS or without, whose every operation has a time limit.
///
/// Threads: one at a time; Abort from any.
/// Errors:  Disconnected.
class Connection {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::chrono::seconds kLongestStall{8};
    static constexpr std::size_t kSlowestReader = std::size_t{16} * 1024; ///< Bytes in a second.

    /// Takes the descriptor of a non-blocking socket over. `tls` may be null, and outlives it.
    Connection(int descriptor, const TlsContext* tls);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// What has come, without waiting; 0 for nothing yet. Throws also when the client has closed its side.
    std::size_t Receive(char* bytes, std::size_t length);
    /// Throws for a client that takes nothing for kLongestStall, or less than kSlowestReader in the mean.
    void Write(const char* bytes, std::size_t length);
    /// Whether the client has not closed its side and there was no error.
    bool IsOpen() const;
    /// Says farewell, and takes what the client still sends for a moment, since otherwise it may lose the answer.
    void Close();
    /// Ends what another thread does with it.
    void Abort() const;

    int Descriptor() const { return descriptor_; }
    /// The client's address, without the port.
    const std::string& Peer() const { return peer_; }

private:
    /// What the socket must be able to do before the last operation, which gave `result`, can go on.
    short Blocker(long result, short events) const;

    const int descriptor_;
    const TlsContext::Session tls_;
    const std::string peer_;
};

} // namespace calvane_web
