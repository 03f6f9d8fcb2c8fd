#include <cstdlib>
#include <new>
#include <thread>

#include "calvane/plugins/FileSource.h"
#include "calvane/plugins/QueuePlugin.h"
#include "calvane/runtime/CalvaneEnv.h"
#include "quarn/core/StandardHeapAllocator.h"
#include "support/TempFolder.h"
#include "support/TestPlugins.h"

using namespace quarn::calvane;

namespace {

thread_local int blocksLeft = -1; // Of this thread; below 0: no limit.

void* Take(std::size_t size, std::size_t alignment) {
    void* memory = nullptr;
    if (blocksLeft == 0 || posix_memalign(&memory, alignment, size) != 0) {
        throw std::bad_alloc();
    }
    blocksLeft -= blocksLeft > 0 ? 1 : 0;
    return memory;
}

} // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
    return Take(size, alignof(std::max_align_t));
}
[[gnu::noinline]] void* operator new(std::size_t size, std::align_val_t alignment) {
    return Take(size, static_cast<std::size_t>(alignment));
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::align_val_t) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
    std::free(memory);
}

namespace {

/// Calls `action` with memory for no block, for one, for two and so on until it suffices; every time on a
/// thread of its own, which has no recycled buffers yet. Returns how often it did not suffice.
int FailEachBlock(const std::function<void()>& action) {
    int failures = 0;
    bool done = false;
    while (!done) {
        std::thread([&] {
            blocksLeft = failures;
            try {
                action();
                done = true;
            } catch (const std::bad_alloc&) {
                ++failures;
            }
            blocksLeft = -1;
        }).join();
    }
    return failures;
}

/// Memory that is there before memory runs out.
CountedMemory* TakeMemory() {
    const int limit = std::exchange(blocksLeft, -1);
    auto* const memory = new CountedMemory("x");
    blocksLeft = limit;
    return memory;
}

} // namespace

TEST(OutOfMemory, LosesNoHandleOfABuffer) {
    const ExpectNoBuffersLeft check;
    BufferFormat format;
    format.Set("width", 1);
    EXPECT_GE(FailEachBlock([] { const Buffer buffer(TakeMemory()); }), 1);
    EXPECT_GE(FailEachBlock([&] { const Buffer buffer(TakeMemory(), format); }), 2);
    Buffer first(TakeMemory(), format);
    first.GetMetadata().SetValue("key", "a text that does not fit into the string object itself");
    EXPECT_GE(FailEachBlock([&] { const std::unique_ptr<Buffer> copy(first.Duplicate()); }), 3);
    EXPECT_GE(FailEachBlock([&] { const std::unique_ptr<Buffer> part(first.CreateSubBuffer(0, 1)); }), 3);
    EXPECT_TRUE(first.IsWritable()) << "a view that was not made is counted";
}

// The pool has one block: the call that succeeds waits for ever if one before it has lost that.
TEST(OutOfMemory, LosesNoBlockOfAFileSource) {
    const TempFolder folder;
    CalvaneEnv env;
    const PluginPtr source(new FileSource(
        &env,
        TestConfig("source", {{"filename", folder.Write("in", "some text")}, {"buffer.maxcount", "1"}})));
    quarn::osa::TimeStruct next;
    EXPECT_GE(FailEachBlock([&] { EXPECT_FALSE(source->GenerateBuffer(next)); }), 2);
}

TEST(OutOfMemory, LosesNoAllocatorOfTheEnvironment) {
    static int alive = 0;
    struct Counted : quarn::core::StandardHeapAllocator {
        Counted() : StandardHeapAllocator(0) { ++alive; }
        ~Counted() override { --alive; }
    };
    {
        CalvaneEnv env;
        EXPECT_EQ(2, FailEachBlock([&] { env.AddPrivateAllocator(new Counted); }));
        EXPECT_EQ(1, alive);
    }
    EXPECT_EQ(0, alive);
}
