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

}  // namespace kv::sfz
