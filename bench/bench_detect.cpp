// Detection cost per file: every readable row scored on a 32 KB buffer, the
// path DetectFormat takes after its single read. Target: under 50 us.
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "formats/registry.h"

namespace {

std::vector<uint8_t> Noise() {
  std::vector<uint8_t> data(kv::kDetectBytes);
  std::mt19937 rng(1234);
  for (uint8_t& b : data) b = static_cast<uint8_t>(rng());
  return data;
}

void Run(benchmark::State& state, const std::vector<uint8_t>& data, const char* extension) {
  int confidence = 0;
  for (auto _ : state) {
    const int row = kv::DetectFormatInMemory(extension, data.data(), static_cast<uint32_t>(data.size()),
                                             uint64_t{10} << 20, confidence);
    benchmark::DoNotOptimize(row);
  }
}

// Unknown bytes: every scorer runs to its first rejection.
void BM_DetectNoise(benchmark::State& state) { Run(state, Noise(), "bin"); }

// A wave file: the common case of a file list.
void BM_DetectWave(benchmark::State& state) {
  std::vector<uint8_t> data = Noise();
  std::memcpy(data.data(), "RIFF\0\0\0\0WAVEfmt ", 16);
  Run(state, data, "wav");
}

// Plain text: the SFZ scorer reads the whole buffer.
void BM_DetectText(benchmark::State& state) {
  std::vector<uint8_t> data(kv::kDetectBytes);
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i % 61 == 60 ? '\n' : 'a' + i % 26);
  Run(state, data, "sfz");
}

}  // namespace

BENCHMARK(BM_DetectNoise);
BENCHMARK(BM_DetectWave);
BENCHMARK(BM_DetectText);
BENCHMARK_MAIN();
