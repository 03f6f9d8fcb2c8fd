#include <exception>

#include "drenn/multi_track_recorder/internal/io/FileSystem.h"

namespace drenn::multi_track_recorder {
namespace {

class NamedFolder : public IFolder {
public:
    NamedFolder(IFileSystem& files, const std::string& path) : files_(files), path_(path) {}

    std::unique_ptr<IFile> Open(const std::string& name, OpenMode mode) const override {
        return files_.Open(path_ + '/' + name, mode);
    }

private:
    IFileSystem& files_;
    const std::string path_;
};

} // namespace

std::unique_ptr<IFolder> IFileSystem::OpenFolder(const std::string& path) {
    return std::make_unique<NamedFolder>(*this, path);
}

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
