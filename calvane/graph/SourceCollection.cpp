#include "calvane/graph/SourceCollection.h"

#include <algorithm>

#include "quarn/osa/Exception.h"

namespace quarn::calvane {

SourceCollection::SourceCollection() = default;
SourceCollection::~SourceCollection() = default;

Source* SourceCollection::CreateSource(const std::string& name) {
    const auto [entry, added] = sources_.emplace(name, nullptr);
    if (!added) {
        throw osa::Exception("A source named %s already exists", name.c_str());
    }
    try {
        entry->second = new Source();
    } catch (...) {
        sources_.erase(entry);
        throw;
    }
    return entry->second;
}

Source* SourceCollection::GetSource(const std::string& name) const {
    const auto found = sources_.find(name);
    if (found == sources_.end()) {
        throw osa::Exception("No source named %s exists in collection", name.c_str());
    }
    return found->second;
}

bool SourceCollection::DisconnectSink(const Sink* sink) {
    return std::any_of(sources_.begin(), sources_.end(),
                       [sink](const auto& entry) { return entry.second->Disconnect(sink); });
}

} // namespace quarn::calvane
