#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "calvane/config/IPluginFactory.h"
#include "calvane/graph/BasicFilterPlugin.h"
#include "calvane/graph/BasicSinkPlugin.h"
#include "calvane/graph/BasicSourcePlugin.h"
#include "calvane/graph/MultiOutputFilterPlugin.h"
#include "calvane/testing/CollectingReporter.h"
#include "quarn/core/IniFile.h"
#include "quarn/core/LogCapture.h"
#include "support/TestBuffers.h"
#include "support/TestConfig.h"
#include "support/ThrownText.h"

using PluginPtr = quarn::calvane::PluginReference;
using quarn::core::IniFile;
using quarn::core::LogCapture;
using TestReporter = quarn::calvane::testkit::CollectingReporter;

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
class Collector : public quarn::calvane::testkit::Collected<std::string> {
public:
    TestSink::Action Action() {
        return [this](quarn::calvane::Buffer& buffer) { Add(TextOf(buffer)); };
    }
};

class TestFilter : public quarn::calvane::BasicFilterPlugin {
public:
    explicit TestFilter(const std::string& name) : BasicFilterPlugin(TestConfig(name)) {
        SetThreading(quarn::calvane::PluginThreading::Any);
    }
    void OnBuffer(const quarn::calvane::Sink*, quarn::calvane::Buffer* buffer) override {
        source->PushBuffer(buffer);
    }
};

/// Gives its output "a" a duplicate of every buffer, and then "b" the buffer itself.
class TestSplitter : public quarn::calvane::MultiOutputFilterPlugin {
public:
    explicit TestSplitter(const std::string& name) : MultiOutputFilterPlugin(TestConfig(name)) {
        SetThreading(quarn::calvane::PluginThreading::Any);
    }
    void OnBuffer(const quarn::calvane::Sink*, quarn::calvane::Buffer* buffer) override {
        a_->PushBuffer(buffer->Duplicate());
        b_->PushBuffer(buffer);
    }

private:
    const std::unique_ptr<quarn::calvane::Source> a_{CreateSource("a")};
    const std::unique_ptr<quarn::calvane::Source> b_{CreateSource("b")};
};

/// Calls a function to generate; what that returns tells whether to be called again.
class TestSource : public quarn::calvane::BasicSourcePlugin {
public:
    using Generator = std::function<bool(quarn::calvane::Source&, quarn::osa::TimeStruct&)>;
    explicit TestSource(
        const std::string& name, Generator generator = [](auto&, auto&) { return false; })
        : BasicSourcePlugin(TestConfig(name)), generator_(std::move(generator)) {}
    bool OnGenerateBuffer(quarn::osa::TimeStruct& next) override { return generator_(*source, next); }

private:
    const Generator generator_;
};

/// Makes plugins with functions that a test enters by type name. Keeps no instances.
class TestFactory : public quarn::calvane::IPluginFactory {
public:
    using Maker = std::function<quarn::calvane::PipelinePlugin*(const quarn::calvane::IPluginConfiguration&)>;
    quarn::calvane::PipelinePlugin* CreatePlugin(
        const quarn::calvane::IPluginConfiguration& config) override {
        return makers.at(config.GetPluginType())(config);
    }

    std::map<std::string, Maker> makers;
};
