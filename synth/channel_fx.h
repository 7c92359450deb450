// The four effect slots of a channel's mix bus. A channel takes the slots'
// settings with its instrument (`configure`) and runs them once a block over
// the slot's send accumulator (`process`), on the audio thread only. Delay
// lines come from the engine's `FxLinePool`, so neither call allocates.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "core/items.h"
#include "synth/voice_filter.h"
#include "synth/voice_mod.h"

namespace kv {

enum ChannelFxType : uint8_t {
  kFxTypeNone = 0,
  kFxTypeChorus = 1,
  kFxTypeReverb = 2,
  kFxTypeDelay = 3,
  kFxTypeTremolo = 4,
  kFxTypeCompressor = 5,
  kFxTypeOverdrive = 6,
  kFxTypePhaser = 7,
  kFxTypeShaper = 8,
};

// A slot's settings as the effect reads them: type, three flag bytes and
// five values, each already limited to its catalogue row's range.
struct ChannelFxConfig {
  uint8_t type = 0;
  uint8_t flag[3] = {};
  float value[5] = {};
};

// Places in ChannelFxConfig, by effect.
enum : int {
  kChorusVoices = 0, kChorusOctave = 1, kChorusFlanger = 2,  // flags
  kChorusRate = 0, kChorusDepth = 1, kChorusFeedback = 2,
  kReverbGate = 0,
  kReverbRoom = 0, kReverbDamping = 1, kReverbGateAttack = 2, kReverbGateHold = 3, kReverbGateDecay = 4,
  kDelayLowPass = 0,
  kDelayTime = 0, kDelayFeedback = 1, kDelayTapDistance = 2, kDelayTapPanning = 3, kDelayCutoff = 4,
  kTremoloShape = 0,
  kTremoloRate = 0,
  kCompThreshold = 0, kCompRatio = 1, kCompAttack = 2, kCompRelease = 3, kCompInputGain = 4,
  kDriveSoft = 0,
  kDriveAmount = 0,
  kPhaserStereo = 0, kPhaserShape = 1,
  kPhaserRate = 0, kPhaserDepth = 1, kPhaserDelay = 2, kPhaserFeedback = 3,
  kShaperAttack = 0, kShaperDecay = 1, kShaperFocus = 2,
};

// From an instrument's slot: an unknown type is none, a NaN value takes its
// row's default, any other value is limited to the row's range.
ChannelFxConfig MakeChannelFxConfig(const ChannelFx& fx);

// Power-of-two float lines out of one arena reserved ahead of time: a buddy
// allocator with a free list per size, the lists threaded through the free
// blocks themselves, so taking and giving never call the system allocator.
class FxLinePool {
 public:
  static constexpr int kMinOrder = 4;  // 16 floats
  // Drops every line given out and makes a fresh arena of `floats` (rounded
  // up to a power of two). Not for the audio thread.
  void Reserve(std::size_t floats);
  // A zeroed line of `size` floats (a power of two), or null when no free
  // block is large enough.
  float* Take(uint32_t size);
  void Give(float* line, uint32_t size);
  std::size_t Capacity() const { return capacity_; }
  std::size_t InUse() const { return inUse_; }

 private:
  static constexpr uint32_t kNone = 0xFFFFFFFFu;
  uint32_t Next(uint32_t unit) const;
  uint32_t Prev(uint32_t unit) const;
  void SetLinks(uint32_t unit, uint32_t prev, uint32_t next);
  void Push(uint32_t unit, int order);
  void Unlink(uint32_t unit, int order);

  std::unique_ptr<float[]> arena_;
  std::unique_ptr<uint8_t[]> freeOrder_;  // per unit: order + 1 where a free block starts, else 0
  std::size_t capacity_ = 0;
  std::size_t inUse_ = 0;
  int topOrder_ = 0;
  uint32_t head_[32] = {};
};

// How many floats an engine of `channels` reserves at `sampleRate`: a reverb
// and a chorus on every channel and a delay of a second and a half.
std::size_t FxPoolFloats(int channels, float sampleRate);

// A delay line: `data` has mask + 1 floats; `distance` is the read distance
// behind the write index.
struct FxLine {
  float* data;
  uint32_t mask;
  uint32_t write;
  uint32_t distance;
};

struct ChorusState {
  FxLine line[2];
  float phase[2][8];
  float step[8];
  float sinOld[2][8], sinNew[2][8];
  float depth, base, feedback, scale;
  uint32_t voices;
};

struct ReverbState {
  FxLine comb[2][8];
  FxLine allpass[2][4];
  float store[2][8];
  float room, damping;
  uint8_t gate;
  uint8_t blockwise;  // every line at least a block long
  int32_t stage;  // gate stage 0-3, 4 the end
  uint32_t blocksLeft;
  float gain, step;
  float attackRate, holdTime, decayRate, controlRate;
};

struct DelayState {
  FxLine line;
  uint32_t shortTap, longTap;
  float longLevel, shortLevel, left, right, feedback;
  uint8_t filtered;
  VoiceFilter filter;
};

struct TremoloState {
  LfoState lfo;
  float firstPhase;
  float last;
};

struct CompressorState {
  float attack, release, slope, makeUp, threshold, inputGain;
  float follower;
  uint8_t bypass;
};

struct OverdriveState {
  uint8_t soft;
  float h, q;
};

inline constexpr int kPhaserMaxStages = 48;

struct PhaserState {
  LfoState lfo;
  uint32_t stages;
  float depth, feedback, offset;
  float lastT[2];
  float last[2];
  float xprev[2][kPhaserMaxStages];
  float yprev[2][kPhaserMaxStages];
};

struct ShaperState {
  float rise[4], fall[4];
  float e1[4], e2[4];
  float sign, base;
  uint8_t bypass, peaked;
  OnePole highPass;
  EqSection peak;
};

// A slot's run-time state: the type byte first, then what every type
// shares, then the state of the type alone.
struct ChannelFxState {
  uint8_t type = 0;
  uint8_t active = 0;   // 0 while the pool could not give its lines
  uint8_t flushed = 0;  // lines cleared after the tail; nothing runs while the send stays silent
  uint64_t silent = 0;  // frames of silent send since the last input
  uint64_t tail = 0;    // frames until the lines are surely quiet
  uint64_t framesRun = 0;  // frames processed, for tests and measurements
  union {
    ChorusState chorus;
    ReverbState reverb;
    DelayState delay;
    TremoloState tremolo;
    CompressorState compressor;
    OverdriveState overdrive;
    PhaserState phaser;
    ShaperState shaper;
  };
  ChannelFxState();
};

// Sets the slot up for `config`. The same type keeps phases, lines and tails;
// another type gives the old lines back and starts clear. When the pool
// cannot serve, the slot stays bypassed until its next configure.
void configure(ChannelFxState& state, const ChannelFxConfig& config, float sampleRate, FxLinePool& pool);

// One block of 64 stereo frames. `dry` holds nothing valid when `busEmpty`;
// `send` holds nothing when `sendEmpty` (a send effect then zeroes it).
// True when `dry` holds output.
bool process(ChannelFxState& state, float* dry, float* send, bool busEmpty, bool sendEmpty);

// The bus's reset: lines cleared and counted flushed, followers back to rest.
void ResetChannelFx(ChannelFxState& state);

// True if any value the slot feeds back (lines, comb and filter stores) is
// a denormal number.
bool ChannelFxHoldsDenormal(const ChannelFxState& state);

// Tail length in frames of a loop of `length` frames with feedback `g`, on
// a line of mask `mask`.
uint64_t FxTailFrames(float g, float length, uint32_t mask);

}  // namespace kv
