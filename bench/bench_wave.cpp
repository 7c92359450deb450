// Sample decoding against a plain copy of the same bytes. Each benchmark
// times a memcpy of its input first and reports x_memcpy: decode speed as a
// fraction of copy speed (1.0 = as fast as memcpy). Goals: 0.5 for decoding,
// 0.33 for float to 16-bit.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <random>
#include <vector>

#include "core/samplecodec.h"

namespace {

using Clock = std::chrono::steady_clock;

// Best of several runs: the copy is the yardstick, so give it its best case.
double MemcpySeconds(const void* src, std::size_t bytes) {
  std::vector<uint8_t> dst(bytes);
  double best = 1e9;
  for (int i = 0; i < 30; ++i) {
    const auto t0 = Clock::now();
    std::memcpy(dst.data(), src, bytes);
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
    best = std::min(best, std::chrono::duration<double>(Clock::now() - t0).count());
  }
  return best;
}

std::vector<uint8_t> RandomBytes(std::size_t n) {
  std::mt19937 rng(1);
  std::vector<uint8_t> v(n);
  for (auto& b : v) b = static_cast<uint8_t>(rng());
  return v;
}

// Both sides are timed per round and the fastest round counts, so that a
// busy machine skews neither.
template <typename Fn>
void RunAgainstMemcpy(benchmark::State& state, const void* input, std::size_t inputBytes, double goal, Fn&& decode) {
  const double copy = MemcpySeconds(input, inputBytes);
  double best = 1e9;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    decode();
    benchmark::ClobberMemory();
    best = std::min(best, std::chrono::duration<double>(Clock::now() - t0).count());
  }
  const double ratio = copy / best;
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * inputBytes));
  state.counters["x_memcpy"] = ratio;
  state.SetLabel(ratio >= goal ? "meets goal" : "BELOW GOAL");
}

void BM_Memcpy(benchmark::State& state) {
  const std::size_t bytes = static_cast<std::size_t>(state.range(0)) * 3;
  const auto in = RandomBytes(bytes);
  std::vector<uint8_t> out(bytes);
  for (auto _ : state) {
    std::memcpy(out.data(), in.data(), bytes);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

// Little-endian 16-bit data is read straight into the buffer; the work that
// remains is for big-endian or unsigned sources.
void BM_Decode16BigEndian(benchmark::State& state) {
  const std::size_t n = static_cast<std::size_t>(state.range(0));
  const auto in = RandomBytes(n * 2);
  std::vector<int16_t> out(n);
  RunAgainstMemcpy(state, in.data(), in.size(), 0.5, [&] { kv::kvDecodePcm16(in, out, true, false); });
}

void BM_Decode24(benchmark::State& state) {
  const std::size_t n = static_cast<std::size_t>(state.range(0));
  const auto in = RandomBytes(n * 3);
  std::vector<float> out(n);
  RunAgainstMemcpy(state, in.data(), in.size(), 0.5, [&] { kv::kvDecodePcm24(in, out, false, false); });
}

void BM_Decode24BigEndian(benchmark::State& state) {
  const std::size_t n = static_cast<std::size_t>(state.range(0));
  const auto in = RandomBytes(n * 3);
  std::vector<float> out(n);
  RunAgainstMemcpy(state, in.data(), in.size(), 0.5, [&] { kv::kvDecodePcm24(in, out, true, false); });
}

void BM_DecodeFloat32BigEndian(benchmark::State& state) {
  const std::size_t n = static_cast<std::size_t>(state.range(0));
  const auto bytes = RandomBytes(n * 4);
  std::vector<float> data(n);
  std::memcpy(data.data(), bytes.data(), bytes.size());
  // Swapping in place twice per round would cancel out; once is the real work.
  RunAgainstMemcpy(state, data.data(), bytes.size(), 0.5, [&] { kv::kvDecodeFloat32InPlace(data, true); });
}

void BM_DecodePcm32(benchmark::State& state) {
  const std::size_t n = static_cast<std::size_t>(state.range(0));
  const auto in = RandomBytes(n * 4);
  std::vector<float> out(n);
  RunAgainstMemcpy(state, in.data(), in.size(), 0.5, [&] { kv::kvDecodePcm32(in, out, false, false); });
}

void BM_FloatTo16(benchmark::State& state) {
  const std::size_t n = static_cast<std::size_t>(state.range(0));
  std::mt19937 rng(2);
  std::uniform_real_distribution<float> dist(-1.1f, 1.1f);
  std::vector<float> in(n);
  for (auto& f : in) f = dist(rng);
  std::vector<int16_t> out(n);
  RunAgainstMemcpy(state, in.data(), n * sizeof(float), 1.0 / 3, [&] { kv::kvFloatTo16(in, out); });
}

void BM_16ToFloat(benchmark::State& state) {
  const std::size_t n = static_cast<std::size_t>(state.range(0));
  const auto bytes = RandomBytes(n * 2);
  std::vector<int16_t> in(n);
  std::memcpy(in.data(), bytes.data(), bytes.size());
  std::vector<float> out(n);
  RunAgainstMemcpy(state, in.data(), n * 2, 0.5, [&] { kv::kv16ToFloat(in, out); });
}

// 64 K samples stay in cache; 4 M samples go to memory.
#define KV_SIZES ->Arg(1 << 16)->Arg(1 << 22)
BENCHMARK(BM_Memcpy) KV_SIZES;
BENCHMARK(BM_Decode16BigEndian) KV_SIZES;
BENCHMARK(BM_Decode24) KV_SIZES;
BENCHMARK(BM_Decode24BigEndian) KV_SIZES;
BENCHMARK(BM_DecodeFloat32BigEndian) KV_SIZES;
BENCHMARK(BM_DecodePcm32) KV_SIZES;
BENCHMARK(BM_FloatTo16) KV_SIZES;
BENCHMARK(BM_16ToFloat) KV_SIZES;

}  // namespace

BENCHMARK_MAIN();
