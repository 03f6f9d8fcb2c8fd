#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "support/TempFolder.h"

/// What a kernel sent to its disk: a write, or a flush, which has no bytes.
struct DiskRequest {
    std::uint64_t offset;
    std::vector<unsigned char> bytes;
};

/// A disk of a real kernel's file system that notes all that is written to it and when it is flushed: a loop device on a
/// file of a process of its own, which keeps it in memory (FUSE).
///
/// Threads: one; the processes that use what is mounted go on meanwhile.
class LoggedDisk {
public:
    explicit LoggedDisk(std::size_t bytes);
    ~LoggedDisk();
    LoggedDisk(const LoggedDisk&) = delete;
    LoggedDisk& operator=(const LoggedDisk&) = delete;

    /// Why there is none; empty when there is one.
    const std::string& Why() const { return why_; }
    /// Runs a command that ends with the path of the device, such as mkfs. Throws std::runtime_error when it fails.
    void Run(const std::string& command) const;

    /// Throws std::system_error, as when the kernel refuses what is on the disk.
    void Mount(const char* type);
    void Unmount();
    /// Where it is mounted.
    std::string Path(const std::string& name = "") const { return folder_.Path("mounted/" + name); }

    /// From now on requests are noted, from none on, or not any more. Throws std::runtime_error when there were more than
    /// fit.
    void Log(bool isOn);
    /// How many requests were noted so far.
    std::size_t GetMoment() const;
    std::vector<DiskRequest> GetRequests() const;

    /// What is on it. To be used while nothing is mounted.
    std::vector<unsigned char> Read() const;
    void Write(const std::vector<unsigned char>& content);

private:
    struct Shared;

    void Serve() const;
    void Attach();

    const TempFolder folder_;
    Shared* shared_ = nullptr; ///< With the process that keeps it.
    pid_t server_ = -1;
    std::string device_;
    std::string why_;
    bool isMounted_ = false;
};

/// What may be on a disk when the power goes: all that was flushed, and of what was written since then any sectors.
class DiskStates {
public:
    DiskStates(std::vector<unsigned char> start, std::vector<DiskRequest> requests);

    /// After so many requests; at least as many as the last time.
    std::vector<unsigned char> At(std::size_t moment, std::mt19937& random);

private:
    std::vector<unsigned char> durable_;
    const std::vector<DiskRequest> requests_;
    std::size_t pending_ = 0; ///< The first that is not flushed.
    std::size_t seen_ = 0;
};
