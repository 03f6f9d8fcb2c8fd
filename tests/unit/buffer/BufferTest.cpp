#include "calvane/buffer/Buffer.h"

#include <atomic>
#include <stdexcept>

#include "support/RunInThreads.h"
#include "support/TestPlugins.h"

using namespace quarn::calvane;
using BufferPtr = std::unique_ptr<Buffer>;

namespace {

class Unaddressable : public IBufferData {
public:
    explicit Unaddressable(unsigned int physAddr) : IBufferData(physAddr, 64U) {}
};

class FailingMemory : public CountedMemory {
public:
    FailingMemory() : CountedMemory("x") {}
    unsigned int GetLength() const override { throw std::runtime_error("no length"); }
};

const char* const kReadOnly = "Tried to write to a read-only buffer!";

} // namespace

TEST(Buffer, IsWritableOnlyWhileNobodySharesItsMemory) {
    const ExpectNoBuffersLeft check;
    const BufferPtr buffer(MakeBuffer("0123456789"));
    for (const auto& share : {std::function<Buffer*()>([&] { return buffer->Duplicate(); }),
                              std::function<Buffer*()>([&] { return new Buffer(*buffer); }),
                              std::function<Buffer*()>([&] { return buffer->CreateSubBuffer(0); })}) {
        const BufferPtr other(share());
        EXPECT_FALSE(buffer->IsWritable());
        EXPECT_EQ(kReadOnly, ThrownText([&] { buffer->GetDataForWrite(); }));
        EXPECT_EQ(kReadOnly, ThrownText([&] { other->GetPhysAddrForWrite(); }));
        EXPECT_EQ(buffer->GetData(), other->GetData());
    }
    buffer->GetDataForWrite()[0] = 'x';
    EXPECT_EQ("x123456789", TextOf(*buffer));
}

TEST(Buffer, CutsNestedViewsAndRefusesThoseThatReachBeyond) {
    const BufferPtr buffer(MakeBuffer(std::string(100, 'x')));
    const BufferPtr view(buffer->CreateSubBuffer(16, 40));
    const BufferPtr nested(view->CreateSubBuffer(4));
    EXPECT_EQ(buffer->GetData() + 20, nested->GetData());
    EXPECT_EQ(36U, nested->GetLength());
    EXPECT_EQ(0U, BufferPtr(view->CreateSubBuffer(40))->GetLength());
    const std::string refused = "Tried to create a SubBuffer that extends beyond the current buffer";
    EXPECT_EQ(refused, ThrownText([&] { view->CreateSubBuffer(41); }));
    EXPECT_EQ(refused, ThrownText([&] { view->CreateSubBuffer(2, ~0U); }));
    EXPECT_EQ(refused, ThrownText([&] { view->CreateSubBuffer(1, 40); }));
}

TEST(Buffer, ResizesItsOwnViewUpToTheWholeMemory) {
    const BufferPtr buffer(MakeBuffer(std::string(100, 'x')));
    const BufferPtr view(buffer->CreateSubBuffer(90, 5));
    view->Resize(100); // The whole memory is the limit, wherever the view begins.
    EXPECT_EQ("Tried to increase the size of an allocated buffer", ThrownText([&] { view->Resize(101); }));
    EXPECT_EQ(100U, view->GetLength());
    view->Resize(0);
    EXPECT_EQ(100U, buffer->GetLength());
}

TEST(Buffer, ChecksAddressesBehindTheOffset) {
    const BufferPtr nowhere(new Buffer(new Unaddressable(0U)));
    EXPECT_EQ("Could not get a pointer to this buffer", ThrownText([&] { nowhere->GetDataForWrite(); }));
    EXPECT_EQ("Could not take the physical address of this buffer",
              ThrownText([&] { nowhere->GetPhysAddrForRead(); }));
    const BufferPtr physical(new Buffer(new Unaddressable(4096U)));
    EXPECT_EQ(4104U, BufferPtr(physical->CreateSubBuffer(8))->GetPhysAddrForRead());
}

TEST(Buffer, CopiesWhatIsItsOwnAndSharesOnlyTheBytes) {
    BufferFormat format;
    format.SetFormat(7);
    const BufferPtr buffer(new Buffer(new CountedMemory("x"), format));
    buffer->GetMetadata().SetValue("n", 1);
    const BufferPtr copy(buffer->Duplicate());
    EXPECT_EQ(format, copy->GetFormat());
    copy->GetFormat().Set("w", 5);
    copy->GetMetadata().SetValue("n", 2);
    EXPECT_EQ(format, buffer->GetFormat());
    EXPECT_EQ(1, buffer->GetMetadata().GetInt("n"));
}

TEST(Buffer, DeletesTheMemoryOnceWithItsLastUserOrWhenItCannotBeMade) {
    const ExpectNoBuffersLeft check;
    BufferPtr buffer(MakeBuffer("abc"));
    const BufferPtr view(buffer->CreateSubBuffer(1));
    buffer.reset();
    EXPECT_EQ("bc", TextOf(*view));
    EXPECT_EQ("no length", ThrownText<std::runtime_error>([] { Buffer unmade(new FailingMemory()); }));
    quarn::core::IMemoryHandle* const none = nullptr;
    EXPECT_EQ("A buffer cannot be made without a memory handle", ThrownText([none] { Buffer unmade(none); }));
}

// Memory of deleted buffers goes round between threads, some of which end while they still have a buffer.
TEST(Buffer, MayBeMadeAndDeletedOnAnyThread) {
    const ExpectNoBuffersLeft check;
    constexpr int kThreads = 3;
    for (int round = 0; round != 10; ++round) {
        std::vector<std::vector<BufferPtr>> given(kThreads);
        for (int i = 0; i != 100 * kThreads; ++i) {
            given[static_cast<size_t>(i % kThreads)].emplace_back(MakeBuffer(std::to_string(i)));
        }
        std::atomic<int> wrong{0};
        RunInThreads(kThreads, [&](int self) {
            thread_local BufferPtr last;
            auto& mine = given[static_cast<size_t>(self)];
            for (int i = self; !mine.empty(); i += kThreads) {
                const BufferPtr copy(mine.front()->Duplicate());
                last = std::move(mine.front());
                mine.erase(mine.begin());
                wrong += TextOf(*copy) == std::to_string(i) && TextOf(*last) == TextOf(*copy) ? 0 : 1;
            }
        });
        EXPECT_EQ(0, wrong);
    }
}

TEST(BufferFormat, ComparesExactlyAndMatchesOneSidedly) {
    BufferFormat narrow;
    BufferFormat wide;
    narrow.SetFormat(1);
    EXPECT_NE(narrow, wide);
    EXPECT_TRUE(narrow.IsCompatibleWith(wide) && wide.IsCompatibleWith(narrow));
    narrow.Set("w", 1);
    wide.Set("w", 1);
    wide.Set("h", 2);
    EXPECT_TRUE(narrow.IsCompatibleWith(wide));
    EXPECT_FALSE(wide.IsCompatibleWith(narrow) || narrow.IsCompatibleWith(BufferFormat()));
    BufferFormat copy(wide);
    copy.Set("w", 3);
    EXPECT_EQ(1, wide.GetInt("w"));
    EXPECT_FALSE(narrow.IsCompatibleWith(copy));
    EXPECT_EQ("Missing format property W", ThrownText([&] { copy.GetInt("W"); }));
}
