// Runs the pipelines of a description inside a program of its own: embed-example FILE

#include <cstdio>
#include <exception>

#include "calvane/runtime/PipelineManager.h"
#include "quarn/core/IniFile.h"
#include "quarn/core/Logger.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "Usage: embed-example FILE\n");
        return 2;
    }
    try {
        quarn::core::Logger::SetLevels("*=warning");
        quarn::calvane::PipelineManager manager;
        manager.LoadFromIniFile(quarn::core::IniFile(argv[1]));
        manager.PipelinesConstructed();
        manager.Start();
        manager.WaitForFinish(); // Throws the first failure, if there was one.
        manager.Drain();         // Queues may still hold buffers when the pipelines' threads have ended.
        manager.WaitForFinish(); // Throws if the queues' own threads failed meanwhile.
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "embed-example: %s\n", error.what());
        return 1;
    }
}
