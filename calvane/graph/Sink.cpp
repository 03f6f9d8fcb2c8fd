#include "calvane/graph/Sink.h"

#include <atomic>

#include "quarn/core/Logger.h"
#include "quarn/osa/Exception.h"

namespace quarn::calvane {

class Sink::SinkImpl {
public:
    explicit SinkImpl(IBufferHandler* handler) : bufferHandler(handler) {}

    IBufferHandler* const bufferHandler;
    IFormatHandler* formatHandler = nullptr;
    std::atomic<const char*> owner{nullptr}; // Asking a plugin for its sink sets it, on any thread.
    BufferFormat format;
};

namespace {

// Not inline, so that a push that is wanted needs no stack.
[[gnu::noinline]] void DeleteUnwanted(Buffer* buffer) {
    const std::unique_ptr<Buffer> unwanted(buffer);
    core::Logger::GetLogger("Sink")->Warning("Received a buffer but no listener was attached!");
}

} // namespace

Sink::Sink(IBufferHandler* handler) : impl_(std::make_unique<SinkImpl>(handler)) {}

Sink::~Sink() = default;

void Sink::SetFormatHandler(IFormatHandler* handler) {
    if (impl_->formatHandler != nullptr) {
        throw osa::Exception("Can't switch FormatHandlers after one has already been specified");
    }
    impl_->formatHandler = handler;
}

void Sink::PushBuffer(Buffer* buffer) const {
    if (impl_->bufferHandler == nullptr) {
        DeleteUnwanted(buffer);
        return;
    }
    impl_->bufferHandler->OnBuffer(this, buffer);
}

void Sink::PushFormat(const BufferFormat& format) const {
    if (impl_->formatHandler != nullptr) {
        impl_->formatHandler->OnNewFormat(this, format);
    }
}

void Sink::SetOwner(const char* plugin) {
    const char* none = nullptr;
    impl_->owner.compare_exchange_strong(none, plugin, std::memory_order_relaxed);
}

const char* Sink::GetOwner() const {
    return impl_->owner.load(std::memory_order_relaxed); // The name was there before the plugin was.
}

const BufferFormat& Sink::GetFormat() const {
    return impl_->format;
}

void Sink::SetFormat(const BufferFormat& format) {
    impl_->format = format;
}

} // namespace quarn::calvane
