#pragma once

/* Marks what libdrenn offers to programs; everything else stays hidden. Also for C. */
#ifdef __cplusplus
#define DRENN_API [[gnu::visibility("default")]]
#else
#define DRENN_API __attribute__((visibility("default")))
#endif
