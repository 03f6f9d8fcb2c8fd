#include "calvane/recording/internal/card/StorageLocation.h"

#include <system_error>

namespace quarn::calvane {

using std::filesystem::directory_entry;
using std::filesystem::path;

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
