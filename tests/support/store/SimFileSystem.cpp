#include "support/store/SimFileSystem.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>

#include "drenn/multi_track_recorder/internal/format/SegmentFormat.h"
#include "drenn/multi_track_recorder/internal/io/FileError.h"

using namespace drenn::multi_track_recorder;
using Kind = DiskOperation::Kind;

namespace {

constexpr std::size_t kSectorBytes = 512;
constexpr std::size_t kPageBytes = 4096;

std::string FolderOf(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

void WriteAt(DiskImage::Bytes& file, std::uint64_t position, const unsigned char* bytes, std::size_t length) {
    const auto begin = static_cast<std::size_t>(position);
    if (file.size() < begin + length) {
        file.resize(begin + length);
    }
    std::copy(bytes, bytes + length, file.begin() + static_cast<std::ptrdiff_t>(begin));
}

bool ChangesNames(const DiskOperation& operation) {
    return operation.kind == Kind::Create || operation.kind == Kind::Rename || operation.kind == Kind::Remove;
}

bool IsSyncedBy(const DiskOperation& operation, const DiskOperation& sync) {
    return sync.kind == Kind::SyncFolder ? ChangesNames(operation) && FolderOf(operation.path) == sync.path
                                         : !ChangesNames(operation) && operation.inode == sync.inode;
}

} // namespace

void DiskImage::Apply(const DiskOperation& operation) {
    switch (operation.kind) {
        case Kind::Write:
            WriteAt(Change(operation.inode), operation.position, operation.bytes.data(),
                    operation.bytes.size());
            break;
        case Kind::Truncate:
            Change(operation.inode).resize(static_cast<std::size_t>(operation.position));
            break;
        case Kind::Create:
            names[operation.path] = operation.inode;
            files.try_emplace(operation.inode, std::make_shared<Bytes>());
            break;
        case Kind::Rename:
            names.erase(operation.path);
            names[operation.target] = operation.inode;
            files.try_emplace(operation.inode, std::make_shared<Bytes>());
            break;
        case Kind::Remove:
            names.erase(operation.path);
            break;
        case Kind::SyncFile:
        case Kind::SyncFolder:
        case Kind::FailedSync:
            break;
    }
}

DiskImage::Bytes& DiskImage::Change(unsigned int inode) {
    std::shared_ptr<const Bytes>& file = files[inode];
    if (!file || file.use_count() > 1) {
        file = file ? std::make_shared<Bytes>(*file) : std::make_shared<Bytes>();
    }
    return const_cast<Bytes&>(*file); // This image's alone, and made as something that changes.
}

std::uint64_t HashOf(const DiskImage& image) {
    std::uint64_t hash = 0;
    for (const auto& [path, inode] : image.names) {
        const DiskImage::Bytes& content = *image.files.at(inode);
        hash = ChecksumOf(path.data(), path.size(), ChecksumOf(content.data(), content.size(), hash));
    }
    return hash;
}

class SimFileSystem::SimFile : public IFile {
public:
    SimFile(SimFileSystem& disk, unsigned int inode, std::string path)
        : disk_(disk), inode_(inode), path_(std::move(path)), counted_(disk.openFiles_) {}

