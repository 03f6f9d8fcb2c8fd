#pragma once

#include <list>
#include <memory>
#include <string>
#include <vector>

#include "calvane/config/PluginManager.h"
#include "calvane/graph/PipelinePlugin.h"
#include "calvane/graph/Source.h"
#include "calvane/runtime/CalvaneEnv.h"
#include "calvane/testing/CollectingReporter.h"
#include "calvane/testing/CollectingSink.h"
#include "calvane/testing/TestConfiguration.h"
#include "quarn/osa/Exception.h"

namespace quarn::calvane::testkit {

/// Constructs a plugin of a class, the way a module's entry point does.
template <typename Plugin>
PipelinePlugin* Construct(CalvaneEnv* env, const IPluginConfiguration& config) {
    return new Plugin(env, config);
}

/// One plugin alone, for its author's tests: makes it from settings, feeds its input, calls its generator,
/// and collects what leaves it. Its name is "plugin".
///
///     PluginHarness harness(Construct<Upper>, {{"language", "en"}});
///     CollectingSink& output = harness.ConnectOutput();
///     harness.Push("abc");
///     assert(output.GetTexts() == std::vector<std::string>{"ABC"});
///
/// What the plugin throws reaches the test as it would reach the pipeline's thread. It needs no test
/// framework. All of the kit is in headers: a device that runs plugins does not carry it.
///
/// Threads:   one. The plugin may have threads of its own.
/// Ownership: owns the plugin, its environment and the collecting sinks.
/// Lifetime:  construct -> ConnectOutput, SetFormat -> Push, Generate. The first of the latter two calls
///            PipelinesConstructed before. Destruction gives the plugin back first.
class PluginHarness {
public:
    /// `make`: Construct<Class>, or an entry point. Throws what the plugin's constructor throws.
    explicit PluginHarness(PluginFactoryFunction make, const Settings& settings = {})
        : config_(kName, settings), env_(std::make_unique<CalvaneEnv>(&reporter_, false)) {
        plugin_.reset(make(env_.get(), config_));
        AssertMade();
    }
    /// A type of a module, or, if `module` is empty, a built-in one. Throws what PluginManager throws.
    PluginHarness(const std::string& module, const std::string& type, const Settings& settings = {})
        : config_(kName, settings, type, module),
          plugins_(std::make_unique<PluginManager>(&reporter_, false)) {
        plugin_.reset(plugins_->CreatePlugin(config_));
        AssertMade();
    }
    PluginHarness(const PluginHarness&) = delete;
    PluginHarness& operator=(const PluginHarness&) = delete;

    PipelinePlugin& GetPlugin() const { return *plugin_; }
    /// Settings that the plugin did not ask for.
    std::vector<std::string> GetUnreadSettings() const { return config_.GetUnreadKeys(); }

    /// Collects what leaves the plugin's only output from now on. `requiredFormat`: see CollectingSink.
    CollectingSink& ConnectOutput(const BufferFormat& requiredFormat = {}) {
        CollectingSink& output = outputs_.emplace_back(requiredFormat);
        plugin_->ConnectToSink(output.GetSink());
        return output;
    }
    /// The same for a named output.
    CollectingSink& ConnectOutput(const std::string& name, const BufferFormat& requiredFormat = {}) {
        CollectingSink& output = outputs_.emplace_back(requiredFormat);
        plugin_->ConnectToSink(name, output.GetSink());
        return output;
    }

    /// Announces the format of the buffers to come. Until the first call it is the empty one. Throws
    /// "Incompatible formats" when it lacks what the plugin's input requires.
    void SetFormat(const BufferFormat& format) {
        input_.SetFormat(format);
        ConnectInput();
    }
    /// Gives `buffer` to the plugin's input "default" and takes it over, also when the plugin throws.
    void Push(Buffer* buffer) {
        std::unique_ptr<Buffer> owned(buffer);
        ConnectInput();
        Start();
        input_.PushBuffer(owned.release());
    }
    void Push(const std::string& bytes) { Push(MakeBuffer(bytes)); }

    /// Calls the generator once, as a pipeline's thread does, and returns whether it wants to be called
    /// again.
    bool Generate() {
        osa::TimeStruct next;
        return Generate(next);
    }
    /// `next`: set to the least time that the plugin wants between this call and the next; zero for none.
    bool Generate(osa::TimeStruct& next) {
        Start();
        next = {};
        return plugin_->GenerateBuffer(next);
    }
    /// Calls the generator, without the pauses that it asks for, until it is out of data, and returns how
    /// often. Throws when it still has data after `limit` calls.
    unsigned int GenerateAll(unsigned int limit = 10000) {
        for (unsigned int calls = 1; calls <= limit; ++calls) {
            if (!Generate()) {
                return calls;
            }
        }
        throw osa::Exception("%s is not out of data after %u calls", kName, limit);
    }

    /// Waits, without limit, until the plugin has handed on what it keeps.
    void Drain() { plugin_->Drain(); }

    /// "plugin: MESSAGE" for each failure that the plugin reported, from a thread of its own for example.
    std::vector<std::string> GetFailures() const { return reporter_.reports.Get(); }
    /// Waits for a failure from another thread; see Collected::WaitFor.
    bool WaitForFailure() const { return reporter_.reports.WaitFor(1); }

private:
    static constexpr char kName[] = "plugin";

    void AssertMade() const {
        if (!plugin_) {
            throw osa::Exception("No plugin was made");
        }
    }
    // Connecting again does nothing.
    void ConnectInput() {
        Sink* const sink = plugin_->GetSink();
        if (sink == nullptr) {
            throw osa::Exception("%s has no input", kName);
        }
        input_.ConnectTo(sink);
    }
    void Start() {
        if (!started_) {
            started_ = true;
            plugin_->PipelinesConstructed();
        }
    }

    CollectingReporter reporter_;
    const TestConfiguration config_;
    const std::unique_ptr<CalvaneEnv> env_;        // Of a constructed plugin.
    const std::unique_ptr<PluginManager> plugins_; // Of any other.
    std::list<CollectingSink> outputs_;
    Source input_;
    bool started_ = false;
    PluginReference plugin_; // The first to go.
};

} // namespace quarn::calvane::testkit
