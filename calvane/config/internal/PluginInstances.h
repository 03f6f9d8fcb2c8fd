#pragma once

#include <map>
#include <memory>
#include <string>

#include "calvane/graph/PipelinePlugin.h"
#include "quarn/osa/Mutex.h"

namespace quarn::calvane {

class CalvaneEnv;

/// The living plugins of one manager, by name. A plugin leaves when it is disposed of.
///
/// Threads:   any; plugins are disposed of wherever the last reference is given back.
/// Ownership: holds no references. Every registered plugin keeps the environment alive.
class PluginInstances : public std::enable_shared_from_this<PluginInstances> {
public:
    /// The plugin of that name with one more reference, or null.
    PipelinePlugin* Find(const std::string& name);
    bool Contains(const std::string& name) const;
    /// `module`: the module that its code comes from, empty for a built-in type.
    void Register(const std::string& name, const std::string& module, PipelinePlugin& plugin,
                  std::shared_ptr<CalvaneEnv> env);
    /// The name of a living plugin from `module`, or the empty text.
    std::string FindUser(const std::string& module) const;

private:
    class Registration;
    struct Entry {
        PipelinePlugin* plugin;
        std::string module;
    };
    void Remove(const std::string& name, const PipelinePlugin* plugin);

    mutable osa::Mutex lock_{"PluginInstances"};
    std::map<std::string, Entry> entries_;
};

} // namespace quarn::calvane
