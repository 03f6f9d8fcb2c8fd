// A module that exports no plugin type.

#include "calvane/config/ModuleDefinition.h"

CALVANE_DEFINE_MODULE();
