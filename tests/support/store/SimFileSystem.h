#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "drenn/multi_track_recorder/internal/io/FileSystem.h"

/// One change of a disk, or one sync.
struct DiskOperation {
    enum class Kind {
        Write,
        Truncate,
        Create,
        Rename,
        Remove,
        SyncFile,
        SyncFolder,
        FailedSync ///< Of a file, or of a folder if there is no inode: what was pending is lost for later syncs.
    };

    Kind kind;
    unsigned int inode = 0;           ///< Of the file concerned; none for SyncFolder.
    std::string path;                 ///< Where it is, or the folder.
    std::string target;               ///< Of Rename.
    std::uint64_t position = 0;       ///< Of Write; of Truncate the new length.
    std::vector<unsigned char> bytes; ///< Of Write.
    bool isStranded = false;          ///< A sync that was to write it failed.
};

/// Files by path and their content. A folder has the inode 0.
class DiskImage {
public:
    using Bytes = std::vector<unsigned char>;

    std::map<std::string, unsigned int> names;                  // Path to inode.
    std::map<unsigned int, std::shared_ptr<const Bytes>> files; // Shared between images until changed.

    void Apply(const DiskOperation& operation);
    /// The content of a file, to be changed.
    Bytes& Change(unsigned int inode);
};

/// A disk in memory behind the store's interface to files. It writes a trace of all that changes it, and fails
/// where a test wants it to.
///
/// Threads: any.
class SimFileSystem : public drenn::multi_track_recorder::IFileSystem {
public:
    /// Asked before every operation with what is done ("write", "sync", ...) and where. What it returns, unless
    /// 0, is the errno that the operation fails with. A write that fails is half done.
    using Fault = std::function<int(const char* operation, const std::string& path)>;

    /// Goes on with the trace of a process that was killed, which left `image` in the page cache. `first`: the moment at
    /// which the trace begins.
    explicit SimFileSystem(DiskImage image = {}, std::vector<DiskOperation> trace = {},
                           std::size_t first = 0);

    std::atomic<bool> isTracing{true}; ///< Traces take memory: long runs do without.
    /// Bytes that files may take in all; a write beyond fails with ENOSPC.
    std::atomic<std::uint64_t> capacity{std::uint64_t{1} << 40U};
    std::atomic<std::uint64_t> device{1}; ///< What DeviceOf gives.
    std::atomic<bool> isPresent{true};    ///< Without a card everything fails with ENOENT.

    /// Called before every change and every sync, without a lock, on the thread that makes it. Set while nobody uses the disk.
    std::function<void()> beforeChange = [] {};

    void SetFault(Fault fault);
    /// Reading any of these bytes of a file fails with EIO.
    void SetBadBytes(const std::string& path, std::uint64_t first, std::uint64_t end);

    std::vector<DiskOperation> GetTrace() const;
    /// How many operations there were so far, with those before the trace.
    std::size_t GetMoment() const;
    DiskImage GetImage() const;
    std::uint64_t GetUsed() const;
    /// The most files that were open when a folder was unlocked.
    unsigned int GetOpenAtUnlock() const { return openAtUnlock_; }

    std::unique_ptr<drenn::multi_track_recorder::IFile> Open(
        const std::string& path, drenn::multi_track_recorder::OpenMode mode) override;
    std::unique_ptr<drenn::multi_track_recorder::IFolderLock> TryLockFolder(const std::string& path) override;
    void MakeFolder(const std::string& path) override;
    std::vector<std::string> List(const std::string& folder) const override;
    bool Exists(const std::string& path) const override;
    void Rename(const std::string& from, const std::string& to) override;
    void Remove(const std::string& path) override;
    void SyncFolder(const std::string& path) override;
    drenn::multi_track_recorder::Space GetSpace(const std::string& path) const override;
    std::uint64_t DeviceOf(const std::string& path) const override;

private:
    class SimFile;
    class SimLock;

    void Check(const char* operation, const std::string& path) const;
    void CheckSync(const char* operation, const std::string& path, unsigned int inode);
    void Do(DiskOperation operation);
    std::uint64_t Used() const;

    mutable std::mutex lock_;
    struct BadBytes {
        std::string path;
        std::uint64_t first;
        std::uint64_t end;
    };
    Fault fault_;
    std::vector<BadBytes> bad_;
    DiskImage image_;
    std::set<std::string> locked_;                   ///< Folders.
    std::map<unsigned int, std::uint64_t> reserved_; ///< Room set aside, by inode.
    std::vector<DiskOperation> trace_;
    std::size_t moment_;
    unsigned int lastInode_ = 0;
    std::shared_ptr<int> openFiles_ = std::make_shared<int>();
    unsigned int openAtUnlock_ = 0;
};

/// Tells images apart by their names and content.
std::uint64_t HashOf(const DiskImage& image);

/// What may be left of a disk when the power goes, for every moment of a trace. Of what was not synced by then any
/// part may be there: of writes any sectors or pages, in any order, or zeros, or what lay there before in their place; of
/// names any changes.
class PowerCuts {
public:
    /// `start`: what was durable at the moment `first`, at which the trace begins.
    explicit PowerCuts(std::vector<DiskOperation> trace, DiskImage start = {}, std::size_t first = 0);

    /// Calls `check` for every moment from `begin` to `end` with images: without anything that was not synced, with all
    /// of it, with all or nothing of one file or folder, with the first half, and `randomEach` at random.
    void ForEach(unsigned int randomEach, unsigned int seed,
                 const std::function<void(std::size_t moment, const DiskImage& image)>& check,
                 std::size_t begin = 0, std::size_t end = ~std::size_t{0});
    /// What is on the disk for certain in the end. A sync that failed makes nothing durable, and neither does a later one
    /// of the same file for what was written before it.
    DiskImage Durable();

private:
    void Take(const DiskOperation& next, std::vector<DiskOperation>& pending);
    DiskImage Settle(const std::vector<DiskOperation>& pending, unsigned int seed) const;
    DiskImage Choose(const std::vector<DiskOperation>& pending,
                     const std::function<bool(std::size_t number)>& isThere) const;
    std::vector<DiskImage> Structured(const std::vector<DiskOperation>& pending) const;
    void MakeDurable(std::vector<DiskOperation>& pending, const DiskOperation& sync);
    static void Strand(std::vector<DiskOperation>& pending, const DiskOperation& sync);

    const std::vector<DiskOperation> trace_;
    DiskImage durable_;
    const std::size_t first_;
};
