// Pieces of the SFZ module shared by the reader and the writer.
#pragma once

#include <string>
#include <string_view>

#include "core/articulation.h"

namespace kv::sfz {

// Filter type number (0-12) from an SFZ name: the first letter and the
// fifth; shorter than six characters gives 0.
int FilterTypeFromName(std::string_view name);
// The SFZ name of a filter type; v1 has only the two-pole forms of 4-pole,
// band-pass and notch filters. Empty for 0.
const char* FilterTypeName(int type, bool v2);

// A number as SFZ text: '.' as decimal point whatever the locale, no
// exponent, trailing zeros removed.
std::string FormatNumber(double value);

// Q of a peaking band from its width in octaves, and back.
double BandwidthToQ(double octaves);
double QToBandwidth(double q);

// The time segments of an SFZ envelope ("ampeg_delay", ...) and the rows of
// an envelope they map to: time, velocity factor, key factor.
struct EnvSegment {
  const char* word;
  int timeRow, velRow, keyRow;
};
inline constexpr EnvSegment kEnvSegments[] = {
    {"delay", kEnvA1Time, kEnvA1Vel, kEnvA1Key}, {"attack", kEnvA2Time, kEnvA2Vel, kEnvA2Key},
    {"hold", kEnvD1Time, kEnvD1Vel, kEnvD1Key},  {"decay", kEnvD2Time, kEnvD2Vel, kEnvD2Key},
    {"release", kEnvR1Rate, kEnvRelVel, kEnvRelKey},
};

// Controller values: CC 64 from kPedalDown up is a held pedal; kCcTop is the
// top of every controller, CC 133 (the key number) included.
inline constexpr int kPedalDown = 64;
inline constexpr int kCcTop = 127;

// The send levels, one per bus (effect1-4 opcodes, fx1-fx4 buses).
inline constexpr int kSendRows[4] = {kRowSend1, kRowSend2, kRowSend3, kRowSend4};

// Channel effect types an <effect> header becomes, and the places
// (ChannelFx::param, FxParam) of the values it names.
enum FxType : int {
  kFxChorus = 1,
  kFxReverb = 2,
  kFxCompressor = 5,
  kFxOverdrive = 6,
  kFxPhaser = 7,
  kFxShaper = 8,  // the "filter" effect: its cutoff is the focus frequency
};
enum FxPlace : int {
  kChorusRate = 0, kChorusDepth = 1, kChorusFeedback = 3, kChorusFlanger = 6,
  kReverbSize = 0, kReverbDamp = 1,
  kCompThreshold = 0, kCompRatio = 1, kCompAttack = 2, kCompRelease = 3, kCompGain = 4,
  kOverdriveDrive = 0,
  kPhaserRate = 1, kPhaserDepth = 2, kPhaserFeedback = 4,
  kShaperFocus = 2,
};
// Chorus depth is a time in the model, a percent of this in SFZ.
inline constexpr double kChorusFullDepth = 0.02;

}  // namespace kv::sfz
