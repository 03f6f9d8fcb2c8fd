#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "calvane/Export.h"

namespace quarn::core {
class IniFile;
}

namespace quarn::calvane {

/// One output of a plugin, as a description connects it.
struct DescribedOutput {
    std::string name; ///< Empty for the output without a name.
    std::string key;  ///< The key that lists the successors.
    /// The names in the order of the list; empty where a name is missing between two commas.
    std::vector<std::string> successors;
};

/// The group of one plugin.
struct DescribedPlugin {
    std::string name;
    std::string type;                     ///< Empty when the group has none.
    std::string module;                   ///< Empty for a built-in type.
    std::vector<DescribedOutput> outputs; ///< Those that list successors; the one without a name first.
    std::vector<std::string> settings;    ///< The keys of the plugin's own settings, ascending.
};

/// The group of one pipeline.
struct DescribedPipeline {
    std::string name;
    std::string head; ///< Empty when the group has none.
};

/// A place in a description.
struct DescriptionPlace {
    std::string group;
    std::string key; ///< Empty when the group as a whole is meant.
};

/// One place of a plugin in a pipeline: a plugin that several outputs feed has several.
struct DescriptionStep {
    std::string plugin;              ///< The plugin's name. It need not have a group.
    const DescribedPlugin* upstream; ///< The plugin that names it; null for the head.
    const DescribedOutput* output;   ///< The output of `upstream` that feeds it; null for the head.
    DescriptionPlace place;          ///< Where the plugin is named.
};

/// The model of a pipeline description: which pipelines and plugins there are, and what feeds what. Everything
/// that reads a description reads it through this class.
///
/// Building it finds no fault with the content; CheckDescription reports faults, and loading refuses them.
///
/// Threads:   any number of readers at once.
/// Ownership: the INI file stays the caller's and must outlive this object.
class CALVANE_API Description {
public:
    explicit Description(const core::IniFile& ini);

    const core::IniFile& GetIni() const { return ini_; }

    /// The names that "t.pipelines" lists, in that order; one empty name when its value is empty.
    const std::vector<std::string>& GetPipelineNames() const { return pipelineNames_; }
    /// The group of that name, read as that of a pipeline; every field but the name is empty when there is no
    /// such group.
    DescribedPipeline GetPipeline(const std::string& name) const;
    /// Null when there is no group of that name.
    const DescribedPlugin* FindPlugin(const std::string& name) const;

    /// What a walk along the connections calls.
    class CALVANE_API IVisitor {
    public:
        /// A plugin, before those that follow it. Returns whether to visit these too.
        virtual bool Enter(const DescriptionStep& step) = 0;
        /// The same plugin, after those that follow it. Not called where Enter returned false.
        virtual void Leave(const DescriptionStep& step) = 0;
        /// A plugin that stands before itself, and `cycle`, the way: "a -> b -> a". It is not entered.
        virtual void OnCycle(const DescriptionStep& step, const std::string& cycle) = 0;
        /// A plugin with kLongestPath others before it. It is not entered.
        virtual void OnTooLong(const DescriptionStep& step) = 0;
        virtual ~IVisitor() = default;
    };

    /// Visits the head of a pipeline and what follows it, depth first, in the order in which plugins are made:
    /// the successors of the output without a name first, then those of named outputs in ascending order of
    /// their keys. A plugin is visited in each of its places, unless Enter returns false before. What the visitor
    /// throws ends the walk.
    void Walk(const DescribedPipeline& pipeline, IVisitor& visitor) const;

    /// The line of a place, counted from 1: that of the key, or else of the group. 0 when neither is there.
    unsigned int GetLine(const DescriptionPlace& place) const;

private:
    const core::IniFile& ini_;
    std::vector<std::string> pipelineNames_;
    std::map<std::string, DescribedPlugin> plugins_; // Every group of the file.
};

} // namespace quarn::calvane
