// The compile step from items to zones and the wave cache: fade windows,
// tuning and volume folded in for each wave, the cache's padding frames and
// references, phase locks and stereo merges, and every corpus bank compiled.
#include "synth/compile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "core/error.h"
#include "core/items.h"
#include "core/param_catalogue.h"
#include "formats/import.h"
#include "support/testsupport.h"
#include "synth/wave_cache.h"

namespace kv {
namespace {

namespace fs = std::filesystem;

constexpr float kScale16 = 3.0517578e-5f;

// A mono or stereo wave whose sample n of channel ch is (n + 1) * 100 + ch.
Waveform* MakeWave(Collection& c, const char* name, uint32_t length, uint8_t channels = 1) {
  Waveform* w = Create<Waveform>(c, name);
  w->length = length;
  w->channels = channels;
  w->sampleRate = 32000;
  w->samples16 = std::make_unique<int16_t[]>(std::size_t{length} * channels);
  for (uint32_t n = 0; n < length; ++n)
    for (uint8_t ch = 0; ch < channels; ++ch) w->samples16[n * channels + ch] = static_cast<int16_t>((n + 1) * 100 + ch);
  return w;
}

float Sample(uint32_t n, int ch = 0) { return static_cast<float>((n + 1) * 100 + ch) * kScale16; }

// The cross-fade gain the engine applies inside a widened window.
float FadeGain(const FadeWindow& w, int k) {
  if (k < w.lo || k > w.hi) return 0.0f;
  if (k < w.lo + w.fadeIn) return static_cast<float>(k - w.lo + 1) / static_cast<float>(w.fadeIn + 1);
  if (k > w.hi - w.fadeOut) return static_cast<float>(w.hi - k + 1) / static_cast<float>(w.fadeOut + 1);
  return 1.0f;
}

void ExpectWindow(const FadeWindow& w, int lo, int hi, int fadeIn, int fadeOut) {
  EXPECT_EQ(w.lo, lo);
  EXPECT_EQ(w.hi, hi);
  EXPECT_EQ(w.fadeIn, fadeIn);
  EXPECT_EQ(w.fadeOut, fadeOut);
}

TEST(SynthCompileFade, WindowsWidenByHalfTheirFadesAndShrinkAtTheEnds) {
  ExpectWindow(ExpandFadeWindow(60, 72, 4, 6), 58, 75, 4, 6);
  ExpectWindow(ExpandFadeWindow(60, 72, 5, 7), 58, 76, 5, 7);
  ExpectWindow(ExpandFadeWindow(60, 72, 0, 0), 60, 72, 0, 0);
  ExpectWindow(ExpandFadeWindow(0, 127, 0, 0), 0, 127, 0, 0);
  // Overshoot past 0 or 127 comes off the width.
  ExpectWindow(ExpandFadeWindow(1, 126, 6, 6), 0, 127, 4, 4);
  ExpectWindow(ExpandFadeWindow(0, 127, 10, 10), 0, 127, 5, 5);
  ExpectWindow(ExpandFadeWindow(0, 127, 126, 126), 0, 127, 63, 63);
  ExpectWindow(ExpandFadeWindow(2, 125, 4, 4), 0, 127, 4, 4);

  // Two neighbours split at key 60 with the same fade width cross-fade
  // linearly: their gains add up to one on every key.
  for (int width = 0; width <= 12; ++width) {
    const FadeWindow below = ExpandFadeWindow(0, 59, 0, width);
    const FadeWindow above = ExpandFadeWindow(60, 127, width, 0);
    for (int k = 0; k < 128; ++k)
      EXPECT_FLOAT_EQ(FadeGain(below, k) + FadeGain(above, k), 1.0f) << "width " << width << " key " << k;
  }
}

TEST(SynthCompile, ZonesTakeTheWaveTuningVolumeLoopAndTrigger) {
  Collection c;
  Waveform* wave = MakeWave(c, "Cello", 1000);
  wave->rootKey = 48;
  wave->fineTune = -25;
  wave->volume = -3.0f;
  wave->loopType = 1;
  wave->loopStart = 100;
  wave->loopEnd = 900;
  Instrument* inst = Create<Instrument>(c, "Cello");
  inst->location = MakeLocation(1, 2, 42, false);
  inst->fx[2].type = 2;
  inst->fx[2].param[0] = 0.75f;
  Layer* layer = AddLayer(*inst);
  layer->art.Set(kRowMasterVolume, -6.0f);
  layer->trigger.sustainSwitch = 1;
  layer->trigger.MarkSet(kRowSustainSwitch);

  // The wave's root and loop.
  Region* plain = AddRegion(*layer, wave->id, MakeRange(0, 59), MakeRange(0, 127), 255);
  plain->art.Set(kRowPan, 0.5f);
  plain->art.Set(kRowSend2, 0.25f);
  plain->art.Set(kRowCc92ToSend2, 0.5f);
  plain->trigger.keyFadeIn = 4;
  plain->trigger.keyFadeFormula = 1;
  plain->trigger.velFadeOut = 6;
  plain->trigger.triggerType = 3;
  plain->trigger.exclusionGroup = 300;
  plain->trigger.noteExclusion = 1;
  plain->trigger.delay = 0.125f;
  for (int row : {kRowKeyFadeIn, kRowKeyFadeFormula, kRowVelFadeOut, kRowTriggerType, kRowExclusionGroup,
                  kRowNoteExclusion, kRowTriggerDelay})
    plain->trigger.MarkSet(row);
  // Its own root and loop start, and a key-to-pitch from the instrument.
  Region* own = AddRegion(*layer, wave->id, MakeRange(60, 127), MakeRange(0, 127), 72);
  own->art.Set(kRowMasterTune, 2.0f);
  own->art.Set(kRowKeyToPitch, 0.5f);
  own->loopStart = 200;
  own->loopEnd = 300;
  own->overrideMask |= kOverrideLoopStart;
  // A root far enough from 60 that the tuning leaves the row's -48..48.
  Region* far = AddRegion(*layer, wave->id, MakeRange(60, 127), MakeRange(0, 127), 0);
  far->art.Set(kRowMasterVolume, 90.0f);

  WaveCache cache;
  SynthInstrument out;
  ASSERT_TRUE(CompileInstrument(*inst, cache, out)) << ErrorMessage;
  ASSERT_EQ(out.zones.size(), 3u);
  EXPECT_EQ(out.key, inst->location);
  EXPECT_EQ(out.fx[2].type, 2);
  EXPECT_EQ(out.fx[2].value[0], 0.75f);

  const SynthZone& a = out.zones[0];
  EXPECT_EQ(a.id, plain->id);
  EXPECT_FLOAT_EQ(a.art.value[kRowMasterTune], -0.25f + 12.0f);
  EXPECT_FLOAT_EQ(a.art.value[kRowMasterVolume], -9.0f);
  EXPECT_EQ(a.loKey, 0);  // the fade-in of 4 is clamped against key 0
  EXPECT_EQ(a.keyFadeIn, 2);
  EXPECT_EQ(a.hiKey, 59);
  EXPECT_EQ(a.velFadeOut, 3);
  EXPECT_EQ(a.keyFadeCurve, 1);
  EXPECT_EQ(a.trigger, 3);
  EXPECT_EQ(a.pedalSwitch, 1);  // the layer's
  EXPECT_EQ(a.exclusionGroup, 300);
  EXPECT_EQ(a.exclusionMode, 1);
  EXPECT_EQ(a.delay, 0.125f);
  EXPECT_EQ(a.pan, 0.5f);
  EXPECT_EQ(a.sendLevel[1], 0.25f);
  EXPECT_EQ(a.sendDepth[1], 0.5f);
  EXPECT_EQ(a.loopStart, 100.0f);
  EXPECT_EQ(a.loopEnd, 900.0f);

  const SynthZone& b = out.zones[1];
  EXPECT_FLOAT_EQ(b.art.value[kRowMasterTune], 2.0f - 0.25f + (60 - 72) * 0.5f);
  EXPECT_EQ(b.loopStart, 200.0f);  // overridden
  EXPECT_EQ(b.loopEnd, 900.0f);    // not overridden: the wave's

  const SynthZone& f = out.zones[2];
  EXPECT_FLOAT_EQ(f.art.value[kRowMasterTune], 59.75f);
  EXPECT_FLOAT_EQ(f.art.value[kRowMasterVolume], 87.0f);

  // All three share the wave; keys 60-127 are held by two zones.
  EXPECT_EQ(out.waves.size(), 3u);
  EXPECT_EQ(cache.Size(), 1u);
  EXPECT_EQ(cache.References(WaveCacheKey(wave->id)), 3u);
  EXPECT_EQ(out.maxZonesPerNote, 2u);
  ReleaseInstrument(out, cache);
  EXPECT_EQ(cache.Size(), 0u);
}

TEST(SynthCompile, CachePadsFramesAndCountsReferences) {
  Collection c;
  Waveform* toEnd = MakeWave(c, "to end", 8);  // loop 5..8 wraps three frames
  toEnd->loopType = 1;
  toEnd->loopStart = 5;
  toEnd->loopEnd = 8;
  Waveform* short2 = MakeWave(c, "short", 8);  // loop 6..8: only two frames to wrap
  short2->loopType = 2;
  short2->loopStart = 6;
  short2->loopEnd = kLoopEndDefault;
  Waveform* early = MakeWave(c, "early", 8);  // ends before the data: nothing wraps
  early->loopType = 1;
  early->loopStart = 2;
  early->loopEnd = 7;
  Waveform* unlooped = MakeWave(c, "off", 8);
  unlooped->loopStart = 0;
  unlooped->loopEnd = 8;
  Waveform* stereo = MakeWave(c, "stereo", 4, 2);
  stereo->sampleRate = 44100;
  stereo->loopType = 1;
  stereo->loopStart = 2;
  stereo->loopEnd = 4;
  Waveform* floats = Create<Waveform>(c, "floats");
  floats->length = 2;
  floats->samplesF = std::make_unique<float[]>(2);
  floats->samplesF[0] = 0.5f;
  floats->samplesF[1] = -2.0f;  // kept as it is: the cache doesn't limit

  WaveCache cache;
  auto acquire = [&](Waveform& w, Waveform* right = nullptr) {
    uint64_t key = 0;
    CachedWave cw;
    EXPECT_TRUE(cache.Acquire(w, right, key, cw)) << ErrorMessage;
    EXPECT_EQ(key, WaveCacheKey(w.id, right ? right->id : kNoItem));
    return cw;
  };
  auto expectMono = [](const CachedWave& cw, std::vector<float> want) {
    ASSERT_NE(cw.frames, nullptr);
    ASSERT_EQ(cw.length, 8u);
    EXPECT_FALSE(cw.stereo);
    for (int i = -1; i < 11; ++i) EXPECT_EQ(cw.frames[i], want[i + 1]) << "frame " << i;
  };
  const std::vector<float> body = {Sample(0), Sample(1), Sample(2), Sample(3),
                                   Sample(4), Sample(5), Sample(6), Sample(7)};
  auto with = [&](std::vector<float> tail) {
    std::vector<float> v = {0.0f};
    v.insert(v.end(), body.begin(), body.end());
    v.insert(v.end(), tail.begin(), tail.end());
    return v;
  };
  expectMono(acquire(*toEnd), with({Sample(5), Sample(6), Sample(7)}));
  expectMono(acquire(*short2), with({Sample(6), Sample(7), 0.0f}));
  expectMono(acquire(*early), with({0.0f, 0.0f, 0.0f}));
  expectMono(acquire(*unlooped), with({0.0f, 0.0f, 0.0f}));

  const CachedWave s = acquire(*stereo);
  EXPECT_TRUE(s.stereo);
  EXPECT_EQ(s.length, 4u);
  EXPECT_EQ(s.sampleRate, 44100.0f);
  const float wantStereo[] = {0, 0,                                                   // before
                              Sample(0, 0), Sample(0, 1), Sample(1, 0), Sample(1, 1),  // data
                              Sample(2, 0), Sample(2, 1), Sample(3, 0), Sample(3, 1),
                              Sample(2, 0), Sample(2, 1), Sample(3, 0), Sample(3, 1), 0, 0};  // wrapped
  for (int i = 0; i < 16; ++i) EXPECT_EQ(s.frames[i - 2], wantStereo[i]) << i;

  const CachedWave f = acquire(*floats);
  EXPECT_EQ(f.frames[0], 0.5f);
  EXPECT_EQ(f.frames[1], -2.0f);
  EXPECT_EQ(f.sampleRate, 22050.0f);

  // A pair: each side's first channel, as long as the shorter.
  const CachedWave p = acquire(*stereo, toEnd);
  EXPECT_TRUE(p.stereo);
  EXPECT_EQ(p.length, 4u);
  EXPECT_EQ(p.frames[-2], 0.0f);
  EXPECT_EQ(p.frames[-1], 0.0f);
  EXPECT_EQ(p.frames[2], Sample(1, 0));
  EXPECT_EQ(p.frames[3], Sample(1));
  EXPECT_EQ(p.frames[8], Sample(2, 0));  // the left wave's loop wraps
  EXPECT_EQ(p.frames[9], Sample(2));
  EXPECT_EQ(cache.Size(), 7u);
  // Without a read callback the items keep their samples.
  EXPECT_TRUE(toEnd->samples16);

  // A wave with nothing to read fails, and leaves nothing in the cache.
  Waveform* empty = Create<Waveform>(c, "empty");
  empty->length = 100;
  uint64_t key = 0;
  CachedWave none;
  EXPECT_FALSE(cache.Acquire(*empty, nullptr, key, none));
  EXPECT_STRNE(ErrorMessage, "");
  EXPECT_EQ(none.frames, nullptr);
  EXPECT_EQ(cache.Size(), 7u);
  cache.Clear();
  EXPECT_EQ(cache.Size(), 0u);

  // Two instruments share a wave; it goes with the last reference, and a
  // region whose wave can't be read is left out without failing the rest.
  Instrument* one = Create<Instrument>(c, "one");
  Instrument* two = Create<Instrument>(c, "two");
  AddRegion(*AddLayer(*one), toEnd->id, MakeRange(0, 127), MakeRange(0, 127), 255);
  Layer* twoLayer = AddLayer(*two);
  AddRegion(*twoLayer, toEnd->id, MakeRange(0, 63), MakeRange(0, 127), 255);
  AddRegion(*twoLayer, empty->id, MakeRange(64, 127), MakeRange(0, 127), 255);
  AddRegion(*twoLayer, early->id, MakeRange(64, 127), MakeRange(0, 127), 255);
  SynthInstrument a, b;
  ASSERT_TRUE(CompileInstrument(*one, cache, a));
  ASSERT_TRUE(CompileInstrument(*two, cache, b));
  ASSERT_EQ(b.zones.size(), 2u);
  EXPECT_EQ(b.zones[1].cacheKey, WaveCacheKey(early->id));
  EXPECT_EQ(b.maxZonesPerNote, 1u);
  const uint64_t shared = WaveCacheKey(toEnd->id);
  EXPECT_EQ(cache.References(shared), 2u);
  EXPECT_EQ(a.zones[0].wave.frames, b.zones[0].wave.frames);
  // Compiled again into the same place: the count stays, the frames too.
  const float* frames = a.zones[0].wave.frames;
  ASSERT_TRUE(CompileInstrument(*one, cache, a));
  EXPECT_EQ(cache.References(shared), 2u);
  EXPECT_EQ(a.zones[0].wave.frames, frames);
  ReleaseInstrument(a, cache);
  EXPECT_EQ(cache.References(shared), 1u);
  EXPECT_EQ(cache.Size(), 2u);
  ReleaseInstrument(b, cache);
  EXPECT_EQ(cache.References(shared), 0u);
  EXPECT_EQ(cache.Size(), 0u);
}

TEST(SynthCompile, ModelsPhaseGroupsAndStereoPairs) {
  Collection c;
  Waveform* left = MakeWave(c, "left", 16);
  Waveform* right = MakeWave(c, "right", 16);
  right->fineTune = 7;  // differs until the phase lock evens it out
  right->samples16[0] = -5;
  Waveform* third = MakeWave(c, "third", 16);
  SynthModel* model = Create<SynthModel>(c, "FM");
  model->kind = 0;

  Instrument* inst = Create<Instrument>(c, "pair");
  Layer* layer = AddLayer(*inst);
  Region* fm = AddRegion(*layer, kNoWave, MakeRange(0, 127), MakeRange(0, 127), 255);
  AddChild(*fm, model->id);
  ASSERT_EQ(RegionSynth(*fm), model);
  // The right side first: the merged zone is still the left one's.
  Region* r = AddRegion(*layer, right->id, MakeRange(36, 96), MakeRange(0, 127), 255);
  Region* l = AddRegion(*layer, left->id, MakeRange(36, 96), MakeRange(0, 127), 255);
  r->art.Set(kRowPan, 1.0f);
  l->art.Set(kRowPan, -1.0f);
  for (Region* side : {r, l}) {
    side->art.Set(kRowCutoff, 1200.0f);
    side->phaseGroup = 5;
  }
  l->phaseMaster = 1;
  l->art.Set(kRowPLfoToPitch, 0.5f);
  // Same group, another key range: not locked.
  Region* other = AddRegion(*layer, third->id, MakeRange(97, 127), MakeRange(0, 127), 255);
  other->phaseGroup = 5;

  WaveCache cache;
  SynthInstrument out;
  ASSERT_TRUE(CompileInstrument(*inst, cache, out));
  ASSERT_EQ(out.zones.size(), 2u);  // no zone for the model
  const SynthZone& z = out.zones[0];
  EXPECT_EQ(z.id, l->id);
  EXPECT_TRUE(z.wave.stereo);
  EXPECT_EQ(z.cacheKey, WaveCacheKey(left->id, right->id));
  EXPECT_EQ(z.pan, 0.0f);
  EXPECT_EQ(z.art.value[kRowPan], 0.0f);
  EXPECT_EQ(z.phaseMaster, 1);
  EXPECT_EQ(z.art.value[kRowMasterTune], 0.0f);  // the master's tuning, not 0.07
  EXPECT_EQ(z.wave.frames[0], Sample(0));
  EXPECT_EQ(z.wave.frames[1], -5 * kScale16);
  EXPECT_EQ(out.zones[1].id, other->id);
  EXPECT_EQ(out.zones[1].art.value[kRowPLfoToPitch], 0.0f);
  EXPECT_EQ(out.maxZonesPerNote, 1u);
  EXPECT_EQ(cache.Size(), 2u);
  ReleaseInstrument(out, cache);

  // Without the group the right side keeps its own tuning: no merge.
  r->phaseGroup = 0;
  ASSERT_TRUE(CompileInstrument(*inst, cache, out));
  ASSERT_EQ(out.zones.size(), 3u);
  EXPECT_FLOAT_EQ(out.zones[0].art.value[kRowMasterTune], 0.07f);
  EXPECT_EQ(out.zones[0].pan, 1.0f);
  EXPECT_FALSE(out.zones[0].wave.stereo);
  EXPECT_EQ(out.maxZonesPerNote, 2u);

  // Equal tuning, one other value: still two zones.
  right->fineTune = 0;
  l->art.Set(kRowPLfoToPitch, 0.0f);
  r->art.Set(kRowResonance, 0.5f);
  ASSERT_TRUE(CompileInstrument(*inst, cache, out));
  EXPECT_EQ(out.zones.size(), 3u);
  r->art.ResetValue(kRowResonance);
  // A sample a frame longer: two zones.
  right->length = 15;
  ASSERT_TRUE(CompileInstrument(*inst, cache, out));
  EXPECT_EQ(out.zones.size(), 3u);
  right->length = 16;
  // Pans -1 and -1: two zones; then -1 and +1 with nothing else apart: one.
  r->art.Set(kRowPan, -1.0f);
  ASSERT_TRUE(CompileInstrument(*inst, cache, out));
  EXPECT_EQ(out.zones.size(), 3u);
  r->art.Set(kRowPan, 1.0f);
  ASSERT_TRUE(CompileInstrument(*inst, cache, out));
  ASSERT_EQ(out.zones.size(), 2u);
  EXPECT_EQ(out.zones[0].cacheKey, WaveCacheKey(left->id, right->id));
  ReleaseInstrument(out, cache);
  EXPECT_EQ(cache.Size(), 0u);
}

// Compiles every instrument of a bank, one at a time, and checks each zone
// has frames to play. Returns the zone count.
std::size_t CompileAll(const fs::path& path) {
  SCOPED_TRACE(path.string());
  Collection c;
  if (!ImportFile(c, path, false)) {
    ADD_FAILURE() << "import: " << ErrorMessage;
    return 0;
  }
  WaveCache cache;
  std::size_t zones = 0;
  for (Instrument* inst : c.All<Instrument>()) {
    std::size_t waveRegions = 0;
    for (ItemId layerId : inst->children)
      if (const Layer* layer = c.FindAs<Layer>(layerId))
        for (ItemId regionId : layer->children)
          if (const Region* region = c.FindAs<Region>(regionId)) waveRegions += RegionWaveform(*region) != nullptr;
    SynthInstrument out;
    EXPECT_TRUE(CompileInstrument(*inst, cache, out)) << inst->name << ": " << ErrorMessage;
    // Every readable wave region plays: alone, or as one side of a pair.
    std::size_t sides = 0;
    for (const SynthZone& z : out.zones) sides += z.cacheKey >> 32 != kNoItem ? 2 : 1;
    EXPECT_EQ(sides, waveRegions) << inst->name;
    for (const SynthZone& z : out.zones) {
      EXPECT_NE(z.wave.frames, nullptr);
      EXPECT_GT(z.wave.length, 0u);
      EXPECT_LE(z.loopEnd, static_cast<float>(z.wave.length));
    }
    if (!out.zones.empty()) {
      EXPECT_GE(out.maxZonesPerNote, 1u);
    }
    zones += out.zones.size();
    ReleaseInstrument(out, cache);
  }
  EXPECT_EQ(cache.Size(), 0u);
  // The cache's copies are the only ones: what can be read again was let go.
  for (const Waveform* w : c.All<Waveform>()) {
    if (w->readCallback) {
      EXPECT_FALSE(w->HasData()) << w->name;
    }
  }
  return zones;
}

TEST(SynthCompileBanks, EveryCorpusBankCompiles) {
  const fs::path timGm = "/usr/share/sounds/sf2/TimGM6mb.sf2";
  if (test::Need(fs::exists(timGm), timGm.string())) {
    EXPECT_GT(CompileAll(timGm), 500u);
  }
  if (!test::NeedCorpus()) return;
  int banks = 0;
  for (const auto& entry : fs::recursive_directory_iterator(test::CorpusDir())) {
    std::string ext = entry.path().extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char ch) { return std::tolower(ch); });
    if (!entry.is_regular_file() || (ext != ".sf2" && ext != ".sfz")) continue;
    CompileAll(entry.path());
    ++banks;
  }
  EXPECT_GE(banks, 20);
}

