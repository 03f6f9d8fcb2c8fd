#include "api/Login.h"

#include <crypt.h>
#include <sys/random.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "api/Replies.h"
#include "http/HttpEngine.h"
#include "quarn/core/Logger.h"

namespace calvane_web {
namespace {

constexpr auto kSessionTime = std::chrono::hours(12);
constexpr std::size_t kMostSessions = 64;
constexpr auto kTryPeriod = std::chrono::minutes(1);
constexpr std::size_t kMostTriesOfOne = 5;
constexpr std::size_t kMostTries = 20;
constexpr std::size_t kShortestPassword = 8;
constexpr std::size_t kLongestPassword = 512;
constexpr auto kCookie = "calvane=";

/// crypt(3); empty when the hash or setting is none.
std::string Crypt(const std::string& password, const std::string& setting) {
    const auto data = std::make_unique<crypt_data>(); // 32 KiB
    const char* const hash = crypt_r(password.c_str(), setting.c_str(), data.get());
    return hash == nullptr || *hash == '*' ? "" : hash;
}

/// Takes as long wherever they differ.
bool IsEqual(const std::string& one, const std::string& other) {
    unsigned int difference = one.size() == other.size() ? 0 : 1;
    for (std::size_t i = 0; i != std::min(one.size(), other.size()); ++i) {
        difference |= static_cast<unsigned int>(static_cast<unsigned char>(one[i] ^ other[i]));
    }
    return difference == 0;
}

std::string ReadHash(const std::string& path) {
    struct stat facts {};
    if (stat(path.c_str(), &facts) != 0) {
        throw std::runtime_error("Cannot read the password file " + path + ": " + std::strerror(errno));
    }
    if ((facts.st_mode & (S_IRWXO | S_IWGRP)) != 0) {
        throw std::runtime_error("Others may read or write the password file " + path + ": chmod 640 " +
                                 path);
    }
    std::ifstream file(path);
    std::string hash;
    if (!std::getline(file, hash)) {
        throw std::runtime_error("Cannot read the password file " + path);
    }
    if (hash.empty() || hash.front() != '$' || crypt_checksalt(hash.c_str()) != CRYPT_SALT_OK) {
        throw std::runtime_error("There is no hash of a password in " + path +
                                 ", or a weak one; calvane-web --hash-password makes one");
    }
    return hash;
}

std::string NewKey() {
    std::array<unsigned char, 32> bytes{};
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        throw std::runtime_error("There are no random numbers");
    }
    constexpr auto kDigits = "0123456789abcdef";
    std::string key;
    for (const unsigned char byte : bytes) {
        key += kDigits[byte >> 4];
        key += kDigits[byte & 15];
    }
    return key;
}

/// The value of our cookie, or nothing.
std::string KeyOf(const Request& request) {
    const std::string cookies = "; " + request.Header("cookie");
    const std::size_t begin = cookies.find(std::string("; ") + kCookie);
    if (begin == std::string::npos) {
        return {};
    }
    const std::size_t value = begin + 2 + std::strlen(kCookie);
    return cookies.substr(value, cookies.find(';', value) - value);
}

} // namespace

Login::Login(const std::string& passwordFile, bool isSecure)
    : hash_(ReadHash(passwordFile)), isSecure_(isSecure) {}

bool Login::Knows(const Request& request) {
    const std::string key = KeyOf(request);
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto session = sessions_.find(key);
    return session != sessions_.end() && Clock::now() < session->second;
}

/// Counts wrong passwords, of one client and of all.
bool Login::MayTry(const std::string& peer, Clock::time_point now) {
    while (!wrong_.empty() && now - wrong_.front().first > kTryPeriod) {
        wrong_.pop_front();
    }
    const auto own = std::count_if(wrong_.begin(), wrong_.end(),
                                   [&peer](const auto& each) { return each.second == peer; });
    return static_cast<std::size_t>(own) < kMostTriesOfOne && wrong_.size() < kMostTries;
}

bool Login::IsRight(const std::string& password) {
    return password.size() <= kLongestPassword && IsEqual(Crypt(password, hash_), hash_);
}

std::string Login::NewSession(Clock::time_point now) {
    for (auto each = sessions_.begin(); each != sessions_.end();) {
        each = each->second < now ? sessions_.erase(each) : std::next(each);
    }
    if (sessions_.size() >= kMostSessions) { // The oldest one has to log in again.
        sessions_.erase(
            std::min_element(sessions_.begin(), sessions_.end(),
                             [](const auto& one, const auto& other) { return one.second < other.second; }));
    }
    std::string key = NewKey();
    sessions_[key] = now + kSessionTime;
    return key;
}

Reply Login::Enter(const Request& request, Query& query) {
    query.RequireAllTaken();
    if (request.Header("content-type").rfind("application/json", 0) != 0) {
        return ErrorReply(415, "This path takes only application/json");
    }
    const auto body = nlohmann::json::parse(request.body, nullptr, false);
    if (!body.is_object() || !body.contains("password") || !body["password"].is_string()) {
        throw std::invalid_argument(R"(The body is not {"password": "..."})");
    }
    const std::lock_guard<std::mutex> one(checking_);
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!MayTry(request.peer, Clock::now())) {
            return LaterReply(429, "Too many wrong passwords; wait a minute", 60);
        }
    }
    const bool isRight = IsRight(body["password"]);
    const std::lock_guard<std::mutex> lock(mutex_);
    if (isRight) {
        return WithCookie(NewSession(Clock::now()));
    }
    wrong_.emplace_back(Clock::now(), request.peer);
    quarn::core::Logger::GetLogger("calvane-web")
        ->Warning("A wrong password came from %s", ForLog(request.peer).c_str());
    return ErrorReply(401, "The password is wrong");
}

Reply Login::Leave(const Request& request, Query& query) {
    query.RequireAllTaken();
    const std::lock_guard<std::mutex> lock(mutex_);
    sessions_.erase(KeyOf(request));
    return WithCookie("");
}

/// Without a value the browser drops it.
Reply Login::WithCookie(const std::string& value) const {
    Reply reply;
    reply.status = 204;
    reply.headers = {
        {"Cache-Control", "no-store"},
        {"Set-Cookie", kCookie + value + "; Path=/; HttpOnly; SameSite=Strict" +
                           (isSecure_ ? "; Secure" : "") + (value.empty() ? "; Max-Age=0" : "")}};
    return reply;
}

std::string HashPassword(const std::string& password) {
    if (password.size() < kShortestPassword || password.size() > kLongestPassword ||
        password.find('\0') != std::string::npos) {
        throw std::invalid_argument("A password has from " + std::to_string(kShortestPassword) + " to " +
                                    std::to_string(kLongestPassword) + " bytes, and none of them is 0");
    }
    std::array<char, CRYPT_GENSALT_OUTPUT_SIZE> setting{};
    if (crypt_gensalt_rn("$y$", 0, nullptr, 0, setting.data(), static_cast<int>(setting.size())) == nullptr) {
        throw std::runtime_error(std::string("Cannot make a salt: ") + std::strerror(errno));
    }
    return Crypt(password, setting.data());
}

} // namespace calvane_web
