#pragma once

#include "calvane/Export.h"

namespace quarn::calvane {

/// From now on a signal that ends the process because of a fault in it (SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT)
/// is reported with one line on standard error, which names the plugin that the thread was in and the thread:
///
///     PROGRAM: SIGSEGV in plugin writer on thread copy (4711)
///
/// The signal then has the effect that it would have had: a core is dumped, a debugger or a sanitizer sees it.
///
/// Threads: one, before others are started. Threads of pipelines and queues have a stack for the report, so that
///          an overflow of their own stack is reported too.
/// `program` lives as long as the process.
CALVANE_API void InstallCrashReport(const char* program);

} // namespace quarn::calvane
