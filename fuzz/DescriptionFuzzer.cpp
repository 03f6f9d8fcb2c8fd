// Any text is read, checked and built, with plugins that have no files and no threads. A description in which
// the check finds no error can be built.

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "Require.h"
#include "calvane/config/DefaultPluginConfiguration.h"
#include "calvane/config/DescriptionCheck.h"
#include "calvane/config/DescriptionKeys.h"
#include "calvane/config/IPluginFactory.h"
#include "calvane/config/PipelineLoader.h"
#include "calvane/graph/PluginContainer.h"
#include "calvane/graph/SinkCollection.h"
#include "calvane/graph/Source.h"
#include "quarn/core/IniFile.h"
#include "quarn/core/Logger.h"
#include "quarn/core/StringUtil.h"
#include "quarn/osa/Exception.h"

namespace {

using namespace quarn::calvane;
using quarn::core::IniFile;

// Loggers are never deleted, so all plugins have the same one, whatever they are named.
const DefaultPluginConfiguration kSameName("plugin");

/// Has an input, and every output that is asked for.
class AnyPlugin : public PipelinePlugin,
                  public PipelinePlugin::IConnectToSinkHandler,
                  public Sink::IBufferHandler {
public:
    explicit AnyPlugin(const IPluginConfiguration& config)
        : PipelinePlugin(kSameName), sinks_(new Sink(this)) {
        SetConnectToSinkHandler(this);
        SetGetSinkHandler(&sinks_);
        (void)config.GetIntOrDefault("number", 1);
        (void)config.GetStringOrDefault("text", "");
    }
    void OnConnectToSink(Sink* sink) override { sources_[""].ConnectTo(sink); }
    void OnConnectToSink(const std::string& name, Sink* sink) override { sources_[name].ConnectTo(sink); }
    bool OnDisconnectSink(const Sink* sink) override {
        bool found = false;
        for (auto& entry : sources_) {
            found = entry.second.Disconnect(sink) || found;
        }
        return found;
    }
    void OnBuffer(const Sink*, Buffer* buffer) override { delete buffer; }

private:
    SinkCollection sinks_;
    std::map<std::string, Source> sources_;
};

/// Gives one instance per name. A plugin that can be reached on many ways is asked for once for each, so that
/// a short text can ask for more than there is time: then it refuses.
class Factory : public IPluginFactory {
public:
    PipelinePlugin* CreatePlugin(const IPluginConfiguration& config) override {
        if (++asked_ > kMostAsked) {
            hasRefused_ = true;
            throw quarn::osa::Exception("too many plugins");
        }
        PluginReference& plugin = plugins_[config.GetPluginName()];
        if (!plugin) {
            plugin.reset(new AnyPlugin(config));
        }
        plugin->IncRefCount();
        return plugin.get();
    }
    bool HasRefused() const { return hasRefused_; }

private:
    static constexpr int kMostAsked = 1000;
    std::map<std::string, PluginReference> plugins_;
    int asked_ = 0;
    bool hasRefused_ = false;
};

bool HasErrors(const IniFile& ini) {
    bool found = false;
    for (const DescriptionDiagnostic& finding : CheckDescription(ini)) {
        REQUIRE(!finding.text.empty());
        REQUIRE(finding.key.empty() || finding.line != 0 || !ini.HasValue(finding.group, finding.key));
        found = found || finding.isError;
    }
    return found;
}

void Build(const IniFile& ini, bool mustWork) {
    Factory factory;
    PipelineLoader loader(&factory);
    const std::string pipelines = ini.GetValueOrDefault(keys::kFrameworkGroup, keys::kPipelines);
    for (const std::string& pipeline : quarn::core::StringUtil::Split(pipelines, ',')) {
        try {
            PluginContainer container;
            loader.LoadPipeline(container, ini, pipeline);
            container.PipelinesConstructed();
        } catch (const quarn::osa::Exception&) {
            REQUIRE(!mustWork || factory.HasRefused());
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool isQuiet = (quarn::core::Logger::SetLevels("off"), true);
    REQUIRE(isQuiet);
    try {
        const IniFile ini = IniFile::FromText({reinterpret_cast<const char*>(data), size}, "f");
        Build(ini, !HasErrors(ini));
    } catch (const quarn::osa::Exception&) { // No INI file.
    }
    return 0;
}
