#pragma once

/// Marks what libdrenn offers to programs; everything else stays hidden.
#define DRENN_API [[gnu::visibility("default")]]
