#pragma once

#include "quarn/Export.h"

namespace quarn::osa {

/// Physically adjacent pages, mapped at `ptr`. All of them lie below 4 GiB of physical memory.
struct PageRun {
    unsigned char* ptr = nullptr;
    unsigned int physAddr = 0;
    unsigned int length = 0; // bytes
};

/// Where ContigMemAlloc takes its pages from.
///
/// Threads: one at a time.
class QUARN_API IPageSource {
public:
    IPageSource() = default;
    virtual ~IPageSource() = default;
    IPageSource(const IPageSource&) = delete;
    IPageSource& operator=(const IPageSource&) = delete;

    /// The size of one page in bytes.
    virtual unsigned int GetPageBytes() = 0;
    /// Maps `count` adjacent pages, at least 1 and together below 4 GiB. Throws Exception when there are
    /// none.
    virtual PageRun Map(unsigned int count) = 0;
    /// Gives back what Map returned.
    virtual void Unmap(const PageRun& run) = 0;
};

} // namespace quarn::osa
