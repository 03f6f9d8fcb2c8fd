#pragma once

#include <optional>
#include <string>

#include "calvane/Export.h"
#include "calvane/buffer/BufferFormat.h"
#include "quarn/osa/Exception.h"

namespace quarn::calvane {

/// "Incompatible formats": a sink requires a property that a source does not offer with the same value.
class CALVANE_API FormatException : public osa::Exception {
public:
    /// `offered`: what the source has under the name `property`, if anything.
    FormatException(std::string property, int required, std::optional<int> offered);
    FormatException(const FormatException& other);
    ~FormatException() override;

    /// Throws one when `offered` lacks what `required` requires.
    static void ThrowUnlessCompatible(const BufferFormat& required, const BufferFormat& offered);

    /// "width = 640"
    std::string DescribeRequired() const;
    /// "width = 320" or "no width".
    std::string DescribeOffered() const;

private:
    std::string property_;
    int required_;
    std::optional<int> offered_;
};

} // namespace quarn::calvane
