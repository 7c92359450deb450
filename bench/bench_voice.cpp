// What one sample voice costs per frame, by the parts of its frame loop:
// mono and stereo fetch, the filter structures and the EQ sections, so the
// engine's render time can be traced to its parts. A looped ramp wave at a
// pitch that moves the position by a fraction each frame.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "synth/engine.h"
#include "synth/wave_voice.h"

namespace {

using namespace kv;

void VoiceFrames(benchmark::State& state) {
  const bool stereo = state.range(0) != 0;
  const int filterType = static_cast<int>(state.range(1));
  const int eqSections = static_cast<int>(state.range(2));
  const uint32_t length = 4096;
  std::vector<float> frames((length + 4) * (stereo ? 2 : 1), 0.25f);
  SynthZone z;
  z.kind = VoiceKindId::Wave;
  z.wave = {frames.data() + (stereo ? 2 : 1), length, 31000.0f, stereo};
  z.loopType = 1;
  z.loopStart = 100;
  z.loopEnd = 4000;
  z.art.value[kRowFilterType] = static_cast<float>(filterType);
  z.art.value[kRowResonance] = 6.0f;
  for (int b = 0; b < eqSections; ++b) z.art.value[kRowEqBase + 4 * b + 2] = 3.0f;

  ResetVoiceKinds();
  const VoiceKind kind = GetVoiceKind(VoiceKindId::Wave);
  auto voice = std::make_unique<VoiceRecord>();
  voice->head.key = 60.0f;
  voice->head.velocity = 100.0f / 127.0f;
  voice->head.bendRange = 2.0f;
  kind.init(*voice, z, 44100.0f, false);
  alignas(16) float block[2 * kSynthBlock];
  for (auto _ : state) {
    // A slight vibrato keeps the pitch and filter paths honest.
    voice->head.bend = voice->head.bend > 0.0f ? -0.01f : 0.01f;
    kind.render(*voice, block, 44100.0f);
    benchmark::DoNotOptimize(block);
  }
  state.counters["ns_per_frame"] = benchmark::Counter(static_cast<double>(state.iterations()) * kSynthBlock,
                                                      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// Mono and stereo; no filter, one-pole (1), state-variable (2), one-pole and
// SVF (3), two SVFs (4); 0 or 3 EQ sections.
BENCHMARK(VoiceFrames)
    ->ArgsProduct({{0, 1}, {0, 1, 2, 3, 4}, {0, 3}})
    ->ArgNames({"stereo", "filter", "eq"});

}  // namespace

BENCHMARK_MAIN();
