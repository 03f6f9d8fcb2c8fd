#include "calvane/buffer/BufferMetadata.h"

#include <map>
#include <sstream>
#include <utility>

#include "calvane/buffer/ncstring.h"
#include "quarn/core/StringBuilder.h"

namespace quarn::calvane {

namespace {

struct RemoveReference {
    void operator()(IBufferMetadataItem* item) const { item->RemoveRef(); }
};
using ItemReference = std::unique_ptr<IBufferMetadataItem, RemoveReference>;

const std::string kNoText;

int LeadingNumber(const std::string& text) {
    std::istringstream stream(text);
    stream.imbue(std::locale::classic());
    int number = 0;
    stream >> number;
    return number;
}

/// The value of one entry.
class MetadataItem {
public:
    MetadataItem() = default;
    MetadataItem(const MetadataItem& other)
        : intValue_(other.intValue_),
          text_(other.text_ ? std::make_unique<std::string>(*other.text_) : nullptr),
          item_(other.item_ ? other.item_->Clone() : nullptr) {}
    MetadataItem& operator=(const MetadataItem&) = delete;

    void Set(int value, std::unique_ptr<std::string> text, ItemReference item) {
        intValue_ = value;
        text_ = std::move(text);
        item_ = std::move(item);
    }

    int GetInt() const { return intValue_; }
    IBufferMetadataItem* GetItem() const { return item_.get(); }
    const std::string& GetString() {
        if (!text_) {
            core::StringBuilder builder;
            if (!item_) {
                builder << intValue_;
            }
            text_ = std::make_unique<std::string>(builder.ToString());
        }
        return *text_;
    }

private:
    int intValue_ = 0;
    std::unique_ptr<std::string> text_; // Null until it is set or asked for.
    ItemReference item_;
};

} // namespace

class BufferMetadata::BufferMetadataImpl {
public:
    MetadataItem* Find(const std::string& name) {
        const auto found = items.find(name);
        return found == items.end() ? nullptr : &found->second;
    }

    std::map<ncstring, MetadataItem> items;
};

BufferMetadata::BufferMetadata() = default;

BufferMetadata::BufferMetadata(const BufferMetadata& other)
    : impl_(other.impl_ ? std::make_unique<BufferMetadataImpl>(*other.impl_) : nullptr) {}

BufferMetadata& BufferMetadata::operator=(const BufferMetadata& other) {
    BufferMetadata copy(other);
    swap(copy);
    return *this;
}

BufferMetadata::~BufferMetadata() = default;

void BufferMetadata::swap(BufferMetadata& other) noexcept {
    impl_.swap(other.impl_);
}

bool BufferMetadata::Contains(const std::string& name) const {
    return impl_ && impl_->Find(name) != nullptr;
}

int BufferMetadata::GetInt(const std::string& name) const {
    const MetadataItem* entry = impl_ ? impl_->Find(name) : nullptr;
    return entry != nullptr ? entry->GetInt() : 0;
}

const std::string& BufferMetadata::GetString(const std::string& name) const {
    MetadataItem* entry = impl_ ? impl_->Find(name) : nullptr;
    return entry != nullptr ? entry->GetString() : kNoText;
}

void BufferMetadata::GetString(const std::string& name, std::string& out) const {
    out = GetString(name);
}

IBufferMetadataItem* BufferMetadata::GetItem(const std::string& name) const {
    const MetadataItem* entry = impl_ ? impl_->Find(name) : nullptr;
    return entry != nullptr ? entry->GetItem() : nullptr;
}

void BufferMetadata::SetValue(const std::string& name, int value) {
    Writable().items[name].Set(value, nullptr, nullptr);
}

void BufferMetadata::SetValue(const std::string& name, const std::string& value) {
    auto text = std::make_unique<std::string>(value);
    const int number = LeadingNumber(*text);
    Writable().items[name].Set(number, std::move(text), nullptr);
}

void BufferMetadata::SetValue(const std::string& name, IBufferMetadataItem* item) {
    ItemReference reference(item);
    Writable().items[name].Set(0, nullptr, std::move(reference));
}

BufferMetadata::BufferMetadataImpl& BufferMetadata::Writable() {
    if (!impl_) {
        impl_ = std::make_unique<BufferMetadataImpl>();
    }
    return *impl_;
}

} // namespace quarn::calvane
