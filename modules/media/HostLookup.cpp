#include "HostLookup.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <netdb.h>

#include <array>
#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>
#include <utility>

namespace calvane_media {

namespace {

constexpr auto kStep = std::chrono::milliseconds(20);

std::string HostOf(const std::string& url) {
    std::array<char, NI_MAXHOST> host{};
    if (url.find("://") != std::string::npos) {
        av_url_split(nullptr, 0, nullptr, 0, host.data(), host.size(), nullptr, nullptr, 0, url.c_str());
    }
    return host.data();
}

} // namespace

bool AwaitHost(const std::string& url, const std::function<bool()>& isInterrupted) {
    const std::string host = HostOf(url);
    if (host.empty()) {
        return true;
    }
    std::promise<int> promise;
    std::future<int> answer = promise.get_future();
    std::thread([host, promise = std::move(promise)]() mutable {
        addrinfo* addresses = nullptr;
        const int status = getaddrinfo(host.c_str(), nullptr, nullptr, &addresses);
        if (addresses != nullptr) {
            freeaddrinfo(addresses);
        }
        promise.set_value(status);
    }).detach();
    while (answer.wait_for(kStep) != std::future_status::ready) {
        if (isInterrupted()) {
            return false;
        }
    }
    if (answer.get() == EAI_AGAIN) {
        throw std::runtime_error("no name server answers for " + host);
    }
    return true;
}

} // namespace calvane_media
