// Compiled only to fail where offsets in files or times have 32 bits: there a write at 5 GiB would land at 1 GiB
// without a word.

#include <sys/types.h>

#include <ctime>

static_assert(sizeof(off_t) == 8, "build with _FILE_OFFSET_BITS=64");
static_assert(sizeof(std::time_t) == 8, "build with _TIME_BITS=64");
