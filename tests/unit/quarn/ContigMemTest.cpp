#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <map>

#include "quarn/core/ContigMemAllocator.h"
#include "quarn/memory/ContigMemAlloc.h"
#include "quarn/memory/internal/HugePages.h"
#include "support/ThrownText.h"

namespace quarn::core {
namespace {

using Handle = std::unique_ptr<IMemoryHandle>;

constexpr unsigned int kPage = 4096;

// Small pages of ordinary memory, at most four at once and two side by side.
class FakePages : public osa::IPageSource {
public:
    explicit FakePages(unsigned int& mapped) : mapped_(mapped) {}

    unsigned int GetPageBytes() override { return kPage; }
    osa::PageRun Map(unsigned int count) override {
        if (count > 2 || mapped_ + count > 4) {
            throw osa::Exception("no pages");
        }
        mapped_ += count;
        nextPhysAddr_ += 0x100000;
        return {new unsigned char[count * kPage], nextPhysAddr_, count* kPage};
    }
    void Unmap(const osa::PageRun& run) override {
        mapped_ -= run.length / kPage;
        delete[] run.ptr;
    }

private:
    unsigned int& mapped_;
    unsigned int nextPhysAddr_ = 0;
};

class ContigMemory : public testing::Test {
protected:
    Handle Take(unsigned int length) { return Handle(allocator_->Allocate(length)); }

    unsigned int mapped_ = 0;
    std::unique_ptr<ContigMemAllocator> allocator_ = std::make_unique<ContigMemAllocator>(
        std::make_shared<osa::ContigMemAlloc>(std::make_unique<FakePages>(mapped_)));
};

TEST_F(ContigMemory, SmallBlocksShareAPageOnLinesOfTheirOwn) {
    Handle first = Take(0);
    Handle second = Take(65);
    const Handle third = Take(64);
    EXPECT_EQ(mapped_, 1U);
    EXPECT_EQ(second->GetPhysAddr() - first->GetPhysAddr(), 64U);
    EXPECT_EQ(third->GetPhysAddr() - second->GetPhysAddr(), 128U);
    EXPECT_EQ(third->GetPtr() - first->GetPtr(), 192);

    const unsigned int start = first->GetPhysAddr();
    second.reset();
    first.reset();
    EXPECT_EQ(Take(192)->GetPhysAddr(), start) << "two gaps side by side are one";
}

TEST_F(ContigMemory, PagesComeWithNeedAndGoWithTheLastBlock) {
    Handle half = Take(kPage / 2);
    Handle whole = Take(kPage);
    Handle two = Take(kPage + 1);
    EXPECT_EQ(mapped_, 4U);
    Handle rest = Take(kPage / 2);
    EXPECT_EQ(mapped_, 4U);
    EXPECT_THROW(Take(kPage), osa::Exception);
    allocator_.reset();
    std::memset(two->GetWritablePtr(), 1, kPage + 1); // The allocator is gone, the memory is not.
    for (const auto& [handle, left] : {std::pair(&half, 4U), {&two, 2U}, {&rest, 1U}, {&whole, 0U}}) {
        handle->reset();
        EXPECT_EQ(mapped_, left);
    }
}

TEST_F(ContigMemory, AFailureNamesTheLengthAndLeavesNothingBehind) {
    const std::map<unsigned int, std::string> reasons{
        {2 * kPage + 1, "no pages"},
        {0xFFFFFFC0U, "whole pages of 4096 bytes for it reach 4 GiB"},
        {0xFFFFFFFFU, "a block must be smaller than 4 GiB"}};
    for (const auto& [length, reason] : reasons) {
        EXPECT_EQ("Cannot allocate " + std::to_string(length) + " bytes of contiguous memory: " + reason,
                  ThrownText([&, bytes = length] { Take(bytes); }));
    }
    EXPECT_EQ(mapped_, 0U);
}

// The number of huge pages in the kernel's pool; put back at the end.
struct PoolOfHugePages {
    PoolOfHugePages() { std::ifstream(kPath) >> before; }
    ~PoolOfHugePages() { Set(before); }
    static void Set(unsigned int count) { std::ofstream(kPath) << count << std::flush; }

    static constexpr const char* kPath = "/proc/sys/vm/nr_hugepages";
    unsigned int before = 0;
};

std::string WhyUnsupported() {
    return ThrownText([] { osa::HugePages().Map(1); });
}

TEST(HugePages, GivePhysicalMemoryThatKeepsItsAddressInAFork) {
    const PoolOfHugePages pool;
    if (pool.before == 0) {
        EXPECT_THAT(WhyUnsupported(), testing::HasSubstr("raise /proc/sys/vm/nr_hugepages"));
        PoolOfHugePages::Set(8);
    }
    if (!osa::ContigMemAlloc::IsSupported()) {
        GTEST_SKIP() << "no contiguous memory here: " << WhyUnsupported();
    }
    ContigMemAllocator allocator;
    const Handle first(allocator.Allocate(100000));
    const Handle second(allocator.Allocate(100000));
    EXPECT_TRUE(first->IsContiguous() && second->IsContiguous());
    EXPECT_EQ(first->GetPtr() + (second->GetPhysAddr() - first->GetPhysAddr()), second->GetPtr());

    // A child that writes to the very memory shows that a fork does not part it from its physical address.
    std::memset(first->GetWritablePtr(), 1, first->GetLength());
    const pid_t child = fork();
    if (child == 0) {
        first->GetWritablePtr()[0] = 2;
        _exit(0);
    }
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_EQ(first->GetPtr()[0], 2);
}

} // namespace
} // namespace quarn::core