// Why two hard-panned zones over the same keys stay apart: the first thing
// the merge rule compares that differs, or "" when nothing does.
std::string WhyApart(const SynthZone& a, const SynthZone& b) {
  if (a.keyFadeIn != b.keyFadeIn || a.keyFadeOut != b.keyFadeOut || a.velFadeIn != b.velFadeIn ||
      a.velFadeOut != b.velFadeOut || a.keyFadeCurve != b.keyFadeCurve || a.velFadeCurve != b.velFadeCurve ||
      a.trigger != b.trigger || a.pedalSwitch != b.pedalSwitch || a.exclusionGroup != b.exclusionGroup ||
      a.exclusionMode != b.exclusionMode || a.delay != b.delay)
    return "trigger";
  if (a.wave.length != b.wave.length) return "sample length";
  if (a.wave.sampleRate != b.wave.sampleRate) return "sample rate";
  if (a.loopType != b.loopType || a.loopRelease != b.loopRelease || a.loopStart != b.loopStart ||
      a.loopEnd != b.loopEnd || a.loopPitch != b.loopPitch || a.startOffset != b.startOffset ||
      a.endOffset != b.endOffset)
    return "loop or offsets";
  for (int i = 0; i < kArticulationCount; ++i)
    if (i != kRowPan && std::memcmp(&a.art.value[i], &b.art.value[i], sizeof(float)) != 0)
      return Articulation::Row(i).name;
  return "";
}

