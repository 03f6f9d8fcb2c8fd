// calvane_paths: sends so many buffers along one path, and does nothing else: instructions.py counts what that takes.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Plugins.h"
#include "calvane/graph/PluginContainer.h"
#include "calvane/plugins/QueuePlugin.h"

using quarn::calvane::DefaultPluginConfiguration;
using quarn::calvane::PipelinePlugin;
using quarn::calvane::PluginContainer;
using quarn::calvane::QueuePlugin;

namespace {

using Holders = std::vector<std::unique_ptr<PluginContainer>>;

/// Adds the plugin in a container of its own; those behind outlive the threads of queues in front of them.
template <typename Plugin>
Plugin* Hold(Holders& holders, Plugin* plugin) {
    holders.push_back(std::make_unique<PluginContainer>());
    holders.back()->AddPlugin(plugin);
    return plugin;
}

void Send(unsigned int onTheWay, const std::vector<PipelinePlugin*>& next, Holders& holders,
          unsigned long count) {
    PluginContainer container;
    auto* const source = new PoolSource(onTheWay);
    container.AddPlugin(source);
    for (PipelinePlugin* plugin : next) {
        source->ConnectToSink(plugin->GetSink());
    }
    for (; count != 0; --count) {
        const quarn::osa::TimeStruct start(true); // As a pipeline's thread does.
        quarn::osa::TimeStruct period;
        container.GenerateBuffer(period);
    }
    for (; !holders.empty(); holders.pop_back()) {
        for (PipelinePlugin* plugin : holders.back()->GetPlugins()) {
            plugin->Drain();
        }
    }
}

void Run(const std::string& path, unsigned long number, unsigned long count) {
    constexpr unsigned int kPoolBlocks = 5;
    constexpr unsigned int kOnTheWay = 200;
    Holders holders;
    if (path == "fan") {
        std::vector<PipelinePlugin*> sinks;
        for (unsigned long i = 0; i != number; ++i) {
            sinks.push_back(Hold(holders, new DeletingSink));
        }
        Send(kPoolBlocks, sinks, holders, count);
        return;
    }
    PipelinePlugin* next = Hold(holders, new DeletingSink);
    const auto putInFront = [&](auto* plugin) {
        plugin->ConnectToSink(next->GetSink());
        next = Hold(holders, plugin);
    };
    const auto newQueue = [] { return new QueuePlugin(nullptr, DefaultPluginConfiguration("QueuePlugin")); };
    if (path == "pass") {
        for (unsigned long i = 0; i != number; ++i) {
            putInFront(new PassThrough);
        }
        Send(kPoolBlocks, {next}, holders, count);
    } else if (path == "queue") {
        putInFront(newQueue());
        Send(static_cast<unsigned int>(number), {next}, holders, count);
    } else if (path == "queues") {
        for (unsigned long i = 0; i != number; ++i) {
            putInFront(newQueue());
        }
        Send(kOnTheWay, {next}, holders, count);
    } else {
        throw std::invalid_argument("there is no path " + path);
    }
}

} // namespace

int main(int argc, char** argv) {
    try {
        if (argc != 4) {
            throw std::invalid_argument(
                "usage: calvane_paths fan SINKS | pass FILTERS | queue ON-THE-WAY | queues QUEUES, and "
                "COUNT");
        }
        Run(argv[1], std::strtoul(argv[2], nullptr, 10), std::strtoul(argv[3], nullptr, 10));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "calvane_paths: %s\n", error.what());
        return 1;
    }
    return 0;
}
