// RIFF WAVE family: Microsoft wave and its RF64 form for files past 4 GB,
// Broadcast wave, Rockwell ADPCM, SmartSound SDS and Wave-64. Detect functions
// score the first bytes of a file on the registry's 0/2/4/6 scale.
//
// Other modules use this family in three ways:
//  - WriteWaveFile: every exporter that stores its samples as WAV files beside
//    an instrument file writes them through it, and WriteWaveBody gives the
//    same wave as a list body for the DLS wave pool;
//  - wav_ReadWaveBody: wave pool entries and embedded waves (DLS, RIFF-MIDI)
//    are WAVE bodies read by the same chunk walker;
//  - ReadId3Text: the ID3 tag reader for any container with an ID3 block.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <span>
#include <vector>

namespace kv {

class Collection;
class FileRef;
class Item;
class Waveform;
struct ExportRequest;

int wav_Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
// Broadcast wave: 6 with a bext chunk early in the file, 2 for any RIFF WAVE.
int wav_BwfDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int wav_RockwellDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int wav_SdsDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int wav_W64Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);

// ---- registry functions ----

// RIFF WAVE (and RF64), Broadcast wave, Rockwell and SmartSound SDS: one
// Waveform per file, samples left on disk. Context "wav_Imp".
bool wav_Imp(Collection& collection, FileRef& file, uint32_t parameter);
// The lazy read of a wave found by wav_Imp whose coding the generic reader
// can't take (more than two channels, wide containers, coded tags). Context
// "wav_ImpWave"; tags without a decoder fail naming the missing decoder.
bool wav_ImpWave(Waveform& wave, FileRef& file);
// The coding of a wave wav_ImpWave reads, by its fmt chunk, for listings
// ("IMA ADPCM 4-bit", "CCITT G.723 ADPCM 3-bit", "GSM 06.10" ...); empty for
// other waves or when the file can't be read.
std::string wav_CodingName(const Waveform& wave);
// Writes one Waveform; other items fail. request.parameter is the sub-variant
// (kWav* below). Context "wav_Exp".
bool wav_Exp(Item& item, FileRef& file, ExportRequest& request);

bool w64_Imp(Collection& collection, FileRef& file, uint32_t parameter);
bool w64_Exp(Item& item, FileRef& file, ExportRequest& request);

// ---- the WAV writer for other modules ----

// Sub-variants of the writer.
inline constexpr uint32_t kWavNormal = 0;             // fmt, fact, data, LIST INFO, cue/adtl if looped, smpl
inline constexpr uint32_t kWavExtensible = 0xFFFE;    // the same with a 40-byte WAVE_FORMAT_EXTENSIBLE fmt
inline constexpr uint32_t kWavCwdt = 0x54445743;      // "CWDT" as a u32: Creamware STS smpl block
inline constexpr uint32_t kWavBare = 0xFFFFFFFF;      // smpl before data; no LIST, no cue

// Capability word of the WAV writer: PCM 8/16/24/32, Float 32, Mu-law, A-law,
// GSM, ADPCM 2-5, Compressed, mono and stereo.
inline constexpr uint32_t kWavCapabilities = 0x00327F75;
// The encodings the writer has now: PCM 8/16/24/32, Float 32, Mu-law, A-law,
// GSM 06.10 (tag 49, mono), ADPCM 2 to 5 bits (CCITT G.726, tags 100, 20,
// 64, 20).
inline constexpr uint32_t kWavWritableNow = 0x00307F75;

// A RIFF size field holds 32 bits: a file whose RIFF size would pass this
// many bytes is written as RF64, with a ds64 chunk holding the 64-bit sizes
// and 0xFFFFFFFF in the fields they replace. A variable so that tests can see
// RF64 without writing 4 GB.
inline uint64_t WavRf64Threshold = 0xFFFFFFFE;

// Writes `wave` as a RIFF WAVE file (RF64 past the threshold above) at the
// file's current position (normally a new, empty file). `request` is a
// capability word: bits 0-19 the allowed DataFormats (one bit fixes the
// encoding; 0 means "Auto": the wave's preferred format, else the next better
// PCM or float, else PCM 16-bit), bits 20/21 the allowed channel counts (a stereo wave goes out as mono without
// bit 21, a mono one as stereo without bit 20). The wave is read if needed
// and never changed. False with ErrorContext "wav_Exp" and ErrorMessage set.
bool WriteWaveFile(Waveform& wave, FileRef& file, uint32_t request, uint32_t variant = kWavNormal);
// The same into a new file at `path` (created or replaced; removed again on
// failure).
bool WriteWaveFile(Waveform& wave, const std::filesystem::path& path, uint32_t request,
                   uint32_t variant = kWavNormal);

// The body of a WAVE form (what follows the form type: fmt, fact when the
// coding needs it, the `extra` chunks as given, data, LIST INFO with INAM)
// appended to `out`, for containers that keep their waves as lists (the DLS
// wave pool). Encoding and channels are chosen as by WriteWaveFile; context
// "wav_Exp" on failure, with `out` as it was.
bool WriteWaveBody(Waveform& wave, std::vector<uint8_t>& out, uint32_t request,
                   std::span<const uint8_t> extra = {});

// ---- the chunk walker for embedded waves ----

// Reads the chunks of a WAVE body lying in [start, end) of `file` (fmt, data,
// fact, smpl, inst, wsmp, cue, LIST INFO, ...) into `wave`, then finishes it
// as wav_Imp does: sample count, Akai byte skip, read callback, source path.
// False with context "wav_Imp" when fmt or data is missing or malformed.
bool wav_ReadWaveBody(FileRef& file, uint64_t start, uint64_t end, Waveform& wave);

// ---- WAV chunks kept inside lossless containers ----

// The chunks a lossless container keeps of a WAV file (FLAC's "riff"
// application blocks, WavPack's wrapper), each part a run of whole chunks
// as stored: root key, tuning, loop and INFO texts are read into `wave`
// through the chunk walker. The format, count and samples stay the
// container's.
void wav_ReadWrapper(std::span<const std::span<const uint8_t>> parts, Waveform& wave);
// The RIFF wrapper WriteWaveFile puts around `wave`'s samples in `format`
// (a PCM or float DataFormat), for containers that keep it: `head` up to and
// with the data chunk's head, `tail` from the pad byte on. False for a wave
// too large for a plain RIFF.
bool WaveWrapper(const Waveform& wave, int format, std::vector<uint8_t>& head, std::vector<uint8_t>& tail);

// ---- ID3 ----

// Fills the item's text fields (name, artist, comment, copyright, engineer,
// product) from the text frames of an ID3v2 tag lying at [offset, offset +
// size). Never fails: a broken tag just yields fewer texts. The file position
// is left undefined.
void ReadId3Text(FileRef& file, uint64_t offset, uint64_t size, Item& item);

}  // namespace kv
