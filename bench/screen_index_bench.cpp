// What indexing a full screen partition costs, compared with one copy of the same bytes.
#include <benchmark/benchmark.h>
#include <string.h>

#include <vector>

#include "common/big_endian.h"
#include "fpga/screen/screen_blocks.h"

namespace {

constexpr size_t kPartitionSize = 0x200000;
constexpr uint32_t kBlocks = 60;

// The largest number of blocks; they fill the partition to its last byte.
std::vector<uint8_t> fullPartition() {
    std::vector<uint8_t> image(kPartitionSize, 0x5A);
    quil::common::putBe32(image.data(), kBlocks);
    constexpr size_t kData = (kPartitionSize - 4) / kBlocks - 8;
    size_t at = 4;
    for (uint32_t i = 0; i < kBlocks; ++i) {
        const size_t length = i + 1 < kBlocks ? kData : kPartitionSize - at - 8;
        quil::common::putBe32(image.data() + at, 0x10300000);
        quil::common::putBe32(image.data() + at + 4, static_cast<uint32_t>(length));
        at += 8 + length;
    }
    return image;
}

void countBytes(benchmark::State& state) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(kPartitionSize));
}

void screenIndex(benchmark::State& state) {
    std::vector<uint8_t> image = fullPartition(), packed(kPartitionSize);
    for (auto _ : state) {
        if (parse_emmc_block(packed.data(), image.data()) != static_cast<int>(kBlocks)) {
            state.SkipWithError("the partition is not taken");
            break;
        }
        benchmark::ClobberMemory();
    }
    countBytes(state);
}

void screenCopy(benchmark::State& state) {
    const std::vector<uint8_t> image = fullPartition();
    std::vector<uint8_t> packed(kPartitionSize);
    for (auto _ : state) {
        memcpy(packed.data(), image.data(), kPartitionSize);
        benchmark::ClobberMemory();
    }
    countBytes(state);
}

BENCHMARK(screenIndex);
BENCHMARK(screenCopy);

}  // namespace
