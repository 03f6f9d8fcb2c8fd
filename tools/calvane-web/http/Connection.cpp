#include "http/Connection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

namespace calvane_web {
namespace {

constexpr auto kFarewell = std::chrono::milliseconds(200);
constexpr int kLongestPause = 50; ///< Within the farewell, in milliseconds.

std::string PeerOf(int descriptor) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (getpeername(descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return {};
    }
    const void* const host =
        address.ss_family == AF_INET6
            ? static_cast<const void*>(&reinterpret_cast<const sockaddr_in6*>(&address)->sin6_addr)
            : &reinterpret_cast<const sockaddr_in*>(&address)->sin_addr;
    return inet_ntop(address.ss_family, host, text.data(), text.size()) != nullptr ? text.data() : "";
}

int ClampLength(std::size_t length) {
    return static_cast<int>(std::min<std::size_t>(length, INT_MAX));
}

} // namespace

Connection::Connection(int descriptor, const TlsContext* tls)
    : descriptor_(descriptor),
      tls_(tls != nullptr ? tls->New(descriptor) : nullptr),
      peer_(PeerOf(descriptor)) {
    const int yes = 1;
    setsockopt(descriptor_, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
}

Connection::~Connection() {
    close(descriptor_);
}

short Connection::Blocker(long result, short events) const {
    if (tls_) {
        const int error = SSL_get_error(tls_.get(), static_cast<int>(result));
        ERR_clear_error();
        if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) {
            throw Disconnected("The client ended TLS");
        }
        return error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT;
    }
    if (result == 0) {
        throw Disconnected("The client closed the connection");
    }
    if (errno != EAGAIN && errno != EINTR) {
        throw Disconnected(std::strerror(errno));
    }
    return events;
}

std::size_t Connection::Receive(char* bytes, std::size_t length) {
    const ssize_t count =
        tls_ ? SSL_read(tls_.get(), bytes, ClampLength(length)) : recv(descriptor_, bytes, length, 0);
    if (count <= 0) {
        Blocker(count, POLLIN); // A handshake writes little enough to be taken at once.
        return 0;
    }
    return static_cast<std::size_t>(count);
}

void Connection::Write(const char* bytes, std::size_t length) {
    // What is sent in small pieces is not slow for that.
    const auto end = Clock::now() + kLongestStall + std::chrono::seconds(length / kSlowestReader);
    auto deadline = std::min(end, Clock::now() + kLongestStall);
    while (length != 0) {
        const ssize_t count = tls_ ? SSL_write(tls_.get(), bytes, ClampLength(length))
                                   : send(descriptor_, bytes, length, MSG_NOSIGNAL);
        if (count > 0) {
            bytes += count;
            length -= static_cast<std::size_t>(count);
            deadline = std::min(end, Clock::now() + kLongestStall);
            continue;
        }
        pollfd wait{descriptor_, Blocker(count, POLLOUT), 0};
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0 || poll(&wait, 1, static_cast<int>(std::min<long long>(left, INT_MAX))) == 0) {
            throw Disconnected("The client reads too slowly");
        }
    }
}

bool Connection::IsOpen() const {
    pollfd look{descriptor_, POLLRDHUP, 0};
    return poll(&look, 1, 0) == 0;
}

void Connection::Close() {
    if (tls_) {
        SSL_shutdown(tls_.get());
        ERR_clear_error();
    }
    shutdown(descriptor_, SHUT_WR);
    const auto deadline = Clock::now() + kFarewell;
    std::array<char, 4096> rest{};
    pollfd wait{descriptor_, POLLIN, 0};
    while (Clock::now() < deadline && poll(&wait, 1, kLongestPause) > 0 &&
           recv(descriptor_, rest.data(), rest.size(), 0) > 0) {
    }
}

void Connection::Abort() const {
    shutdown(descriptor_, SHUT_RDWR);
}

} // namespace calvane_web
