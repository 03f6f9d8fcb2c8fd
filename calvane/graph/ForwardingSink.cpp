#include "calvane/graph/ForwardingSink.h"

#include "calvane/graph/FormatException.h"

namespace quarn::calvane {

ForwardingSink::ForwardingSink(Sink* next) : sink_(this), next_(next) {
    sink_.SetFormatHandler(this);
    sink_.SetOwner(next->GetOwner());
}

ForwardingSink::~ForwardingSink() = default;

void ForwardingSink::OnBuffer(const Sink*, Buffer* buffer) {
    Forward(buffer);
}

void ForwardingSink::OnNewFormat(const Sink*, const BufferFormat& format) {
    FormatException::ThrowUnlessCompatible(
        next_->GetFormat(), format); // Its requirement may have changed since it was connected.
    next_->PushFormat(format);
}

} // namespace quarn::calvane
