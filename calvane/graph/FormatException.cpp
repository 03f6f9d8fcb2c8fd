#include "calvane/graph/FormatException.h"

#include <utility>

namespace quarn::calvane {

FormatException::FormatException(std::string property, int required, std::optional<int> offered)
    : Exception("Incompatible formats"),
      property_(std::move(property)),
      required_(required),
      offered_(offered) {}

FormatException::FormatException(const FormatException& other) = default;
FormatException::~FormatException() = default;

void FormatException::ThrowUnlessCompatible(const BufferFormat& required, const BufferFormat& offered) {
    if (const char* const property = required.FindMismatch(offered)) {
        int value = 0;
        const bool offers = offered.Get(property, value);
        throw FormatException(property, required.GetInt(property),
                              offers ? std::optional(value) : std::nullopt);
    }
}

std::string FormatException::DescribeRequired() const {
    return property_ + " = " + std::to_string(required_);
}

std::string FormatException::DescribeOffered() const {
    return offered_ ? property_ + " = " + std::to_string(*offered_) : "no " + property_;
}

} // namespace quarn::calvane
