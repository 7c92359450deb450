// The ADPCM kernels that are not CCITT or Rockwell: IMA/DVI (the
// WAVE block form in 2, 3 and 4 bits), Microsoft ADPCM, Dialogic (OKI) and
// Yamaha. Each decoder turns bytes into 16-bit samples from a small state
// record; none allocates, none sees a chunk: containers frame the data and
// hand over blocks or streams. Encoders exist where a writer needs one and
// are the inverse of their decoders: the state they keep is the decoder's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace kv {

// ---------------------------------------------------------------- IMA ADPCM

inline constexpr int kImaMaxStepIndex = 88;

struct ImaState {
  int32_t predictor = 0;
  int32_t stepIndex = 0;  // 0..88
};

// One 4-bit code by the IMA/DVI reference steps (shift and add).
int16_t kvImaDecode4(ImaState& state, unsigned code);
// One 2- or 3-bit code as FFmpeg's adpcm_ima_wav reads them: the difference
// is (2d + 1) * step >> (bits - 1), with its own index tables.
int16_t kvImaDecodeNarrow(ImaState& state, unsigned code, int bits);

// The IMA ADPCM WAVE block (tag 17): per channel a 4-byte head (i16 first
// sample, u8 step index, u8 reserved), then the codes of the channels in
// groups of 4 bytes each, every channel's groups forming its own stream
// read least significant bit first.
//
// Frames a block of `bytes` bytes holds: 4 bits: bytes / channels * 2 - 7;
// 2 and 3 bits: the head's frame and 16 or 32 per whole group of 4 or 12
// bytes a channel (FFmpeg's count). 0 for less than the heads.
uint32_t kvImaBlockFrames(std::size_t bytes, int channels, int bits);
// Decodes the first `frames` frames of a block (frames <= what it holds and
// the samples per block), keeping the first `outChannels` channels of each
// frame in `out` (frames * outChannels samples). Step indexes over 88 in a
// head are taken as 88, as libsndfile does; the reserved byte is ignored.
void kvDecodeImaBlock(std::span<const uint8_t> block, int channels, int bits, uint32_t frames,
                      std::span<int16_t> out, int outChannels);

// ---------------------------------------------------------------- MS ADPCM

struct MsAdpcmCoefficients {
  int16_t first;   // times sample 1, in 1/256
  int16_t second;  // times sample 2
};
// The seven pairs every MS ADPCM `fmt ` carries.
inline constexpr MsAdpcmCoefficients kMsAdpcmStandardCoefficients[7] = {
    {256, 0}, {512, -256}, {0, 0}, {192, 64}, {240, 0}, {460, -208}, {392, -232}};

// Frames a block of `bytes` bytes holds: 7 bytes of head per channel (two of
// them samples), then two codes a byte: 2 + 2 * (bytes - 7 * channels) /
// channels; 0 for less than the heads.
uint32_t kvMsAdpcmBlockFrames(std::size_t bytes, int channels);
// Decodes the first `frames` frames of a block. Heads: a predictor index
// byte per channel, then per channel the i16 delta, sample 1 and sample 2
// (sample 2 is the first frame, sample 1 the second); codes high nibble
// first, channels in turn. The delta is a 16-bit quantity as in libsndfile
// (a product past 32767 wraps and is then raised to the floor of 16).
// False, with nothing written, when a predictor index is at or above the
// table's size: that ends the decode.
bool kvDecodeMsAdpcmBlock(std::span<const uint8_t> block, int channels, std::span<const MsAdpcmCoefficients> table,
                          uint32_t frames, std::span<int16_t> out, int outChannels);

// ---------------------------------------------------------------- Dialogic

// The OKI 4-bit form: a 12-bit codec whose predictor is kept here at 16-bit
// scale (steps times 16) and limited to 16 bits.
struct DialogicState {
  int32_t predictor = 0;
  int32_t stepIndex = 0;  // 0..48
};

int16_t kvDialogicDecode(DialogicState& state, unsigned code);
// The code whose decoding comes nearest `sample` without taking the
// predictor past OKI's 12 bits (so that 12 and 16-bit decoders agree); the
// state moves as the decoder's does.
unsigned kvDialogicEncode(DialogicState& state, int16_t sample);
// Nibbles high first; the sample count is out.size() (an odd count uses the
// last byte's high nibble only). `in` holds at least (count + 1) / 2 bytes.
void kvDecodeDialogic(std::span<const uint8_t> in, DialogicState& state, std::span<int16_t> out);
// out.size() >= (in.size() + 1) / 2; an odd count leaves the last low nibble
// 0. The run encoder looks a sample ahead, as the Yamaha one does.
void kvEncodeDialogic(std::span<const int16_t> in, DialogicState& state, std::span<uint8_t> out);

// ---------------------------------------------------------------- Yamaha

struct YamahaState {
  int32_t predictor = 0;
  int32_t step = 127;  // 127..24576
};

int16_t kvYamahaDecode(YamahaState& state, unsigned code);
unsigned kvYamahaEncode(YamahaState& state, int16_t sample);
// Mono: two codes a byte, low nibble first. Stereo: a byte is one frame, the
// left code in the low nibble. `frames` frames into out (frames * channels
// samples); `in` holds (frames * channels + 1) / 2 bytes. state[1] is used
// only for stereo.
void kvDecodeYamaha(std::span<const uint8_t> in, YamahaState (&state)[2], int channels, uint64_t frames,
                    std::span<int16_t> out);
// The run encoder looks a sample ahead: it takes the code that leaves the
// least squared error over the sample and the best choice for the next.
void kvEncodeYamaha(std::span<const int16_t> in, YamahaState (&state)[2], int channels, std::span<uint8_t> out);

}  // namespace kv
