#pragma once

#include <memory>

#include "calvane/Export.h"
#include "calvane/buffer/Buffer.h"
#include "calvane/buffer/BufferFormat.h"

namespace quarn::calvane {

/// An input of a plugin: hands what arrives to the handlers that the plugin installed. A sink does not know
/// which sources feed it.
///
/// Threads:   PushBuffer and PushFormat run on the pushing thread; the setters belong to the building of the
///            graph. There is no lock.
/// Ownership: the handlers stay the caller's. The source that feeds a sink must be disconnected first.
class CALVANE_API Sink {
public:
    /// Receives buffers.
    class CALVANE_API IBufferHandler {
    public:
        /// `buffer` belongs to the handler from here on, also when it throws.
        virtual void OnBuffer(const Sink* sink, Buffer* buffer) = 0;
        virtual ~IBufferHandler() = default;
    };

    /// Is called with the formats that a connected source announces.
    class CALVANE_API IFormatHandler {
    public:
        /// Refuses the format by throwing.
        virtual void OnNewFormat(const Sink* sink, const BufferFormat& format) = 0;
        virtual ~IFormatHandler() = default;
    };

    /// `handler` may be null: buffers are then deleted with a warning.
    explicit Sink(IBufferHandler* handler);
    virtual ~Sink();
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;

    /// Throws Exception "Can't switch FormatHandlers after one has already been specified" the second time.
    void SetFormatHandler(IFormatHandler* handler);
    /// Takes over `buffer`.
    void PushBuffer(Buffer* buffer) const;
    void PushFormat(const BufferFormat& format) const;

    /// Failures of the buffer handler are attributed to the plugin of this name when buffers come through a
    /// source that is connected from now on. The first call counts. `plugin` lives as long as the process, as
    /// the name of a logger does.
    void SetOwner(const char* plugin);
    /// The name that was set, or null.
    const char* GetOwner() const;

    /// The format that this sink requires of its sources; empty (no requirement) at first.
    const BufferFormat& GetFormat() const;
    void SetFormat(const BufferFormat& format);

private:
    class SinkImpl;
    const std::unique_ptr<SinkImpl> impl_;
};

} // namespace quarn::calvane
