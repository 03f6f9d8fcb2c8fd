#include "RecordingSink.h"
#include "calvane/config/ModuleDefinition.h"

CALVANE_DEFINE_MODULE();
CALVANE_EXPORT_PLUGIN(recording::, RecordingSink);
