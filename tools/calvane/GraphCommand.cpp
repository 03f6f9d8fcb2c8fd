#include <algorithm>
#include <iostream>
#include <sstream>

#include "Commands.h"
#include "Source.h"
#include "calvane/config/PipelineThreads.h"
#include "command_line/ExitStatus.h"
#include "pipelines/CheckedDescription.h"

namespace calvane_program {

namespace {

using quarn::calvane::DescribedPlugin;
using quarn::calvane::DescriptionGraph;
using quarn::calvane::PipelineThreads;

// A quoted text of the DOT language. There, a backslash starts an escape, and in what is shown a & starts the
// name of a character.
std::string Quote(const std::string& text) {
    std::string quoted = "\"";
    for (const char letter : text) {
        if (letter == '"' || letter == '\\') {
            quoted += '\\';
        }
        quoted += letter;
        if (letter == '&') {
            quoted += "amp;";
        }
    }
    return quoted + '"';
}

// Lines that are shown one below the other.
std::string QuoteLines(const std::vector<std::string>& lines) {
    std::string all;
    for (const std::string& line : lines) {
        const std::string quoted = Quote(line);
        all += (all.empty() ? "" : "\\n") + quoted.substr(1, quoted.size() - 2);
    }
    return '"' + all + '"';
}

/// The threads that work on each plugin. A plugin whose type declares nothing is taken to work on those before it.
PipelineThreads::NamesByPlugin FindThreads(CheckedDescription& description) {
    const DescriptionGraph& graph = description.GetGraph();
    PipelineThreads threads;
    for (const auto& pipeline : graph.GetPipelines()) {
        threads.AddPipeline(pipeline.name, pipeline.head);
    }
    for (const auto& connection : graph.GetConnections()) {
        threads.AddConnection(connection.from, connection.to);
    }
    for (const DescribedPlugin* plugin : graph.GetPlugins()) {
        if (const auto* declaration = description.GetTypes().FindDeclaration(plugin->module, plugin->type)) {
            threads.SetThreading(plugin->name, declaration->threading);
        }
    }
    return threads.FindWorkers();
}

std::string FrameOf(const std::set<std::string>& threads) {
    std::string all;
    for (const std::string& thread : threads) {
        all += (all.empty() ? "" : ", ") + thread;
    }
    return (threads.size() == 1 ? "thread: " : "several threads: ") + all;
}

void WriteFrame(std::ostream& out, size_t number, const std::string& frame,
                const std::vector<const DescribedPlugin*>& plugins) {
    out << "  subgraph cluster_" << number << " {\n    label=" << Quote(frame) << ";\n";
    for (const DescribedPlugin* plugin : plugins) {
        std::vector<std::string> lines{plugin->name, plugin->type};
        if (!plugin->module.empty()) {
            lines.push_back(plugin->module);
        }
        out << "    " << Quote(plugin->name) << " [label=" << QuoteLines(lines) << "];\n";
    }
    out << "  }\n";
}

void WriteConnection(std::ostream& out, const DescriptionGraph::Connection& connection) {
    out << "  " << Quote(connection.from) << " -> " << Quote(connection.to);
    if (!connection.output.empty()) {
        out << " [label=" << Quote(connection.output) << "]";
    }
    out << ";\n";
}

std::string ToDot(const DescriptionGraph& graph, const PipelineThreads::NamesByPlugin& threads) {
    std::ostringstream out;
    out << "digraph {\n  rankdir=LR;\n  node [shape=box];\n";
    std::vector<std::string> frames; // In the order of their first plugins.
    std::map<std::string, std::vector<const DescribedPlugin*>> plugins;
    for (const DescribedPlugin* plugin : graph.GetPlugins()) {
        const std::string frame = FrameOf(threads.at(plugin->name));
        if (plugins[frame].empty()) {
            frames.push_back(frame);
        }
        plugins[frame].push_back(plugin);
    }
    for (size_t i = 0; i != frames.size(); ++i) {
        WriteFrame(out, i, frames[i], plugins[frames[i]]);
    }
    for (const DescriptionGraph::Connection& connection : graph.GetConnections()) {
        WriteConnection(out, connection);
    }
    out << "}\n";
    return out.str();
}

} // namespace

int Graph(const DescriptionSource& source) {
    try {
        CheckedDescription description(ReadDescription(source));
        if (!description.Check()) {
            return kBadInput;
        }
        std::cout << ToDot(description.GetGraph(), FindThreads(description)) << std::flush;
        return kDone;
    } catch (const std::exception& error) {
        PrintError(error.what());
        return kBadInput;
    }
}

} // namespace calvane_program
