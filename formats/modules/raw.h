// Headerless sample files: the raw fallback of row 0, and the rows of one
// coding each (G.711, Dialogic, Yamaha, CCITT G.72x, Rockwell, GSM, G.722), which frame
// a whole file for a codec of codecs/. A coded row's parameter word names
// its coding (RawParameter below), so a new coding is a family, a reader and
// a writer here and rows in the registry.
#pragma once

#include <cstdint>
#include <string>

namespace kv {

class Collection;
class FileRef;
class Item;
class Waveform;
struct ExportRequest;

int raw_Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
// Any file as raw 8-bit signed mono at 44100 Hz, after asking whether to (with
// boxes off the answer is "Allways OK").
bool raw_Imp(Collection& collection, FileRef& file, uint32_t parameter);
// The raw row's two process-wide answers, back to their start (asking on).
void ResetRawImportQuestion();

// ---- coded rows ----

enum RawFamily : uint32_t {
  kRawALaw = 1,      // G.711 A-law, a byte a sample
  kRawMuLaw = 2,     // G.711 mu-law
  kRawDialogic = 3,  // Dialogic (OKI) 4-bit ADPCM, mono, high nibble first
  kRawYamaha = 4,    // Yamaha 4-bit ADPCM, low nibble first
  kRawCcitt = 5,     // CCITT G.721/G.723/G.726, mono
  kRawRockwell = 6,  // Rockwell 2/3/4-bit ADPCM, mono, least significant bit first
  kRawGsm = 7,       // GSM 06.10, 33-byte frames of 160 samples, mono
  kRawG722 = 8,      // G.722, a byte per two samples at 16 kHz, code words of 8, 7 or 6 bits
};

// The parameter word of a coded row: bits 0-7 the family, 8-11 the code
// width a reader takes (and a writer when the request names none), bit 12
// codes packed least significant bit first (the "Little Endian" rows), bits
// 16-31 the sample rate in Hz (0: 8000, what sox and FFmpeg assume).
constexpr uint32_t RawParameter(RawFamily family, uint32_t bits, bool lsbFirst = false, uint32_t rate = 0) {
  return family | (bits << 8) | (lsbFirst ? 1u << 12 : 0u) | (rate << 16);
}
constexpr RawFamily RawParameterFamily(uint32_t parameter) { return static_cast<RawFamily>(parameter & 0xFF); }
constexpr uint32_t RawParameterBits(uint32_t parameter) { return (parameter >> 8) & 0xF; }
constexpr bool RawParameterLsbFirst(uint32_t parameter) { return (parameter >> 12) & 1; }
constexpr uint32_t RawParameterRate(uint32_t parameter) { return parameter >> 16 ? parameter >> 16 : 8000; }

// Any non-empty file may be one: 2, so that only the extension decides.
int raw_CodedDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
// One mono wave over the whole file at the row's rate; the samples are
// decoded on first use. Context "raw_Imp".
bool raw_CodedImp(Collection& collection, FileRef& file, uint32_t parameter);
// Writes one Waveform in the row's coding: the width from the request's
// ADPCM bit (else the row's), mono for the mono codings. Context "raw_Exp".
bool raw_CodedExp(Item& item, FileRef& file, ExportRequest& request);

// The lazy reads of the ADPCM rows: the width is the wave's bits, the bit
// order the source word's big-endian flag (most significant bit first).
bool raw_DialogicImpWave(Waveform& wave, FileRef& file);
bool raw_YamahaImpWave(Waveform& wave, FileRef& file);
bool raw_G72xImpWave(Waveform& wave, FileRef& file);
bool raw_RockwellImpWave(Waveform& wave, FileRef& file);
// Whole 33-byte frames; a frame without its 0xD nibble fails with "Corrupted
// GSM stream".
bool raw_GsmImpWave(Waveform& wave, FileRef& file);
// The code word width (8, 7 or 6) is the wave's bits.
bool raw_G722ImpWave(Waveform& wave, FileRef& file);

// "Dialogic ADPCM 4-bit" and the like for a wave these rows read; empty for
// any other.
std::string raw_CodingName(const Waveform& wave);

}  // namespace kv
