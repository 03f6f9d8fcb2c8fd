#pragma once

/// Marks what libcalvane offers to programs and modules; everything else stays hidden.
#define CALVANE_API [[gnu::visibility("default")]]
