#include <utility>

#include "calvane/config/internal/PluginInstances.h"
#include "quarn/osa/MutexAutoLock.h"

namespace quarn::calvane {

/// Belongs to a plugin and takes its name out of the map when the plugin goes.
class PluginInstances::Registration : public PipelinePlugin::IAttachment {
public:
    Registration(std::weak_ptr<PluginInstances> instances, std::string name, const PipelinePlugin* plugin,
                 std::shared_ptr<CalvaneEnv> env)
        : instances_(std::move(instances)), name_(std::move(name)), plugin_(plugin), env_(std::move(env)) {}
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

    ~Registration() override {
        if (const auto instances = instances_.lock()) {
            instances->Remove(name_, plugin_);
        }
    }

private:
    const std::weak_ptr<PluginInstances> instances_;
    const std::string name_;
    const PipelinePlugin* const plugin_;
    const std::shared_ptr<CalvaneEnv> env_; // Held, never used: plugins rely on it to the end.
};

PipelinePlugin* PluginInstances::Find(const std::string& name) {
    const osa::MutexAutoLock lock(lock_);
    const auto found = entries_.find(name);
    if (found == entries_.end() || !found->second.plugin->IncRefCountIfAlive()) {
        return nullptr;
    }
    return found->second.plugin;
}

bool PluginInstances::Contains(const std::string& name) const {
    const osa::MutexAutoLock lock(lock_);
    return entries_.count(name) != 0;
}

void PluginInstances::Register(const std::string& name, const std::string& module, PipelinePlugin& plugin,
                               std::shared_ptr<CalvaneEnv> env) {
    plugin.Attach(std::make_unique<Registration>(weak_from_this(), name, &plugin, std::move(env)));
    const osa::MutexAutoLock lock(lock_);
    entries_.insert_or_assign(name, Entry{&plugin, module});
}

std::string PluginInstances::FindUser(const std::string& module) const {
    const osa::MutexAutoLock lock(lock_);
    for (const auto& [name, entry] : entries_) {
        if (entry.module == module) {
            return name;
        }
    }
    return {};
}

void PluginInstances::Remove(const std::string& name, const PipelinePlugin* plugin) {
    const osa::MutexAutoLock lock(lock_);
    const auto found = entries_.find(name);
    if (found != entries_.end() && found->second.plugin == plugin) {
        entries_.erase(found);
    }
}

} // namespace quarn::calvane
