// The auto loop finder's search: start/end pairs per second on 1 s tones at
// 44.1 kHz with the default ranges (start 50..99 %, end 75..100 %). No open
// tool finds loops from the command line (Polyphone's finder is GUI only, sox
// has none), so the goal is absolute: the 440 Hz tone, about 180 M pairs, in
// 1 s of CPU at most. Run: bench_loops --benchmark_counters_tabular=true
#include <benchmark/benchmark.h>

#include <cmath>
#include <numbers>
#include <vector>

#include "core/items.h"
#include "processing/loops.h"

namespace {

std::vector<float> Tone(std::initializer_list<std::pair<double, double>> partials, double decay, double scale) {
  std::vector<float> x(44101, 0.0f);  // x[n] reads 0
  for (int i = 0; i < 44100; ++i) {
    const double t = i / 44100.0;
    double v = 0;
    for (auto [f, a] : partials) v += a * std::sin(2 * std::numbers::pi * f * t);
    x[i] = static_cast<float>(scale * v * std::exp(-decay * t));
  }
  return x;
}

void Search(benchmark::State& state, const std::vector<float>& x) {
  kv::LoopSearchResult r;
  uint64_t pairs = 0;
  for (auto _ : state) {
    kv::findLoop(x, 44100, 0.5, 0.99, 0.75, 1.0, "bench", r);
    pairs += r.pairs;
    benchmark::DoNotOptimize(r.score);
  }
  state.counters["pairs"] = static_cast<double>(r.pairs);
  state.counters["pairs/s"] = benchmark::Counter(static_cast<double>(pairs), benchmark::Counter::kIsRate);
  state.counters["loop"] = static_cast<double>(r.end - r.start);
}

void BM_Sine440FullScale(benchmark::State& s) { Search(s, Tone({{440, 1.0}}, 0, 0.999)); }
void BM_Sine440Half(benchmark::State& s) { Search(s, Tone({{440, 1.0}}, 0, 0.5)); }
void BM_Sine441(benchmark::State& s) { Search(s, Tone({{441, 1.0}}, 0, 0.5)); }
void BM_TwoPartials(benchmark::State& s) { Search(s, Tone({{440, 0.5}, {660, 0.3}}, 0, 1.0)); }
void BM_TwoPartialsDecaying(benchmark::State& s) { Search(s, Tone({{440, 0.5}, {660, 0.3}}, 1.5, 1.0)); }

BENCHMARK(BM_Sine440FullScale)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();
BENCHMARK(BM_Sine440Half)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();
BENCHMARK(BM_Sine441)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();
BENCHMARK(BM_TwoPartials)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();
BENCHMARK(BM_TwoPartialsDecaying)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();

}  // namespace

BENCHMARK_MAIN();