    std::size_t Read(std::uint64_t offset, void* bytes, std::size_t length) const override {
        const std::lock_guard<std::mutex> lock(disk_.lock_);
        disk_.Check("read", path_);
        for (const BadBytes& bad : disk_.bad_) {
            if (bad.path == path_ && offset < bad.end && bad.first < offset + length) {
                throw FileError("read", path_, EIO);
            }
        }
        const DiskImage::Bytes& content = *disk_.image_.files.at(inode_);
        if (offset >= content.size()) {
            return 0;
        }
        const std::size_t got = std::min(length, content.size() - static_cast<std::size_t>(offset));
        std::copy_n(content.data() + offset, got, static_cast<unsigned char*>(bytes));
        return got;
    }
    void Write(std::uint64_t offset, const void* bytes, std::size_t length) override {
        disk_.beforeChange();
        const std::lock_guard<std::mutex> lock(disk_.lock_);
        const auto* begin = static_cast<const unsigned char*>(bytes);
        const auto write = [&](std::size_t count) {
            disk_.Do({Kind::Write, inode_, path_, "", offset, {begin, begin + count}});
        };
        const std::uint64_t size =
            std::max<std::uint64_t>(disk_.image_.files.at(inode_)->size(), disk_.reserved_[inode_]);
        const std::uint64_t growth = offset + length > size ? offset + length - size : 0;
        try {
            disk_.Check("write", path_);
            if (disk_.Used() + growth > disk_.capacity) {
                throw FileError("write", path_, ENOSPC);
            }
        } catch (const FileError& error) {
            if (disk_.isPresent && error.GetError() != EROFS && disk_.Used() + growth / 2 <= disk_.capacity) {
                write(length / 2);
            }
            throw;
        }
        write(length);
    }
    void Truncate(std::uint64_t length) override {
        disk_.beforeChange();
        const std::lock_guard<std::mutex> lock(disk_.lock_);
        disk_.Check("truncate", path_);
        disk_.Do({Kind::Truncate, inode_, path_, "", length, {}});
    }
    void Reserve(std::uint64_t length) override {
        const std::lock_guard<std::mutex> lock(disk_.lock_);
        disk_.Check("reserve", path_);
        disk_.reserved_[inode_] = length;
    }
    void Sync() override {
        disk_.beforeChange();
        const std::lock_guard<std::mutex> lock(disk_.lock_);
        disk_.CheckSync("sync", path_, inode_);
        disk_.Do({Kind::SyncFile, inode_, path_, "", 0, {}});
    }
    std::uint64_t Size() const override {
        const std::lock_guard<std::mutex> lock(disk_.lock_);
        disk_.Check("size", path_);
        return disk_.image_.files.at(inode_)->size();
    }

private:
    SimFileSystem& disk_;
    const unsigned int inode_;
    const std::string path_;
    const std::shared_ptr<int> counted_;
};

SimFileSystem::SimFileSystem(DiskImage image, std::vector<DiskOperation> trace, std::size_t first)
    : image_(std::move(image)), trace_(std::move(trace)), moment_(first + trace_.size()) {
    for (auto name = image_.names.begin(); name != image_.names.end();) {
        const std::string folder = FolderOf(name->first);
        const bool isLost = folder != "/card" && image_.names.count(folder) == 0;
        name = isLost ? image_.names.erase(name) : std::next(name);
    }
    if (!image_.files.empty()) {
        lastInode_ =
            image_.files.rbegin()->first; // Also of files that were removed: their operations stay theirs.
    }
}

void SimFileSystem::SetFault(Fault fault) {
    const std::lock_guard<std::mutex> lock(lock_);
    fault_ = std::move(fault);
}

void SimFileSystem::SetBadBytes(const std::string& path, std::uint64_t first, std::uint64_t end) {
    const std::lock_guard<std::mutex> lock(lock_);
    bad_.push_back({path, first, end});
}

std::uint64_t SimFileSystem::GetUsed() const {
    const std::lock_guard<std::mutex> lock(lock_);
    return Used();
}

std::vector<DiskOperation> SimFileSystem::GetTrace() const {
    const std::lock_guard<std::mutex> lock(lock_);
    return trace_;
}

std::size_t SimFileSystem::GetMoment() const {
    const std::lock_guard<std::mutex> lock(lock_);
    return moment_;
}

DiskImage SimFileSystem::GetImage() const {
    const std::lock_guard<std::mutex> lock(lock_);
    return image_;
}

std::unique_ptr<IFile> SimFileSystem::Open(const std::string& path, OpenMode mode) {
    const std::lock_guard<std::mutex> lock(lock_);
    Check("open", path);
    const auto found = image_.names.find(path);
    const bool exists = found != image_.names.end();
    if (exists && mode == OpenMode::CreateNew) {
        throw FileError("create", path, EEXIST);
    }
    if (!exists && (mode == OpenMode::Read || mode == OpenMode::ReadWrite)) {
        throw FileError("open", path, ENOENT);
    }
    const unsigned int inode = exists ? found->second : ++lastInode_;
    if (!exists) {
        Check("create", path);
        Do({Kind::Create, inode, path, "", 0, {}});
    }
    return std::make_unique<SimFile>(*this, inode, path);
}

/// Of a folder.
class SimFileSystem::SimLock : public IFolderLock {
public:
    SimLock(SimFileSystem& disk, std::string path) : disk_(disk), path_(std::move(path)) {}
    ~SimLock() override {
        const std::lock_guard<std::mutex> lock(disk_.lock_);
        const auto open = static_cast<unsigned int>(disk_.openFiles_.use_count() - 1);
        disk_.openAtUnlock_ = std::max(disk_.openAtUnlock_, open);
        disk_.locked_.erase(path_);
    }

private:
    SimFileSystem& disk_;
    const std::string path_;
};

std::unique_ptr<IFolderLock> SimFileSystem::TryLockFolder(const std::string& path) {
    const std::lock_guard<std::mutex> lock(lock_);
    Check("lock", path);
    return locked_.insert(path).second ? std::make_unique<SimLock>(*this, path) : nullptr;
}

void SimFileSystem::MakeFolder(const std::string& path) {
    const std::lock_guard<std::mutex> lock(lock_);
    Check("make folder", path);
    if (image_.names.count(path) == 0) {
        Do({Kind::Create, 0, path, "", 0, {}});
    }
}

std::vector<std::string> SimFileSystem::List(const std::string& folder) const {
    const std::lock_guard<std::mutex> lock(lock_);
    Check("list", folder);
    std::vector<std::string> names;
    for (const auto& entry : image_.names) {
        if (FolderOf(entry.first) == folder && entry.second != 0) {
            names.push_back(entry.first.substr(folder.size() + 1));
        }
    }
    return names;
}

bool SimFileSystem::Exists(const std::string& path) const {
    const std::lock_guard<std::mutex> lock(lock_);
    return isPresent && image_.names.count(path) != 0;
}

void SimFileSystem::Rename(const std::string& from, const std::string& to) {
    beforeChange();
    const std::lock_guard<std::mutex> lock(lock_);
    Check("rename", from);
    if (image_.names.count(from) == 0) {
        throw FileError("rename", from, ENOENT);
    }
    Do({Kind::Rename, image_.names.at(from), from, to, 0, {}});
}

void SimFileSystem::Remove(const std::string& path) {
    beforeChange();
    const std::lock_guard<std::mutex> lock(lock_);
    Check("remove", path);
    if (const auto found = image_.names.find(path); found != image_.names.end()) {
        Do({Kind::Remove, found->second, path, "", 0, {}});
    }
}

void SimFileSystem::SyncFolder(const std::string& path) {
    beforeChange();
    const std::lock_guard<std::mutex> lock(lock_);
    CheckSync("sync folder", path, 0);
    Do({Kind::SyncFolder, 0, path, "", 0, {}});
}

Space SimFileSystem::GetSpace(const std::string& path) const {
    const std::lock_guard<std::mutex> lock(lock_);
    Check("get space", path);
    const std::uint64_t all = capacity;
    return {all, all - std::min(all, Used())};
}

std::uint64_t SimFileSystem::DeviceOf(const std::string& path) const {
    const std::lock_guard<std::mutex> lock(lock_);
    Check("get device", path);
    return device;
}

// With the lock held, as the next two.
void SimFileSystem::Check(const char* operation, const std::string& path) const {
    if (!isPresent) {
        throw FileError(operation, path, ENOENT);
    }
    if (const int error = fault_ ? fault_(operation, path) : 0; error != 0) {
        throw FileError(operation, path, error);
    }
}

void SimFileSystem::CheckSync(const char* operation, const std::string& path, unsigned int inode) {
    try {
        Check(operation, path);
    } catch (const FileError& error) {
        Do({Kind::FailedSync, inode, path, "", 0, {}});
        throw SyncError(path, error.GetError());
    }
}

void SimFileSystem::Do(DiskOperation operation) {
    image_.Apply(operation);
    ++moment_;
    if (isTracing) {
        trace_.push_back(std::move(operation));
    }
}

std::uint64_t SimFileSystem::Used() const {
    std::uint64_t used = 0;
    for (const auto& [path, inode] : image_.names) {
        const auto reserved = reserved_.find(inode);
        used += std::max<std::uint64_t>(image_.files.at(inode)->size(),
                                        reserved == reserved_.end() ? 0 : reserved->second);
    }
    return used;
}

PowerCuts::PowerCuts(std::vector<DiskOperation> trace, DiskImage start, std::size_t first)
    : trace_(std::move(trace)), durable_(std::move(start)), first_(first) {}

void PowerCuts::ForEach(unsigned int randomEach, unsigned int seed,
                        const std::function<void(std::size_t moment, const DiskImage& image)>& check,
                        std::size_t begin, std::size_t end) {
    std::vector<DiskOperation> pending;
    end = std::min(end, first_ + trace_.size());
    for (std::size_t moment = first_; moment <= end; ++moment) {
        if (moment >= begin) {
            for (const DiskImage& image : Structured(pending)) {
                check(moment, image);
            }
            for (unsigned int i = 0; i != (pending.empty() ? 0 : randomEach); ++i) {
                check(moment, Settle(pending, seed + static_cast<unsigned int>(moment) * randomEach + i));
            }
        }
        if (moment != end) {
            Take(trace_[moment - first_], pending);
        }
    }
}

DiskImage PowerCuts::Durable() {
    std::vector<DiskOperation> pending;
    for (const DiskOperation& operation : trace_) {
        Take(operation, pending);
    }
    return durable_;
}

void PowerCuts::Take(const DiskOperation& next, std::vector<DiskOperation>& pending) {
    if (next.kind == Kind::SyncFile || next.kind == Kind::SyncFolder) {
        MakeDurable(pending, next);
    } else if (next.kind == Kind::FailedSync) {
        Strand(pending, next);
    } else {
        pending.push_back(next);
    }
}

DiskImage PowerCuts::Choose(const std::vector<DiskOperation>& pending,
                            const std::function<bool(std::size_t number)>& isThere) const {
    DiskImage image = durable_;
    for (std::size_t i = 0; i != pending.size(); ++i) {
        if (isThere(i)) {
            image.Apply(pending[i]);
        }
    }
    return image;
}

std::vector<DiskImage> PowerCuts::Structured(const std::vector<DiskOperation>& pending) const {
    std::vector<DiskImage> images{durable_};
    if (pending.empty()) {
        return images;
    }
    images.push_back(Choose(pending, [](std::size_t) { return true; }));
    images.push_back(Choose(pending, [&](std::size_t number) { return number < pending.size() / 2; }));
    const auto place = [&](std::size_t number) {
        const DiskOperation& operation = pending[number];
        return ChangesNames(operation) ? FolderOf(operation.path) : std::to_string(operation.inode);
    };
    std::set<std::string> places;
    for (std::size_t i = 0; i != pending.size(); ++i) {
        places.insert(place(i));
    }
    for (const std::string& one : places.size() > 1 ? places : std::set<std::string>()) {
        images.push_back(Choose(pending, [&](std::size_t number) { return place(number) == one; }));
        images.push_back(Choose(pending, [&](std::size_t number) { return place(number) != one; }));
    }
    return images;
}

/// Any operations, and of a write any sectors; the length counts all. Where a sector or page did not get there, there is
/// what was before, or what lay on the disk.
DiskImage PowerCuts::Settle(const std::vector<DiskOperation>& pending, unsigned int seed) const {
    DiskImage image = durable_;
    std::mt19937 random(seed);
    const auto chance = [&random](unsigned int of) { return random() % of == 0; };
    const std::size_t unit = chance(2) ? kSectorBytes : kPageBytes;
    const bool isStale = chance(4);
    std::size_t prefix = chance(4) ? random() % pending.size() : 0;
    for (const DiskOperation& operation : pending) {
        if (prefix == 0 && chance(2)) {
            continue; // Never got there.
        }
        if (prefix > 0) {
            --prefix;
            image.Apply(operation);
            continue;
        }
        if (operation.kind != Kind::Write || chance(2)) {
            image.Apply(operation);
            continue;
        }
        DiskImage::Bytes& file = image.Change(operation.inode);
        const std::size_t end = static_cast<std::size_t>(operation.position) + operation.bytes.size();
        file.resize(std::max(file.size(), end), static_cast<unsigned char>(isStale ? 0x6b : 0));
        for (std::size_t begin = 0; begin != operation.bytes.size();) {
            const std::size_t at = static_cast<std::size_t>(operation.position) + begin;
            const std::size_t length = std::min(unit - at % unit, operation.bytes.size() - begin);
            if (chance(2)) {
                WriteAt(file, at, operation.bytes.data() + begin, length);
            }
            begin += length;
        }
    }
    return image;
}

/// The pages count as clean now: later syncs do not write them, though they may have got to the disk.
void PowerCuts::Strand(std::vector<DiskOperation>& pending, const DiskOperation& sync) {
    DiskOperation good = sync;
    good.kind = sync.inode == 0 ? Kind::SyncFolder : Kind::SyncFile;
    for (DiskOperation& operation : pending) {
        operation.isStranded =
            operation.isStranded || (IsSyncedBy(operation, good) && !ChangesNames(operation));
    }
}

void PowerCuts::MakeDurable(std::vector<DiskOperation>& pending, const DiskOperation& sync) {
    const auto synced = [&sync](const DiskOperation& operation) {
        return !operation.isStranded && IsSyncedBy(operation, sync);
    };
    for (const DiskOperation& operation : pending) {
        if (synced(operation)) {
            durable_.Apply(operation);
        }
    }
    pending.erase(std::remove_if(pending.begin(), pending.end(), synced), pending.end());
}
