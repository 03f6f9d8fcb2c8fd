#include "LoggedDisk.h"

#define FUSE_USE_VERSION 31
#include <fcntl.h>
#include <fuse.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <system_error>

#include "support/WaitUntil.h"

namespace {

constexpr std::size_t kLogBytes = std::size_t{512} << 20U; // Memory only as far as it is used.
constexpr std::size_t kSector = 512;
// The first block is written whole or not at all: ext4 cannot be mounted after half of its superblock was.
constexpr std::size_t kFirstBlock = 4096;
constexpr const char* kName = "/disk";

struct Header {
    std::uint64_t offset;
    std::uint64_t length;
};

} // namespace

struct LoggedDisk::Shared {
    std::size_t size;
    std::atomic<bool> isLogging;
    std::atomic<bool> isFull;
    std::atomic<std::size_t> moment;
    std::atomic<std::size_t> logEnd;

    unsigned char* Content() { return reinterpret_cast<unsigned char*>(this + 1); }
    unsigned char* Log() { return Content() + size; }
    void Note(std::uint64_t offset, const char* bytes, std::size_t length) {
        if (!isLogging) {
            return;
        }
        const Header header{offset, length};
        if (logEnd + sizeof header + length > kLogBytes) {
            isFull = true;
            return;
        }
        std::memcpy(Log() + logEnd, &header, sizeof header);
        std::copy_n(bytes, length, Log() + logEnd + sizeof header);
        logEnd += sizeof header + length;
        ++moment;
    }
    static std::size_t Bytes(std::size_t size) { return sizeof(Shared) + size + kLogBytes; }
};

LoggedDisk::LoggedDisk(std::size_t bytes) {
    void* const memory = mmap(nullptr, Shared::Bytes(bytes), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::system_error(errno, std::generic_category(), "mmap");
    }
    shared_ = static_cast<Shared*>(memory); // Zeros are what its members begin with.
    shared_->size = bytes;
    std::filesystem::create_directory(folder_.Path("served"));
    std::filesystem::create_directory(Path());
    server_ = fork();
    if (server_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        Serve();
    }
    const std::string file = folder_.Path("served") + kName;
    if (!WaitUntil(
            [&] { return access(file.c_str(), F_OK) == 0 || waitpid(server_, nullptr, WNOHANG) != 0; }) ||
        access(file.c_str(), F_OK) != 0) {
        why_ = "there is no FUSE: " + folder_.Read("fuse.log");
        return;
    }
    Attach();
}

LoggedDisk::~LoggedDisk() {
    if (isMounted_) {
        umount2(Path().c_str(), MNT_DETACH);
    }
    if (!device_.empty()) {
        Run("losetup -d");
    }
    umount2(folder_.Path("served").c_str(), MNT_DETACH);
    if (server_ > 0) {
        kill(server_, SIGKILL);
        waitpid(server_, nullptr, 0);
    }
    munmap(shared_, Shared::Bytes(shared_->size));
}

/// In the process of its own; does not return.
void LoggedDisk::Serve() const {
    static Shared* disk = nullptr;
    disk = shared_;
    fuse_operations operations{};
    operations.getattr = [](const char* path, struct stat* status, fuse_file_info*) {
        const bool isDisk = std::strcmp(path, kName) == 0;
        status->st_mode = isDisk ? S_IFREG | 0600U : S_IFDIR | 0700U;
        status->st_nlink = 1;
        status->st_size = isDisk ? static_cast<off_t>(disk->size) : 0;
        return isDisk || std::strcmp(path, "/") == 0 ? 0 : -ENOENT;
    };
    operations.open = [](const char*, fuse_file_info*) { return 0; };
    operations.read = [](const char*, char* bytes, std::size_t size, off_t offset, fuse_file_info*) {
        const auto begin = std::min(static_cast<std::size_t>(offset), disk->size);
        size = std::min(size, disk->size - begin);
        std::copy_n(disk->Content() + begin, size, bytes);
        return static_cast<int>(size);
    };
    operations.write = [](const char*, const char* bytes, std::size_t size, off_t offset, fuse_file_info*) {
        const auto begin = static_cast<std::size_t>(offset);
        if (begin > disk->size || size > disk->size - begin) {
            return -ENOSPC;
        }
        std::copy_n(bytes, size, disk->Content() + begin);
        disk->Note(begin, bytes, size);
        return static_cast<int>(size);
    };
    operations.fsync = [](const char*, int, fuse_file_info*) {
        disk->Note(0, nullptr, 0);
        return 0;
    };
    if (std::freopen(folder_.Path("fuse.log").c_str(), "w", stderr) == nullptr) {
        _exit(1);
    }
    std::array<char*, 1> name{const_cast<char*>("disk")}; // Nobody changes it.
    fuse_args arguments = FUSE_ARGS_INIT(1, name.data());
    fuse* const served = fuse_new(&arguments, &operations, sizeof operations, nullptr);
    if (served == nullptr || fuse_mount(served, folder_.Path("served").c_str()) != 0) {
        _exit(1);
    }
    fuse_loop(served);
    _exit(0);
}

