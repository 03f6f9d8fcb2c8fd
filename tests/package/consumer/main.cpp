#include <cstdio>
#include <exception>
#include <memory>

#include "calvane/buffer/Buffer.h"
#include "quarn/core/StandardHeapAllocator.h"

int main() {
    try {
        quarn::core::StandardHeapAllocator heap(0);
        const quarn::calvane::Buffer buffer(heap.Allocate(100));
        const std::unique_ptr<quarn::calvane::Buffer> part(buffer.CreateSubBuffer(60));
        return part->GetLength() == 40 ? 0 : 1;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 2;
    }
}
