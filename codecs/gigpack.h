// GigaStudio compressed waves. The data is a run of blocks of 2048 frames
// (16-bit waves) or 256 frames (24-bit waves); the last block holds what
// remains. A block starts with one mode byte per channel, then each
// channel's header, then the samples: 16-bit stereo frames interleaved,
// 24-bit stereo as all left values, then all right values. The block size
// follows from the modes, so the frame count comes from walking the modes.
//
// Modes: 0 raw 16 bits; 1 8-bit second-order deltas after two 16-bit
// history values; 2 raw 24 bits; 3, 4, 5 third-order deltas of 16, 12 and
// 8 bits after four 24-bit history values. 16-bit waves use 0 and 1, 24-bit
// waves 2-5 (0 and 1 there read as short values shifted up). Any other
// mode ends the wave; what the data lacks decodes as zeros. No allocation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kv {

inline constexpr int kGigPackBlock16 = 2048;
inline constexpr int kGigPackBlock24 = 256;

// Frames the data holds, by the block walk. `channels` 1 or 2.
uint64_t kvGigPackFrames(std::span<const uint8_t> data, int channels, bool bits24);

// One block's size from its mode bytes and the bytes that follow them: its
// frames and its body's bytes, and whether it is the last. False for a mode
// that ends the wave. Lets a reader walk the blocks of a file without
// holding the data.
bool kvGigPackBlockSize(const uint8_t* modes, int channels, bool bits24, uint64_t remaining, uint64_t& frames,
                        uint64_t& body, bool& last);

// Decodes into interleaved frames: 16-bit waves into int16, 24-bit waves as
// 24-bit values in int32. Fills all of `out` (zeros past the data).
void kvGigPackDecode16(std::span<const uint8_t> data, int channels, std::span<int16_t> out);
void kvGigPackDecode24(std::span<const uint8_t> data, int channels, std::span<int32_t> out);

// Appends the coded form of interleaved frames (24-bit values in int32 for
// the 24-bit coder). Each block and channel takes the smallest mode that
// gives back every value exactly; `forceMode` (tests) asks for one mode
// wherever it is exact.
void kvGigPackEncode16(std::span<const int16_t> in, int channels, std::vector<uint8_t>& out, int forceMode = -1);
void kvGigPackEncode24(std::span<const int32_t> in, int channels, std::vector<uint8_t>& out, int forceMode = -1);

}  // namespace kv
