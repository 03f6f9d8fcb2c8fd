#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace drenn::multi_track_recorder {

/// An open file. Closed on destruction, without a look at the result: whatever has to be durable was synced.
///
/// Threads: any; positions are always given.
/// Errors:  FileError from every operation; SyncError from Sync and WriteOut.
class IFile {
public:
    /// Reads up to `length` bytes; fewer only at the end of the file. Returns how many.
    virtual std::size_t Read(std::uint64_t offset, void* bytes, std::size_t length) const = 0;
    /// Tells that this will be read: several such reads take as long as one. Never fails.
    virtual void WillRead(std::uint64_t /*offset*/, std::uint64_t /*length*/) const {}
    /// Writes all of it or throws. What was written of it then is not known.
    virtual void Write(std::uint64_t offset, const void* bytes, std::size_t length) = 0;
    virtual void Truncate(std::uint64_t length) = 0;
    /// Sets room aside without changing the length.
    virtual void Reserve(std::uint64_t length) = 0;
    /// Makes content and length durable (fdatasync).
    virtual void Sync() = 0;
    /// Begins what Sync ends: afterwards the content is with the device, and nothing is durable yet.
    virtual void WriteOut() {}
    virtual std::uint64_t Size() const = 0;
    virtual ~IFile() = default;
};

enum class OpenMode {
    Read,
    ReadWrite,
    Create,   ///< Reads and writes; made when absent.
    CreateNew ///< Reads and writes; an error when it is there.
};

/// A folder that is held open: files in it are opened without looking for it again.
///
/// Threads: any.
/// Errors:  FileError.
class IFolder {
public:
    virtual std::unique_ptr<IFile> Open(const std::string& name, OpenMode mode) const = 0;
    virtual ~IFolder() = default;
};

/// Keeps others out of a folder for as long as it lives.
class IFolderLock {
public:
    virtual ~IFolderLock() = default;
};

/// How much room a file system has, in bytes, as a writer without root's reserve sees it.
struct Space {
    std::uint64_t usable; ///< Used, plus what this writer may still take.
    std::uint64_t free;   ///< What this writer may still take.
};

/// All that the store does with files goes through here, the catalogue's included, so that tests can watch it,
/// make it fail, and cut the power between any two steps.
///
/// What lies on a card is not trusted: symbolic links are not followed in the last two components of a path, and what
/// is no regular file is not opened.
///
/// Threads: any.
/// Errors:  FileError, which names the operation, the path and the reason; SyncError from SyncFolder.
class IFileSystem {
public:
    virtual std::unique_ptr<IFile> Open(const std::string& path, OpenMode mode) = 0;
    /// The file system outlives it.
    virtual std::unique_ptr<IFolder> OpenFolder(const std::string& path);
    /// Locks the folder itself, which nobody can delete from under its lock as they could a lock file; nothing when
    /// another process, or another lock of this one, has it.
    virtual std::unique_ptr<IFolderLock> TryLockFolder(const std::string& path) = 0;
    virtual void MakeFolder(const std::string& path) = 0;                       ///< Nothing when it is there.
    virtual std::vector<std::string> List(const std::string& folder) const = 0; ///< Names, without . and ..
    virtual bool Exists(const std::string& path) const = 0;
    virtual void Rename(const std::string& from, const std::string& to) = 0;
    virtual void Remove(const std::string& path) = 0; ///< Nothing when it is absent.
    /// Makes the entries of a folder durable: files made, renamed and removed.
    virtual void SyncFolder(const std::string& path) = 0;
    /// Does all of these, even if one fails; then throws the first failure. At once, on several threads, where syncs
    /// that come together cost less than one after the other.
    virtual void Together(const std::vector<std::function<void()>>& syncs);
    virtual Space GetSpace(const std::string& path) const = 0;
    /// The device that a folder lies on, to notice that a card was pulled or another one put in.
    virtual std::uint64_t DeviceOf(const std::string& path) const = 0;
    virtual ~IFileSystem() = default;
};

/// The one of the operating system.
IFileSystem& PosixFileSystem();

} // namespace drenn::multi_track_recorder
