#include "calvane/graph/Source.h"

#include <algorithm>
#include <vector>

#include "calvane/graph/FormatException.h"
#include "calvane/graph/internal/RunningPlugin.h"
#include "quarn/osa/CacheLine.h"
#include "quarn/osa/Exception.h"
#include "quarn/osa/MutexAutoLock.h"

namespace quarn::calvane {

// On cache lines of its own: what lies beside it may belong to another thread.
class alignas(osa::kCacheLineBytes) Source::SourceImpl {
public:
    /// Call with the lock held.
    bool IsConnectedTo(const Sink* sink) const {
        return std::find(sinks.begin(), sinks.end(), sink) != sinks.end();
    }

    mutable osa::Mutex lock;
    std::vector<Sink*> sinks; // In connection order.
    BufferFormat format;
};

Source::Source() : impl_(std::make_unique<SourceImpl>()) {}

Source::~Source() = default;

void Source::ConnectTo(Sink* sink) {
    if (sink == nullptr) {
        throw osa::Exception("A source cannot be connected to no sink (null)");
    }
    const osa::MutexAutoLock lock(impl_->lock);
    if (impl_->IsConnectedTo(sink)) {
        return;
    }
    FormatException::ThrowUnlessCompatible(sink->GetFormat(), impl_->format);
    impl_->sinks.push_back(sink);
    try {
        sink->PushFormat(impl_->format);
    } catch (...) {
        impl_->sinks.pop_back();
        throw;
    }
}

bool Source::Disconnect(const Sink* sink) {
    const osa::MutexAutoLock lock(impl_->lock);
    const auto end = std::remove(impl_->sinks.begin(), impl_->sinks.end(), sink);
    const bool connected = end != impl_->sinks.end();
    impl_->sinks.erase(end, impl_->sinks.end());
    return connected;
}

void Source::PushBuffer(Buffer* buffer) {
    std::unique_ptr<Buffer> owned(buffer);
    const osa::MutexAutoLock lock(impl_->lock);
    if (impl_->sinks.empty()) {
        return;
    }
    // The plugins are entered here, and not by their sinks, so that a push takes no further place on the stack.
    const char* const before = RunningPlugin::Get();
    const auto last = impl_->sinks.end() - 1;
    for (auto sink = impl_->sinks.begin(); sink != last; ++sink) {
        Buffer* const duplicate = owned ? owned->Duplicate() : nullptr;
        RunningPlugin::Enter((*sink)->GetOwner());
        (*sink)->PushBuffer(duplicate);
    }
    RunningPlugin::Enter((*last)->GetOwner());
    (*last)->PushBuffer(owned.release());
    RunningPlugin::Leave(before);
}

void Source::SetFormat(const BufferFormat& newFormat) {
    const osa::MutexAutoLock lock(impl_->lock);
    for (const Sink* sink : impl_->sinks) {
        FormatException::ThrowUnlessCompatible(sink->GetFormat(), newFormat);
        sink->PushFormat(newFormat);
    }
    impl_->format = newFormat;
}

const BufferFormat& Source::GetFormat() const {
    return impl_->format;
}

} // namespace quarn::calvane
