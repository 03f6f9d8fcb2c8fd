#include "calvane/config/PipelineLoader.h"

#include <map>
#include <vector>

#include "calvane/config/Description.h"
#include "calvane/config/DescriptionKeys.h"
#include "calvane/config/IPluginFactory.h"
#include "calvane/config/IniPluginConfig.h"
#include "calvane/config/internal/LoadRecord.h"
#include "calvane/graph/FormatException.h"
#include "calvane/graph/PluginContainer.h"
#include "calvane/graph/SettingException.h"
#include "quarn/core/IniFile.h"
#include "quarn/core/Logger.h"
#include "quarn/osa/Exception.h"

namespace quarn::calvane {

namespace {

/// Builds one pipeline along a walk through its description.
class PipelineBuilder final : public Description::IVisitor {
public:
    PipelineBuilder(IPluginFactory& factory, const Description& description, LoadRecord& record)
        : factory_(factory), description_(description), record_(record) {}

    void Build(const DescribedPipeline& pipeline) {
        pipeline_ = pipeline.name;
        record_.threads.AddPipeline(pipeline.name, pipeline.head);
        description_.Walk(pipeline, *this);
        RefuseThreadConflict();
    }

    PluginContainer& GetContainer() { return container_; }

    // Plugins that another pipeline shares live on and must not push to those that go with this failed load.
    void RollBack() {
        record_.threads.RemovePipeline(pipeline_);
        std::map<const PipelinePlugin*, int> held;
        for (const PipelinePlugin* plugin : container_.GetPlugins()) {
            ++held[plugin];
        }
        for (auto made = connections_.rbegin(); made != connections_.rend(); ++made) {
            if (made->downstream->HasNoMoreReferencesThan(held[made->downstream])) {
                made->upstream->DisconnectSink(made->sink);
            }
        }
    }

private:
    struct Connection {
        PipelinePlugin* upstream;
        PipelinePlugin* downstream;
        const Sink* sink;
    };

    bool Enter(const DescriptionStep& step) override {
        if (container_.GetPlugins().size() == keys::kMostPlaces) {
            throw SettingException(step.place.group, step.place.key, keys::kTooManyWays);
        }
        PipelinePlugin* const plugin = CreatePlugin(step.plugin);
        container_.AddPlugin(plugin);
        record_.threads.SetThreading(step.plugin, plugin->GetThreading());
        if (step.upstream != nullptr) {
            record_.place = step.place;
            record_.threads.AddConnection(step.upstream->name, step.plugin, pipeline_);
            Connect(*path_.back(), step, *plugin);
        }
        path_.push_back(plugin);
        return true;
    }

    void Leave(const DescriptionStep&) override { path_.pop_back(); }

    void OnCycle(const DescriptionStep& step, const std::string& cycle) override {
        throw SettingException(step.place.group, step.place.key,
                               "Plugin " + step.plugin + " is its own successor: " + cycle);
    }

    void OnTooLong(const DescriptionStep& step) override {
        throw SettingException(step.place.group, step.place.key, keys::kTooLong);
    }

    PipelinePlugin* CreatePlugin(const std::string& name) {
        record_.place = {name, ""};
        const IniPluginConfig config(&description_.GetIni(), name);
        PluginReference plugin(factory_.CreatePlugin(config));
        if (!plugin) {
            throw SettingException(name, keys::kPluginType,
                                   "No plugin was made for " + name + " of type " + config.GetPluginType());
        }
        // An instance that was there before has read its settings before.
        if (plugin->HasNoMoreReferencesThan(1)) {
            config.LogUnusedSettings();
            for (const std::string& key : config.GetUnusedKeys()) {
                record_.unusedSettings.push_back({name, key});
            }
        }
        return plugin.release();
    }

