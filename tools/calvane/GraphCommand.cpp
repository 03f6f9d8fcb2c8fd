#include "calvane/GraphCommand.h"

#include <algorithm>
#include <iostream>
#include <sstream>

#include "calvane/DescribedGraph.h"
#include "calvane/ExitStatus.h"
#include "calvane/Findings.h"

namespace calvane_program {

namespace {

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

std::string FrameOf(const std::set<std::string>& threads) {
    std::string all;
    for (const std::string& thread : threads) {
        all += (all.empty() ? "" : ", ") + thread;
    }
    return (threads.size() == 1 ? "thread: " : "several threads: ") + all;
}

void WriteFrame(std::ostream& out, size_t number, const std::string& frame, const DescribedGraph& graph) {
    out << "  subgraph cluster_" << number << " {\n    label=" << Quote(frame) << ";\n";
    for (const std::string& plugin : graph.GetPlugins()) {
        if (FrameOf(graph.GetThreads(plugin)) != frame) {
            continue;
        }
        std::vector<std::string> lines{plugin, graph.GetType(plugin)};
        if (!graph.GetModule(plugin).empty()) {
            lines.push_back(graph.GetModule(plugin));
        }
        out << "    " << Quote(plugin) << " [label=" << QuoteLines(lines) << "];\n";
    }
    out << "  }\n";
}

void WriteConnection(std::ostream& out, const DescribedGraph::Connection& connection) {
    out << "  " << Quote(connection.from) << " -> " << Quote(connection.to);
    if (!connection.output.empty()) {
        out << " [label=" << Quote(connection.output) << "]";
    }
    out << ";\n";
}

std::string ToDot(const DescribedGraph& graph) {
    std::ostringstream out;
    out << "digraph {\n  rankdir=LR;\n  node [shape=box];\n";
    std::vector<std::string> frames;
    for (const std::string& plugin : graph.GetPlugins()) {
        const std::string frame = FrameOf(graph.GetThreads(plugin));
        if (std::find(frames.begin(), frames.end(), frame) == frames.end()) {
            WriteFrame(out, frames.size(), frame, graph);
            frames.push_back(frame);
        }
    }
    for (const DescribedGraph::Connection& connection : graph.GetConnections()) {
        WriteConnection(out, connection);
    }
    out << "}\n";
    return out.str();
}

} // namespace

int Graph(const std::string& file) {
    try {
        const quarn::core::IniFile ini(file);
        unsigned int warnings = 0;
        if (PrintFindings(ini, warnings) != 0) {
            return kBadInput;
        }
        std::cout << ToDot(DescribedGraph(ini)) << std::flush;
        return kDone;
    } catch (const std::exception& error) {
        PrintError(error.what());
        return kBadInput;
    }
}

} // namespace calvane_program
