#pragma once

#include "quarn/Export.h"
#include "quarn/memory/IPageSource.h"

namespace quarn::osa {

/// Huge pages of the kernel's pool, with their physical addresses from /proc/self/pagemap.
///
/// The pages are populated and locked, and stay the same pages across a fork. The kernel does not swap huge
/// pages; it may still move them when memory is taken offline or moved by hand, and nothing in user space
/// forbids that.
///
/// Needs:  free pages in /proc/sys/vm/nr_hugepages, CAP_SYS_ADMIN to see physical addresses, and a limit on
///         locked memory that admits the pages.
/// Errors: Exception that names what is missing and what to do about it.
class QUARN_API HugePages : public IPageSource {
public:
    /// The line "Hugepagesize" of /proc/meminfo.
    unsigned int GetPageBytes() override;
    /// Pages that lie too high, or not side by side, are set aside for as long as a few others are tried.
    PageRun Map(unsigned int count) override;
    void Unmap(const PageRun& run) override;

private:
    unsigned int pageBytes_ = 0; // 0: not looked up yet.
};

} // namespace quarn::osa
