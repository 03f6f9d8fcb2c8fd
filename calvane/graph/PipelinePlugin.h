#pragma once

#include <memory>
#include <string>
#include <vector>

#include "calvane/Export.h"
#include "calvane/graph/PluginThreading.h"
#include "calvane/graph/QueueStatistics.h"
#include "calvane/graph/Sink.h"
#include "quarn/osa/TimeStruct.h"

namespace quarn::core {
class Logger;
}

namespace quarn::calvane {

class IPluginConfiguration;

/// The base of every node of a pipeline: a name, a logger of that name, a count of references, and operations
/// that a concrete plugin fills in by installing handlers. Derive from one of the base classes beside it
/// (BasicSourcePlugin, BasicFilterPlugin, ...) unless none fits.
///
/// Threads:   references may be counted on any thread. Everything else belongs to the thread that builds the
///            graph, then GenerateBuffer to the pipeline's thread.
/// Ownership: shared. The creator holds one reference; each further holder calls IncRefCount, and each gives
///            its own back with Destroy, never with delete. Handlers stay the caller's.
/// Lifetime:  created -> handlers installed -> connected -> PipelinesConstructed -> GenerateBuffer and
///            OnBuffer calls -> Destroy of the last reference. Nothing is disconnected on the way out.
class CALVANE_API PipelinePlugin {
public:
    /// Produces buffers.
    class CALVANE_API IGenerateBufferHandler {
    public:
        /// Pushes what is ready and returns whether to be called again; false means out of data. `next` comes
        /// in as zero. Set, it is the shortest time from the start of this call to the next one.
        virtual bool OnGenerateBuffer(osa::TimeStruct& next) = 0;
        virtual ~IGenerateBufferHandler() = default;
    };

    /// Connects the plugin's outputs.
    class CALVANE_API IConnectToSinkHandler {
    public:
        virtual void OnConnectToSink(Sink* sink) = 0;
        virtual void OnConnectToSink(const std::string& sourceName, Sink* sink) = 0;
        /// Returns whether an output was connected to `sink`.
        virtual bool OnDisconnectSink(const Sink* sink) = 0;
        virtual ~IConnectToSinkHandler() = default;
    };

    /// Names the plugin's inputs.
    class CALVANE_API IGetSinkHandler {
    public:
        /// Null when there is no input of that name.
        virtual Sink* OnGetSink(const std::string& sinkName) = 0;
        virtual ~IGetSinkHandler() = default;
    };

    /// Flushes a plugin that buffers data.
    class CALVANE_API IDrainHandler {
    public:
        /// Returns when everything that the plugin had accepted has been handed on or deleted.
        virtual void OnDrain() = 0;
        virtual ~IDrainHandler() = default;
    };

    /// Returns statistics of a plugin that queues buffers.
    class CALVANE_API IQueueStatisticsHandler {
    public:
        /// Any thread.
        virtual QueueStatistics OnGetQueueStatistics() const = 0;
        virtual ~IQueueStatisticsHandler() = default;
    };

    /// Called once, when all pipelines exist and none runs.
    virtual void PipelinesConstructed() {}
    /// Only Destroy deletes a plugin.
    virtual ~PipelinePlugin();

    explicit PipelinePlugin(const IPluginConfiguration& config);
    explicit PipelinePlugin(const char* name);
    PipelinePlugin(const PipelinePlugin&) = delete;
    PipelinePlugin& operator=(const PipelinePlugin&) = delete;

    std::string GetName() const;

    /// The input named "default".
    Sink* GetSink();
    /// Null when there is no such input; a plugin without inputs also logs a warning.
    Sink* GetSink(const std::string& name);
    /// Connects the plugin's only output. Throws Exception "Unable to connect to plugin NAME: No source
    /// available" when it has none, and what the plugin itself throws.
    void ConnectToSink(Sink* sink);
    /// Connects the output of that name.
    void ConnectToSink(const std::string& sourceName, Sink* sink);
    /// Returns whether an output was connected to `sink`.
    bool DisconnectSink(const Sink* sink);
    /// The outputs that the plugin has declared, in that order; the empty name stands for the only output of
    /// a plugin that names none.
    const std::vector<std::string>& GetOutputNames() const;
    /// See IGenerateBufferHandler. A plugin that produces nothing logs a warning and is out of data.
    bool GenerateBuffer(osa::TimeStruct& next);
    /// Waits, without limit, until the plugin has handed on everything that it had accepted. Plugins that
    /// keep nothing return at once. Any thread but the plugin's own.
    void Drain();

    /// How many threads may call the plugin: one, unless the plugin says otherwise.
    PluginThreading GetThreading() const;

    /// Returns false and leaves `statistics` alone when the plugin has no queue. Any thread.
    bool GetQueueStatistics(QueueStatistics& statistics) const;

    void SetGenerateBufferHandler(IGenerateBufferHandler* handler);
    void SetConnectToSinkHandler(IConnectToSinkHandler* handler);
    void SetGetSinkHandler(IGetSinkHandler* handler);
    void SetDrainHandler(IDrainHandler* handler);
    void SetQueueStatisticsHandler(IQueueStatisticsHandler* handler);
    /// In the constructor. Loading refuses a description in which more threads call the plugin than it allows.
    void SetThreading(PluginThreading threading);
    /// Lets others know of an output. The base classes beside this one do so themselves; it connects nothing.
    void DeclareOutput(const std::string& name);

    /// Logs `message` and throws it as an Exception, with the plugin's name and ": " before it.
    [[noreturn]] void Error(const std::string& message) const;
    /// The same for a fault of one setting: a SettingException, so that a program can name the line.
    [[noreturn]] void ErrorInSetting(const std::string& key, const std::string& message) const;

    void IncRefCount();
    bool HasNoMoreReferencesThan(int count) const;
    /// Gives one reference back and deletes the plugin with the last one. Null is ignored.
    static void Destroy(PipelinePlugin* plugin);

    void swap(PipelinePlugin& other) noexcept;

private:
    friend class PluginInstances;
    class PipelinePluginImpl;

    /// Something that is deleted when the plugin is disposed of.
    class IAttachment {
    public:
        virtual ~IAttachment() = default;
    };
    void Attach(std::unique_ptr<IAttachment> attachment);
    /// Adds a reference unless the last one has been given back.
    bool IncRefCountIfAlive();
    std::unique_ptr<PipelinePluginImpl> impl_;

protected:
    core::Logger* logger;
};

/// Gives a reference to a plugin back.
struct PluginReleaser {
    void operator()(PipelinePlugin* plugin) const { PipelinePlugin::Destroy(plugin); }
};

/// One reference to a plugin.
using PluginReference = std::unique_ptr<PipelinePlugin, PluginReleaser>;

} // namespace quarn::calvane
