#include "calvane/buffer/BufferMetadata.h"
#include "support/TestPlugins.h"

using namespace quarn::calvane;

namespace {

class CountedItem : public IBufferMetadataItem {
public:
    explicit CountedItem(bool refCounted) : IBufferMetadataItem(refCounted) { ++alive; }
    CountedItem(const CountedItem& other) : IBufferMetadataItem(other) { ++alive; }
    ~CountedItem() override { --alive; }
    static inline int alive = 0;
};

class ClonedItem : public CountedItem {
public:
    ClonedItem() : CountedItem(false) {}
    IBufferMetadataItem* doClone() override { return new ClonedItem(*this); }
};

} // namespace

TEST(BufferMetadata, TurnsIntegersAndTextsIntoEachOther) {
    BufferMetadata metadata;
    metadata.SetValue("a", -3);
    EXPECT_EQ("-3", metadata.GetString("a"));
    metadata.SetValue("a", "42abc");
    EXPECT_EQ(42, metadata.GetInt("a"));
    metadata.SetValue("a", 7);
    EXPECT_EQ("7", metadata.GetString("a"));
    EXPECT_EQ(0, metadata.GetInt("A"));
    EXPECT_FALSE(metadata.Contains("A"));
}

TEST(BufferMetadata, SharesCountedItemsAndClonesOthers) {
    {
        BufferMetadata metadata;
        auto* const shared = new CountedItem(true);
        metadata.SetValue("shared", shared);
        metadata.SetValue("own", new ClonedItem());
        BufferMetadata copy(metadata);
        EXPECT_EQ(shared, copy.GetItem("shared"));
        EXPECT_NE(metadata.GetItem("own"), copy.GetItem("own"));
        EXPECT_EQ(3, CountedItem::alive);
        metadata = BufferMetadata();
        EXPECT_EQ(2, CountedItem::alive);
        copy.SetValue("shared", 1);
        EXPECT_EQ(1, CountedItem::alive);
        EXPECT_EQ("", copy.GetString("own"));
    }
    EXPECT_EQ(0, CountedItem::alive);
    BufferMetadata metadata;
    metadata.SetValue("item", new CountedItem(false));
    EXPECT_EQ(std::string("IBufferMetadataItem::doClone was not implemented in class ") +
                  typeid(IBufferMetadataItem*).name() +
                  ". doClone must be implemented unless refCounted is true.",
              ThrownText([&] { BufferMetadata copy(metadata); }));
}
