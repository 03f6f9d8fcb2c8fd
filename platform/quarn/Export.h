#pragma once

/// Marks what libquarn offers to other libraries; everything else stays hidden.
#define QUARN_API [[gnu::visibility("default")]]
