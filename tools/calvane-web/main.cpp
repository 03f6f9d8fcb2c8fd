#include "CommandLine.h"
#include "RecorderContent.h"
#include "command_line/OtherProgram.h"

namespace {

using namespace calvane_web;

int Serve(const CommandLine& line, char** argv) {
    if (line.isOfFleet) { // A program of its own, so that a device does without the client of NATS.
        calvane_program::BecomeProgram("calvane-web-fleet", argv, "--fleet", "the client of NATS", "fleet");
    }
    return RunWebServer(line.web, [] { return std::make_unique<RecorderContent>(); });
}

} // namespace

int main(int argc, char** argv) {
    return RunProgram(argc, argv, &Serve);
}
