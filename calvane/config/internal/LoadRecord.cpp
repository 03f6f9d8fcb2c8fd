#include "calvane/config/internal/LoadRecord.h"

namespace quarn::calvane {

Sink* ConnectionTaps::SinkFor(const Connection& connection, Sink* sink) {
    if (taps_.empty()) {
        return sink;
    }
    const auto [entry, added] =
        made_.try_emplace(Key{connection.upstream, connection.output, connection.downstream, sink}, sink);
    if (added) {
        for (IConnectionTap* tap : taps_) {
            entry->second = tap->OnConnect(connection, entry->second);
        }
    }
    return entry->second;
}

} // namespace quarn::calvane
