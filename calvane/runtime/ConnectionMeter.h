#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "calvane/Export.h"
#include "calvane/graph/IConnectionTap.h"

namespace quarn::calvane {

/// What has passed a connection since it was made.
struct ConnectionCounts {
    Connection connection;
    std::uint64_t buffers;
    std::uint64_t bytes; ///< The sum of the lengths of the buffers.
};

/// Counts the buffers and bytes that pass each connection, as they arrive. It takes no lock of its own.
///
/// Threads:  Read from any, once loading is done.
/// Lifetime: outlives the pipelines that it was added to.
class CALVANE_API ConnectionMeter : public IConnectionTap {
public:
    ConnectionMeter();
    ~ConnectionMeter() override;
    ConnectionMeter(const ConnectionMeter&) = delete;
    ConnectionMeter& operator=(const ConnectionMeter&) = delete;

    Sink* OnConnect(const Connection& connection, Sink* sink) override;
    /// All connections in the order in which they were made.
    std::vector<ConnectionCounts> Read() const;

private:
    class Counter;
    std::vector<std::unique_ptr<Counter>> counters_;
};

} // namespace quarn::calvane
