// What the module exports: the version that it was built against, once, and each plugin type.

#include "ByteMaskFilter.h"
#include "ChecksumSink.h"
#include "PatternSource.h"
#include "calvane/config/ModuleDefinition.h"

CALVANE_DEFINE_MODULE();
CALVANE_EXPORT_PLUGIN(patterns::, PatternSource);
CALVANE_EXPORT_PLUGIN(patterns::, ByteMaskFilter);
CALVANE_EXPORT_PLUGIN(patterns::, ChecksumSink);
