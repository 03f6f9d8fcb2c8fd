#pragma once

#include "quarn/Export.h"
#include "quarn/core/IMemoryAllocator.h"

namespace quarn::core {

/// A fixed number of equal blocks, cut out of one slab of another allocator's memory.
///
/// Neither Allocate nor the deletion of a handle goes to the heap, and the deletion takes no lock.
///
/// Threads:   any; a block may be given back on another thread than the one that took it.
/// Errors:    osa::Exception for a pool without blocks or of 4 GiB and more, for a request that is larger
///            than a block, and, in a pool that does not wait, when all blocks are out.
/// Lifetime:  blocks may outlive the pool, and pool and blocks may outlive the parent. The slab is given back
///            with the last of them. No thread may be inside Allocate when the pool is deleted.
class QUARN_API BufferPoolAllocator : public IMemoryAllocator {
public:
    /// `parent`: gives the slab; used by the constructor only.
    /// `blockSize`: bytes, rounded up to whole cache lines in the slab.
    /// `wait`: whether Allocate waits, without limit, until a block comes back.
    BufferPoolAllocator(IMemoryAllocator* parent, unsigned int blockSize, unsigned int blockCount, bool wait);
    ~BufferPoolAllocator() override;

    /// A block whose handle reports `length`, which is at most the block size. CleanCpuCache of the handle acts
    /// on the whole slab.
    IMemoryHandle* Allocate(unsigned int length) override;
    /// Those of the parent.
    AllocatorProps GetProps() const override;

private:
    class State;

    const AllocatorProps props_;
    const unsigned int blockSize_;
    const bool wait_;
    State* const state_; // Shared with the blocks that are out; deletes itself.
};

} // namespace quarn::core
