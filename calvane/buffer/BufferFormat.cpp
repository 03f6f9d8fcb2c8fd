#include "calvane/buffer/BufferFormat.h"

#include <algorithm>
#include <map>

#include "calvane/buffer/ncstring.h"
#include "quarn/osa/Exception.h"

namespace quarn::calvane {

class BufferFormat::BufferFormatImpl {
public:
    unsigned int format = 0;
    std::map<ncstring, int, std::less<>> properties;
};

BufferFormat::BufferFormat() = default;

BufferFormat::BufferFormat(const BufferFormat& other)
    : impl_(other.impl_ ? std::make_unique<BufferFormatImpl>(*other.impl_) : nullptr) {}

BufferFormat& BufferFormat::operator=(const BufferFormat& other) {
    BufferFormat copy(other);
    swap(copy);
    return *this;
}

BufferFormat::~BufferFormat() = default;

void BufferFormat::swap(BufferFormat& other) noexcept {
    impl_.swap(other.impl_);
}

unsigned int BufferFormat::GetFormat() const {
    return impl_ ? impl_->format : 0;
}

void BufferFormat::SetFormat(unsigned int format) {
    Writable().format = format;
}

void BufferFormat::Set(const char* name, int value) {
    Writable().properties.insert_or_assign(name, value);
}

bool BufferFormat::Get(const char* name, int& value) const {
    if (!impl_) {
        return false;
    }
    const auto found = impl_->properties.find(name);
    if (found == impl_->properties.end()) {
        return false;
    }
    value = found->second;
    return true;
}

int BufferFormat::GetInt(const char* name) const {
    int value = 0;
    if (!Get(name, value)) {
        throw osa::Exception("Missing format property %s", name);
    }
    return value;
}

bool BufferFormat::operator==(const BufferFormat& other) const {
    if (GetFormat() != other.GetFormat()) {
        return false;
    }
    const bool empty = !impl_ || impl_->properties.empty();
    const bool otherEmpty = !other.impl_ || other.impl_->properties.empty();
    if (empty || otherEmpty) {
        return empty == otherEmpty;
    }
    return impl_->properties == other.impl_->properties;
}

const char* BufferFormat::FindMismatch(const BufferFormat& other) const {
    if (!impl_) {
        return nullptr;
    }
    const auto found =
        std::find_if(impl_->properties.begin(), impl_->properties.end(), [&other](const auto& property) {
            int value = 0;
            return !other.Get(property.first.c_str(), value) || value != property.second;
        });
    return found != impl_->properties.end() ? found->first.c_str() : nullptr;
}

BufferFormat::BufferFormatImpl& BufferFormat::Writable() {
    if (!impl_) {
        impl_ = std::make_unique<BufferFormatImpl>();
    }
    return *impl_;
}

} // namespace quarn::calvane
