#include "calvane/graph/internal/RunningPlugin.h"

namespace quarn::calvane {

__thread const char* RunningPlugin::running = nullptr;

} // namespace quarn::calvane
