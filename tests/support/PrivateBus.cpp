#include "support/PrivateBus.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "support/WaitUntil.h"

namespace {

constexpr const char* kOpenPolicy = R"(
  <allow send_destination="*" eavesdrop="true"/>
  <allow eavesdrop="true"/>
  <allow own="*"/>)";

bool Answers(const std::string& socketPath) {
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
    const bool answers =
        connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(descriptor);
    return answers;
}

} // namespace

PrivateBus::PrivateBus(const std::string& policy, const std::string& more)
    : address_("unix:path=" + folder_.Path("bus")) {
    folder_.Write("bus.conf", "<busconfig><type>session</type><listen>" + address_ +
                                  "</listen><policy context=\"default\">" +
                                  (policy.empty() ? kOpenPolicy : policy) + "</policy>" + more +
                                  "</busconfig>");
    setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
    unsetenv("DRENN_BUS");
    Start();
}

PrivateBus::~PrivateBus() {
    Kill();
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
}

void PrivateBus::Kill() {
    if (daemon_ != nullptr) {
        daemon_->Signal(SIGKILL);
        daemon_->Wait();
        daemon_ = nullptr;
    }
}

void PrivateBus::Start() {
    unlink(folder_.Path("bus").c_str());
    daemon_ = std::make_unique<Program>(
        "/usr/bin/dbus-daemon",
        std::vector<std::string>{"--config-file=" + folder_.Path("bus.conf"), "--nofork"}, folder_.Path());
    if (!WaitUntil([this] { return Answers(folder_.Path("bus")); })) {
        throw std::runtime_error("dbus-daemon does not answer: " + daemon_->Err());
    }
}
