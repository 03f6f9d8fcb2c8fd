#include "calvane/buffer/IBufferData.h"

namespace quarn::calvane {

IBufferData::IBufferData(unsigned char* ptr, unsigned int length) : BasicMemoryHandle(ptr, length) {}

IBufferData::IBufferData(unsigned char* ptr, unsigned int physAddr, unsigned int length)
    : BasicMemoryHandle(ptr, physAddr, length) {}

IBufferData::IBufferData(unsigned int physAddr, unsigned int length) : BasicMemoryHandle(physAddr, length) {}

IBufferData::~IBufferData() = default;

} // namespace quarn::calvane
