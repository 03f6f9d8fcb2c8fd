// Built, so it says, for a version that does not exist yet.

#include "calvane/config/ModuleDefinition.h"

extern "C" [[gnu::visibility("default")]] const CalvaneModuleDefinition gCalvaneModuleDefinition;
const CalvaneModuleDefinition gCalvaneModuleDefinition = {1, 4, 0};
