#pragma once

#include <cstddef>
#include <utility>
#include <vector>

#include "drenn/Export.h"

namespace drenn::multi_track_recorder {

/// The bytes of one part of a record: either its own, or a view of somebody else's.
///
/// Ownership: a view does not keep the bytes; they must stay until the record that it is part of has been
///            appended, which copies them once. What the store reads is the blob's own. A copy of a view is a
///            view of the same bytes.
class DRENN_API Blob {
public:
    /// No bytes.
    Blob() = default;
    /// A view of `size` bytes at `data`.
    Blob(const void* data, std::size_t size)
        : view_(static_cast<const unsigned char*>(data)), viewSize_(size) {}
    /// Takes the bytes over.
    explicit Blob(std::vector<unsigned char> bytes) : bytes_(std::move(bytes)) {}

    const unsigned char* data() const { return view_ != nullptr ? view_ : bytes_.data(); }
    std::size_t size() const { return view_ != nullptr ? viewSize_ : bytes_.size(); }

private:
    std::vector<unsigned char> bytes_;
    const unsigned char* view_ = nullptr;
    std::size_t viewSize_ = 0;
};

/// A record: a list of blobs, kept in its order. A record may have none.
class DRENN_API BlobRecord {
public:
    /// `blobLimit`: how many blobs a read fills; -1 reads all, 1 only the first, which costs much less when it
    /// is a short header. It does not concern appending.
    explicit BlobRecord(int blobLimit = -1) : blobLimit_(blobLimit) {}

    int getBlobLimit() const { return blobLimit_; }
    void setBlobLimit(int blobLimit) { blobLimit_ = blobLimit; }

    const std::vector<Blob>& blobs() const { return blobs_; }
    void add(Blob blob) { blobs_.push_back(std::move(blob)); }
    void clear() { blobs_.clear(); }

private:
    std::vector<Blob> blobs_;
    int blobLimit_;
};

} // namespace drenn::multi_track_recorder
