#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <stdexcept>

#include "drenn/multi_track_recorder/internal/recovery/Opening.h"
#include "drenn/multi_track_recorder/internal/recovery/Recovery.h"

namespace drenn::multi_track_recorder {
namespace {

constexpr char kIdentityMagic[] = "CALVSTOR";
constexpr std::size_t kIdentityBytes = 8 + 4 + 16 + 8;
constexpr std::uint32_t kIdentityVersion = 1;

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

void MakeFolders(IFileSystem& files, const StoreFolders& folders) {
    for (const std::string& folder : {folders.storage, folders.database}) {
        files.MakeFolder(folder);
        files.SyncFolder(ParentOf(folder));
    }
}

std::unique_ptr<IFile> TakeLock(IFileSystem& files, const StoreFolders& folders) {
    const std::string path = folders.Lock();
    auto lock = files.Open(path, OpenMode::Create);
    if (!lock->TryLock()) {
        throw std::runtime_error("The store at " + folders.storage +
                                 " is open in another process, which has locked " + path);
    }
    return lock;
}

StoreId IdentityOf(IFileSystem& files, const StoreFolders& folders, Catalogue& catalogue, bool hasIdentity) {
    StoreId id = catalogue.GetId();
    if (id == StoreId{}) {
        if (hasIdentity || !ListSegments(files, folders.storage).empty()) {
            throw std::runtime_error("The catalogue " + folders.Catalogue() + " is lost, but " +
                                     folders.storage + " has data; calvane-store rebuild makes a new one");
        }
        id = RandomId();
        Catalogue::Transaction transaction(catalogue);
        transaction.Make(id);
        transaction.Commit();
        files.SyncFolder(folders.database);
    }
    if (!hasIdentity) {
        if (!catalogue.Load().segments.empty()) {
            throw std::runtime_error("The data of the store of " + folders.database + " is not at " +
                                     folders.storage + ": there is no " + folders.Identity());
        }
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

std::optional<SegmentKey> SegmentOf(const std::string& fileName) {
    SegmentKey key;
    if (fileName.size() != 21 ||
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
    if (!isWhole || std::memcmp(magic, kIdentityMagic, sizeof magic) != 0 || version != kIdentityVersion ||
        reader.U64() != ChecksumOf(bytes.data(), kIdentityBytes - 8, 0)) {
        throw std::runtime_error("The identity of the store in " + path + " is damaged");
    }
    return id;
}

void WriteIdentity(IFileSystem& files, const StoreFolders& folders, const StoreId& id) {
    Bytes bytes;
    ByteWriter writer(bytes);
    writer.Raw(kIdentityMagic, 8);
    writer.U32(kIdentityVersion);
    writer.Raw(id.data(), id.size());
    writer.U64(ChecksumOf(bytes.data(), bytes.size(), 0));
    const std::string temporary = folders.Identity() + ".new";
    {
        const auto file = files.Open(temporary, OpenMode::Create);
        file->Truncate(0);
        file->Write(0, bytes.data(), bytes.size());
        file->Sync();
    }
    files.Rename(temporary, folders.Identity());
    files.SyncFolder(folders.storage);
}

OpenedStore OpenStore(IFileSystem& files, const StoreFolders& folders, const char* vfs) {
    OpenedStore opened;
    const bool hasIdentity = files.Exists(folders.Identity());
    if (hasIdentity) {
        files.MakeFolder(folders.database); // If it is lost, the catalogue is: that is said below.
    } else {
        MakeFolders(files, folders);
    }
    opened.lock = TakeLock(files, folders);
    opened.catalogue = std::make_shared<Catalogue>(folders.Catalogue(), vfs, Catalogue::Mode::OpenOrMake);
    opened.id = IdentityOf(files, folders, *opened.catalogue, hasIdentity);
    Recovery recovery(files, folders, opened.id, *opened.catalogue);
    recovery.Run();
    opened.content = opened.catalogue->Load();
    opened.nextSequences = recovery.NextSequences();
    return opened;
}

} // namespace drenn::multi_track_recorder
