#include "CommandLine.h"
#include "FleetContent.h"

namespace {

using namespace calvane_web;

int Serve(const CommandLine& line, char** /*argv*/) {
    return RunWebServer(line.web, [&line] { return std::make_unique<FleetContent>(line.nats); });
}

} // namespace

int main(int argc, char** argv) {
    return RunProgram(argc, argv, &Serve);
}
