#pragma once

// The graph reads settings through this interface, so it is defined there.
#include "calvane/graph/IPluginConfiguration.h"
