#pragma once

#include <chrono>
#include <deque>
#include <map>
#include <mutex>
#include <string>

#include "api/Query.h"
#include "http/Exchange.h"

namespace calvane_web {

/// Who knows the password gets a cookie that opens everything for some hours.
///
/// The password file has one line: a hash as crypt(5) describes it.
///
/// Threads: any. Passwords are checked one at a time, since each check takes much memory on purpose.
/// Errors:  std::runtime_error that names the file, when it cannot be read, others may read it, or there is no such hash in it.
class Login {
public:
    /// With `isSecure` the cookie is only sent through TLS.
    Login(const std::string& passwordFile, bool isSecure);

    bool Knows(const Request& request);
    /// 204 and the cookie, 401, or 429 after too many wrong passwords.
    Reply Enter(const Request& request, Query& query);
    Reply Leave(const Request& request, Query& query);

private:
    using Clock = std::chrono::steady_clock;

    bool MayTry(const std::string& peer, Clock::time_point now);
    bool IsRight(const std::string& password);
    std::string NewSession(Clock::time_point now);
    Reply WithCookie(const std::string& value) const;

    const std::string hash_;
    const bool isSecure_;

    std::mutex mutex_;
    std::map<std::string, Clock::time_point> sessions_;           ///< When they end, by their keys.
    std::deque<std::pair<Clock::time_point, std::string>> wrong_; ///< Of the last minute, with who tried it.

    std::mutex checking_;
};

/// The line for the password file. Throws std::invalid_argument for a password that is too short or too long.
std::string HashPassword(const std::string& password);

} // namespace calvane_web
