// Its version is zeros that the file does not hold.

#include <cstdint>

extern "C" [[gnu::visibility("default")]] std::uint16_t gCalvaneModuleDefinition[3];
std::uint16_t gCalvaneModuleDefinition[3];
