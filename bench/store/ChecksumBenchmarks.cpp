// What checking bytes costs, at the sizes of an index entry, a page and a frame.

#include <benchmark/benchmark.h>
#ifdef BENCH_ISAL
#include <isa-l/crc.h>
#endif
#ifdef BENCH_ZLIB
#include <zlib.h>
#endif

#include <vector>

#include "drenn/multi_track_recorder/internal/format/SegmentFormat.h"

namespace {

template <typename Checksum>
void Measure(benchmark::State& state, Checksum checksum) {
    std::vector<unsigned char> bytes(static_cast<std::size_t>(state.range(0)), 0x5A);
    for (auto _ : state) {
        benchmark::DoNotOptimize(bytes.data());
        benchmark::DoNotOptimize(checksum(bytes.data(), bytes.size()));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void Xxh3(benchmark::State& state) {
    Measure(state, [](const unsigned char* bytes, std::size_t length) {
        return drenn::multi_track_recorder::ChecksumOf(bytes, length, 1);
    });
}
BENCHMARK(Xxh3)->Arg(32)->Arg(4096)->Arg(65536);

#ifdef BENCH_ISAL
void Crc32c(benchmark::State& state) {
    Measure(state, [](unsigned char* bytes, std::size_t length) {
        return crc32_iscsi(bytes, static_cast<int>(length), 1);
    });
}
BENCHMARK(Crc32c)->Arg(32)->Arg(4096)->Arg(65536);
#endif

#ifdef BENCH_ZLIB
void ZlibCrc32(benchmark::State& state) {
    Measure(state, [](const unsigned char* bytes, std::size_t length) {
        return crc32(1, bytes, static_cast<uInt>(length));
    });
}
BENCHMARK(ZlibCrc32)->Arg(32)->Arg(4096)->Arg(65536);
#endif

} // namespace
