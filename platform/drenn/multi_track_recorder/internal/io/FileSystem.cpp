#include <exception>

#include "drenn/multi_track_recorder/internal/io/FileSystem.h"

namespace drenn::multi_track_recorder {

void IFileSystem::Together(const std::vector<std::function<void()>>& syncs) {
    std::exception_ptr failure;
    for (const auto& sync : syncs) {
        try {
            sync();
        } catch (...) {
            failure = failure == nullptr ? std::current_exception() : failure;
        }
    }
    if (failure != nullptr) {
        std::rethrow_exception(failure);
    }
}

} // namespace drenn::multi_track_recorder
