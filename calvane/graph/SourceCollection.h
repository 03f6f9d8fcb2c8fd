#pragma once

#include <map>
#include <string>

#include "calvane/Export.h"
#include "calvane/graph/Source.h"

namespace quarn::calvane {

/// A plugin's named outputs.
///
/// Threads:   the one that builds the graph.
/// Ownership: the sources are never deleted here. A plugin that wants them freed keeps the pointers and
///            deletes them in its own destructor, when nothing can push through them any more.
class CALVANE_API SourceCollection {
public:
    SourceCollection();
    virtual ~SourceCollection();
    SourceCollection(const SourceCollection&) = delete;
    SourceCollection& operator=(const SourceCollection&) = delete;

    /// Throws Exception "A source named NAME already exists".
    Source* CreateSource(const std::string& name);
    /// Throws Exception "No source named NAME exists in collection".
    Source* GetSource(const std::string& name) const;
    /// Takes `sink` off the first source, in name order, that is connected to it.
    bool DisconnectSink(const Sink* sink);

private:
    std::map<std::string, Source*> sources_;
};

} // namespace quarn::calvane
