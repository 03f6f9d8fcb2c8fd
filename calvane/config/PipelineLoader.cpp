#include "calvane/config/PipelineLoader.h"

#include <algorithm>
#include <map>
#include <set>
#include <vector>

#include "calvane/config/DescriptionKeys.h"
#include "calvane/config/IPluginFactory.h"
#include "calvane/config/IniPluginConfig.h"
#include "calvane/config/internal/ConnectionTaps.h"
#include "calvane/graph/PluginContainer.h"
#include "calvane/graph/SettingException.h"
#include "quarn/core/IniFile.h"
#include "quarn/core/Logger.h"
#include "quarn/core/StringUtil.h"
#include "quarn/osa/Exception.h"

namespace quarn::calvane {

namespace {

/// Where a plugin hangs: an output of the one before it. The head of a pipeline hangs nowhere.
struct Upstream {
    PipelinePlugin* plugin = nullptr;
    const std::string* outputName = nullptr; // Null for the default output.
    std::string key;                         // The key that names the successor.
};

} // namespace

class PipelineLoader::PipelineLoaderImpl {
public:
    PipelineLoaderImpl(IPluginFactory* factory, ConnectionTaps* taps) : factory_(factory), taps_(taps) {}

    void LoadPipeline(PluginContainer& container, const core::IniFile& ini,
                      const std::string& pipelineGroup) {
        logger_->Debug("Constructing pipeline %s", pipelineGroup.c_str());
        if (!ini.HasValue(pipelineGroup, keys::kHead)) {
            throw SettingException(
                pipelineGroup, keys::kHead,
                std::string("Missing ") + keys::kHead + " setting in " + pipelineGroup + " group");
        }
        PluginContainer working;
        connections_.clear();
        path_.clear();
        try {
            AddPlugin(working, Upstream(), ini, ini.GetValue(pipelineGroup, keys::kHead));
        } catch (const std::exception& error) {
            logger_->Error("LoadPipeline failed: %s", error.what());
            DisconnectFromSurvivors(working);
            namesMade_.clear();
            throw;
        }
        working.swap(container);
    }

private:
    struct Connection {
        PipelinePlugin* upstream;
        PipelinePlugin* downstream;
        const Sink* sink;
    };

    // Creates one plugin and everything downstream of it.
    void AddPlugin(PluginContainer& container, const Upstream& upstream, const core::IniFile& ini,
                   const std::string& name) {
        RefuseCycle(upstream, name);
        RefuseExcess(container, upstream, name);
        PipelinePlugin* const plugin = CreatePlugin(ini, name);
        container.AddPlugin(plugin);
        if (upstream.plugin != nullptr) {
            Connect(upstream, plugin);
        }
        path_.push_back(name);
        AddSuccessors(container, Upstream{plugin, nullptr, keys::kNext}, ini, name);
        for (const auto& entry : ini[name]) {
            if (core::StringUtil::StartsWith(entry.first, keys::kNextPrefix)) {
                const std::string output = entry.first.substr(sizeof keys::kNextPrefix - 1);
                AddSuccessors(container, Upstream{plugin, &output, entry.first}, ini, name);
            }
        }
        path_.pop_back();
    }

    void AddSuccessors(PluginContainer& container, const Upstream& upstream, const core::IniFile& ini,
                       const std::string& name) {
        const std::string successors = ini.GetValueOrDefault(name, upstream.key);
        if (successors.empty()) {
            return;
        }
        for (const std::string& successor : core::StringUtil::Split(successors, ',')) {
            AddPlugin(container, upstream, ini, successor);
        }
    }

    PipelinePlugin* CreatePlugin(const core::IniFile& ini, const std::string& name) {
        const IniPluginConfig config(&ini, name);
        PluginReference plugin(factory_->CreatePlugin(config));
        if (!plugin) {
            throw SettingException(name, keys::kPluginType,
                                   "No plugin was made for " + name + " of type " + config.GetPluginType());
        }
        if (namesMade_.insert(name).second) {
            config.LogUnusedSettings();
        } // Otherwise it is an instance that was made before and reads no settings again.
        return plugin.release();
    }

    void Connect(const Upstream& upstream, PipelinePlugin* plugin) {
        Sink* sink = plugin->GetSink();
        if (sink == nullptr) {
            throw SettingException(upstream.plugin->GetName(), upstream.key,
                                   "Plugin " + plugin->GetName() + " has no input and cannot follow " +
                                       upstream.plugin->GetName());
        }
        if (taps_ != nullptr) {
            const std::string output = upstream.outputName != nullptr ? *upstream.outputName : "";
            sink = taps_->SinkFor({upstream.plugin->GetName(), output, plugin->GetName()}, sink);
        }
        try {
            if (upstream.outputName != nullptr) {
                upstream.plugin->ConnectToSink(*upstream.outputName, sink);
            } else {
                upstream.plugin->ConnectToSink(sink);
            }
        } catch (const osa::Exception& error) {
            throw SettingException(upstream.plugin->GetName(), upstream.key, error.what());
        }
        connections_.push_back({upstream.plugin, plugin, sink});
    }

    void RefuseCycle(const Upstream& upstream, const std::string& name) const {
        // A path can be long: it is looked through only for a name that was met before.
        if (namesMade_.count(name) == 0 || std::find(path_.begin(), path_.end(), name) == path_.end()) {
            return;
        }
        std::string way;
        for (const std::string& step : path_) {
            way += step + " -> ";
        }
        throw SettingException(path_.back(), upstream.key,
                               "Plugin " + name + " is its own successor: " + way + name);
    }

    void RefuseExcess(const PluginContainer& container, const Upstream& upstream,
                      const std::string& name) const {
        const std::string group = path_.empty() ? name : path_.back();
        if (path_.size() == keys::kLongestPath) {
            throw SettingException(group, upstream.key, keys::kTooLong);
        }
        if (container.GetPlugins().size() == keys::kMostPlaces) {
            throw SettingException(group, upstream.key, keys::kTooManyWays);
        }
    }

    // Plugins that another pipeline shares live on and must not push to those that go with this failed load.
    void DisconnectFromSurvivors(const PluginContainer& failed) {
        std::map<const PipelinePlugin*, int> held;
        for (const PipelinePlugin* plugin : failed.GetPlugins()) {
            ++held[plugin];
        }
        for (auto made = connections_.rbegin(); made != connections_.rend(); ++made) {
            if (made->downstream->HasNoMoreReferencesThan(held[made->downstream])) {
                made->upstream->DisconnectSink(made->sink);
            }
        }
    }

    core::Logger* const logger_ = core::Logger::GetLogger("PipelineLoader");
    IPluginFactory* const factory_;
    ConnectionTaps* const taps_;
    std::vector<std::string> path_; // From the head down to the plugin being built.
    std::vector<Connection> connections_;
    std::set<std::string> namesMade_;
};

PipelineLoader::PipelineLoader(IPluginFactory* factory, ConnectionTaps* taps)
    : impl_(std::make_unique<PipelineLoaderImpl>(factory, taps)) {}

PipelineLoader::~PipelineLoader() = default;

void PipelineLoader::LoadPipeline(PluginContainer& container, const core::IniFile& ini,
                                  const std::string& pipelineGroup) {
    impl_->LoadPipeline(container, ini, pipelineGroup);
}

} // namespace quarn::calvane