    void Connect(PipelinePlugin& upstream, const DescriptionStep& step, PipelinePlugin& plugin) {
        Sink* sink = plugin.GetSink();
        if (sink == nullptr) {
            throw SettingException(
                step.place.group, step.place.key,
                "Plugin " + plugin.GetName() + " has no input and cannot follow " + upstream.GetName());
        }
        sink = record_.taps.SinkFor({upstream.GetName(), step.output->name, plugin.GetName()}, sink);
        try {
            if (step.output->name.empty()) {
                upstream.ConnectToSink(sink);
            } else {
                upstream.ConnectToSink(step.output->name, sink);
            }
        } catch (const FormatException& error) {
            record_.detail = "plugin " + plugin.GetName() + " requires " + error.DescribeRequired() +
                             ", plugin " + upstream.GetName() + " offers " + error.DescribeOffered();
            throw;
        } catch (...) {
            record_.detail = DescribeOutputs(upstream);
            throw;
        }
        connections_.push_back({&upstream, &plugin, sink});
    }

    static std::string DescribeOutputs(const PipelinePlugin& plugin) {
        std::string outputs;
        for (const std::string& name : plugin.GetOutputNames()) {
            outputs +=
                (outputs.empty() ? "" : ", ") + (name.empty() ? std::string("one without a name") : name);
        }
        return "plugin " + plugin.GetName() + " has these outputs: " + (outputs.empty() ? "none" : outputs);
    }

    void RefuseThreadConflict() {
        const auto conflict = record_.threads.FindConflict();
        if (!conflict.first.empty()) {
            throw SettingException(conflict.first, "", PipelineThreads::DescribeConflict(conflict));
        }
    }

    IPluginFactory& factory_;
    const Description& description_;
    LoadRecord& record_;
    std::string pipeline_;
    PluginContainer container_;
    std::vector<PipelinePlugin*> path_; // From the head to the plugin before the one at hand.
    std::vector<Connection> connections_;
};

} // namespace

class PipelineLoader::PipelineLoaderImpl {
public:
    PipelineLoaderImpl(IPluginFactory* factory, LoadRecord* record) : factory_(factory), record_(record) {}

    void LoadPipeline(PluginContainer& container, const Description& description,
                      const std::string& pipelineGroup) {
        logger_->Debug("Constructing pipeline %s", pipelineGroup.c_str());
        if (!description.GetIni().HasValue(pipelineGroup, keys::kHead)) {
            throw SettingException(
                pipelineGroup, keys::kHead,
                std::string("Missing ") + keys::kHead + " setting in " + pipelineGroup + " group");
        }
        LoadRecord ownRecord; // Of one pipeline by itself, which shares its threads with no other.
        LoadRecord& record = record_ != nullptr ? *record_ : ownRecord;
        record.detail.clear();
        PipelineBuilder builder(*factory_, description, record);
        try {
            builder.Build(description.GetPipeline(pipelineGroup));
        } catch (const SettingException& error) {
            record.place = {error.GetGroup(), error.GetKey()};
            Fail(builder, error.what());
            throw;
        } catch (const std::exception& error) {
            Fail(builder, error.what());
            throw;
        } catch (...) {
            Fail(builder, "Unknown exception");
            throw;
        }
        builder.GetContainer().swap(container);
    }

private:
    void Fail(PipelineBuilder& builder, const char* text) {
        logger_->Error("LoadPipeline failed: %s", text);
        builder.RollBack();
    }

    core::Logger* const logger_ = core::Logger::GetLogger("PipelineLoader");
    IPluginFactory* const factory_;
    LoadRecord* const record_;
};

PipelineLoader::PipelineLoader(IPluginFactory* factory) : PipelineLoader(factory, nullptr) {}

PipelineLoader::PipelineLoader(IPluginFactory* factory, LoadRecord* record)
    : impl_(std::make_unique<PipelineLoaderImpl>(factory, record)) {}

PipelineLoader::~PipelineLoader() = default;

void PipelineLoader::LoadPipeline(PluginContainer& container, const core::IniFile& ini,
                                  const std::string& pipelineGroup) {
    impl_->LoadPipeline(container, Description(ini), pipelineGroup);
}

void PipelineLoader::LoadPipeline(PluginContainer& container, const Description& description,
                                  const std::string& pipelineGroup) {
    impl_->LoadPipeline(container, description, pipelineGroup);
}

} // namespace quarn::calvane
