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
    struct Connection {
        bool operator==(const Sink* other) const { return sink == other; }
        // The plugin is entered here, and not by its sink, so that a push takes no further place on the stack.
        void Push(Buffer* buffer) const {
            RunningPlugin::Enter(owner);
            sink->PushBuffer(buffer);
        }

        Sink* sink;
        const char* owner; // The sink's, kept here so that a push does not ask for it.
    };

    // To all sinks but the last. Not inline: most sources have one sink, and are quicker without the loop.
    [[gnu::noinline]] void PushDuplicates(const Buffer* buffer) const {
        for (auto each = connections.begin(); each != connections.end() - 1; ++each) {
            each->Push(buffer != nullptr ? buffer->Duplicate() : nullptr);
        }
    }

    mutable osa::Mutex lock;
    std::vector<Connection> connections; // In their order.
    BufferFormat format;
};

Source::Source() : impl_(std::make_unique<SourceImpl>()) {}

Source::~Source() = default;

void Source::ConnectTo(Sink* sink) {
    if (sink == nullptr) {
        throw osa::Exception("A source cannot be connected to no sink (null)");
    }
    const osa::MutexAutoLock lock(impl_->lock);
    auto& connections = impl_->connections;
    if (std::find(connections.begin(), connections.end(), sink) != connections.end()) {
        return;
    }
    FormatException::ThrowUnlessCompatible(sink->GetFormat(), impl_->format);
    connections.push_back({sink, sink->GetOwner()});
    try {
        sink->PushFormat(impl_->format);
    } catch (...) {
        connections.pop_back();
        throw;
    }
}

bool Source::Disconnect(const Sink* sink) {
    const osa::MutexAutoLock lock(impl_->lock);
    auto& connections = impl_->connections;
    const auto found = std::find(connections.begin(), connections.end(), sink);
    if (found == connections.end()) {
        return false;
    }
    connections.erase(found);
    return true;
}

void Source::PushBuffer(Buffer* buffer) {
    std::unique_ptr<Buffer> owned(buffer);
    const osa::MutexAutoLock lock(impl_->lock);
    const auto& connections = impl_->connections;
    if (connections.empty()) {
        return;
    }
    const char* const before = RunningPlugin::Get();
    if (connections.size() > 1) {
        impl_->PushDuplicates(owned.get());
    }
    connections.back().Push(owned.release());
    RunningPlugin::Leave(before);
}

void Source::SetFormat(const BufferFormat& newFormat) {
    const osa::MutexAutoLock lock(impl_->lock);
    for (const auto& [sink, owner] : impl_->connections) {
        FormatException::ThrowUnlessCompatible(sink->GetFormat(), newFormat);
        sink->PushFormat(newFormat);
    }
    impl_->format = newFormat;
}

const BufferFormat& Source::GetFormat() const {
    return impl_->format;
}

} // namespace quarn::calvane
