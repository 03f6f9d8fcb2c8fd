#pragma once

#include <memory>
#include <string>

#include "support/Program.h"
#include "support/TempFolder.h"

/// A D-Bus daemon of the test's own, which the environment names as the session bus while it lives.
class PrivateBus {
public:
    /// `policy`: rules for everybody, in the daemon's own language; everything is allowed without. `more`: further
    /// parts of its configuration.
    explicit PrivateBus(const std::string& policy = {}, const std::string& more = {});
    ~PrivateBus();

    const std::string& Address() const { return address_; }
    /// Ends the daemon; its clients lose the bus.
    void Kill();
    /// SIGSTOP: it accepts and answers nothing, until SIGCONT.
    void Signal(int number) const { daemon_->Signal(number); }
    /// Starts it again, at the same address.
    void Start();

private:
    const TempFolder folder_;
    const std::string address_;
    std::unique_ptr<Program> daemon_;
};
