#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/TempFolder.h"

/// Runs a program as a child and takes down what it writes.
class Program {
public:
    /// Starts `bin/NAME` of this build, or `name` as it stands when it is a path, in `folder`. What lies below
    /// /usr/ is of this machine and needs no emulator.
    Program(const std::string& name, const std::vector<std::string>& arguments, const std::string& folder);
    ~Program();

    void Signal(int number) const;
    /// Waits for its end; the exit status, or 128 plus the signal that ended it.
    int Wait();

    // Whole after Wait.
    std::string Out() const { return streams_.Read("out"); }
    std::string Err() const { return streams_.Read("err"); }

private:
    const TempFolder streams_; // Not to be copied, and so no program is.
    pid_t child_ = -1;
};
