#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// A record of the input: 16 bytes that readers look up, and the rest.
struct InputRecord {
    static constexpr std::size_t kHeaderBytes = 16;

    unsigned track = 0;
    std::uint32_t index = 0;
    unsigned char header[kHeaderBytes] = {};
    const unsigned char* body = nullptr;
    std::size_t bodyBytes = 0;

    std::size_t Bytes() const { return kHeaderBytes + bodyBytes; }
};

using Content = std::vector<unsigned char>;
struct Span {
    const unsigned char* data;
    std::size_t size;
};

/// Something that keeps records: the store, or what it is set beside.
///
/// Threads: one.
/// Errors:  std::runtime_error.
class Peer {
public:
    virtual void Append(const InputRecord& record) = 0;
    /// Makes durable what was appended before.
    virtual void Commit() = 0;
    /// The first 16 bytes of a record.
    virtual void ReadHeader(unsigned track, std::uint32_t index, Content& out) = 0;
    /// All of a record, where it lies until the next call: nobody copies it for the sake of this interface. `wanted` tells its
    /// size, for who keeps no sizes.
    virtual void Read(const InputRecord& wanted, std::vector<Span>& out) = 0;
    virtual ~Peer() = default;
};

/// The names of those that this build has.
std::vector<std::string> PeerNames();
/// `isNew`: there is nothing in the folder yet.
std::unique_ptr<Peer> MakePeer(const std::string& name, const std::string& folder, bool isNew);

// One for each; those of libraries that were not there when this was built are left out.
std::unique_ptr<Peer> MakeRawPeer(const std::string& folder, bool isNew);
std::unique_ptr<Peer> MakeStorePeer(const std::string& folder, bool isNew);
std::unique_ptr<Peer> MakeSqlitePeer(const std::string& folder, bool isNew);
std::unique_ptr<Peer> MakeLmdbPeer(const std::string& folder, bool isNew);
std::unique_ptr<Peer> MakeRocksPeer(const std::string& folder, bool isNew);
std::unique_ptr<Peer> MakeRocksBlobPeer(const std::string& folder, bool isNew);
