#include "http/Listener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

namespace calvane_web {
namespace {

constexpr int kBacklog = 256;

using Addresses = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

Addresses Resolve(const Address& address) {
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(address.host.c_str(), std::to_string(address.port).c_str(), &hints, &found) != 0) {
        throw std::invalid_argument("Not an address: \"" + address.host +
                                    "\" (an IPv4 address, or an IPv6 address in brackets)");
    }
    return {found, &freeaddrinfo};
}

} // namespace

Address Address::Parse(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    std::string host = text.substr(0, colon == std::string::npos ? 0 : colon);
    unsigned int port = 0;
    const char* const end = text.data() + text.size();
    const bool hasPort = colon != std::string::npos && colon + 1 != text.size() &&
                         std::from_chars(text.data() + colon + 1, end, port).ptr == end && port <= 0xFFFF;
    const bool isBracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (!hasPort || host.empty() || (host.find(':') != std::string::npos && !isBracketed)) {
        throw std::invalid_argument("Not an address and port: \"" + text +
                                    "\" (such as 127.0.0.1:8080 or [::1]:8080)");
    }
    if (host == "localhost") {
        host = "127.0.0.1";
    }
    Address address{isBracketed ? host.substr(1, host.size() - 2) : std::move(host),
                    static_cast<std::uint16_t>(port)};
    Resolve(address);
    return address;
}

bool Address::IsLoopback() const {
    return host == "::1" || host.rfind("127.", 0) == 0 || host.rfind("::ffff:127.", 0) == 0;
}

std::string Address::Text() const {
    return (host.find(':') != std::string::npos ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

Listener::Listener(int descriptor) : descriptor_(descriptor) {}

Listener::Listener(const Address& address) : descriptor_(-1) {
    const Addresses found = Resolve(address);
    descriptor_ = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int yes = 1;
    const bool listens =
        descriptor_ >= 0 && setsockopt(descriptor_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes) == 0 &&
        bind(descriptor_, found->ai_addr, found->ai_addrlen) == 0 && listen(descriptor_, kBacklog) == 0;
    if (!listens) {
        const int error = errno;
        if (descriptor_ >= 0) {
            close(std::exchange(descriptor_, -1));
        }
        throw std::runtime_error("Cannot listen on " + address.Text() + ": " + std::strerror(error));
    }
}

bool Listener::HasFromSystemd() {
    return sd_listen_fds(0) > 0;
}

Listener Listener::FromSystemd() {
    const int count = sd_listen_fds(1);
    if (count != 1 || sd_is_socket(SD_LISTEN_FDS_START, AF_UNSPEC, SOCK_STREAM, 1) <= 0) {
        throw std::runtime_error("The socket unit must hand over one listening stream socket, not " +
                                 std::to_string(count) + " or others");
    }
    Listener listener(SD_LISTEN_FDS_START);
    const int flags = fcntl(listener.descriptor_, F_GETFL);
    fcntl(listener.descriptor_, F_SETFL, flags | O_NONBLOCK);
    return listener;
}

Listener::Listener(Listener&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}

Listener::~Listener() {
    if (descriptor_ >= 0) {
        close(descriptor_);
    }
}

Address Listener::Local() const {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    char host[INET6_ADDRSTRLEN] = "";
    getsockname(descriptor_, reinterpret_cast<sockaddr*>(&address), &length);
    if (address.ss_family == AF_INET6) {
        const auto* const six = reinterpret_cast<const sockaddr_in6*>(&address);
        inet_ntop(AF_INET6, &six->sin6_addr, host, sizeof host);
        return {host, ntohs(six->sin6_port)};
    }
    const auto* const four = reinterpret_cast<const sockaddr_in*>(&address);
    inet_ntop(AF_INET, &four->sin_addr, host, sizeof host);
    return {host, ntohs(four->sin_port)};
}

} // namespace calvane_web
