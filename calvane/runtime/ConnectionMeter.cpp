#include "calvane/runtime/ConnectionMeter.h"

#include <atomic>

#include "calvane/graph/ForwardingSink.h"

namespace quarn::calvane {

namespace {

// For counts that one thread at a time raises: cheaper than an atomic addition.
void Raise(std::atomic<std::uint64_t>& count, std::uint64_t by) {
    count.store(count.load(std::memory_order_relaxed) + by, std::memory_order_relaxed);
}

} // namespace

class ConnectionMeter::Counter final : public ForwardingSink {
public:
    Counter(Connection connection, Sink* next) : ForwardingSink(next), connection_(std::move(connection)) {}

    ConnectionCounts Read() const {
        return {connection_, buffers_.load(std::memory_order_relaxed),
                bytes_.load(std::memory_order_relaxed)};
    }

protected:
    void Forward(Buffer* buffer) override {
        Raise(buffers_, 1);
        Raise(bytes_, buffer->GetLength());
        ForwardingSink::Forward(buffer);
    }

private:
    const Connection connection_;
    // Raised under the lock of the source that pushes.
    std::atomic<std::uint64_t> buffers_{0};
    std::atomic<std::uint64_t> bytes_{0};
};

ConnectionMeter::ConnectionMeter() = default;
ConnectionMeter::~ConnectionMeter() = default;

Sink* ConnectionMeter::OnConnect(const Connection& connection, Sink* sink) {
    counters_.push_back(std::make_unique<Counter>(connection, sink));
    return counters_.back()->GetSink();
}

std::vector<ConnectionCounts> ConnectionMeter::Read() const {
    std::vector<ConnectionCounts> all;
    for (const auto& counter : counters_) {
        all.push_back(counter->Read());
    }
    return all;
}

} // namespace quarn::calvane
