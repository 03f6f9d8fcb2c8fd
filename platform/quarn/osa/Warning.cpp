#include "quarn/osa/Warning.h"

#include <atomic>
#include <cstdio>

namespace quarn::osa {

namespace {

void WriteToStandardError(const char* text) {
    std::fprintf(stderr, "%s\n", text);
}

std::atomic<WarningHandler> currentHandler{&WriteToStandardError};

} // namespace

void SetWarningHandler(WarningHandler handler) {
    currentHandler.store(handler);
}

void Warn(const char* text) {
    currentHandler.load()(text);
}

} // namespace quarn::osa
