// Raw fallback of row 0, and the coded rows: headerless G.711, Dialogic,
// Yamaha, CCITT and Rockwell files.
#include "formats/modules/raw.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <span>

#include "codecs/adpcm.h"
#include "codecs/codepack.h"
#include "codecs/g72x.h"
#include "codecs/g722.h"
#include "codecs/gsm610.h"
#include "codecs/rockwell.h"
#include "core/app.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/wavestore.h"
#include "formats/modules/module.h"
#include "formats/modules/wav_cursor.h"

namespace kv {

namespace {

// ---- the raw row's answers, for the process ----

bool g_rawAsk = true;
bool g_rawCancelAlways = false;

// Buttons of the raw-data question. A box that isn't shown returns 1, which
// must read as "Allways OK" so silent runs load raw data.
enum RawAnswer : int {
  kRawAlwaysOk = kBoxOk,
  kRawCancel = 2,
  kRawOk = kBoxYes,
  kRawAlwaysCancel = kBoxNo,
};

}  // namespace

// Nothing speaks against reading any bytes as raw samples; the registry's
// extension bonus for row 0 makes this the score every other row must beat.
int raw_Detect(const uint8_t*, uint32_t, uint32_t, uint64_t) { return 2; }

bool raw_Imp(Collection& collection, FileRef& file, uint32_t) {
  if (g_rawCancelAlways) return true;
  if (g_rawAsk) {
    const int answer = MessageBox(
        "The selected file can not be detected as any of the supported import types. Select OK to read it as raw "
        "data...\n\nYou'll need to adjust the data format on the 'Source' tab of the waveform properties.",
        file.Path().filename().string(), BoxButtons::OkAlwaysCancelAlways);
    switch (answer) {
      case kRawAlwaysOk: g_rawAsk = false; break;
      case kRawOk: break;
      case kRawAlwaysCancel: g_rawCancelAlways = true; return true;
      default: return true;  // Cancel
    }
  }
  auto* wave = Create<Waveform>(collection);
  SetGenericFormat(*wave, kPcm8, 0);
  wave->sampleRate = 44100;
  wave->channels = 1;
  wave->fileOffset = 0;
  wave->sourcePath = file.Path();
  const uint64_t frames = file.Size() * 8 / (DataFormatBits(kPcm8) * wave->channels);
  wave->length = static_cast<uint32_t>(std::min<uint64_t>(frames, UINT32_MAX));
  return true;
}

void ResetRawImportQuestion() {
  g_rawAsk = true;
  g_rawCancelAlways = false;
}

}  // namespace kv

// ===================================================================== coded rows