void LoggedDisk::Attach() {
    const std::string command = "losetup --find --show --direct-io=on " + folder_.Path("served") + kName +
                                " >" + folder_.Path("device") + " 2>" + folder_.Path("losetup.log");
    if (std::system(command.c_str()) != 0) { // NOLINT: a test's own words.
        why_ = "there is no loop device: " + folder_.Read("losetup.log");
        return;
    }
    device_ = folder_.Read("device");
    device_.erase(device_.find_last_not_of('\n') + 1);
}

void LoggedDisk::Run(const std::string& command) const {
    const std::string whole = command + " " + device_ + " >" + folder_.Path("out") + " 2>&1";
    if (std::system(whole.c_str()) != 0) { // NOLINT: a test's own words.
        throw std::runtime_error(command + ": " + folder_.Read("out"));
    }
}

void LoggedDisk::Mount(const char* type) {
    if (mount(device_.c_str(), Path().c_str(), type, 0, nullptr) != 0) {
        throw std::system_error(errno, std::generic_category(), std::string("mounting ") + type);
    }
    isMounted_ = true;
}

void LoggedDisk::Unmount() {
    isMounted_ = false;
    if (umount2(Path().c_str(), 0) != 0) {
        throw std::system_error(errno, std::generic_category(), "unmounting");
    }
    // Where a copy of the mount keeps the file system, mounting it again would show what was there before.
    const int device = open(device_.c_str(), O_RDONLY | O_EXCL | O_CLOEXEC);
    if (device < 0) {
        throw std::system_error(errno, std::generic_category(), device_ + " is still mounted by somebody");
    }
    close(device);
}

void LoggedDisk::Log(bool isOn) {
    if (isOn) {
        shared_->moment = shared_->logEnd = 0;
    }
    shared_->isLogging = isOn;
    if (shared_->isFull) {
        throw std::runtime_error("more was written to the disk than can be noted");
    }
}

std::size_t LoggedDisk::GetMoment() const {
    return shared_->moment;
}

std::vector<DiskRequest> LoggedDisk::GetRequests() const {
    std::vector<DiskRequest> requests;
    for (const unsigned char* at = shared_->Log(); at != shared_->Log() + shared_->logEnd;) {
        Header header{};
        std::memcpy(&header, at, sizeof header);
        at += sizeof header;
        requests.push_back({header.offset, {at, at + header.length}});
        at += header.length;
    }
    return requests;
}

std::vector<unsigned char> LoggedDisk::Read() const {
    return {shared_->Content(), shared_->Content() + shared_->size};
}

void LoggedDisk::Write(const std::vector<unsigned char>& content) {
    std::copy(content.begin(), content.end(), shared_->Content());
}

DiskStates::DiskStates(std::vector<unsigned char> start, std::vector<DiskRequest> requests)
    : durable_(std::move(start)), requests_(std::move(requests)) {}

std::vector<unsigned char> DiskStates::At(std::size_t moment, std::mt19937& random) {
    for (; seen_ != moment; ++seen_) {
        if (requests_[seen_].bytes.empty()) {
            for (; pending_ != seen_; ++pending_) {
                const DiskRequest& write = requests_[pending_];
                std::copy(write.bytes.begin(), write.bytes.end(),
                          durable_.begin() + static_cast<std::ptrdiff_t>(write.offset));
            }
        }
    }
    const auto below = [&](std::size_t end) { return random() % std::max<std::size_t>(end, 1); };
    const std::size_t chosen = pending_ + below(moment - pending_);
    const std::array<std::function<bool(std::size_t)>, 6> choices{
        [](std::size_t) { return false; },
        [](std::size_t) { return true; },
        [&](std::size_t write) { return write != chosen; },
        [&](std::size_t write) { return write <= chosen; },
        [&](std::size_t write) { return ((write * 0x9E3779B97F4A7C15U + chosen) >> 40U) % 2 == 0; },
        [&](std::size_t) { return random() % 2 == 0; }}; // Each sector by itself.
    const auto& isThere = choices[below(choices.size())];
    std::vector<unsigned char> state = durable_;
    for (std::size_t write = pending_; write != moment; ++write) {
        const DiskRequest& request = requests_[write];
        const std::size_t sector = request.offset < kFirstBlock ? kFirstBlock : kSector;
        for (std::size_t at = 0; at < request.bytes.size(); at += sector) {
            if (isThere(write)) {
                const std::size_t length = std::min(sector, request.bytes.size() - at);
                std::copy_n(request.bytes.data() + at, length, state.data() + request.offset + at);
            }
        }
    }
    return state;
}
