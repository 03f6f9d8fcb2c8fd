#pragma once

#include "calvane/Export.h"
#include "calvane/graph/Sink.h"

namespace quarn::calvane {

/// A sink that hands on to another one what it gets, for a tap to derive from.
///
/// Threads:   as the sink behind it; buffers come under the lock of the one source that is connected here.
/// Ownership: the sink behind it stays its plugin's.
/// Errors:    refuses formats that the sink behind it would refuse ("Incompatible formats"); what is thrown
///            behind it passes through.
class CALVANE_API ForwardingSink : private Sink::IBufferHandler, private Sink::IFormatHandler {
public:
    explicit ForwardingSink(Sink* next);
    ~ForwardingSink() override;
    ForwardingSink(const ForwardingSink&) = delete;
    ForwardingSink& operator=(const ForwardingSink&) = delete;

    /// The sink to connect.
    Sink* GetSink() { return &sink_; }

protected:
    /// Hands `buffer` on and with it its ownership. An override does so, too.
    virtual void Forward(Buffer* buffer) { next_->PushBuffer(buffer); }

private:
    void OnBuffer(const Sink* sink, Buffer* buffer) override;
    void OnNewFormat(const Sink* sink, const BufferFormat& format) override;

    Sink sink_;
    Sink* const next_;
};

} // namespace quarn::calvane
