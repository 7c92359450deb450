// Waveform sample storage: the DataFormat and PreferredFormat tables, the two
// in-memory forms (16-bit and float, interleaved) and the moves between them,
// and the generic coded-PCM reader and writer most format modules use.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <string_view>

namespace kv {

class FileRef;
class Waveform;

// ---- DataFormat: the sample coding ----

enum DataFormat : uint8_t {
  kPcm8 = 0,
  kPcm12 = 1,
  kPcm16 = 2,
  kPcm20 = 3,
  kPcm24 = 4,
  kPcm32 = 5,
  kFloat32 = 6,
  kFloat64 = 7,
  kMuLaw = 8,
  kALaw = 9,
  kGsm2 = 10,
  kAdpcm2 = 11,
  kAdpcm3 = 12,
  kAdpcm4 = 13,
  kAdpcm5 = 14,
  kDelta8 = 15,
  kDelta16 = 16,
  kCompressed = 17,
  kAsciiText = 18,
  kMidi = 19,
  kFormatNone = 20,  // none, or mixed
};
inline constexpr int kDataFormatCount = 20;

// Display name ("PCM 8-bit" ...); "" for codes out of range.
const char* DataFormatName(int format);
// Bits per sample for storage estimates; 0 for codes out of range.
int DataFormatBits(int format);
// Whether the generic reader decodes this format into the float buffer.
constexpr bool DecodesToFloat(int format) { return format >= kPcm20 && format <= kFloat64; }

// ---- the source format word ----

inline constexpr uint32_t kSourceFormatMask = 0xFFFFFu;  // bits 0-19: one DataFormat bit
inline constexpr uint32_t kSourceSequential = 1u << 22;  // all left samples, then all right ones
inline constexpr uint32_t kSourceUnsigned = 1u << 23;
inline constexpr uint32_t kSourceBigEndian = 1u << 24;
inline constexpr uint32_t kSourceLayoutMask = kSourceSequential | kSourceUnsigned | kSourceBigEndian;

constexpr uint32_t SourceFormatBit(int format) { return 1u << format; }
// The lowest DataFormat bit of the word; kFormatNone if there is none.
int SourceDataFormat(uint32_t sourceWord);

// ---- PreferredFormat: what the user wants a wave saved as ----

inline constexpr int kPreferredFormatCount = 22;
inline constexpr int kPreferredFirstCompressed = 8;
inline constexpr int kPreferredLastCompressed = 20;
inline constexpr int kPreferredDefault = 21;

const char* PreferredFormatName(int index);      // "" out of range
int PreferredFormatDataFormat(int index);        // kFormatNone out of range
int PreferredFormatRate(int index);              // kbit/s of a compressed entry, else 0
// Index 8-20 of the compressed entry nearest a rate in kbit/s.
int PreferredFormatForRate(double kbps);
// The entry a reader of raw data in `format` suggests (SetGenericFormat's rule); -1 for none.
int PreferredFormatFor(int format);

// ---- ChannelFormat ----

enum ChannelFormat : uint8_t { kMono = 0, kInterleavedStereo = 1, kSequentialStereo = 2 };
const char* ChannelFormatName(int channelFormat);  // "" out of range

// ---- the two memory forms ----

// Allocation that reports failure by null instead of ending the process.
// Asks the kernel for huge pages behind a buffer of many megabytes, so that
// filling a long wave costs a few hundred page faults instead of a hundred
// thousand. Small buffers are left alone.
void AdviseLargeBuffer(void* data, std::size_t bytes);

template <typename T>
std::unique_ptr<T[]> TryAllocArray(std::size_t count) {
  std::unique_ptr<T[]> p(new (std::nothrow) T[count]);
  if (p) AdviseLargeBuffer(p.get(), count * sizeof(T));
  return p;
}

// The samples in that form, read first if needed. If only the other form is
// present it is converted into a second buffer kept beside the first. Null
// for a wave of zero size or a failed read (ErrorContext/ErrorMessage set).
int16_t* Samples16(Waveform& wave);
float* SamplesFloat(Waveform& wave);
// The same, then the other buffer is freed and the read callback cleared: the
// wave owns its data from now on. All processing works on this form.
int16_t* MakeSamples16(Waveform& wave);
float* MakeSamplesFloat(Waveform& wave);
// One buffer of channels x length, contents undefined, the other form freed.
// Null with "Out of memory" (context kept) or for a zero size; on failure the
// wave keeps what it had.
int16_t* AllocSamples16(Waveform& wave);
float* AllocSamplesFloat(Waveform& wave);
// Frees both buffers when a read callback can bring them back.
void UnloadData(Waveform& wave);

// Makes the generic reader the wave's read callback for raw data in `format`
// with the layout `flags` (kSourceSequential/Unsigned/BigEndian), and sets
// bits and preferred format from it. The usual last step of a raw reader.
void SetGenericFormat(Waveform& wave, int format, uint32_t flags = 0);
bool IsGeneric(const Waveform& wave);

// Bytes the wave takes: as stored (by its preferred format) or in memory.
uint64_t EstimatedSize(const Waveform& wave, bool asStored);

// ---- the generic reader and writer ----

// WaveReadCallback for the coded PCM of the source word: entered with the
// file positioned at the wave's file offset.
bool gen_ImpWave(Waveform& wave, FileRef& file);

// Writes the wave's samples in `format` (0, 2, 4-9, 15 or 16) at the file's
// position. `channels` 1 or 2 forces that many, anything else keeps the
// wave's; `flags` are the kSource layout bits.
bool gen_ExpWave(FileRef& file, Waveform& wave, int format, int channels, uint32_t flags);

// Channel adaptation shared with the export pipeline. Reads the data first if
// needed. Returns the wave itself when `channels` is not 1 or 2 or already
// matches; otherwise a new clone in
// the wave's collection holding mono (average) or stereo (duplicate) samples
// in the buffer form the wave had, which the caller deletes with
// ReleaseAdapted. Null if the data can't be read or memory runs out.
Waveform* AdaptWaveChannels(Waveform& wave, int channels);
// Deletes `adapted` if it is a copy of `original`.
void ReleaseAdapted(const Waveform& original, Waveform* adapted);

// Block size of large reads and writes: 256 MB.
inline constexpr uint64_t kMaxIoBlock = 0x10000000;

}  // namespace kv
