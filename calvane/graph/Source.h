#pragma once

#include <memory>

#include "calvane/Export.h"
#include "calvane/buffer/Buffer.h"
#include "calvane/buffer/BufferFormat.h"
#include "calvane/graph/Sink.h"

namespace quarn::calvane {

/// An output of a plugin: pushes buffers and format announcements to every connected sink, in the order in
/// which they were connected.
///
/// Threads:   any. A lock of its own serialises all operations and is held while everything downstream runs,
///            so nothing downstream may call the same source again: that throws LockException.
/// Ownership: sinks stay their plugins' and are disconnected before they go.
/// Errors:    Exception with the texts named below, and whatever the handlers downstream throw.
class CALVANE_API Source {
public:
    Source();
    virtual ~Source();
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    /// Connects and announces the current format; does nothing when `sink` is connected already. Throws
    /// "Incompatible formats" when the format lacks what the sink requires, and when `sink` is null. A sink
    /// that refuses the format is not connected.
    void ConnectTo(Sink* sink);
    /// Returns whether `sink` was connected. The sink is not notified.
    bool Disconnect(const Sink* sink);

    /// Takes over `buffer`, also when it throws. The last sink gets the buffer itself; those before it get
    /// duplicates, which are read-only while another one lives. Without sinks it is deleted. Null reaches
    /// every sink as null.
    void PushBuffer(Buffer* buffer);

    /// Announces `newFormat` to every sink and adopts it. When one refuses it ("Incompatible formats", or
    /// what its handler throws), those before it have been notified all the same and the source keeps its old
    /// format.
    void SetFormat(const BufferFormat& newFormat);
    /// Not to be called while another thread sets the format.
    const BufferFormat& GetFormat() const;

private:
    class SourceImpl;
    const std::unique_ptr<SourceImpl> impl_;
};

} // namespace quarn::calvane