namespace kv {

namespace {

constexpr const char* kRawImp = "raw_Imp";
constexpr const char* kRawExp = "raw_Exp";
// Frames coded or decoded per chunk: a multiple of 8, so that every chunk of
// codes starts on a byte.
constexpr uint64_t kRawChunkFrames = 1u << 16;

bool IsAdpcmFamily(RawFamily f) { return f == kRawDialogic || f == kRawYamaha || f == kRawCcitt || f == kRawRockwell; }

WaveReadCallback CallbackOf(RawFamily f) {
  switch (f) {
    case kRawDialogic: return raw_DialogicImpWave;
    case kRawYamaha: return raw_YamahaImpWave;
    case kRawCcitt: return raw_G72xImpWave;
    case kRawRockwell: return raw_RockwellImpWave;
    case kRawGsm: return raw_GsmImpWave;
    case kRawG722: return raw_G722ImpWave;
    default: return nullptr;
  }
}

// A decoder for one chunk of codes: `frames` frames from `in` into `out`.
struct ChunkDecoder {
  virtual ~ChunkDecoder() = default;
  virtual void Decode(std::span<const uint8_t> in, uint64_t frames, int16_t* out) = 0;
};

// The lazy read every ADPCM row shares: the data from the wave's offset to
// its end, in chunks of whole codes; frames the data doesn't hold are zeros.
bool ReadCodedWave(Waveform& w, FileRef& file, int bits, ChunkDecoder& decoder) {
  const char* context = "raw_ImpWave";
  const int channels = w.channels == 2 ? 2 : 1;
  const uint64_t frames = w.length;
  if (frames == 0) return Fail(context, "Zero length");
  if (bits < 2 || bits > 5) return Fail(context, "Unsupported compression type");
  int16_t* out = AllocSamples16(w);
  if (!out) return Fail(context, "Out of memory");
  uint64_t done = 0;
  // Frames the data doesn't hold are zeros, however the read ends.
  struct ZeroTail {
    int16_t* out;
    const uint64_t& done;
    uint64_t frames;
    int channels;
    ~ZeroTail() { std::memset(out + done * channels, 0, (frames - done) * channels * sizeof(int16_t)); }
  } zeroTail{out, done, frames, channels};
  ByteCursor cur(file);
  if (!cur.Seek(w.fileOffset)) return Fail(context, "Reading from file failed");
  uint64_t left = cur.Left();
  if (w.dataEnd > w.fileOffset) left = std::min(left, w.dataEnd - w.fileOffset);
  const uint64_t decodable = std::min(frames, kvPackedCodeCount(left, bits) / channels);
  const uint64_t chunkBytes = kvPackedCodeBytes(kRawChunkFrames * channels, bits);
  auto buffer = TryAllocArray<uint8_t>(static_cast<std::size_t>(std::min(chunkBytes, std::max<uint64_t>(left, 1))));
  if (!buffer) return Fail(context, "Out of memory");
  while (done < decodable) {
    const uint64_t n = std::min(kRawChunkFrames, decodable - done);
    const std::size_t bytes = static_cast<std::size_t>(std::min(kvPackedCodeBytes(n * channels, bits), left));
    if (!cur.Bytes(buffer.get(), bytes)) return Fail(context, "Reading from file failed");
    left -= bytes;
    decoder.Decode({buffer.get(), bytes}, n, out + done * channels);
    done += n;
  }
  return true;
}

// The lazy read of the framed rows: whole frames of `frameBytes` bytes, each
// `frameSamples` mono samples, `decode(frames, in, out)` false on a corrupt
// frame (its message set). Frames the data doesn't hold are zeros.
template <typename Decode>
bool ReadFramedWave(Waveform& w, FileRef& file, uint32_t frameBytes, uint32_t frameSamples, Decode&& decode) {
  const char* context = "raw_ImpWave";
  const uint64_t samples = w.length;
  if (samples == 0) return Fail(context, "Zero length");
  w.channels = 1;
  int16_t* out = AllocSamples16(w);
  if (!out) return Fail(context, "Out of memory");
  uint64_t done = 0;
  struct ZeroTail {
    int16_t* out;
    const uint64_t& done;
    uint64_t samples;
    ~ZeroTail() { std::memset(out + done, 0, (samples - done) * sizeof(int16_t)); }
  } zeroTail{out, done, samples};
  ByteCursor cur(file);
  if (!cur.Seek(w.fileOffset)) return Fail(context, "Reading from file failed");
  uint64_t left = cur.Left();
  if (w.dataEnd > w.fileOffset) left = std::min(left, w.dataEnd - w.fileOffset);
  const uint64_t chunkFrames = std::max<uint64_t>(1, (1u << 20) / frameBytes);
  auto buffer = TryAllocArray<uint8_t>(static_cast<std::size_t>(std::min(chunkFrames, std::max<uint64_t>(left / frameBytes, 1)) * frameBytes));
  auto pcm = TryAllocArray<int16_t>(frameSamples);
  if (!buffer || !pcm) return Fail(context, "Out of memory");
  while (done < samples && left >= frameBytes) {
    const uint64_t frames = std::min(chunkFrames, left / frameBytes);
    if (!cur.Bytes(buffer.get(), static_cast<std::size_t>(frames * frameBytes))) return Fail(context, "Reading from file failed");
    left -= frames * frameBytes;
    for (uint64_t f = 0; f < frames && done < samples; ++f) {
      const uint64_t take = std::min<uint64_t>(frameSamples, samples - done);
      int16_t* o = take == frameSamples ? out + done : pcm.get();
      if (!decode(buffer.get() + f * frameBytes, o)) return false;
      if (o != out + done) std::memcpy(out + done, o, take * sizeof(int16_t));
      done += take;
    }
  }
  return true;
}

int WaveBits(const Waveform& w) { return w.bits; }
bool MsbFirst(const Waveform& w) { return (w.sourceFormat & kSourceBigEndian) != 0; }

}  // namespace

int raw_CodedDetect(const uint8_t*, uint32_t, uint32_t, uint64_t fileSize) { return fileSize > 0 ? 2 : 0; }

bool raw_CodedImp(Collection& collection, FileRef& file, uint32_t parameter) {
  const RawFamily family = RawParameterFamily(parameter);
  const uint64_t size = file.Size();
  auto* wave = Create<Waveform>(collection);
  const std::string stem = file.Path().stem().string();
  wave->SetName(stem.data(), stem.size(), TextEncoding::Foreign);
  wave->sampleRate = RawParameterRate(parameter);
  wave->channels = 1;
  wave->fileOffset = 0;
  wave->sourcePath = file.Path();
  if (family == kRawALaw || family == kRawMuLaw) {
    SetGenericFormat(*wave, family == kRawALaw ? kALaw : kMuLaw, 0);
    wave->length = static_cast<uint32_t>(std::min<uint64_t>(size, UINT32_MAX));
    return true;
  }
  if (family == kRawGsm) {
    wave->bits = 2;
    wave->sourceFormat = SourceFormatBit(kGsm2);
    wave->length = static_cast<uint32_t>(std::min<uint64_t>(size / kGsmFrameBytes * kGsmFrameSamples, UINT32_MAX));
    wave->dataEnd = size;
    wave->readCallback = raw_GsmImpWave;
    return true;
  }
  if (family == kRawG722) {
    const uint32_t width = RawParameterBits(parameter);
    if (width < 6 || width > 8) {
      DeleteItem(wave);
      return Fail(kRawImp, "Unsupported compression type");
    }
    wave->bits = static_cast<uint8_t>(width);
    wave->sourceFormat = SourceFormatBit(kAdpcm4);  // 4 bits a sample at every width
    wave->length = static_cast<uint32_t>(std::min<uint64_t>(size * 2, UINT32_MAX));
    wave->dataEnd = size;
    wave->readCallback = raw_G722ImpWave;
    return true;
  }
  const uint32_t bits = RawParameterBits(parameter);
  if (!IsAdpcmFamily(family) || bits < 2 || bits > 5) {
    DeleteItem(wave);
    return Fail(kRawImp, "Unsupported compression type");
  }
  wave->bits = static_cast<uint8_t>(bits);
  wave->preferredFormat = 7;  // "ADPCM 4-bit", the one ADPCM entry of the list
  wave->sourceFormat = SourceFormatBit(kAdpcm2 + static_cast<int>(bits) - 2) |
                       (family == kRawCcitt && !RawParameterLsbFirst(parameter) ? kSourceBigEndian : 0);
  wave->length = static_cast<uint32_t>(std::min<uint64_t>(kvPackedCodeCount(size, static_cast<int>(bits)), UINT32_MAX));
  wave->dataEnd = size;
  wave->readCallback = CallbackOf(family);
  return true;
}

bool raw_DialogicImpWave(Waveform& w, FileRef& file) {
  struct : ChunkDecoder {
    DialogicState s;
    void Decode(std::span<const uint8_t> in, uint64_t frames, int16_t* out) override { kvDecodeDialogic(in, s, {out, frames}); }
  } d;
  return ReadCodedWave(w, file, 4, d);
}

bool raw_YamahaImpWave(Waveform& w, FileRef& file) {
  struct Decoder : ChunkDecoder {
    YamahaState s[2];
    int channels = 1;
    void Decode(std::span<const uint8_t> in, uint64_t frames, int16_t* out) override {
      kvDecodeYamaha(in, s, channels, frames, {out, frames * channels});
    }
  } d;
  d.channels = w.channels == 2 ? 2 : 1;
  return ReadCodedWave(w, file, 4, d);
}

bool raw_G72xImpWave(Waveform& w, FileRef& file) {
  struct Decoder : ChunkDecoder {
    G72xState s;
    bool msb = true;
    void Decode(std::span<const uint8_t> in, uint64_t frames, int16_t* out) override {
      kvDecodeG72x(in, s, msb, {out, frames});
    }
  } d;
  kvG72xInit(d.s, WaveBits(w));
  d.msb = MsbFirst(w);
  w.channels = 1;
  return ReadCodedWave(w, file, WaveBits(w), d);
}

bool raw_RockwellImpWave(Waveform& w, FileRef& file) {
  struct Decoder : ChunkDecoder {
    RockwellState s;
    void Decode(std::span<const uint8_t> in, uint64_t frames, int16_t* out) override { kvDecodeRockwell(in, s, {out, frames}); }
  } d;
  if (WaveBits(w) > 4) return Fail("raw_ImpWave", "Unsupported compression type");
  kvRockwellInit(d.s, WaveBits(w));
  w.channels = 1;
  return ReadCodedWave(w, file, WaveBits(w), d);
}

bool raw_GsmImpWave(Waveform& w, FileRef& file) {
  GsmDecoderState state;
  return ReadFramedWave(w, file, kGsmFrameBytes, kGsmFrameSamples, [&](const uint8_t* in, int16_t* out) {
    if (kvGsmDecodeFrame(state, std::span<const uint8_t, kGsmFrameBytes>(in, kGsmFrameBytes),
                         std::span<int16_t, kGsmFrameSamples>(out, kGsmFrameSamples)))
      return true;
    return Fail("raw_ImpWave", "Corrupted GSM stream");
  });
}

bool raw_G722ImpWave(Waveform& w, FileRef& file) {
  G722State state;
  kvG722Init(state, w.bits);
  if (state.bits != w.bits) return Fail("raw_ImpWave", "Unsupported compression type");
  return ReadFramedWave(w, file, 1, 2, [&](const uint8_t* in, int16_t* out) {
    kvDecodeG722(state, {in, 1}, {out, 2});
    return true;
  });
}

std::string raw_CodingName(const Waveform& w) {
  char text[96];
  const int bits = w.bits;
  if (w.readCallback == raw_GsmImpWave) return "GSM 06.10";
  if (w.readCallback == raw_G722ImpWave) {
    std::snprintf(text, sizeof text, "G.722 %d kbit/s", bits * 8);
    return text;
  }
  if (w.readCallback == raw_DialogicImpWave) return "Dialogic ADPCM 4-bit";
  if (w.readCallback == raw_YamahaImpWave) return "Yamaha ADPCM 4-bit";
  if (w.readCallback == raw_RockwellImpWave) {
    std::snprintf(text, sizeof text, "Rockwell ADPCM %d-bit", bits);
    return text;
  }
  if (w.readCallback == raw_G72xImpWave) {
    std::snprintf(text, sizeof text, "CCITT %s ADPCM %d-bit, %s bit first", bits == 4 ? "G.721" : bits == 2 ? "G.726" : "G.723",
                  bits, MsbFirst(w) ? "most significant" : "least significant");
    return text;
  }
  return {};
}

// ---- writing ----

namespace {

// The width a write takes: the request's ADPCM bit, else the row's.
int WriteWidth(const Waveform& w, uint32_t request, uint32_t parameter) {
  const uint32_t adpcm = request & (SourceFormatBit(kAdpcm2) | SourceFormatBit(kAdpcm3) | SourceFormatBit(kAdpcm4) |
                                    SourceFormatBit(kAdpcm5));
  if (adpcm == 0) return static_cast<int>(RawParameterBits(parameter));
  DataFormatChoice choice;
  choice.own = PreferredFormatDataFormat(w.preferredFormat);
  choice.request = adpcm;
  float rate = 0.0f;
  const int format = ChooseDataFormat(choice, rate);
  return format >= kAdpcm2 && format <= kAdpcm5 ? format - kAdpcm2 + 2 : static_cast<int>(RawParameterBits(parameter));
}

bool WriteAll(FileRef& file, const uint8_t* data, std::size_t size) {
  return size == 0 || file.Write(data, size) ? true : Fail(kRawExp, "Writing to file failed");
}

// The wave mixed to mono in 33-byte frames, the last one padded with silence.
bool WriteGsm(Waveform& wave, FileRef& file) {
  ClearError();
  Waveform* w = AdaptWaveChannels(wave, 1);
  if (!w) return Fail(kRawExp, "%s", ErrorMessage[0] ? ErrorMessage : "The file format can not save this item");
  struct Release {
    Waveform& original;
    Waveform* adapted;
    ~Release() { ReleaseAdapted(original, adapted); }
  } release{wave, w};
  const uint64_t samples = w->length;
  const int16_t* in = samples ? Samples16(*w) : nullptr;
  if (samples && !in) return Fail(kRawExp, "%s", ErrorMessage[0] ? ErrorMessage : "Out of memory");
  constexpr uint64_t kChunk = 4096;  // frames a write
  auto buffer = TryAllocArray<uint8_t>(kChunk * kGsmFrameBytes);
  if (!buffer) return Fail(kRawExp, "Out of memory");
  GsmEncoderState state;
  const uint64_t frames = (samples + kGsmFrameSamples - 1) / kGsmFrameSamples;
  for (uint64_t done = 0; done < frames;) {
    const uint64_t n = std::min(kChunk, frames - done);
    for (uint64_t f = 0; f < n; ++f) {
      const uint64_t at = (done + f) * kGsmFrameSamples;
      int16_t pcm[kGsmFrameSamples] = {};
      std::memcpy(pcm, in + at, std::min<uint64_t>(kGsmFrameSamples, samples - at) * sizeof(int16_t));
      kvGsmEncodeFrame(state, pcm, std::span<uint8_t, kGsmFrameBytes>(buffer.get() + f * kGsmFrameBytes, kGsmFrameBytes));
    }
    if (!WriteAll(file, buffer.get(), static_cast<std::size_t>(n * kGsmFrameBytes))) return false;
    done += n;
  }
  return true;
}

// Mode 8 only: 16 kHz mono, a byte per two samples; an odd last sample is
// paired with itself.
bool WriteG722(Waveform& wave, FileRef& file, uint32_t parameter) {
  if (RawParameterBits(parameter) != 8) return Fail(kRawExp, "Unsupported subformat");
  if (wave.sampleRate != RawParameterRate(parameter))
    return Fail(kRawExp, "G.722 holds 16000 Hz audio; this wave is %u Hz", wave.sampleRate);
  ClearError();
  Waveform* w = AdaptWaveChannels(wave, 1);
  if (!w) return Fail(kRawExp, "%s", ErrorMessage[0] ? ErrorMessage : "The file format can not save this item");
  struct Release {
    Waveform& original;
    Waveform* adapted;
    ~Release() { ReleaseAdapted(original, adapted); }
  } release{wave, w};
  const uint64_t samples = w->length;
  const int16_t* in = samples ? Samples16(*w) : nullptr;
  if (samples && !in) return Fail(kRawExp, "%s", ErrorMessage[0] ? ErrorMessage : "Out of memory");
  constexpr uint64_t kChunk = 1u << 17;  // samples a write, even
  auto buffer = TryAllocArray<uint8_t>(kChunk / 2);
  if (!buffer) return Fail(kRawExp, "Out of memory");
  G722State state;
  kvG722Init(state, 8);
  for (uint64_t done = 0; done < samples;) {
    const uint64_t n = std::min(kChunk, samples - done);
    const std::size_t bytes = static_cast<std::size_t>((n + 1) / 2);
    kvEncodeG722(state, {in + done, static_cast<std::size_t>(n)}, {buffer.get(), bytes});
    if (!WriteAll(file, buffer.get(), bytes)) return false;
    done += n;
  }
  return true;
}

}  // namespace

bool raw_CodedExp(Item& item, FileRef& file, ExportRequest& request) {
  auto* wave = dynamic_cast<Waveform*>(&item);
  if (!wave) return Fail(kRawExp, "The file format can not save this item");
  const uint32_t parameter = request.parameter;
  const RawFamily family = RawParameterFamily(parameter);
  // G.711 and Yamaha keep the wave's channels as the request allows; the
  // others hold one channel.
  int channels = 1;
  if (family == kRawALaw || family == kRawMuLaw || family == kRawYamaha) {
    channels = wave->channels == 2 ? 2 : 1;
    if (channels == 2 && (request.request & (kCapMono | kCapStereo)) && !(request.request & kCapStereo)) channels = 1;
  }
  if (family == kRawALaw || family == kRawMuLaw) {
    if (gen_ExpWave(file, *wave, family == kRawALaw ? kALaw : kMuLaw, channels, 0)) return true;
    std::snprintf(ErrorContext, sizeof ErrorContext, "%s", kRawExp);
    return false;
  }
  if (family == kRawGsm) return WriteGsm(*wave, file);
  if (family == kRawG722) return WriteG722(*wave, file, parameter);
  if (!IsAdpcmFamily(family)) return Fail(kRawExp, "Unsupported subformat");
  const int bits = family == kRawCcitt || family == kRawRockwell ? WriteWidth(*wave, request.request, parameter) : 4;
  if (bits < 2 || bits > (family == kRawRockwell ? 4 : 5)) return Fail(kRawExp, "Unsupported subformat");

  ClearError();
  Waveform* w = AdaptWaveChannels(*wave, channels);
  if (!w) return Fail(kRawExp, "%s", ErrorMessage[0] ? ErrorMessage : "The file format can not save this item");
  struct Release {
    Waveform& original;
    Waveform* adapted;
    ~Release() { ReleaseAdapted(original, adapted); }
  } release{*wave, w};
  const int16_t* samples = w->length ? Samples16(*w) : nullptr;
  if (w->length && !samples) return Fail(kRawExp, "%s", ErrorMessage[0] ? ErrorMessage : "Out of memory");

  const uint64_t frames = w->length;
  const uint64_t chunkBytes = kvPackedCodeBytes(kRawChunkFrames * channels, bits);
  auto buffer = TryAllocArray<uint8_t>(static_cast<std::size_t>(chunkBytes));
  if (!buffer) return Fail(kRawExp, "Out of memory");
  DialogicState dialogic;
  YamahaState yamaha[2];
  G72xState g72x;
  RockwellState rockwell;
  kvG72xInit(g72x, bits);
  kvRockwellInit(rockwell, std::min(bits, 4));
  const bool msbFirst = !RawParameterLsbFirst(parameter);
  for (uint64_t done = 0; done < frames;) {
    const uint64_t n = std::min(kRawChunkFrames, frames - done);
    const std::span<const int16_t> in(samples + done * channels, n * channels);
    const std::size_t bytes = static_cast<std::size_t>(kvPackedCodeBytes(n * channels, bits));
    const std::span<uint8_t> out(buffer.get(), bytes);
    switch (family) {
      case kRawDialogic: kvEncodeDialogic(in, dialogic, out); break;
      case kRawYamaha: kvEncodeYamaha(in, yamaha, channels, out); break;
      case kRawCcitt: kvEncodeG72x(in, g72x, msbFirst, out); break;
      default: kvEncodeRockwell(in, rockwell, out); break;
    }
    if (!WriteAll(file, buffer.get(), bytes)) return false;
    done += n;
  }
  return true;
}

}  // namespace kv
