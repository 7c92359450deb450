// The engine's block render with 0, 64, 256 and 512 voices of a cheap test
// kind, on one worker and on all of them: what the engine itself costs per
// voice and frame (dispatch, claiming, pan, mixing), before any voice DSP.
#include <benchmark/benchmark.h>

#include <memory>

#include "synth/engine.h"

namespace {

using namespace kv;

VoiceKind SineKind() {
  VoiceKind k;
  k.recordSize = VoiceRecordBytes(sizeof(float));
  k.init = [](VoiceRecord& v, const SynthZone&, float, bool) {
    VoiceState<float>(v) = 0.0f;
    v.head.amplitude = 0.5f;
  };
  k.render = [](VoiceRecord& v, float* block, float) {
    float& phase = VoiceState<float>(v);
    for (int i = 0; i < kSynthBlock; ++i) {
      phase += 0.01f;
      if (phase > 1.0f) phase -= 2.0f;
      block[2 * i] = block[2 * i + 1] = phase;
    }
    return true;
  };
  return k;
}

void RenderBlocks(benchmark::State& state) {
  const int voices = static_cast<int>(state.range(0));
  const int workers = static_cast<int>(state.range(1));
  SetVoiceKind(VoiceKindId::Test, SineKind());
  SynthEngine engine(16, 512, -1.0f, 44100, workers);
  auto inst = std::make_unique<SynthInstrument>();
  SynthZone zone;
  zone.kind = VoiceKindId::Test;
  zone.exclusionMode = 1;
  inst->zones.push_back(zone);
  inst->maxZonesPerNote = 1;
  engine.AddInstrument(std::move(inst), false);
  // Voices spread over the 16 channels and their buses.
  for (int v = 0; v < voices; ++v) engine.Dispatch(MakeMidiWord(0x90, v % 16, v / 16, 100));
  alignas(16) float out[2 * kSynthBlock];
  for (auto _ : state) {
    engine.RenderBlock(out);
    benchmark::DoNotOptimize(out);
  }
  const double frames = static_cast<double>(state.iterations()) * kSynthBlock;
  state.counters["ns_per_voice_frame"] =
      benchmark::Counter(voices ? frames * voices : frames, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  state.counters["voices"] = static_cast<double>(engine.VoiceCount());
}

BENCHMARK(RenderBlocks)->ArgsProduct({{0, 64, 256, 512}, {1, 0}})->ArgNames({"voices", "workers"})->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
