// DLS on-disk constants and the connection table shared by the reader and the
// writer. Internal to the DLS module.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kv {

struct Articulation;

namespace dls {

// ---- connection sources, controls and destinations (DLS level 1 and 2) ----

enum Source : uint16_t {
  kSrcNone = 0x0000,
  kSrcLfo = 0x0001,
  kSrcVelocity = 0x0002,
  kSrcKey = 0x0003,
  kSrcEg1 = 0x0004,
  kSrcEg2 = 0x0005,
  kSrcPitchWheel = 0x0006,
  kSrcPolyPressure = 0x0007,
  kSrcChannelPressure = 0x0008,
  kSrcVibrato = 0x0009,
  kSrcCc1 = 0x0081,
  kSrcCc7 = 0x0087,
  kSrcCc10 = 0x008A,
  kSrcCc11 = 0x008B,
  kSrcCc91 = 0x00DB,
  kSrcCc93 = 0x00DD,
  kSrcRpn0 = 0x0100,  // pitch bend range
  kSrcRpn1 = 0x0101,  // fine tune
  kSrcRpn2 = 0x0102,  // coarse tune
};

enum Destination : uint16_t {
  kDstNone = 0x0000,
  kDstGain = 0x0001,  // "attenuation" in level 1; a gain in 1/655360 dB
  kDstPitch = 0x0003,
  kDstPan = 0x0004,
  kDstKeyNumber = 0x0005,
  kDstChorus = 0x0080,
  kDstReverb = 0x0081,
  kDstLfoFrequency = 0x0104,
  kDstLfoDelay = 0x0105,
  kDstVibFrequency = 0x0114,
  kDstVibDelay = 0x0115,
  kDstEg1Attack = 0x0206,
  kDstEg1Decay = 0x0207,
  kDstEg1Release = 0x0209,
  kDstEg1Sustain = 0x020A,
  kDstEg1Delay = 0x020B,
  kDstEg1Hold = 0x020C,
  kDstEg1Shutdown = 0x020D,
  kDstEg2Attack = 0x030A,
  kDstEg2Decay = 0x030B,
  kDstEg2Release = 0x030D,
  kDstEg2Sustain = 0x030E,
  kDstEg2Delay = 0x030F,
  kDstEg2Hold = 0x0310,
  kDstCutoff = 0x0500,
  kDstQ = 0x0501,
};

// Transform words: level 1 has one value (1 concave); level 2 packs the
// output transform in bits 0-3, the control's in 4-7 with bipolar 8 and
// invert 9, the source's in 10-13 with bipolar 14 and invert 15.
inline constexpr uint16_t kTrnNone = 0x0000;
inline constexpr uint16_t kTrnConcave1 = 0x0001;
inline constexpr uint16_t kTrnSourceBipolar = 0x4000;
inline constexpr uint16_t kTrnSourceInvert = 0x8000;
inline constexpr uint16_t kTrnSourceConcave = 0x0400;
// Velocity to gain: the standard's concave curve from silence at velocity 0.
inline constexpr uint16_t kTrnVelocityCurve = kTrnSourceInvert | kTrnSourceConcave;

// ---- scales ----

// A time of 0 s.
inline constexpr int32_t kZeroTime = INT32_MIN;
// A filter cutoff that switches the filter off.
inline constexpr int32_t kFilterOff = 0x7FFFFFFF;
inline constexpr double kTimeUnit = 1200.0 * 65536.0;   // per doubling of the time
inline constexpr double kCentUnit = 65536.0;            // per cent of pitch
inline constexpr double kSemitoneUnit = 6553600.0;      // per semitone
inline constexpr double kDbUnit = 655360.0;             // per dB of gain
inline constexpr double kLevelUnit = 65536000.0;        // per unit of level (0.1 % steps of 65536)
// The lowest cutoff written, in absolute cents (level 2; level 1 has none).
inline constexpr double kCutoffFloorLevel2 = 1548.0;
inline constexpr double kCutoffFloorLevel1 = 5535.0;

// ---- parameter set masks of the levels ----

inline constexpr uint64_t kMaskLevel1 = 0x40C0002ull;         // "DLS level 1 melodic (.DLS)"
inline constexpr uint64_t kMaskLevel2 = 0x22A442C424Aull;     // "DLS level 2 (.DLS)"
inline constexpr uint64_t kMaskLevel2Plus = 0x22A442C426Aull; // "DLS level 2+ (.DLS)"
inline constexpr uint64_t kMaskLevel2PlusPlus = 0xA6F5F2C426Aull;  // "DLS level 2++ (.DLS)"
// Level 1..4 (1, 2, 2+, 2++) to its mask.
uint64_t LevelMask(int level);

// ---- one connection block ----

struct Connection {
  uint16_t source = kSrcNone;
  uint16_t control = kSrcNone;
  uint16_t destination = kDstNone;
  uint16_t transform = kTrnNone;
  int32_t scale = 0;
};

// Effect slots of the instrument the sends go into; -1: none.
struct SendSlots {
  int reverb = -1;
  int chorus = -1;
};

// What reading a list of connection blocks gives: the rows set in `out` and
// the number of blocks the table has no row for.
struct ReadResult {
  int unknown = 0;
};

// The blocks of one articulator list (lart or lar2) into articulation rows.
// Rows that depend on a block that is present are stored through the
// setter; the rest keep what `out` holds. `level1`: the list is of art1
// chunks, whose one LFO is the vibrato as well.
ReadResult ConnectionsToArticulation(std::span<const Connection> blocks, bool level1, const SendSlots& sends,
                                     Articulation& out);

// Whether the blocks reach a send of the kind (reverb, chorus): the reader
// makes the instrument's effect slot before it converts them.
bool ConnectionsUseReverb(std::span<const Connection> blocks);
bool ConnectionsUseChorus(std::span<const Connection> blocks);

// The inverse: the blocks a merged articulation record needs, only those
// that differ from the standard's defaults. The record is reduced to the
// level's parameter set (within `features`, the user's) and its envelopes
// folded first, on a copy. The master volume (with what the folding and the
// key centring add to it) is left to the region's wsmp, and so is the master
// tune where the key tracking is the plain semitone per key (else it is a
// block: a root key that moves would move the tracking's centre).
struct WrittenArticulation {
  std::vector<Connection> blocks;
  double tuneSemitones = 0.0;  // for the wsmp
  double gainDb = 0.0;         // for the wsmp
};
WrittenArticulation ArticulationToConnections(const Articulation& merged, int level, const SendSlots& sends,
                                              uint64_t features = ~uint64_t{0});

// ---- unit laws ----

double TimeToSeconds(int32_t scale);
int32_t SecondsToTime(double seconds);
double PitchToHz(int32_t scale);
int32_t HzToPitch(double hz);

}  // namespace dls
}  // namespace kv
