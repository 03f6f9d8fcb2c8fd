#include <stdexcept>

#include "Peer.h"

namespace {

struct Maker {
    const char* name;
    std::unique_ptr<Peer> (*make)(const std::string& folder, bool isNew);
};

const Maker kMakers[] = {
    {"raw", MakeRawPeer},       {"store", MakeStorePeer},
    {"sqlite", MakeSqlitePeer},
#ifdef BENCH_LMDB
    {"lmdb", MakeLmdbPeer},
#endif
#ifdef BENCH_ROCKSDB
    {"rocksdb", MakeRocksPeer}, {"rocksdb-blobs", MakeRocksBlobPeer},
#endif
};

} // namespace

std::vector<std::string> PeerNames() {
    std::vector<std::string> names;
    for (const Maker& maker : kMakers) {
        names.emplace_back(maker.name);
    }
    return names;
}

std::unique_ptr<Peer> MakePeer(const std::string& name, const std::string& folder, bool isNew) {
    for (const Maker& maker : kMakers) {
        if (maker.name == name) {
            return maker.make(folder, isNew);
        }
    }
    throw std::runtime_error("There is no " + name + " in this build");
}
