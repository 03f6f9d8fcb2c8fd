#include "StatsPrinter.h"

#include <unistd.h>

#include <algorithm>
#include <iostream>

#include "quarn/osa/FormatText.h"

namespace calvane_program {

namespace {

using quarn::osa::TimeMonotonic;
using quarn::osa::TimeStruct;

double Seconds(const TimeStruct& interval) {
    return interval.seconds + interval.microseconds / 1e6;
}

} // namespace

StatsPrinter::StatsPrinter(double secondsBetween)
    : periodMs_(static_cast<unsigned int>(secondsBetween * 1000)),
      onTerminal_(isatty(STDOUT_FILENO) != 0),
      thread_("Stats", this, 0, 0) {}

StatsPrinter::~StatsPrinter() {
    End();
}

void StatsPrinter::Begin(const quarn::calvane::PipelineManager& manager) {
    manager_ = &manager;
    start_ = last_ = TimeMonotonic();
    thread_.Run();
}

void StatsPrinter::End() {
    if (manager_ == nullptr) {
        return;
    }
    Stop();
    thread_.Join();
    Print();
    if (onTerminal_) {
        std::cout << std::string(before_.size() + 2, '\n'); // Past the table.
    }
    std::cout << std::flush;
    manager_ = nullptr;
}

void StatsPrinter::Run() {
    while (!stop_.TryLock(periodMs_)) {
        Print();
    }
}

// On a terminal the cursor goes back to the top of the table. What others print meanwhile then stays readable
// there, above the next table.
void StatsPrinter::Print() {
    const TimeStruct now = TimeMonotonic();
    const double period = std::max(Seconds(now - last_), 1e-6);
    std::vector<PluginThroughput> plugins = SumUp(meter_.Read(), manager_->GetQueueStatus());
    const std::string head =
        quarn::osa::FormatText("stats after %.1f s, of the last %.1f s:", Seconds(now - start_), period);
    std::string text = onTerminal_ ? "\x1b[J\n" + head + "\n" : "";
    const std::vector<std::string> lines =
        onTerminal_ ? FormatTable(before_, plugins, period) : FormatLines(before_, plugins, period);
    for (const std::string& line : lines) {
        if (!onTerminal_) {
            text += head;
            text += ' ';
        }
        text += line;
        text += '\n';
    }
    if (onTerminal_) {
        text += quarn::osa::FormatText("\x1b[%uA", static_cast<unsigned int>(lines.size() + 2));
    }
    std::cout << text << std::flush;
    before_ = std::move(plugins);
    last_ = now;
}

} // namespace calvane_program