TEST(SynthCompileBanks, FluidR3HardPannedPairsPlayAsStereoZones) {
  const fs::path path = "/usr/share/sounds/sf2/FluidR3_GM.sf2";
  if (!test::Need(fs::exists(path), path.string())) return;
  const auto begin = std::chrono::steady_clock::now();
  Collection c;
  ASSERT_TRUE(ImportFile(c, path, false)) << ErrorMessage;
  WaveCache cache;
  int merged = 0, apart = 0, printed = 0;
  std::map<std::string, int> reasons;
  for (Instrument* inst : c.All<Instrument>()) {
    SynthInstrument out;
    ASSERT_TRUE(CompileInstrument(*inst, cache, out));
    std::vector<const SynthZone*> lefts, rights;
    for (const SynthZone& z : out.zones) {
      if (z.cacheKey >> 32 != kNoItem) {
        ++merged;
        EXPECT_TRUE(z.wave.stereo);
        EXPECT_EQ(z.pan, 0.0f);
      } else if (!z.wave.stereo && (z.pan == -1.0f || z.pan == 1.0f)) {
        (z.pan < 0.0f ? lefts : rights).push_back(&z);
      }
    }
    // The sides still apart, paired by their key and velocity windows.
    for (const SynthZone* l : lefts) {
      auto r = std::find_if(rights.begin(), rights.end(), [&](const SynthZone* z) {
        return z && z->loKey == l->loKey && z->hiKey == l->hiKey && z->loVel == l->loVel && z->hiVel == l->hiVel;
      });
      if (r == rights.end()) continue;
      const std::string why = WhyApart(*l, **r);
      *r = nullptr;
      ++apart;
      ++reasons[why];
      EXPECT_FALSE(why.empty()) << inst->name << ": a pair that meets the rule was left apart";
      if (printed < 6) {
        std::printf("  left apart: %s, keys %d-%d: %s\n", inst->name, l->loKey, l->hiKey, why.c_str());
        ++printed;
      }
    }
    ReleaseInstrument(out, cache);
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  std::printf("FluidR3: %d hard-panned pairs merged into stereo zones, %d left apart (%.1f s)\n", merged, apart,
              seconds);
  for (const auto& [why, count] : reasons) std::printf("  %5d apart by %s\n", count, why.c_str());
  EXPECT_GT(merged, 5000);
  EXPECT_EQ(cache.Size(), 0u);
}

}  // namespace
}  // namespace kv
