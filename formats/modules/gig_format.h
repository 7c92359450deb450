// GigaStudio pieces of the DLS module shared by its reader and writer:
// the dimension region articulation (3ewa), compressed pool waves and the
// wave extension chunk. Internal to the module.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kv {

struct Articulation;
class Collection;
class FileRef;
class Waveform;

namespace gig {

// Dimension types of the 3lnk table.
enum Dimension : uint8_t {
  kDimNone = 0x00,
  kDimSustainPedal = 0x40,
  kDimSampleChannel = 0x80,
  kDimLayer = 0x81,
  kDimVelocity = 0x82,
  kDimReleaseTrigger = 0x84,
  kDimKeyboard = 0x85,
  kDimRoundRobin = 0x86,
  kDimRandom = 0x87,
  kDimRoundRobinKeyboard = 0x89,
};
// Name of a dimension type for notes ("keyswitch", "CC 1" ...).
const char* DimensionName(uint8_t type, char (&buffer)[32]);

// What a 3ewa chunk gives besides the articulation rows.
struct DimensionExtras {
  uint32_t startOffset = 0;
  int unread = 0;         // fields set away from their defaults that no row holds
  int velocityLimit = 0;  // version 2: the upper velocity of the zone (0: none)
  uint8_t upperLimits[8] = {127, 127, 127, 127, 127, 127, 127, 127};  // version 3, per dimension
  bool haveUpperLimits = false;
};
// The rows of one dimension region from its 3ewa body (short or missing
// bodies read the format's defaults).
DimensionExtras ReadArticulation(std::span<const uint8_t> ewa, Articulation& out);

// The 3ewa body (140 bytes for version 2, 148 for 3) of a merged
// articulation record.
// `velocityLimit` is version 2's upper velocity of the zone (0: none),
// `upperLimits` version 3's, per dimension.
std::vector<uint8_t> WriteArticulation(const Articulation& merged, uint32_t startOffset, bool version3,
                                       int velocityLimit, const uint8_t (&upperLimits)[8]);

// CRC-32 (the zlib polynomial) over `data`, continuing `crc` (start with 0).
uint32_t Crc32(const uint8_t* data, std::size_t size, uint32_t crc = 0);

// Makes a pool or .wa! wave whose data [dataAt, dataEnd) is block-coded:
// its length from the block walk, the decoder as its read callback.
bool SetupCompressedWave(FileRef& file, uint64_t dataAt, uint64_t dataEnd, Waveform& wave);

// The wave extension: version 60, the compressed flag, the size of the
// samples as PCM; 68 bytes, 88 for 24-bit stereo.
std::vector<uint8_t> WaveExtension(bool compressed, uint64_t pcmBytes, bool stereo24);

}  // namespace gig

}  // namespace kv
