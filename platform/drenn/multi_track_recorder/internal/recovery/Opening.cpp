#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <set>
#include <stdexcept>

#include "drenn/multi_track_recorder/internal/io/FileError.h"
#include "drenn/multi_track_recorder/internal/io/SqliteVfs.h"
#include "drenn/multi_track_recorder/internal/recovery/Opening.h"
#include "drenn/multi_track_recorder/internal/recovery/Recovery.h"

namespace drenn::multi_track_recorder {
namespace {

constexpr char kIdentityMagic[] = "CALVSTOR";
constexpr std::size_t kIdentityBytes = 8 + 4 + 16 + 8;
constexpr std::uint32_t kIdentityVersion = 1;
constexpr std::size_t kNameBytes = 21; ///< Of a segment's file.
constexpr char kAside[] = ".aside";
constexpr std::size_t kAsideBytes = sizeof kAside - 1;

StoreId RandomId() {
    std::random_device device;
    StoreId id{};
    std::generate(id.begin(), id.end(), [&device] { return static_cast<unsigned char>(device()); });
    return id;
}

std::string ParentOf(const std::string& path) {
    const std::size_t end = path.find_last_not_of('/');
    const std::size_t slash = end == std::string::npos ? end : path.rfind('/', end);
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::unique_ptr<IFolderLock> LockFolder(IFileSystem& files, const std::string& folder) {
    if (!files.Exists(folder)) {
        return nullptr;
    }
    auto lock = files.TryLockFolder(folder);
    if (lock == nullptr) {
        throw std::runtime_error("The store is open in another process, which has locked " + folder);
    }
    return lock;
}

/// With a connection that changes nothing.
void RequireKnownVersion(IFileSystem& files, const StoreFolders& folders, bool hasIdentity) {
    if (hasIdentity) {
        ReadIdentity(files, folders.Identity());
    }
    // A journal is there only while the catalogue is being made: nothing but SQLite can tell what it is to become.
    if (!files.Exists(folders.Catalogue()) || files.Exists(folders.Catalogue() + "-journal")) {
        return;
    }
    const SqliteVfs vfs(files, SqliteVfs::Access::ReadOnly);
    Catalogue catalogue(folders.Catalogue(), vfs.Name(), Catalogue::Mode::ReadOnly);
    catalogue.RequireVersion();
    const StoreId id = catalogue.GetId();
    if (id != StoreId{}) {
        Recovery(files, folders, id, catalogue).RequireKnownVersions();
    }
}

/// What a killed process wrote to the catalogue's log may not be durable yet. Nothing may be removed or made on the word of
/// a transaction that a power cut can still take back.
void SyncLog(IFileSystem& files, const StoreFolders& folders) {
    const std::string log = folders.Catalogue() + "-wal";
    if (files.Exists(log)) {
        files.Open(log, OpenMode::ReadWrite)->Sync();
        files.SyncFolder(folders.database);
    }
}

std::string NewIdentity(const StoreFolders& folders) {
    return folders.Identity() + ".new";
}

/// Under another name, and not durable.
void WriteNewIdentity(IFileSystem& files, const StoreFolders& folders, const StoreId& id) {
    Bytes bytes;
    ByteWriter writer(bytes);
    writer.Raw(kIdentityMagic, 8);
    writer.U32(kIdentityVersion);
    writer.Raw(id.data(), id.size());
    writer.U64(ChecksumOf(bytes.data(), bytes.size(), 0));
    const auto file = files.Open(NewIdentity(folders), OpenMode::Create);
    file->Truncate(0);
    file->Write(0, bytes.data(), bytes.size());
}

void PlaceNewIdentity(IFileSystem& files, const StoreFolders& folders) {
    files.Rename(NewIdentity(folders), folders.Identity());
    files.SyncFolder(folders.storage);
}

void SyncFile(IFileSystem& files, const std::string& path) {
    files.Open(path, OpenMode::ReadWrite)->Sync();
}

/// Also what a power cut left of making it.
bool IsToBeMade(IFileSystem& files, const StoreFolders& folders, const char* vfs) {
    return ListSegments(files, folders.storage).empty() &&
           (!HasDatabase(files, folders.Catalogue()) ||
            Catalogue(folders.Catalogue(), vfs, Catalogue::Mode::OpenOrMake).GetId() == StoreId{});
}

/// Both files are whole and durable before they get their names, the catalogue first: with syncs that can come together.
void MakeStore(IFileSystem& files, const StoreFolders& folders, const char* vfs) {
    if (HasDatabase(files, folders.Catalogue())) {
        RemoveDatabase(files, folders.Catalogue());
        files.SyncFolder(folders.database);
    }
    const StoreId id = RandomId();
    const std::string catalogue = folders.Catalogue() + ".new";
    RemoveDatabase(files, catalogue);
    Catalogue::Build(catalogue, vfs, [&](Catalogue::Transaction& all) { all.Make(id); });
    WriteNewIdentity(files, folders, id);
    std::vector<std::function<void()>> syncs;
    for (const std::string& file : {catalogue, NewIdentity(folders)}) {
        syncs.emplace_back([&files, file] { SyncFile(files, file); });
    }
    for (const std::string& parent : std::set{ParentOf(folders.storage), ParentOf(folders.database)}) {
        syncs.emplace_back([&files, parent] { files.SyncFolder(parent); });
    }
    files.Together(syncs);
    files.Rename(catalogue, folders.Catalogue());
    files.SyncFolder(folders.database);
    PlaceNewIdentity(files, folders);
}

StoreId IdentityOf(IFileSystem& files, const StoreFolders& folders, Catalogue& catalogue, bool hasIdentity) {
    const StoreId id = catalogue.GetId();
    if (id == StoreId{}) {
        throw std::runtime_error("The catalogue " + folders.Catalogue() + " is lost, but " + folders.storage +
                                 " has data; calvane-store rebuild makes a new one");
    }
    if (!hasIdentity) {
        if (!catalogue.Load().segments.empty()) {
            throw std::runtime_error("The data of the store of " + folders.database + " is not at " +
                                     folders.storage + ": there is no " + folders.Identity());
        }
        files.SyncFolder(folders.database); // Who made it may have been killed before that.
        WriteIdentity(files, folders, id);
    } else if (ReadIdentity(files, folders.Identity()) != id) {
        throw std::runtime_error(folders.storage + " and " + folders.database +
                                 " belong to different stores");
    }
    return id;
}

} // namespace

std::string FileNameOf(SegmentKey segment) {
    char name[32];
    std::snprintf(name, sizeof name, "%08x-%08x.seg", segment.lane, segment.sequence);
    return name;
}

std::string StoreFolders::PathOf(SegmentKey segment) const {
    return storage + "/" + FileNameOf(segment);
}

std::vector<std::string> ListAside(const IFileSystem& files, const StoreFolders& folders) {
    std::vector<std::string> paths;
    for (const std::string& name : files.List(folders.storage)) {
        if (name.size() > kNameBytes && SegmentOf(name.substr(0, kNameBytes)) &&
            name.compare(kNameBytes, kAsideBytes, kAside) == 0) {
            paths.push_back(folders.storage + "/" + name);
        }
    }
    const std::string catalogue = std::string("catalogue") + kAside;
    for (const std::string& name : files.List(folders.database)) {
        if (name.compare(0, catalogue.size(), catalogue) == 0) {
            paths.push_back(folders.database + "/" + name);
        }
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

std::string FreeAsidePath(const IFileSystem& files, const std::string& file) {
    const std::string path = file + kAside;
    std::string free = path;
    for (unsigned int number = 2; files.Exists(free); ++number) {
        free = path + "." + std::to_string(number);
    }
    return free;
}

bool HasDatabase(const IFileSystem& files, const std::string& path) {
    return std::any_of(kDatabaseFiles.begin(), kDatabaseFiles.end(),
                       [&](const char* suffix) { return files.Exists(path + suffix); });
}

void RemoveDatabase(IFileSystem& files, const std::string& path) {
    for (const char* suffix : kDatabaseFiles) {
        files.Remove(path + suffix);
    }
}

std::optional<SegmentKey> SegmentOf(const std::string& fileName) {
    SegmentKey key;
    if (fileName.size() != kNameBytes ||
        std::sscanf(fileName.c_str(), "%8x-%8x", &key.lane, &key.sequence) != 2 || // NOLINT
        fileName != FileNameOf(key)) {
        return std::nullopt;
    }
    return key;
}

std::vector<SegmentKey> ListSegments(const IFileSystem& files, const std::string& folder) {
    std::vector<SegmentKey> segments;
    for (const std::string& name : files.List(folder)) {
        if (const auto key = SegmentOf(name)) {
            segments.push_back(*key);
        }
    }
    std::sort(segments.begin(), segments.end());
    return segments;
}

StoreId ReadIdentity(IFileSystem& files, const std::string& path) {
    Bytes bytes(kIdentityBytes);
    const auto file = files.Open(path, OpenMode::Read);
    const bool isWhole =
        file->Read(0, bytes.data(), bytes.size()) == bytes.size() && file->Size() == bytes.size();
    ByteReader reader(bytes.data(), bytes.size());
    char magic[8];
    reader.Raw(magic, sizeof magic);
    const std::uint32_t version = reader.U32();
    StoreId id{};
    reader.Raw(id.data(), id.size());
    if (!isWhole || std::memcmp(magic, kIdentityMagic, sizeof magic) != 0 ||
        reader.U64() != ChecksumOf(bytes.data(), kIdentityBytes - 8, 0)) {
        throw std::runtime_error("The identity of the store in " + path + " is damaged");
    }
    if (version != kIdentityVersion) {
        throw LaterVersionError(path, std::to_string(version));
    }
    return id;
}

void WriteIdentity(IFileSystem& files, const StoreFolders& folders, const StoreId& id) {
    WriteNewIdentity(files, folders, id);
    SyncFile(files, NewIdentity(folders));
    PlaceNewIdentity(files, folders);
}

StoreLock LockStore(IFileSystem& files, const StoreFolders& folders) {
    StoreLock lock;
    lock.database = LockFolder(files, folders.database);
    lock.storage = LockFolder(files, folders.storage);
    return lock;
}

OpenedStore OpenStore(IFileSystem& files, const StoreFolders& folders, const char* vfs) {
    OpenedStore opened;
    bool hasIdentity = files.Exists(folders.Identity());
    if (!hasIdentity) {
        files.MakeFolder(folders.storage);
    }
    files.MakeFolder(
        folders.database); // If it is lost and the identity is not, the catalogue is: that is said below.
    opened.lock = LockStore(files, folders);
    RequireKnownVersion(files, folders, hasIdentity);
    SyncLog(files, folders);
    if (!hasIdentity && IsToBeMade(files, folders, vfs)) {
        MakeStore(files, folders, vfs);
        hasIdentity = true;
    }
    opened.catalogue = std::make_shared<Catalogue>(folders.Catalogue(), vfs, Catalogue::Mode::OpenOrMake);
    opened.id = IdentityOf(files, folders, *opened.catalogue, hasIdentity);
    Recovery recovery(files, folders, opened.id, *opened.catalogue);
    recovery.Run();
    opened.content = opened.catalogue->Load();
    opened.nextSequences = recovery.NextSequences();
    opened.told = recovery.Told();
    return opened;
}

OpenedStore OpenStoreToRead(IFileSystem& files, const StoreFolders& folders, const char* vfs) {
    OpenedStore opened;
    opened.lock = LockStore(files, folders);
    opened.catalogue = std::make_shared<Catalogue>(folders.Catalogue(), vfs, Catalogue::Mode::ReadOnly);
    opened.catalogue->RequireVersion();
    opened.id = opened.catalogue->GetId();
    if (opened.id == StoreId{}) {
        throw std::runtime_error("There is no store in " + folders.database +
                                 ": the catalogue was never made");
    }
    if (!files.Exists(folders.Identity()) && ListSegments(files, folders.storage).empty()) {
        throw std::runtime_error("There is no store in " + folders.storage);
    }
    StoreId id = opened.id; // The segments have it, too.
    try {
        // Not assigned at once: on 32-bit ARM the compiler then has the function fill `id` before it throws.
        const StoreId read = ReadIdentity(files, folders.Identity());
        id = read;
    } catch (const LaterVersionError&) {
        throw;
    } catch (const std::runtime_error& error) {
        opened.told.emplace_back(error.what());
        opened.hasIdentity = false;
    }
    if (id != opened.id) {
        throw std::runtime_error(folders.storage + " and " + folders.database +
                                 " belong to different stores");
    }
    Recovery recovery(files, folders, opened.id, *opened.catalogue);
    recovery.RequireKnownVersions();
    recovery.RunInMemory();
    opened.content = recovery.Content();
    opened.nextSequences = recovery.NextSequences();
    opened.told.insert(opened.told.end(), recovery.Told().begin(), recovery.Told().end());
    return opened;
}

} // namespace drenn::multi_track_recorder
