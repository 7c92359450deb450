// The ADPCM tags of RIFF WAVE, with the kernels of codecs/: the
// `fmt ` fields their decoders need, how many frames a data chunk holds, the
// lazy decode into a wave and the CCITT writer's coding. Internal to the WAV
// family (wav.cpp, wav_io.cpp); the codecs themselves live in codecs/.
#pragma once

#include <cstdint>
#include <span>
#include <vector>
#include <string>

#include "codecs/adpcm.h"

namespace kv {

class ByteCursor;
class Waveform;

namespace wavcoded {

// Tags 20, 64, 66, 69, 89, 100, 133, 139, 147, 0x123, 0x140, 0x4243, 0xA105
// and 0xA107, which the decoder collapses to 69.
bool IsCcittTag(uint32_t tag);
// 49, 4096 (GSM 06.10 in 65-byte pairs) and 771 (GSM in 38-byte records).
bool IsGsmTag(uint32_t tag);
// 2 (MS ADPCM), 17 (IMA), the CCITT family, 23 (Dialogic), 32 (Yamaha), 59
// and 768 (Rockwell), the GSM tags and 101 (G.722).
bool IsCodedTag(uint32_t tag);

struct CodedFormat {
  uint32_t tag = 0;  // the CCITT family collapsed to 69, 4096 to 49
  uint32_t channels = 1;
  uint32_t bits = 0;
  uint32_t blockAlign = 0;
  uint32_t samplesPerBlock = 0;  // IMA and MS ADPCM
  uint32_t coefficientCount = 0; // MS ADPCM: as many as the fmt holds, at most 256
  MsAdpcmCoefficients coefficients[256] = {};
};

// The coding's fields of the `fmt ` whose payload starts at `body`: bits,
// cbSize and what follows, as the plain form lays them out (an extensible
// fmt's are gathered from around its GUID). False when they can't be read.
bool CodedFields(ByteCursor& cur, uint64_t body, uint64_t fmtSize, std::vector<uint8_t>& fields);
// Checks `fields` (from CodedFields) for `tag`. False with context "wav_Imp" and
// the tag's own message: bits the coding doesn't have, channels it
// can't hold, a block align of 0 or below the heads, samples per block of 0
// or more than a block holds, no coefficient table.
bool ParseCodedFmt(std::span<const uint8_t> fields, uint32_t tag, uint32_t channels, uint32_t blockAlign,
                   CodedFormat& f);
// Re-reads the fmt whose payload starts at `fmtOffset` (its size stands in
// the 4 bytes before it). Context "wav_ImpWave".
bool ReadCodedFmt(ByteCursor& cur, uint64_t fmtOffset, CodedFormat& f);

// Frames `dataBytes` bytes of data hold: whole and last partial blocks for
// IMA and MS ADPCM, whole codes for the others.
uint64_t CodedFrames(const CodedFormat& f, uint64_t dataBytes);
// The frames of one block (IMA, MS ADPCM) or of one block align's bytes; the
// slack a `fact` count may have past the data.
uint64_t CodedBlockFrames(const CodedFormat& f);

// Decodes wave.length frames from the data at the cursor, `dataBytes` long,
// into the wave's 16-bit buffer (its first two channels); frames the data
// doesn't hold are zeros. Context "wav_ImpWave".
bool DecodeCoded(Waveform& wave, ByteCursor& cur, const CodedFormat& f, uint64_t dataBytes);

// "IMA ADPCM 4-bit", "CCITT G.726 ADPCM 3-bit" ...
std::string CodedName(const CodedFormat& f);

}  // namespace wavcoded
}  // namespace kv
