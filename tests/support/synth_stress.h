// The peers' polyphony stress pattern as command words, with a voice kind
// and instruments to play it: shared by the engine's stress test and the
// test that counts allocations and locks on the audio path.
#pragma once

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <tuple>
#include <vector>

#include "synth/engine.h"

namespace kv::test {

// A voice that fades by its velocity and dies some blocks after its key is
// released, so notes differ in loudness and the pool keeps turning over.
struct FadeState {
  uint32_t blocks;
  uint32_t releasedBlocks;
};

inline VoiceKind FadeKind() {
  VoiceKind k;
  k.recordSize = VoiceRecordBytes(sizeof(FadeState));
  k.init = [](VoiceRecord& v, const SynthZone&, float, bool update) {
    if (!update) VoiceState<FadeState>(v) = {};
    v.head.amplitude = v.head.velocity;
  };
  k.render = [](VoiceRecord& v, float* block, float) {
    auto& s = VoiceState<FadeState>(v);
    ++s.blocks;
    if (v.head.keyReleased) ++s.releasedBlocks;
    v.head.amplitude = v.head.velocity * std::pow(0.999f, static_cast<float>(s.blocks)) *
                       (1.0f + 0.1f * v.head.modulation + 0.05f * v.head.bend);
    const float value = 0.01f * (1.0f + v.head.key / 128.0f);
    for (int i = 0; i < kSynthBlock; ++i) {
      block[2 * i] = value;
      block[2 * i + 1] = -value;
    }
    return !v.head.shutdown && s.releasedBlocks < 400;
  };
  return k;
}

struct Event {
  double seconds;
  int order;
  MidiWord word;
};

// The pattern of make_stress_midi.py, as words.
inline std::vector<Event> StressPattern(double seconds) {
  std::mt19937 rng(1);
  auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi - 1)(rng); };
  std::vector<Event> events;
  std::vector<int> melodic;
  for (int c = 0; c < 16; ++c)
    if (c != 9) melodic.push_back(c);
  for (std::size_t i = 0; i < melodic.size(); ++i) {
    const int ch = melodic[i];
    events.push_back({0, 0, MakeMidiWord(0xC0, ch, static_cast<int>(i))});
    events.push_back({0, 0, MakeMidiWord(0xB0, ch, 10, static_cast<int>(i * 127 / 14))});
    events.push_back({0, 0, MakeMidiWord(0xB0, ch, 91, 100)});
    events.push_back({0, 0, MakeMidiWord(0xB0, ch, 7, 100)});
  }
  for (int ch : melodic) {
    std::vector<int> held;
    for (double t = 0; t < seconds; t += 2) {
      for (int n : held) events.push_back({t, 0, MakeMidiWord(0x80, ch, n, 64)});
      const int base = pick(28, 48);
      held.clear();
      for (int k = 0; k < 8; ++k) held.push_back(base + 7 * k + pick(0, 3));
      for (int n : held) events.push_back({t, 2, MakeMidiWord(0x90, ch, n, pick(60, 127))});
    }
    for (int n : held) events.push_back({seconds, 0, MakeMidiWord(0x80, ch, n, 64)});
    for (double t = 0; t < seconds; t += 4) {
      if (t > 0) events.push_back({t, 0, MakeMidiWord(0xB0, ch, 64, 0)});
      events.push_back({t, 1, MakeMidiWord(0xB0, ch, 64, 127)});
    }
  }
  for (std::size_t i = 0; i < melodic.size(); ++i) {
    for (int k = 0; k < seconds * 50; ++k) {
      const double t = k / 50.0;
      const int v = std::clamp(static_cast<int>(8191 * std::sin(2 * M_PI * 0.25 * t + static_cast<double>(i))), -8192, 8191) + 8192;
      events.push_back({t, 1, MakeMidiWord(0xE0, melodic[i], v & 0x7F, v >> 7)});
    }
    for (int k = 0; k < seconds * 10; ++k) {
      const double t = k / 10.0;
      const int sweep = static_cast<int>(63.5 + 63.5 * std::sin(2 * M_PI * 0.1 * t + static_cast<double>(i)));
      events.push_back({t, 1, MakeMidiWord(0xB0, melodic[i], 1, sweep)});
      events.push_back({t, 1, MakeMidiWord(0xB0, melodic[i], 11, 127 - sweep / 2)});
    }
  }
  // Cymbals on the drum channel.
  for (double t = 0; t < seconds; t += 0.5) events.push_back({t, 2, MakeMidiWord(0x90, 9, 49 + (pick(0, 4)), 100)});
  std::stable_sort(events.begin(), events.end(),
                   [](const Event& a, const Event& b) { return std::tie(a.seconds, a.order) < std::tie(b.seconds, b.order); });
  return events;
}

inline std::unique_ptr<SynthInstrument> Wide(InstrumentKey key, ItemId firstId) {
  auto inst = std::make_unique<SynthInstrument>();
  inst->key = key;
  // Two zones on every key (a stereo-like pair), split at middle C.
  for (int z = 0; z < 4; ++z) {
    SynthZone zone;
    zone.kind = VoiceKindId::Test;
    zone.id = firstId + static_cast<ItemId>(z);
    zone.loKey = z < 2 ? 0 : 60;
    zone.hiKey = z < 2 ? 59 : 127;
    zone.pan = z % 2 ? 0.5f : -0.5f;
    zone.exclusionMode = 1;
    inst->zones.push_back(zone);
  }
  inst->maxZonesPerNote = 2;
  return inst;
}


// Programs 0-15 and the drum kit at key 0 with the drum flag.
inline void AddStressInstruments(SynthEngine& e) {
  for (int p = 0; p < 16; ++p) e.AddInstrument(Wide(MakeLocation(0, 0, static_cast<uint32_t>(p), false), 100u * static_cast<uint32_t>(p)), false);
  e.AddInstrument(Wide(MakeLocation(0, 0, 0, true), 5000), false);
}

}  // namespace kv::test
