#include "calvane/graph/SinkCollection.h"

namespace quarn::calvane {

SinkCollection::SinkCollection(Sink* sink) : sink_(sink) {}

Sink* SinkCollection::OnGetSink(const std::string& sinkName) {
    return sinkName == "default" ? sink_.get() : nullptr;
}

SinkCollection::~SinkCollection() = default;

} // namespace quarn::calvane
