#include "quarn/memory/ContigMemAlloc.h"

#include <algorithm>
#include <climits>
#include <functional>
#include <iterator>
#include <map>
#include <utility>

#include "quarn/memory/internal/HugePages.h"
#include "quarn/osa/CacheLine.h"
#include "quarn/osa/Exception.h"
#include "quarn/osa/MutexAutoLock.h"

namespace quarn::osa {

/// One run of pages, divided into segments without gaps. Two unused segments are never neighbours.
class ContigMemAlloc::Page {
public:
    Page(IPageSource& source, unsigned int count) : source_(source), run_(source.Map(count)) {
        segments_.emplace(0U, Segment{run_.length, false});
    }
    ~Page() { source_.Unmap(run_); }
    Page(const Page&) = delete;
    Page& operator=(const Page&) = delete;

    /// A block of `bytes`, or a null one when no gap is large enough.
    Block Take(unsigned int bytes) {
        const auto gap = std::find_if(segments_.begin(), segments_.end(), [bytes](const auto& entry) {
            return !entry.second.used && entry.second.length >= bytes;
        });
        if (gap == segments_.end()) {
            return {};
        }
        const unsigned int offset = gap->first;
        Segment& segment = gap->second;
        if (segment.length > bytes) {
            segments_.emplace(offset + bytes, Segment{segment.length - bytes, false});
        }
        segment = Segment{bytes, true};
        return {run_.ptr + offset, run_.physAddr + offset};
    }

    void GiveBack(const unsigned char* ptr) {
        const auto segment = segments_.find(static_cast<unsigned int>(ptr - run_.ptr));
        segment->second.used = false;
        JoinWithNext(segment);
        if (segment != segments_.begin()) {
            JoinWithNext(std::prev(segment));
        }
    }

    bool Contains(const unsigned char* ptr) const {
        const std::less<const unsigned char*> before;
        return !before(ptr, run_.ptr) && before(ptr, run_.ptr + run_.length);
    }
    bool IsUnused() const { return segments_.size() == 1 && !segments_.begin()->second.used; }

private:
    struct Segment {
        unsigned int length;
        bool used;
    };
    using Segments = std::map<unsigned int, Segment>; // By offset in the run.

    void JoinWithNext(Segments::iterator segment) {
        const auto next = std::next(segment);
        if (next != segments_.end() && !segment->second.used && !next->second.used) {
            segment->second.length += next->second.length;
            segments_.erase(next);
        }
    }

    IPageSource& source_;
    const PageRun run_;
    Segments segments_;
};

bool ContigMemAlloc::IsSupported() {
    try {
        ContigMemAlloc memory;
        memory.Free(memory.Allocate(1));
        return true;
    } catch (const Exception&) {
        return false; // Why not is told to those who ask for memory.
    }
}

ContigMemAlloc::ContigMemAlloc() : ContigMemAlloc(std::make_unique<HugePages>()) {}

ContigMemAlloc::ContigMemAlloc(std::unique_ptr<IPageSource> source) : source_(std::move(source)) {}

ContigMemAlloc::~ContigMemAlloc() = default;

ContigMemAlloc::Block ContigMemAlloc::Allocate(unsigned int length) {
    const unsigned long long bytes = RoundUpToCacheLine(std::max(length, 1U));
    const MutexAutoLock lock(mutex_);
    try {
        if (bytes > UINT_MAX) {
            throw Exception("a block must be smaller than 4 GiB");
        }
        for (const auto& page : pages_) {
            if (const Block block = page->Take(static_cast<unsigned int>(bytes)); block.ptr != nullptr) {
                return block;
            }
        }
        return AllocateFromNewPage(static_cast<unsigned int>(bytes));
    } catch (const Exception& reason) {
        throw Exception("Cannot allocate %u bytes of contiguous memory: %s", length, reason.what());
    }
}

ContigMemAlloc::Block ContigMemAlloc::AllocateFromNewPage(unsigned int bytes) {
    const unsigned int pageBytes = source_->GetPageBytes();
    const unsigned int count = (bytes - 1) / pageBytes + 1;
    if (count > UINT_MAX / pageBytes) {
        throw Exception("whole pages of %u bytes for it reach 4 GiB", pageBytes);
    }
    pages_.reserve(pages_.size() + 1);
    auto page = std::make_unique<Page>(*source_, count);
    const Block block = page->Take(bytes);
    pages_.push_back(std::move(page));
    return block;
}

void ContigMemAlloc::Free(const Block& block) {
    const MutexAutoLock lock(mutex_);
    const auto page = std::find_if(pages_.begin(), pages_.end(), [&block](const auto& candidate) {
        return candidate->Contains(block.ptr);
    });
    (*page)->GiveBack(block.ptr);
    if ((*page)->IsUnused()) {
        pages_.erase(page);
    }
}

void ContigMemAlloc::CleanCpuCache([[maybe_unused]] const unsigned char* ptr,
                                   [[maybe_unused]] unsigned int length) {
#ifdef __arm__
    char* const start = reinterpret_cast<char*>(const_cast<unsigned char*>(ptr));
    __builtin___clear_cache(start, start + length);
#endif
}

} // namespace quarn::osa
