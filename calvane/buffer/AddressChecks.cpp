#include "calvane/buffer/AddressChecks.h"

#include "quarn/osa/Exception.h"

namespace quarn::calvane {

unsigned int CheckPhysAddr(unsigned int addr) {
    if (addr == 0) {
        throw osa::Exception("Could not take the physical address of this buffer");
    }
    return addr;
}

template <typename T>
T* CheckNull(T* p, const char* message) {
    if (p == nullptr) {
        throw osa::Exception("%s", message);
    }
    return p;
}

template unsigned char* CheckNull(unsigned char* p, const char* message);
template const unsigned char* CheckNull(const unsigned char* p, const char* message);

} // namespace quarn::calvane
