#pragma once

#include <memory>

#include "calvane/Export.h"
#include "calvane/graph/Source.h"

namespace quarn::calvane {

/// Relays one source into another: what the forwarded source pushes or announces, the destination pushes and
/// announces on. Either end can be exchanged while the relay exists.
///
/// Threads:   the setters while the graph is built, or while the forwarded source is idle. Buffers pass
///            on the pushing thread, under the forwarded source's lock and then the destination's.
/// Ownership: both sources stay their plugins'. Call SetForwardedSource(nullptr) before the relay goes.
/// Errors:    a setter throws what connecting or announcing throws ("Incompatible formats"); the relay
///            is then as it was before.
class CALVANE_API ForwardSource {
public:
    /// Both ends unset: buffers are deleted while there is no destination.
    ForwardSource();
    virtual ~ForwardSource();
    ForwardSource(const ForwardSource&) = delete;
    ForwardSource& operator=(const ForwardSource&) = delete;

    /// Connects `source`, then disconnects the one before it, so that nothing is lost in between. Naming the
    /// same source again therefore leaves it disconnected. Null only disconnects.
    void SetForwardedSource(Source* source);
    /// Announces the forwarded source's format on `source` and pushes there from now on.
    void SetDestinationSource(Source* source);

private:
    class ForwardSourceImpl;
    const std::unique_ptr<ForwardSourceImpl> impl_;
};

} // namespace quarn::calvane
