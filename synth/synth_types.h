// What the synthesizer plays: MIDI command words, and instruments compiled
// from the item model into flat zones. The engine knows nothing of items at
// run time; everything it needs of a region is copied into its zone.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/articulation.h"
#include "core/items.h"
#include "synth/channel_fx.h"

namespace kv {

// Blocks are 64 stereo float frames; envelopes, LFOs and ramps step once a block.
inline constexpr int kSynthBlock = 64;

// A MIDI command word: bits 0-3 channel, 4-7 status nibble, 8-15 first data
// byte, 16-23 second, 24-31 channel group. 0 marks an empty ring entry, so it
// can't be sent.
using MidiWord = uint32_t;
constexpr MidiWord MakeMidiWord(int status, int channel, int data1, int data2 = 0, int group = 0) {
  return static_cast<uint32_t>(channel & 0x0F) | static_cast<uint32_t>(status & 0xF0) |
         static_cast<uint32_t>(data1 & 0xFF) << 8 | static_cast<uint32_t>(data2 & 0xFF) << 16 |
         static_cast<uint32_t>(group & 0xFF) << 24;
}
constexpr int WordChannel(MidiWord w) { return static_cast<int>(w & 0x0F); }
constexpr int WordStatus(MidiWord w) { return static_cast<int>(w & 0xF0); }
constexpr int WordData1(MidiWord w) { return static_cast<int>((w >> 8) & 0xFF); }
constexpr int WordData2(MidiWord w) { return static_cast<int>((w >> 16) & 0xFF); }
constexpr int WordGroup(MidiWord w) { return static_cast<int>(w >> 24); }
// Channel index: channel group * 16 + MIDI channel.
constexpr int WordChannelIndex(MidiWord w) { return WordGroup(w) * 16 + WordChannel(w); }

// Instrument key: the location word of the item model (program, bank LSB,
// bank MSB, drum flag in bits 0-21).
using InstrumentKey = uint32_t;
inline constexpr uint32_t kKeyDrum = 1u << 21;
inline constexpr uint32_t kKeyProgramMask = 0x7F;
inline constexpr uint32_t kKeyLsbMask = 0x7Fu << 7;
inline constexpr uint32_t kKeyMsbMask = 0x7Fu << 14;

// Voice kinds. FM and LA voices belong to synthesis models the program can't
// play yet: no zone is ever made for them.
enum class VoiceKindId : uint8_t { Wave = 0, FMod = 1, LinA = 2, Test = 3 };
inline constexpr int kVoiceKindCount = 4;

// A sample as the cache holds it: float frames with one zero frame before the
// first and three after the last (loop-start frames over them for a loop
// that ends at the data end), so that interpolation needs no bounds test.
struct CachedWave {
  const float* frames = nullptr;  // first frame; frames[-channels] is readable
  uint32_t length = 0;            // frames
  float sampleRate = 0.0f;
  bool stereo = false;
};

// One region, compiled.
struct SynthZone {
  VoiceKindId kind = VoiceKindId::Wave;
  ItemId id = kNoItem;  // the region's id: finds the zone again in a replacement
  uint8_t loKey = 0, hiKey = 127, loVel = 0, hiVel = 127;
  uint8_t keyFadeIn = 0, keyFadeOut = 0, velFadeIn = 0, velFadeOut = 0;
  uint8_t keyFadeCurve = 0, velFadeCurve = 0;  // 1 linear gain, else equal power
  uint8_t trigger = 0;                         // 0 note on, 1 release, 2-17 alternate groups 1-16
  uint8_t pedalSwitch = 0;                     // 0 any, 1 pedal down only, 2 pedal up only
  uint16_t exclusionGroup = 0;
  uint8_t exclusionMode = 0;  // 0 self-exclusive
  float delay = 0.0f;         // seconds
  float pan = 0.0f, cc10ToPan = 1.0f;
  float sendLevel[4] = {};
  float sendDepth[4] = {};

  // Wave zones: every articulation row, tuning and volume already adjusted
  // for the wave; the sample and its loop.
  Articulation art;
  uint64_t cacheKey = 0;
  CachedWave wave;
  int32_t startOffset = 0;  // frames
  int32_t endOffset = 0;    // frames, 0 or below
  uint8_t loopType = 0;
  uint8_t loopRelease = 0;
  float loopStart = 0.0f;
  float loopEnd = 0.0f;
  float loopPitch = 0.0f;
  uint16_t phaseGroup = 0;
  uint8_t phaseMaster = 0;

  bool Holds(int key, int velocity) const {
    return key >= loKey && key <= hiKey && velocity >= loVel && velocity <= hiVel;
  }
};

struct SynthInstrument {
  InstrumentKey key = 0;
  std::vector<SynthZone> zones;
  std::vector<uint64_t> waves;  // cache keys this instrument holds a reference to
  std::array<ChannelFxConfig, 4> fx{};
  // The most zones one key and velocity can select: the engine's note
  // scratch is sized from it before the instrument can play.
  uint32_t maxZonesPerNote = 0;
};

}  // namespace kv
