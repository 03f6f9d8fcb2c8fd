#include "calvane/recording/internal/card/StorageLocation.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <system_error>

namespace quarn::calvane {

using std::filesystem::directory_entry;
using std::filesystem::path;

bool CardSpace::isFull() const {
    constexpr std::uint64_t kLargest = std::uint64_t{64} << 20U;
    return card != 0 && usable <= std::min(kLargest, card / 2);
}

CardSpace lookAtCard(const std::string& root) {
    CardSpace space;
    struct statvfs facts {};
    if (statvfs(root.c_str(), &facts) == 0) {
        const std::uint64_t block = facts.f_frsize;
        const std::uint64_t available = facts.f_bavail * block;
        space.card = (facts.f_blocks - facts.f_bfree) * block + available;
        const std::uint64_t kept = space.card / 100 * (100 - StorageLocation::kMostPercent);
        space.usable = available > kept ? available - kept : 0;
    }
    return space;
}

StorageLocation::StorageLocation(const std::string& root)
    : _root(!root.empty() && root.back() == '/' ? root : root + '/') {}

void StorageLocation::validate() const {
    std::error_code failure;
    if (!std::filesystem::is_directory(_root, failure)) {
        throw Problem(DisabledReason::NoCard, "No SD Card!");
    }
    std::filesystem::directory_iterator entry(_root, failure);
    while (!failure && entry != std::filesystem::directory_iterator()) {
        validateEntry(*entry);
        entry.increment(failure);
    }
    if (failure) {
        throw Problem(DisabledReason::NoCard, "Cannot list " + _root + ": " + failure.message());
    }
}

void StorageLocation::validateEntry(const directory_entry& entry) const {
    if (!isOfStore(entry)) {
        throw Problem(DisabledReason::ForeignData, "Unexpected data in local-recording storage location");
    }
}

bool StorageLocation::isOfStore(const directory_entry& entry) const {
    if (entry.path() == path(_root + "lost+found")) {
        // The file system makes it on every fresh card.
        std::error_code failure;
        return std::filesystem::is_directory(entry.symlink_status(failure));
    }
    return entry.path() == path(storageFolder()) || entry.path() == path(databaseFolder());
}

} // namespace quarn::calvane
