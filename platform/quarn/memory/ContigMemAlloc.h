#pragma once

#include <memory>
#include <vector>

#include "quarn/Export.h"
#include "quarn/memory/IPageSource.h"
#include "quarn/osa/Mutex.h"

namespace quarn::osa {

/// Hands out physically contiguous memory with its physical address.
///
/// Small blocks share a page: the first gap that is large enough is taken, and neighbouring gaps grow
/// together again. A block larger than a page gets pages that lie side by side. A page goes back to its
/// source with the last block in it.
///
/// Threads:   any.
/// Ownership: every block must be given back before this object goes.
/// Errors:    Exception with the length asked for and the reason why there is no memory.
class QUARN_API ContigMemAlloc {
public:
    struct Block {
        unsigned char* ptr = nullptr;
        unsigned int physAddr = 0;
    };

    /// Whether this process can have contiguous memory now. Finds out by taking a page and giving it back.
    static bool IsSupported();

    /// Takes huge pages of the system, none before the first block is asked for.
    ContigMemAlloc();
    explicit ContigMemAlloc(std::unique_ptr<IPageSource> source);
    ~ContigMemAlloc();
    ContigMemAlloc(const ContigMemAlloc&) = delete;
    ContigMemAlloc& operator=(const ContigMemAlloc&) = delete;

    /// A block of at least `length` bytes on cache lines of its own; one line for a length of 0.
    Block Allocate(unsigned int length);
    /// Gives back what Allocate returned. Never throws for such a block.
    void Free(const Block& block);

    /// Writes the CPU's cached data of `length` bytes at `ptr` back to memory, as far as user space can.
    ///
    /// On x86 devices see what is in the caches, and nothing is done. On 32-bit ARM user space may only ask
    /// the kernel to write back as far as instruction fetches look (the cacheflush call). Where devices do
    /// not look into an outer cache, their driver has to do the rest.
    static void CleanCpuCache(const unsigned char* ptr, unsigned int length);

private:
    class Page;

    Block AllocateFromNewPage(unsigned int bytes);

    Mutex mutex_{"ContigMemAlloc"};
    const std::unique_ptr<IPageSource> source_;
    std::vector<std::unique_ptr<Page>> pages_;
};

} // namespace quarn::osa
