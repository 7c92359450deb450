#include "core/wavestore.h"

#include <sys/mman.h>

#include <cstdint>

#include <cstdio>
#include <cstring>
#include <span>

#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/samplecodec.h"

namespace kv {

namespace {

struct DataFormatRow {
  const char* name;
  int bits;
};

constexpr DataFormatRow kDataFormats[kDataFormatCount] = {
    {"PCM 8-bit", 8},       {"PCM 12-bit", 12},      {"PCM 16-bit", 16},      {"PCM 20-bit", 20},
    {"PCM 24-bit", 24},     {"PCM 32-bit", 32},      {"Float 32-bit", 32},    {"Float 64-bit", 64},
    {"Mu-law 8-bit", 8},    {"A-law 8-bit", 8},      {"GSM 2-bit", 2},        {"ADPCM 2-bit", 2},
    {"ADPCM 3-bit", 3},     {"ADPCM 4-bit", 4},      {"ADPCM 5-bit", 5},      {"Delta PCM 8-bit", 8},
    {"Delta PCM 16-bit", 16}, {"Compressed", 1},     {"Ascii text", 8},       {"MIDI", 0},
};

struct PreferredRow {
  const char* name;
  uint8_t format;
  uint16_t kbps;
};

constexpr PreferredRow kPreferred[kPreferredFormatCount] = {
    {"PCM 8-bit", kPcm8, 0},
    {"PCM 16-bit", kPcm16, 0},
    {"PCM 24-bit", kPcm24, 0},
    {"PCM 32-bit", kPcm32, 0},
    {"Float 32-bit", kFloat32, 0},
    {"Mu-law 8-bit", kMuLaw, 0},
    {"A-law 8-bit", kALaw, 0},
    {"ADPCM 4-bit", kAdpcm4, 0},
    {"Compressed 32 kbit/s", kCompressed, 32},
    {"Compressed 48 kbit/s", kCompressed, 48},
    {"Compressed 64 kbit/s", kCompressed, 64},
    {"Compressed 80 kbit/s", kCompressed, 80},
    {"Compressed 96 kbit/s", kCompressed, 96},
    {"Compressed 112 kbit/s", kCompressed, 112},
    {"Compressed 128 kbit/s", kCompressed, 128},
    {"Compressed 144 kbit/s", kCompressed, 144},
    {"Compressed 160 kbit/s", kCompressed, 160},
    {"Compressed 192 kbit/s", kCompressed, 192},
    {"Compressed 224 kbit/s", kCompressed, 224},
    {"Compressed 256 kbit/s", kCompressed, 256},
    {"Compressed 320 kbit/s", kCompressed, 320},
    {"Default", kFormatNone, 0},
};

// Upper bounds (exclusive) of the rates that map to indexes 8..19.
constexpr int kRateBounds[12] = {40, 56, 72, 88, 104, 120, 136, 152, 176, 208, 240, 288};

constexpr const char* kChannelFormats[3] = {"Mono", "Interleaved Stereo", "Sequential Stereo"};

// Bytes of `count` samples as the generic reader and writer store them.
uint64_t StoredBytes(int format, uint64_t count) {
  switch (format) {
    case kPcm12: return kvPacked12Bytes(count);
    case kPcm20: return kvPacked20Bytes(count);
    case kPcm16:
    case kDelta16: return count * 2;
    case kPcm24: return count * 3;
    case kPcm32:
    case kFloat32: return count * 4;
    case kFloat64: return count * 8;
    default: return count;  // the 8-bit codings
  }
}

bool ReadBlocks(FileRef& file, uint8_t* dst, uint64_t bytes) {
  while (bytes > 0) {
    const uint64_t n = bytes < kMaxIoBlock ? bytes : kMaxIoBlock;
    if (!file.ReadExact(dst, static_cast<std::size_t>(n))) return false;
    dst += n;
    bytes -= n;
  }
  return true;
}

bool WriteBlocks(FileRef& file, const uint8_t* src, uint64_t bytes) {
  while (bytes > 0) {
    const uint64_t n = bytes < kMaxIoBlock ? bytes : kMaxIoBlock;
    if (!file.Write(src, static_cast<std::size_t>(n))) return false;
    src += n;
    bytes -= n;
  }
  return true;
}

// Bytes between `from` and the end of the file, 0 when past it.
uint64_t BytesFrom(const FileRef& file, uint64_t from) {
  const uint64_t size = file.Size();
  return size > from ? size - from : 0;
}

}  // namespace

// ---- tables ----

const char* DataFormatName(int format) {
  return format >= 0 && format < kDataFormatCount ? kDataFormats[format].name : "";
}

int DataFormatBits(int format) {
  return format >= 0 && format < kDataFormatCount ? kDataFormats[format].bits : 0;
}

int SourceDataFormat(uint32_t sourceWord) {
  const uint32_t bits = sourceWord & kSourceFormatMask;
  return bits ? __builtin_ctz(bits) : kFormatNone;
}

const char* PreferredFormatName(int index) {
  return index >= 0 && index < kPreferredFormatCount ? kPreferred[index].name : "";
}

int PreferredFormatDataFormat(int index) {
  return index >= 0 && index < kPreferredFormatCount ? int{kPreferred[index].format} : int{kFormatNone};
}

int PreferredFormatRate(int index) {
  return index >= 0 && index < kPreferredFormatCount ? kPreferred[index].kbps : 0;
}

int PreferredFormatForRate(double kbps) {
  const double rounded = kbps < 0 ? kbps - 0.499 : kbps + 0.499;
  const int rate = static_cast<int>(rounded);
  for (int i = 0; i < 12; ++i) {
    if (rate < kRateBounds[i]) return kPreferredFirstCompressed + i;
  }
  return kPreferredLastCompressed;
}

int PreferredFormatFor(int format) {
  switch (format) {
    case kPcm8:
    case kDelta8: return 0;
    case kPcm12:
    case kPcm16:
    case kDelta16: return 1;
    case kPcm20:
    case kPcm24: return 2;
    case kPcm32: return 3;
    case kFloat32:
    case kFloat64: return 4;
    case kMuLaw: return 5;
    case kALaw: return 6;
    default: return -1;
  }
}

const char* ChannelFormatName(int channelFormat) {
  return channelFormat >= 0 && channelFormat < 3 ? kChannelFormats[channelFormat] : "";
}

// ---- memory forms ----

int16_t* AllocSamples16(Waveform& wave) {
  const uint64_t count = wave.SampleCount();
  if (count == 0) return nullptr;
  auto buffer = TryAllocArray<int16_t>(count);
  if (!buffer) {
    FailMessage("Out of memory");
    return nullptr;
  }
  wave.samplesF.reset();
  wave.samples16 = std::move(buffer);
  return wave.samples16.get();
}

float* AllocSamplesFloat(Waveform& wave) {
  const uint64_t count = wave.SampleCount();
  if (count == 0) return nullptr;
  auto buffer = TryAllocArray<float>(count);
  if (!buffer) {
    FailMessage("Out of memory");
    return nullptr;
  }
  wave.samples16.reset();
  wave.samplesF = std::move(buffer);
  return wave.samplesF.get();
}

int16_t* Samples16(Waveform& wave) {
  const uint64_t count = wave.SampleCount();
  if (count == 0) return nullptr;
  if (wave.samples16) return wave.samples16.get();
  if (!wave.samplesF && !wave.EnsureData()) return nullptr;
  if (wave.samples16) return wave.samples16.get();
  auto buffer = TryAllocArray<int16_t>(count);
  if (!buffer) {
    Fail("Convert to 16-bit", "Out of memory");
    return nullptr;
  }
  kvFloatTo16({wave.samplesF.get(), count}, {buffer.get(), count});
  wave.samples16 = std::move(buffer);
  return wave.samples16.get();
}

float* SamplesFloat(Waveform& wave) {
  const uint64_t count = wave.SampleCount();
  if (count == 0) return nullptr;
  if (wave.samplesF) return wave.samplesF.get();
  if (!wave.samples16 && !wave.EnsureData()) return nullptr;
  if (wave.samplesF) return wave.samplesF.get();
  auto buffer = TryAllocArray<float>(count);
  if (!buffer) {
    Fail("Convert to float", "Out of memory");
    return nullptr;
  }
  kv16ToFloat({wave.samples16.get(), count}, {buffer.get(), count});
  wave.samplesF = std::move(buffer);
  return wave.samplesF.get();
}

int16_t* MakeSamples16(Waveform& wave) {
  int16_t* data = Samples16(wave);
  if (!data) return nullptr;
  wave.samplesF.reset();
  wave.readCallback = nullptr;
  return data;
}

float* MakeSamplesFloat(Waveform& wave) {
  float* data = SamplesFloat(wave);
  if (!data) return nullptr;
  wave.samples16.reset();
  wave.readCallback = nullptr;
  return data;
}

void UnloadData(Waveform& wave) {
  if (!wave.readCallback) return;
  wave.samples16.reset();
  wave.samplesF.reset();
}

void SetGenericFormat(Waveform& wave, int format, uint32_t flags) {
  wave.readCallback = gen_ImpWave;
  wave.sourceFormat = SourceFormatBit(format) | (flags & kSourceLayoutMask);
  wave.bits = static_cast<uint8_t>(DataFormatBits(format));
  const int preferred = PreferredFormatFor(format);
  if (preferred >= 0) wave.preferredFormat = static_cast<uint8_t>(preferred);
}

bool IsGeneric(const Waveform& wave) { return wave.readCallback == gen_ImpWave; }

uint64_t EstimatedSize(const Waveform& wave, bool asStored) {
  const uint64_t count = wave.SampleCount();
  const int preferred = wave.preferredFormat;
  if (asStored && preferred >= kPreferredFirstCompressed && preferred <= kPreferredLastCompressed) {
    const double rate = wave.sampleRate ? wave.sampleRate : 44100.0;
    const double bytesPerFrame = PreferredFormatRate(preferred) * 1000.0 / rate * 0.125;
    return static_cast<uint64_t>(static_cast<double>(count) * bytesPerFrame + 0.999);
  }
  if (asStored && preferred < kPreferredFirstCompressed) {
    return count * static_cast<uint64_t>(DataFormatBits(PreferredFormatDataFormat(preferred))) / 8;
  }
  bool isFloat;
  if (wave.samplesF || wave.samples16) {
    isFloat = !wave.samples16;
  } else {
    isFloat = DecodesToFloat(SourceDataFormat(wave.sourceFormat));
  }
  return count * (isFloat ? 4 : 2);
}

// ---- generic reader ----

bool gen_ImpWave(Waveform& wave, FileRef& file) {
  static constexpr const char* kContext = "gen_ImpWave";
  if (wave.length == 0) return Fail(kContext, "Zero length");
  if (wave.channels == 0) return Fail(kContext, "No channels");
  if (wave.channels > 2) return Fail(kContext, "Too many channels");

  const int format = SourceDataFormat(wave.sourceFormat);
  if (format > kDelta16 || (format >= kGsm2 && format <= kAdpcm5)) {
    return Fail(kContext, "Invalid format for generic import function!");
  }
  const bool sequential = wave.channels == 2 && (wave.sourceFormat & kSourceSequential);
  const bool bigEndian = wave.sourceFormat & kSourceBigEndian;
  const bool isUnsigned = wave.sourceFormat & kSourceUnsigned;
  const uint64_t count = wave.SampleCount();
  const uint64_t bytes = StoredBytes(format, count);

  // A header may claim far more than the file holds; never allocate for that.
  const uint64_t position = file.Tell();
  const bool split = sequential && wave.secondChannelOffset != 0;
  const uint64_t firstPart = split ? bytes / 2 : bytes;
  if (firstPart > BytesFrom(file, position) || (split && bytes - firstPart > BytesFrom(file, wave.secondChannelOffset))) {
    return Fail(kContext, "Reading from file failed");
  }

  const bool toFloat = DecodesToFloat(format);
  std::unique_ptr<int16_t[]> target16;
  std::unique_ptr<float[]> targetF;
  if (toFloat) {
    targetF = TryAllocArray<float>(count);
  } else {
    target16 = TryAllocArray<int16_t>(count);
  }
  if (!target16 && !targetF) return Fail(kContext, "Out of memory");

  // Codings as wide as the target read straight into it.
  const bool direct = format == kPcm16 || format == kDelta16 || format == kPcm32 || format == kFloat32;
  std::unique_ptr<uint8_t[]> work;
  uint8_t* raw;
  if (direct) {
    raw = toFloat ? reinterpret_cast<uint8_t*>(targetF.get()) : reinterpret_cast<uint8_t*>(target16.get());
  } else {
    work = TryAllocArray<uint8_t>(bytes);
    if (!work) return Fail(kContext, "Out of memory");
    raw = work.get();
  }

  bool ok;
  if (split) {
    ok = ReadBlocks(file, raw, firstPart) && file.Seek(wave.secondChannelOffset) &&
         ReadBlocks(file, raw + firstPart, bytes - firstPart);
  } else {
    ok = ReadBlocks(file, raw, bytes);
  }
  if (!ok) return Fail(kContext, "Reading from file failed");

  const std::span<const uint8_t> in(raw, bytes);
  const std::span<int16_t> out16(target16.get(), target16 ? count : 0);
  const std::span<float> outF(targetF.get(), targetF ? count : 0);
  switch (format) {
    case kPcm8: kvDecodePcm8(in, out16, isUnsigned); break;
    case kPcm12: kvDecodePcm12(in, out16, bigEndian, isUnsigned); break;
    case kPcm16: kvDecodePcm16InPlace(out16, bigEndian, isUnsigned); break;
    case kPcm20: kvDecodePcm20(in, outF, bigEndian, isUnsigned); break;
    case kPcm24: kvDecodePcm24(in, outF, bigEndian, isUnsigned); break;
    case kPcm32: kvDecodePcm32InPlace(outF, bigEndian, isUnsigned); break;
    case kFloat32: kvDecodeFloat32InPlace(outF, bigEndian); break;
    case kFloat64: kvDecodeFloat64(in, outF, bigEndian); break;
    case kMuLaw: kvDecodeMuLaw(in, out16); break;
    case kALaw: kvDecodeALaw(in, out16); break;
    case kDelta8: kvDecodeDelta8(in, out16, isUnsigned); break;
    case kDelta16: kvDecodeDelta16InPlace(out16, bigEndian, isUnsigned); break;
    default: break;
  }
  work.reset();

  if (sequential) {
    // Both halves are decoded in one run, then woven into frames through a copy.
    if (toFloat) {
      auto copy = TryAllocArray<float>(count);
      if (!copy) return Fail(kContext, "Out of memory");
      std::memcpy(copy.get(), targetF.get(), count * sizeof(float));
      kvInterleave(std::span<const float>(copy.get(), count), outF);
    } else {
      auto copy = TryAllocArray<int16_t>(count);
      if (!copy) return Fail(kContext, "Out of memory");
      std::memcpy(copy.get(), target16.get(), count * sizeof(int16_t));
      kvInterleave(std::span<const int16_t>(copy.get(), count), out16);
    }
  }

  wave.samples16 = std::move(target16);
  wave.samplesF = std::move(targetF);
  return true;
}

// ---- channel adaptation ----

Waveform* AdaptWaveChannels(Waveform& wave, int channels) {
  // Like the export pipeline: a wave whose data can't be had is never handed on.
  if (!wave.HasData() && !wave.EnsureData()) return nullptr;
  if ((channels != 1 && channels != 2) || channels == wave.channels) return &wave;
  if (wave.channels != 1 && wave.channels != 2) return nullptr;
  if (!wave.collection) return nullptr;

  const uint64_t frames = wave.length;
  const uint64_t outCount = frames * channels;
  const bool isFloat = !wave.samples16;
  std::unique_ptr<int16_t[]> out16;
  std::unique_ptr<float[]> outF;
  if (isFloat) {
    outF = TryAllocArray<float>(outCount ? outCount : 1);
  } else {
    out16 = TryAllocArray<int16_t>(outCount ? outCount : 1);
  }
  if (!out16 && !outF) return nullptr;

  if (frames > 0) {
    const uint64_t inCount = frames * wave.channels;
    if (isFloat) {
      std::span<const float> in(wave.samplesF.get(), inCount);
      if (channels == 2) kvMonoToStereo(in, {outF.get(), outCount});
      else kvStereoToMono(in, {outF.get(), outCount});
    } else {
      std::span<const int16_t> in(wave.samples16.get(), inCount);
      if (channels == 2) kvMonoToStereo(in, {out16.get(), outCount});
      else kvStereoToMono(in, {out16.get(), outCount});
    }
  }

  auto* copy = static_cast<Waveform*>(CloneItem(wave, *wave.collection, wave.name, false));
  if (!copy) return nullptr;
  copy->channels = static_cast<uint8_t>(channels);
  copy->samples16 = std::move(out16);
  copy->samplesF = std::move(outF);
  copy->readCallback = nullptr;  // the copy's data no longer matches the file
  return copy;
}

void ReleaseAdapted(const Waveform& original, Waveform* adapted) {
  if (adapted && adapted != &original) DeleteItem(adapted);
}

// ---- generic writer ----

bool gen_ExpWave(FileRef& file, Waveform& wave, int format, int channels, uint32_t flags) {
  static constexpr const char* kContext = "gen_ExpWave";
  Waveform* adapted = AdaptWaveChannels(wave, channels);
  if (!adapted) return Fail(kContext, "The file format can not save this item");
  struct Release {
    const Waveform& original;
    Waveform* adapted;
    ~Release() { ReleaseAdapted(original, adapted); }
  } release{wave, adapted};
  Waveform& w = *adapted;

  switch (format) {
    case kPcm8: case kPcm16: case kPcm24: case kPcm32: case kFloat32:
    case kFloat64: case kMuLaw: case kALaw: case kDelta8: case kDelta16: break;
    default: return Fail(kContext, "Invalid data format");
  }

  const uint64_t count = w.SampleCount();
  if (count == 0) return true;
  const bool bigEndian = flags & kSourceBigEndian;
  const bool isUnsigned = flags & kSourceUnsigned;
  const bool sequential = (flags & kSourceSequential) && w.channels == 2;
  const bool fromFloat = DecodesToFloat(format);

  const int16_t* s16 = nullptr;
  const float* sF = nullptr;
  if (fromFloat) {
    sF = SamplesFloat(w);
  } else {
    s16 = Samples16(w);
  }
  if (!s16 && !sF) {
    // Keep the reader's own message if it failed; name the writer either way.
    std::snprintf(ErrorContext, sizeof ErrorContext, "%s", kContext);
    return false;
  }

  if (!bigEndian && !isUnsigned && !sequential && (format == kPcm16 || format == kFloat32)) {
    const auto* src = fromFloat ? reinterpret_cast<const uint8_t*>(sF) : reinterpret_cast<const uint8_t*>(s16);
    if (!WriteBlocks(file, src, StoredBytes(format, count))) return Fail(kContext, "Writing to file failed");
    return true;
  }

  // Sequential output: turn the frames into two runs first, then code them.
  std::unique_ptr<int16_t[]> seq16;
  std::unique_ptr<float[]> seqF;
  if (sequential) {
    if (fromFloat) {
      seqF = TryAllocArray<float>(count);
      if (!seqF) return Fail(kContext, "Out of memory");
      kvDeinterleave(std::span<const float>(sF, count), {seqF.get(), count});
      sF = seqF.get();
    } else {
      seq16 = TryAllocArray<int16_t>(count);
      if (!seq16) return Fail(kContext, "Out of memory");
      kvDeinterleave(std::span<const int16_t>(s16, count), {seq16.get(), count});
      s16 = seq16.get();
    }
  }

  const uint64_t bytes = StoredBytes(format, count);
  auto coded = TryAllocArray<uint8_t>(bytes);
  if (!coded) return Fail(kContext, "Out of memory");
  const std::span<uint8_t> out(coded.get(), bytes);
  const std::span<const int16_t> in16(s16, s16 ? count : 0);
  const std::span<const float> inF(sF, sF ? count : 0);
  switch (format) {
    case kPcm8: kvEncodePcm8(in16, out, isUnsigned); break;
    case kPcm16: kvEncodePcm16(in16, out, bigEndian, isUnsigned); break;
    case kPcm24: kvEncodePcm24(inF, out, bigEndian, isUnsigned); break;
    case kPcm32: kvEncodePcm32(inF, out, bigEndian, isUnsigned); break;
    case kFloat32: kvEncodeFloat32(inF, out, bigEndian); break;
    case kFloat64: kvEncodeFloat64(inF, out, bigEndian); break;
    case kMuLaw: kvEncodeMuLaw(in16, out); break;
    case kALaw: kvEncodeALaw(in16, out); break;
    case kDelta8: kvEncodeDelta8(in16, out, isUnsigned); break;
    case kDelta16: kvEncodeDelta16(in16, out, bigEndian, isUnsigned); break;
    default: break;
  }
  seq16.reset();
  seqF.reset();
  if (!WriteBlocks(file, coded.get(), bytes)) return Fail(kContext, "File Write Error");
  return true;
}

void AdviseLargeBuffer(void* data, std::size_t bytes) {
  constexpr std::size_t kLarge = std::size_t{8} << 20;
  if (bytes < kLarge) return;
  const std::size_t page = 4096;
  auto begin = (reinterpret_cast<std::uintptr_t>(data) + page - 1) & ~(page - 1);
  auto end = (reinterpret_cast<std::uintptr_t>(data) + bytes) & ~(page - 1);
  if (end > begin) ::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);  // advice only
}

}  // namespace kv
