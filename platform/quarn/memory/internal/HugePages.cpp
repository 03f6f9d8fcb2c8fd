#include "quarn/memory/internal/HugePages.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "quarn/osa/Exception.h"
#include "quarn/osa/FormatText.h"

namespace quarn::osa {

namespace {

constexpr unsigned int kTries = 8;
constexpr uint64_t kAddressLimit = uint64_t{1} << 32;

// The kernel's documentation of pagemap: bit 63 says present, bits 0 to 54 are the page frame number.
constexpr uint64_t kPresent = uint64_t{1} << 63;
constexpr uint64_t kFrameMask = (uint64_t{1} << 55) - 1;

static_assert(sizeof(off_t) == 8, "pagemap offsets are 64-bit: compile with _FILE_OFFSET_BITS=64");

class Mapping {
public:
    // Shared, because a private page is copied to another place when it is written after a fork.
    explicit Mapping(size_t length)
        : address_(mmap(nullptr, length, PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS | MAP_HUGETLB | MAP_POPULATE | MAP_LOCKED, -1, 0)),
          length_(length) {}
    Mapping(Mapping&& other) noexcept
        : address_(std::exchange(other.address_, MAP_FAILED)), length_(other.length_) {}
    ~Mapping() {
        if (IsValid()) {
            munmap(address_, length_);
        }
    }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;
    Mapping& operator=(Mapping&&) = delete;

    bool IsValid() const { return address_ != MAP_FAILED; }
    unsigned char* Get() const { return static_cast<unsigned char*>(address_); }
    unsigned char* Release() { return static_cast<unsigned char*>(std::exchange(address_, MAP_FAILED)); }

private:
    void* address_;
    size_t length_;
};

class PageMap {
public:
    PageMap() : file_(open("/proc/self/pagemap", O_RDONLY | O_CLOEXEC)) {
        if (file_ < 0) {
            throw Exception("Cannot open /proc/self/pagemap: %s", ErrnoText(errno).c_str());
        }
    }
    ~PageMap() { close(file_); }
    PageMap(const PageMap&) = delete;
    PageMap& operator=(const PageMap&) = delete;

    uint64_t GetPhysAddr(const unsigned char* ptr) const {
        const auto basePage = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
        const uint64_t index = reinterpret_cast<uintptr_t>(ptr) / basePage;
        uint64_t entry = 0;
        const ssize_t bytes = pread(file_, &entry, sizeof entry, static_cast<off_t>(index * sizeof entry));
        if (bytes != static_cast<ssize_t>(sizeof entry)) {
            throw Exception("Cannot read /proc/self/pagemap: %s",
                            bytes < 0 ? ErrnoText(errno).c_str() : "it ended early");
        }
        if ((entry & kPresent) == 0) {
            throw Exception(
                "A mapped huge page is not in memory; see the huge page limits of the control group");
        }
        if ((entry & kFrameMask) == 0) {
            throw Exception(
                "/proc/self/pagemap hides physical addresses from this process; run it with CAP_SYS_ADMIN");
        }
        return (entry & kFrameMask) * basePage;
    }

private:
    const int file_;
};

std::string WhyNotMapped(int code, unsigned int count, unsigned int pageBytes) {
    const char* const remedy =
        code == EAGAIN ? "the limit on locked memory (ulimit -l)" : "/proc/sys/vm/nr_hugepages";
    return FormatText("cannot map %u huge pages of %u KiB: %s; raise %s", count, pageBytes / 1024,
                      ErrnoText(code).c_str(), remedy);
}

// The physical address of the run, or 0 with the reason why the run is of no use.
unsigned int FindPhysAddr(const Mapping& mapping, unsigned int count, unsigned int pageBytes,
                          std::string& why) {
    const PageMap pageMap;
    const uint64_t first = pageMap.GetPhysAddr(mapping.Get());
    for (unsigned int page = 0; page < count; ++page) {
        const size_t offset = size_t{page} * pageBytes;
        const uint64_t address = pageMap.GetPhysAddr(mapping.Get() + offset);
        if (address + pageBytes > kAddressLimit) {
            why = FormatText(
                "a huge page lies at the physical address 0x%llx, beyond 4 GiB; start the kernel with "
                "mem=4G or less",
                static_cast<unsigned long long>(address));
            return 0;
        }
        if (address != first + offset) {
            why = FormatText(
                "%u huge pages side by side were not to be had; ask for %u bytes at most, or reserve "
                "the pages when the system starts",
                count, pageBytes);
            return 0;
        }
    }
    return static_cast<unsigned int>(first);
}

} // namespace

unsigned int HugePages::GetPageBytes() {
    if (pageBytes_ != 0) {
        return pageBytes_;
    }
    std::ifstream memoryInfo("/proc/meminfo");
    for (std::string line; std::getline(memoryInfo, line);) {
        unsigned int kibibytes = 0;
        if (std::sscanf(line.c_str(), "Hugepagesize: %u kB", &kibibytes) == 1 && kibibytes != 0) {
            pageBytes_ = kibibytes * 1024;
            return pageBytes_;
        }
    }
    throw Exception("/proc/meminfo gives no Hugepagesize: this kernel is built without huge pages");
}

PageRun HugePages::Map(unsigned int count) {
    const unsigned int pageBytes = GetPageBytes();
    const unsigned int length = count * pageBytes;
    std::vector<Mapping> unusable; // Held until the end, or the kernel would hand out the same pages again.
    std::string why;
    while (unusable.size() < kTries) {
        Mapping mapping(length);
        if (!mapping.IsValid()) {
            if (why.empty()) {
                why = WhyNotMapped(errno, count, pageBytes);
            }
            break;
        }
        if (const unsigned int physAddr = FindPhysAddr(mapping, count, pageBytes, why); physAddr != 0) {
            return {mapping.Release(), physAddr, length};
        }
        unusable.push_back(std::move(mapping));
    }
    throw Exception(why);
}

void HugePages::Unmap(const PageRun& run) {
    munmap(run.ptr, run.length);
}

} // namespace quarn::osa
