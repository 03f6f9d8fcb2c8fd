#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "calvane/Export.h"
#include "calvane/config/Description.h"

namespace quarn::calvane {

/// A fault of a description.
struct DescriptionFault {
    DescriptionPlace place;
    std::string text;
};

/// The graph of a description, each plugin and each connection once, and the structural faults because of which
/// it cannot be built.
///
/// Threads:  any number of readers at once.
/// Lifetime: the description must outlive this object.
class CALVANE_API DescriptionGraph {
public:
    struct Connection {
        std::string from;
        std::string output; ///< Empty for the output without a name.
        std::string to;
        DescriptionPlace place; ///< Where `to` is listed.
    };

    explicit DescriptionGraph(const Description& description);

    const Description& GetDescription() const { return description_; }
    /// The pipelines that have a group and a head, in the order listed.
    const std::vector<DescribedPipeline>& GetPipelines() const { return pipelines_; }
    /// The plugins that have a group, in the order in which they are made.
    const std::vector<const DescribedPlugin*>& GetPlugins() const { return plugins_; }
    /// Between plugins that have a group; those of one plugin after those of another, in the same order.
    const std::vector<Connection>& GetConnections() const { return connections_; }
    /// Groups and keys of the framework that are missing, names that are missing or stand twice, plugins that
    /// are their own successors, and pipelines beyond the limits in DescriptionKeys.h.
    const std::vector<DescriptionFault>& GetFaults() const { return faults_; }
    /// Every name that the description refers to, the framework's own group included.
    const std::set<std::string>& GetReferences() const { return references_; }

private:
    class Builder;

    const Description& description_;
    std::vector<DescribedPipeline> pipelines_;
    std::vector<const DescribedPlugin*> plugins_;
    std::vector<Connection> connections_;
    std::vector<DescriptionFault> faults_;
    std::set<std::string> references_;
};

} // namespace quarn::calvane
