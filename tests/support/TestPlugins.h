#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "calvane/config/IPluginFactory.h"
#include "calvane/graph/BasicFilterPlugin.h"
#include "calvane/graph/BasicSinkPlugin.h"
#include "calvane/graph/BasicSourcePlugin.h"
#include "calvane/runtime/IPipelineReporter.h"
#include "quarn/osa/Exception.h"
#include "support/TestBuffers.h"
#include "support/TestConfig.h"

using PluginPtr = quarn::calvane::PluginReference;

/// Calls a function for every buffer and deletes it.
class TestSink : public quarn::calvane::BasicSinkPlugin {
public:
    using Action = std::function<void(quarn::calvane::Buffer&)>;
    explicit TestSink(
        const std::string& name, Action action = [](auto&) {})
        : BasicSinkPlugin(TestConfig(name)), action_(std::move(action)) {}
    void OnBuffer(const quarn::calvane::Sink*, quarn::calvane::Buffer* buffer) override {
        const std::unique_ptr<quarn::calvane::Buffer> owned(buffer);
        action_(*owned);
    }

private:
    const Action action_;
};

/// Collects the texts of the buffers that it is given. Safe across threads.
class Collector {
public:
    TestSink::Action Action() {
        return [this](quarn::calvane::Buffer& buffer) { Add(TextOf(buffer)); };
    }
    void Add(const std::string& text) {
        const std::lock_guard<std::mutex> lock(lock_);
        texts_.push_back(text);
    }
    std::vector<std::string> Get() const {
        const std::lock_guard<std::mutex> lock(lock_);
        return texts_;
    }

private:
    mutable std::mutex lock_;
    std::vector<std::string> texts_;
};

class TestFilter : public quarn::calvane::BasicFilterPlugin {
public:
    explicit TestFilter(const std::string& name) : BasicFilterPlugin(TestConfig(name)) {}
    void OnBuffer(const quarn::calvane::Sink*, quarn::calvane::Buffer* buffer) override {
        source->PushBuffer(buffer);
    }
};

/// Calls a function to generate; what that returns tells whether to be called again.
class TestSource : public quarn::calvane::BasicSourcePlugin {
public:
    using Generator = std::function<bool(quarn::calvane::Source&, quarn::osa::TimeStruct&)>;
    explicit TestSource(
        const std::string& name, Generator generator = [](auto&, auto&) { return false; })
        : BasicSourcePlugin(TestConfig(name)), generator_(std::move(generator)) {}
    bool OnGenerateBuffer(quarn::osa::TimeStruct& next) override { return generator_(*source, next); }

    quarn::calvane::Source& GetSource() { return *source; }

private:
    const Generator generator_;
};

/// Makes plugins with functions that a test enters by type name. Keeps no instances.
class TestFactory : public quarn::calvane::IPluginFactory {
public:
    using Maker = std::function<quarn::calvane::PipelinePlugin*(const quarn::calvane::IPluginConfiguration&)>;
    quarn::calvane::PipelinePlugin* CreatePlugin(
        const quarn::calvane::IPluginConfiguration& config) override {
        created.push_back(config.GetPluginName());
        const auto found = makers.find(config.GetPluginType());
        if (found == makers.end()) {
            throw quarn::osa::Exception("no maker for " + config.GetPluginType());
        }
        return found->second(config);
    }

    std::map<std::string, Maker> makers;
    std::vector<std::string> created;
};

/// Keeps what is reported.
class TestReporter : public quarn::calvane::IPipelineReporter {
public:
    void ReportFailure(const std::string& name, const std::string& message) override {
        reports.Add(name + ": " + message);
    }
    Collector reports;
};

/// Runs `action` and returns the text of the Exception that it throws, or "nothing was thrown".
template <typename ExceptionType = quarn::osa::Exception>
std::string ThrownText(const std::function<void()>& action) {
    try {
        action();
    } catch (const ExceptionType& error) {
        return error.what();
    }
    return "nothing was thrown";
}
