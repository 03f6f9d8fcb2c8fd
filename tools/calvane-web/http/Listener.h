#pragma once

#include <cstdint>
#include <string>

namespace calvane_web {

/// Where to listen: "127.0.0.1:8080", "[::1]:8080", "0.0.0.0:443". Port 0 is any free one.
struct Address {
    std::string host;
    std::uint16_t port = 0;

    /// Throws std::invalid_argument that names the text. Of host names only localhost is
    /// one: others may mean another address tomorrow.
    static Address Parse(const std::string& text);
    bool IsLoopback() const;
    /// As a browser wants it: "127.0.0.1:8080", "[::1]:8080"
    std::string Text() const;
};

/// A socket that listens.
///
/// Errors: std::runtime_error that names the address and the reason.
class Listener {
public:
    explicit Listener(const Address& address);
    /// One that systemd has opened (sd_listen_fds(3)).
    static Listener FromSystemd();
    /// Whether systemd has handed one over.
    static bool HasFromSystemd();
    Listener(Listener&& other) noexcept;
    ~Listener();

    int Descriptor() const { return descriptor_; }
    /// Where it really listens.
    Address Local() const;

private:
    explicit Listener(int descriptor);

    int descriptor_;
};

} // namespace calvane_web
