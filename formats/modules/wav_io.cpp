// RIFF WAVE family, second half: the WAV writer (the one every module with
// external sample files calls), Wave-64 read and write, and the ID3 text
// reader shared by the chunked formats.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <span>
#include <system_error>
#include <vector>

#include "core/app.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/samplecodec.h"
#include "core/text.h"
#include "core/wavestore.h"
#include "codecs/codepack.h"
#include "codecs/g72x.h"
#include "codecs/gsm610.h"
#include "formats/modules/wav.h"
#include "formats/modules/wav_cursor.h"
#include "formats/modules/module.h"

namespace kv {

namespace {

constexpr const char* kExp = "wav_Exp";
constexpr const char* kW64Imp = "w64_Imp";
constexpr const char* kW64Exp = "w64_Exp";

uint64_t Even(uint64_t size) { return size + (size & 1); }
uint64_t Align8(uint64_t size) { return (size + 7) & ~uint64_t{7}; }

// ---------------------------------------------------------------- shared

// The tag, sizes and source form of one output encoding.
struct Coding {
  int format = kFormatNone;
  uint16_t tag = 0;
  uint16_t bits = 0;
  uint32_t bytes = 0;      // per sample; 0 for the ADPCM codings, which pack codes
  bool fromFloat = false;  // encoded from the float buffer
  // CCITT ADPCM (indexes 11-14): the code width, the block align and the
  // fmt size each has.
  uint16_t codeBits = 0;
  uint16_t blockAlign = 0;
  uint32_t fmtSize = 0;
  bool gsm = false;  // GSM 06.10 in 65-byte pairs of 320 samples, mono
};

constexpr uint64_t kGsmPairSamples = 2 * kGsmFrameSamples;

// Bytes `samples` samples take in the coding; GSM's last pair is padded.
uint64_t CodedBytes(const Coding& c, uint64_t samples) {
  if (c.gsm) return (samples + kGsmPairSamples - 1) / kGsmPairSamples * kGsmPairBytes;
  return c.codeBits ? kvPackedCodeBytes(samples, c.codeBits) : samples * c.bytes;
}

bool CodingFor(int format, Coding& c) {
  c.format = format;
  switch (format) {
    case kPcm8: c.tag = 1; c.bits = 8; c.bytes = 1; return true;
    case kPcm16: c.tag = 1; c.bits = 16; c.bytes = 2; return true;
    case kPcm24: c.tag = 1; c.bits = 24; c.bytes = 3; c.fromFloat = true; return true;
    case kPcm32: c.tag = 1; c.bits = 32; c.bytes = 4; c.fromFloat = true; return true;
    case kFloat32: c.tag = 3; c.bits = 32; c.bytes = 4; c.fromFloat = true; return true;
    case kMuLaw: c.tag = 7; c.bits = 8; c.bytes = 1; return true;
    case kALaw: c.tag = 6; c.bits = 8; c.bytes = 1; return true;
    // CCITT ADPCM, tags and sizes as the format list has them: index 11's
    // fmt is 16 bytes although its cbSize is filled, deliberately.
    case kAdpcm2: c.tag = 100; c.bits = c.codeBits = 2; c.blockAlign = 32; c.fmtSize = 16; return true;
    case kAdpcm3: c.tag = 20; c.bits = c.codeBits = 3; c.blockAlign = 48; c.fmtSize = 20; return true;
    case kAdpcm4: c.tag = 64; c.bits = c.codeBits = 4; c.blockAlign = 64; c.fmtSize = 20; return true;
    case kAdpcm5: c.tag = 20; c.bits = c.codeBits = 5; c.blockAlign = 80; c.fmtSize = 20; return true;
    case kGsm2: c.tag = 49; c.bits = 0; c.blockAlign = kGsmPairBytes; c.fmtSize = 20; c.gsm = true; return true;
    default: return false;
  }
}

// The encoding a wave goes out in: a single allowed bit is taken as it is;
// "Auto" and wider masks keep the wave's preferred format where allowed.
int PickFormat(const Waveform& wave, uint32_t request, uint32_t autoMask) {
  DataFormatChoice choice;
  choice.own = PreferredFormatDataFormat(wave.preferredFormat);
  if (choice.own == kCompressed) choice.ownRate = static_cast<float>(PreferredFormatRate(wave.preferredFormat));
  choice.request = (request & kCapFormatMask) ? (request & kCapFormatMask) : autoMask;
  float rate = 0.0f;
  return ChooseDataFormat(choice, rate);
}

// Channel count the request asks for: 0 keeps the wave's.
int PickChannels(const Waveform& wave, uint32_t request) {
  if (!(request & (kCapMono | kCapStereo))) return 0;
  if (wave.channels == 2 && !(request & kCapStereo)) return 1;
  if (wave.channels == 1 && !(request & kCapMono)) return 2;
  return 0;
}

// The wave in the channel layout asked for, with its data present; a copy
// when it had to change, released by the holder.
class AdaptedWave {
 public:
  AdaptedWave(Waveform& wave, int channels) : original_(wave), wave_(AdaptWaveChannels(wave, channels)) {}
  ~AdaptedWave() { ReleaseAdapted(original_, wave_); }
  AdaptedWave(const AdaptedWave&) = delete;
  AdaptedWave& operator=(const AdaptedWave&) = delete;
  Waveform* get() const { return wave_; }

 private:
  Waveform& original_;
  Waveform* wave_;
};

// A reader's failure keeps its message under the writer's name.
bool FailRead(const char* context) {
  if (ErrorMessage[0] == 0) return Fail(context, "The file format can not save this item");
  std::snprintf(ErrorContext, sizeof ErrorContext, "%s", context);
  return false;
}

// The samples a coding is made from, found (or converted) once before
// anything is written.
struct SampleSource {
  const int16_t* s16 = nullptr;
  const float* f = nullptr;
  bool widen16 = false;  // 16-bit samples going to a float-made coding
  // The CCITT encoders' states, one per channel, kept from block to block.
  uint32_t channels = 1;
  G72xState ccitt[2];
  GsmEncoderState gsm;
};

bool SourceFor(Waveform& w, const Coding& c, SampleSource& s) {
  s.channels = w.channels == 2 ? 2 : 1;
  if (w.SampleCount() == 0) return true;
  if (c.fromFloat && w.samples16 && !w.samplesF) {
    // A 16-bit wave widens exactly: no float copy of the whole wave is needed.
    s.s16 = w.samples16.get();
    s.widen16 = true;
    return true;
  }
  if (c.fromFloat) return (s.f = SamplesFloat(w)) != nullptr;
  return (s.s16 = Samples16(w)) != nullptr;
}

// Codes samples [first, first + count) into `out`. WAV stores 8-bit samples
// as offset binary and everything else little-endian; CCITT codes go most
// significant bit first, the channels' codes in turn, from encoders that
// start afresh at sample 0 (so runs must come in order and, but for the
// last, hold a multiple of 8 samples).
void EncodeSamples(SampleSource& s, const Coding& c, uint8_t* out, uint64_t first, uint64_t count) {
  constexpr bool bigEndian = false;
  if (count == 0) return;
  if (c.gsm) {
    // Whole pairs from one encoder; `first` is on a pair, a short last run is
    // padded with silence.
    if (first == 0) s.gsm = GsmEncoderState{};
    for (uint64_t at = 0; at < count; at += kGsmPairSamples) {
      int16_t pcm[kGsmPairSamples] = {};
      std::memcpy(pcm, s.s16 + first + at, std::min(kGsmPairSamples, count - at) * sizeof(int16_t));
      kvGsmEncodePair(s.gsm, pcm, std::span<uint8_t, kGsmPairBytes>(out + at / kGsmPairSamples * kGsmPairBytes, kGsmPairBytes));
    }
    return;
  }
  if (c.codeBits) {
    if (first == 0)
      for (G72xState& state : s.ccitt) kvG72xInit(state, c.codeBits);
    CodeWriter codes({out, static_cast<std::size_t>(CodedBytes(c, count))}, c.codeBits, true);
    const int16_t* src = s.s16 + first;
    uint32_t channel = static_cast<uint32_t>(first % s.channels);
    for (uint64_t i = 0; i < count; ++i) {
      codes.Put(kvG72xEncode(s.ccitt[channel], src[i]));
      if (++channel == s.channels) channel = 0;
    }
    codes.Flush();
    return;
  }
  const std::span<uint8_t> dst(out, count * c.bytes);
  if (s.widen16) {
    const int16_t* src = s.s16 + first;
    for (uint64_t i = 0; i < count; ++i) {
      const int32_t v = src[i];
      uint8_t* p = out + i * c.bytes;
      if (c.format == kPcm24) {
        p[0] = 0;
        p[1] = static_cast<uint8_t>(v);
        p[2] = static_cast<uint8_t>(v >> 8);
      } else if (c.format == kPcm32) {
        const uint32_t u = static_cast<uint32_t>(v) << 16;
        std::memcpy(p, &u, 4);
      } else {
        const float f = static_cast<float>(v) * kScale16;
        std::memcpy(p, &f, 4);
      }
    }
    return;
  }
  if (c.fromFloat) {
    const std::span<const float> in(s.f + first, count);
    switch (c.format) {
      case kPcm24: kvEncodePcm24(in, dst, bigEndian, false); break;
      case kPcm32: kvEncodePcm32(in, dst, bigEndian, false); break;
      default: kvEncodeFloat32(in, dst, bigEndian); break;
    }
  } else {
    const std::span<const int16_t> in(s.s16 + first, count);
    switch (c.format) {
      case kPcm8: kvEncodePcm8(in, dst, true); break;
      case kPcm16: kvEncodePcm16(in, dst, bigEndian, false); break;
      case kMuLaw: kvEncodeMuLaw(in, dst); break;
      default: kvEncodeALaw(in, dst); break;
    }
  }
}

bool WriteBlock(FileRef& file, const uint8_t* data, uint64_t size, const char* context) {
  for (uint64_t done = 0; done < size;) {
    const uint64_t n = std::min<uint64_t>(size - done, kMaxIoBlock);
    if (!file.Write(data + done, static_cast<std::size_t>(n))) return Fail(context, "Writing to file failed");
    done += n;
  }
  return true;
}

// ---------------------------------------------------------------- WAV writer

constexpr uint8_t kGuidBaseTail[12] = {0x00, 0x00, 0x10, 0x00, 0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
constexpr char kSoftware[20] = "Kelvo Studio v12.5";

const char* Unavailable(int format) {
  switch (format) {
    case kCompressed: return "MP3 encoding is not available yet";
    default: return nullptr;
  }
}

struct WavLayout {
  Coding coding;
  uint32_t variant = kWavNormal;
  uint32_t channels = 1;
  uint32_t frames = 0;
  uint64_t dataBytes = 0;
  bool extensible = false;
  bool fact = false;
  bool looped = false;
  bool rf64 = false;
  uint64_t riffSize = 0;  // the whole file less the RIFF head's 8 bytes
  // A WAVE form's body for a container that holds waves as lists (the DLS
  // wave pool): no RIFF head, `extra` chunks before data, only the INAM of
  // the texts after it.
  bool body = false;
  std::span<const uint8_t> extra;
};

uint32_t RoundU32(double v) { return static_cast<uint32_t>(std::clamp(std::round(v), 0.0, 4294967295.0)); }

void PutSmpl(BlockWriter& o, const Waveform& w, const WavLayout& L) {
  const bool cwdt = L.variant == kWavCwdt;
  const bool loop = L.looped;
  uint32_t unity = w.rootKey;
  uint64_t fraction = 0;
  const int fine = w.fineTune;
  if (fine > 0) {
    // A sample tuned up sits a fraction above the next lower note; a root of
    // 0 has no lower note and loses the fine tune.
    if (unity > 0) {
      unity -= 1;
      fraction = (uint64_t{100} - fine) * 4294967296ull / 100;
    }
  } else {
    fraction = uint64_t(-fine) * 4294967296ull / 100;
  }
  fraction = std::min<uint64_t>(fraction, 0xFFFFFFFF);
  const bool record = loop || cwdt;
  o.Id("smpl");
  o.U32le(36 + (record ? 24 : 0) + (cwdt ? 28 : 0));
  o.U32le(0);  // manufacturer
  o.U32le(0);  // product
  o.U32le(cwdt || w.sampleRate == 0 ? 0 : RoundU32(1e9 / w.sampleRate));
  o.U32le(unity);
  o.U32le(static_cast<uint32_t>(fraction));
  o.U32le(0);  // SMPTE format
  o.U32le(0);  // SMPTE offset
  o.U32le(record ? 1 : 0);
  o.U32le(cwdt ? 28 : 0);
  if (record) {
    uint32_t type = 255, start = 0, end = L.frames ? L.frames - 1 : 0, frac = 0;
    if (loop) {
      type = w.loopType == 3 ? 1 : w.loopType == 2 ? 2 : 0;
      const double length = double{w.loopEnd} - w.loopStart;
      const double rLength = std::round(length);
      start = RoundU32(w.loopStart);
      int64_t e = int64_t{start} - 1 + static_cast<int64_t>(rLength);
      double part = length - rLength;
      if (part < 0) {  // the file's end is inclusive: a short fraction borrows a frame
        e -= 1;
        part += 1.0;
      }
      end = static_cast<uint32_t>(std::clamp<int64_t>(e, 0, 0xFFFFFFFF));
      frac = static_cast<uint32_t>(std::min(part * 4294967296.0, 4294967295.0));
    }
    if (cwdt) ++end;
    o.U32le(0);  // cue id
    o.U32le(type);
    o.U32le(start);
    o.U32le(end);
    o.U32le(frac);
    o.U32le(0);  // play count: forever
  }
  if (cwdt) {
    const int tuning = static_cast<int>(std::lround(std::clamp(w.loopPitch * 100.0f, -50.0f, 50.0f)));
    o.Id("CWDT");
    o.U8(static_cast<uint8_t>(static_cast<int8_t>(tuning)));
    o.U16le(55835);
    o.U8(8);
    o.U8(!loop ? 2 : w.loopRelease ? 1 : 0);
    o.Fill(0, 7);
    o.U32le(L.frames);
    o.U32le(0);
    o.U32le(w.rootKey);
  }
}

void PutInfo(BlockWriter& o, const Waveform& w, const WavLayout& L) {
  const std::size_t listAt = o.Size();
  o.Id("LIST");
  o.U32le(0);
  o.Id("INFO");
  const std::string name = Utf8ToWindows1252(w.name);
  o.Id("INAM");
  o.U32le(static_cast<uint32_t>(Even(name.size() + 1)));
  o.Bytes(name.data(), name.size());
  o.Fill(0, Even(name.size() + 1) - name.size());
  if (L.body) {
    o.PatchU32le(listAt + 4, static_cast<uint32_t>(o.Size() - listAt - 8));
    return;
  }
  if (L.variant != kWavCwdt) {
    o.Id("ISFT");
    o.U32le(sizeof kSoftware);
    o.Bytes(kSoftware, sizeof kSoftware);
  }
  const struct {
    const char* id;
    const char* text;
  } texts[] = {{"IART", w.artist}, {"IPRD", w.product}, {"ICOP", w.copyright}, {"ICMT", w.comment}, {"IENG", w.engineer}};
  for (const auto& t : texts) {
    const std::string text = Utf8ToWindows1252(t.text);
    if (text.empty()) continue;
    // An even-length text has no terminator: the chunk size is the text's own
    // and readers stop at the chunk's end.
    o.Id(t.id);
    o.U32le(static_cast<uint32_t>(Even(text.size())));
    o.Bytes(text.data(), text.size());
    o.Fill(0, Even(text.size()) - text.size());
  }
  o.PatchU32le(listAt + 4, static_cast<uint32_t>(o.Size() - listAt - 8));
}

void PutLabel(BlockWriter& o, uint32_t id, const char* text) {
  const uint32_t size = static_cast<uint32_t>(4 + std::strlen(text) + 1);
  o.Id("labl");
  o.U32le(size);
  o.U32le(id);
  o.Bytes(text, size - 4);
  if (size & 1) o.U8(0);
}

// cue points 1 and 2 at the loop start, 3 at its end, and the labels that
// name them, as sample editors expect a loop region.
void PutCueLoop(BlockWriter& o, const Waveform& w) {
  const uint32_t start = RoundU32(w.loopStart);
  const uint32_t end = RoundU32(w.loopEnd);
  const uint32_t length = RoundU32(double{w.loopEnd} - w.loopStart);
  o.Id("cue ");
  o.U32le(76);
  o.U32le(3);
  const uint32_t at[3] = {start, start, end};
  for (uint32_t i = 0; i < 3; ++i) {
    o.U32le(i + 1);
    o.U32le(at[i]);
    o.Id("data");
    o.U32le(0);
    o.U32le(0);
    o.U32le(at[i]);
  }
  o.Id("LIST");
  o.U32le(102);
  o.Id("adtl");
  o.Id("ltxt");
  o.U32le(20);
  o.U32le(1);
  o.U32le(length);
  o.Id("rgn ");
  o.Fill(0, 8);
  PutLabel(o, 1, "Loop Range");
  PutLabel(o, 2, "Loop Start");
  PutLabel(o, 3, "Loop End");
}

// Everything before the samples: the RIFF (or RF64 and ds64) head, fmt,
// fact, a bare variant's smpl and the data chunk's head.
void PutHead(BlockWriter& o, const Waveform& w, const WavLayout& L) {
  const Coding& c = L.coding;
  if (!L.body) {
    o.Id(L.rf64 ? "RF64" : "RIFF");
    o.U32le(L.rf64 ? 0xFFFFFFFF : static_cast<uint32_t>(L.riffSize));
    o.Id("WAVE");
  }
  if (L.rf64) {
    // The sizes the 0xFFFFFFFF fields of RF64 and data stand for.
    o.Id("ds64");
    o.U32le(28);
    o.U64le(L.riffSize);
    o.U64le(L.dataBytes);
    o.U64le(L.frames);
    o.U32le(0);  // no other chunk needs a 64-bit size
  }
  o.Id("fmt ");
  const uint32_t fmtSize = L.extensible ? 40 : c.fmtSize ? c.fmtSize : (c.tag == 6 || c.tag == 7) ? 18 : 16;
  o.U32le(fmtSize);
  o.U16le(L.extensible ? 0xFFFE : c.tag);
  o.U16le(static_cast<uint16_t>(L.channels));
  o.U32le(w.sampleRate);
  // Bytes a second, rounded up for packed codes: readers (FFmpeg) take the
  // code width from it, and a rate like 44100 at 3 bits would read as 2.
  if (c.gsm) o.U32le(static_cast<uint32_t>(w.sampleRate * 1.625 * 0.125));
  else
    o.U32le(static_cast<uint32_t>(c.codeBits ? (uint64_t{w.sampleRate} * L.channels * c.codeBits + 7) / 8
                                             : uint64_t{w.sampleRate} * L.channels * c.bytes));
  o.U16le(static_cast<uint16_t>(c.codeBits || c.gsm ? c.blockAlign : L.channels * c.bytes));
  o.U16le(c.bits);
  if (fmtSize >= 18) o.U16le(L.extensible ? 22 : c.codeBits || c.gsm ? 2 : 0);
  if (c.gsm) o.U16le(kGsmPairSamples);
  // CCITT's 2 extra bytes: the codes a block of the block align holds.
  if (c.codeBits && fmtSize >= 20) o.U16le(static_cast<uint16_t>(c.blockAlign * 8 / c.codeBits));
  if (L.extensible) {
    o.U16le(c.bits);                 // valid bits
    o.U32le(L.channels == 1 ? 4 : 3);  // front centre, or front left and right
    o.U32le(c.tag);
    o.Bytes(kGuidBaseTail, sizeof kGuidBaseTail);
  }
  if (L.fact) {
    o.Id("fact");
    o.U32le(4);
    // GSM counts the padded last pair.
    o.U32le(c.gsm ? static_cast<uint32_t>((uint64_t{L.frames} + kGsmPairSamples - 1) / kGsmPairSamples * kGsmPairSamples)
                  : L.frames);
  }
  if (L.variant == kWavBare) PutSmpl(o, w, L);
  if (!L.extra.empty()) o.Bytes(L.extra.data(), L.extra.size());
  o.Id("data");
  o.U32le(L.rf64 ? 0xFFFFFFFF : static_cast<uint32_t>(L.dataBytes));
}

// Everything after the samples: the pad byte, LIST INFO, cue and smpl.
void PutTail(BlockWriter& o, const Waveform& w, const WavLayout& L) {
  if (L.dataBytes & 1) o.U8(0x80);  // pad with 8-bit silence, which is 0x80, not 0
  if (L.body) {
    PutInfo(o, w, L);
    return;
  }
  if (L.variant != kWavBare) {
    PutInfo(o, w, L);
    if (L.looped && (L.variant == kWavNormal || L.variant == kWavExtensible)) PutCueLoop(o, w);
    PutSmpl(o, w, L);
  }
}

bool WriteBlockOf(FileRef& file, const Waveform& w, const WavLayout& L,
                  void (*put)(BlockWriter&, const Waveform&, const WavLayout&)) {
  BlockWriter counter;
  put(counter, w, L);
  auto block = TryAllocArray<uint8_t>(counter.Size());
  if (!block) return Fail(kExp, "Out of memory");
  BlockWriter out(block.get(), counter.Size());
  put(out, w, L);
  return WriteBlock(file, block.get(), counter.Size(), kExp);
}

}  // namespace

namespace {

// The encoding and container of a write: the variant's checks and the
// format the request and the wave settle on.
bool ChooseCoding(const Waveform& wave, uint32_t request, uint32_t variant, WavLayout& L) {
  if (variant != kWavNormal && variant != kWavExtensible && variant != kWavCwdt && variant != kWavBare)
    return Fail(kExp, "Unsupported subformat");
  // Extensible holds only PCM and float: an "Auto" or wider request picks among those.
  constexpr uint32_t kExtensibleMask = (1u << kPcm8) | (1u << kPcm16) | (1u << kPcm24) | (1u << kPcm32) | (1u << kFloat32);
  const bool extensible = variant == kWavExtensible;
  uint32_t allowed = request & kCapFormatMask;
  if (extensible && allowed && (allowed & (allowed - 1))) allowed &= kExtensibleMask;
  if (extensible && allowed == 0 && (request & kCapFormatMask)) return Fail(kExp, "Unsupported subformat");
  const int format =
      PickFormat(wave, allowed | (request & ~kCapFormatMask), extensible ? kExtensibleMask : kWavWritableNow);
  if (const char* missing = Unavailable(format)) return Fail(kExp, "%s", missing);
  L.variant = variant;
  if (!CodingFor(format, L.coding)) return Fail(kExp, "Unsupported subformat");
  L.extensible = extensible;
  if (L.extensible && L.coding.tag != 1 && L.coding.tag != 3) return Fail(kExp, "Unsupported subformat");
  return true;
}

// PickChannels, but GSM holds one channel: every reader takes it so.
int ChannelsFor(const Waveform& wave, uint32_t request, const Coding& c) {
  if (!c.gsm || wave.channels < 2) return PickChannels(wave, request);
  MessageBox("Note: GSM 06.10 holds one channel; the stereo wave is mixed to mono.", kProgramName);
  return 1;
}

// The sizes of the wave as it goes out (after its channels were adapted).
bool SizeLayout(const Waveform& w, WavLayout& L) {
  if (w.channels < 1 || w.channels > 2) return Fail(kExp, "The file format can not save this item");
  L.channels = w.channels;
  L.frames = w.length;
  L.fact = L.coding.tag != 1;
  L.looped = w.loopType != 0 && w.loopEnd > w.loopStart;
  L.dataBytes = CodedBytes(L.coding, uint64_t{L.frames} * L.channels);
  return true;
}

}  // namespace

bool WriteWaveFile(Waveform& wave, FileRef& file, uint32_t request, uint32_t variant) {
  WavLayout L;
  if (!ChooseCoding(wave, request, variant, L)) return false;

  ClearError();
  AdaptedWave adapted(wave, ChannelsFor(wave, request, L.coding));
  Waveform* w = adapted.get();
  if (!w) return FailRead(kExp);
  if (!SizeLayout(*w, L)) return false;

  BlockWriter head, tail;
  PutHead(head, *w, L);
  PutTail(tail, *w, L);
  L.riffSize = head.Size() + L.dataBytes + tail.Size() - 8;
  if (L.riffSize > WavRf64Threshold) {
    L.rf64 = true;
    L.riffSize += 8 + 28;  // the ds64 chunk
  }

  SampleSource source;
  if (!SourceFor(*w, L.coding, source)) return FailRead(kExp);
  if (!WriteBlockOf(file, *w, L, PutHead)) return false;
  // The samples go out a block at a time: a wave of gigabytes needs no
  // second copy of itself in memory.
  // Packed codes go in runs of whole bytes: a multiple of 8 frames.
  const uint64_t frameBytes = uint64_t{L.channels} * L.coding.bytes;
  // GSM goes in runs of whole pairs.
  const uint64_t blockFrames = L.coding.gsm        ? kGsmPairSamples * 4096
                               : L.coding.codeBits ? 1u << 16
                                                   : std::max<uint64_t>(1, (1u << 20) / frameBytes);
  auto block = TryAllocArray<uint8_t>(
      static_cast<std::size_t>(CodedBytes(L.coding, std::min<uint64_t>(L.frames, blockFrames) * L.channels)));
  if (!block && L.frames) return Fail(kExp, "Out of memory");
  for (uint64_t done = 0; done < L.frames;) {
    const uint64_t n = std::min<uint64_t>(blockFrames, L.frames - done);
    EncodeSamples(source, L.coding, block.get(), done * L.channels, n * L.channels);
    if (!WriteBlock(file, block.get(), CodedBytes(L.coding, n * L.channels), kExp)) return false;
    done += n;
  }
  return WriteBlockOf(file, *w, L, PutTail);
}

bool WriteWaveBody(Waveform& wave, std::vector<uint8_t>& out, uint32_t request, std::span<const uint8_t> extra) {
  WavLayout L;
  if (!ChooseCoding(wave, request, kWavNormal, L)) return false;
  L.body = true;
  L.extra = extra;

  ClearError();
  AdaptedWave adapted(wave, ChannelsFor(wave, request, L.coding));
  Waveform* w = adapted.get();
  if (!w) return FailRead(kExp);
  if (!SizeLayout(*w, L)) return false;

  BlockWriter head, tail;
  PutHead(head, *w, L);
  PutTail(tail, *w, L);
  const uint64_t total = head.Size() + L.dataBytes + tail.Size();
  // The body goes into a list whose size field holds 32 bits.
  if (total > 0xFFFFFFF0u || out.size() > SIZE_MAX - total) return Fail(kExp, "Too much data");

  SampleSource source;
  if (!SourceFor(*w, L.coding, source)) return FailRead(kExp);
  const std::size_t at = out.size();
  out.resize(at + static_cast<std::size_t>(total));
  uint8_t* p = out.data() + at;
  BlockWriter h(p, head.Size());
  PutHead(h, *w, L);
  EncodeSamples(source, L.coding, p + head.Size(), 0, uint64_t{L.frames} * L.channels);
  BlockWriter t(p + head.Size() + L.dataBytes, tail.Size());
  PutTail(t, *w, L);
  return true;
}

bool WaveWrapper(const Waveform& wave, int format, std::vector<uint8_t>& head, std::vector<uint8_t>& tail) {
  WavLayout L;
  if (!CodingFor(format, L.coding) || !SizeLayout(wave, L)) return false;
  BlockWriter countHead, countTail;
  PutHead(countHead, wave, L);
  PutTail(countTail, wave, L);
  L.riffSize = countHead.Size() + L.dataBytes + countTail.Size() - 8;
  if (L.riffSize > 0xFFFFFFFEu) return false;
  head.assign(countHead.Size(), 0);
  tail.assign(countTail.Size(), 0);
  BlockWriter h(head.data(), head.size());
  PutHead(h, wave, L);
  BlockWriter t(tail.data(), tail.size());
  PutTail(t, wave, L);
  return true;
}

bool WriteWaveFile(Waveform& wave, const std::filesystem::path& path, uint32_t request, uint32_t variant) {
  FileRef file;
  if (!file.OpenWrite(path)) return Fail(kExp, "Could not create file");
  if (WriteWaveFile(wave, file, request, variant)) return true;
  file.Close();
  std::error_code ec;
  std::filesystem::remove(path, ec);
  return false;
}

bool wav_Exp(Item& item, FileRef& file, ExportRequest& request) {
  auto* wave = dynamic_cast<Waveform*>(&item);
  if (!wave) return Fail(kExp, "The file format can not save this item");
  return WriteWaveFile(*wave, file, request.request, request.parameter);
}

// ================================================================= Wave-64

namespace {

using Guid = uint8_t[16];
constexpr Guid kGuidRiff = {0x72, 0x69, 0x66, 0x66, 0x2E, 0x91, 0xCF, 0x11, 0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00};
constexpr Guid kGuidWave = {0x77, 0x61, 0x76, 0x65, 0xF3, 0xAC, 0xD3, 0x11, 0x8C, 0xD1, 0x00, 0xC0, 0x4F, 0x8E, 0xDB, 0x8A};
constexpr Guid kGuidFmt = {0x66, 0x6D, 0x74, 0x20, 0xF3, 0xAC, 0xD3, 0x11, 0x8C, 0xD1, 0x00, 0xC0, 0x4F, 0x8E, 0xDB, 0x8A};
constexpr Guid kGuidFact = {0x66, 0x61, 0x63, 0x74, 0xF3, 0xAC, 0xD3, 0x11, 0x8C, 0xD1, 0x00, 0xC0, 0x4F, 0x8E, 0xDB, 0x8A};
constexpr Guid kGuidData = {0x64, 0x61, 0x74, 0x61, 0xF3, 0xAC, 0xD3, 0x11, 0x8C, 0xD1, 0x00, 0xC0, 0x4F, 0x8E, 0xDB, 0x8A};
constexpr Guid kGuidList = {0xBC, 0x94, 0x5F, 0x92, 0x5A, 0x52, 0xD2, 0x11, 0x86, 0xDC, 0x00, 0xC0, 0x4F, 0x8E, 0xDB, 0x8A};
constexpr uint32_t kW64Head = 24;  // GUID and u64 size

bool SameGuid(const uint8_t* a, const Guid& b) { return std::memcmp(a, b, 16) == 0; }

// Text list: a u32 count, then entries of id, u32 byte size and UTF-16 text.
void ReadW64Texts(ByteCursor& cur, uint64_t body, uint64_t end, Waveform& w) {
  static constexpr const char* kIds[] = {"INAM", "IART", "ICMT", "ICOP", "IENG"};
  static constexpr int kTags[] = {209, 210, 211, 212, 213};
  uint32_t count;
  if (!cur.Seek(body) || !cur.U32le(count)) return;
  uint64_t pos = body + 4;
  for (uint32_t i = 0; i < count && pos + 8 <= end; ++i) {
    char id[5];
    uint32_t bytes;
    if (!cur.Seek(pos) || !cur.FourCC(id) || !cur.U32le(bytes)) return;
    if (pos + 8 + bytes > end) return;
    for (int k = 0; k < 5; ++k) {
      if (std::memcmp(id, kIds[k], 4) != 0) continue;
      char text[1024] = {};
      const std::size_t n = cur.BytesUpTo(text, std::min<std::size_t>(bytes, sizeof text - 2)) / 2;
      if (n > 0 && (text[0] || text[1])) w.SetParamText(kTags[k], DecodeText(text, n, TextEncoding::Utf16));
    }
    pos += 8 + Even(bytes);
  }
}

}  // namespace

bool w64_Imp(Collection& collection, FileRef& file, uint32_t) {
  ByteCursor cur(file);
  uint8_t head[40];
  if (!cur.Seek(0) || !cur.Bytes(head, sizeof head) || !SameGuid(head, kGuidRiff) || !SameGuid(head + 24, kGuidWave))
    return Fail(kW64Imp, "Not a Sonic Foundry/Sony Wave64 file");
  const uint64_t riffSize = std::min(GetU64le(head + 16), cur.FileSize());

  Waveform* w = Create<Waveform>(collection);
  const std::string stem = file.Path().stem().string();
  w->SetName(stem.data(), stem.size(), TextEncoding::Foreign);
  auto fail = [&](const char* message) {
    DeleteItem(w);
    return Fail(kW64Imp, "%s", message);
  };

  bool haveFmt = false, haveData = false;
  uint32_t channels = 1, bits = 0, tag = 0;
  uint64_t frames = 0, dataOffset = 0, dataSize = 0;
  for (uint64_t pos = 40; pos + kW64Head < riffSize;) {
    uint8_t h[24];
    if (!cur.Seek(pos) || !cur.Bytes(h, sizeof h)) break;
    // A size that doesn't cover its own head can't be walked past; one past
    // the end is cut to it (and can't wrap the position around).
    const uint64_t size = std::min(GetU64le(h + 16), riffSize - pos);
    if (size < kW64Head) break;
    const uint64_t body = pos + kW64Head;
    const uint64_t end = std::min(pos + size, riffSize);
    if (SameGuid(h, kGuidFmt)) {
      if (haveFmt) break;  // a second fmt ends the walk
      uint8_t f[16] = {};
      if (!cur.Bytes(f, 14)) return fail("Couldn't find fmt chunk!");
      cur.Bytes(f + 14, 2);
      tag = GetU16le(f);
      channels = GetU16le(f + 2);
      w->sampleRate = GetU32le(f + 4);
      bits = GetU16le(f + 14);
      if (tag == 0xFFFE) {
        // WAVE_FORMAT_EXTENSIBLE as some writers use it: the true tag leads the SubFormat.
        uint8_t x[24];
        if (cur.Bytes(x, sizeof x)) tag = GetU32le(x + 8);
      }
      haveFmt = true;
    } else if (SameGuid(h, kGuidFact)) {
      uint64_t n;
      if (cur.U64le(n) && n != 0) frames = std::min<uint64_t>(n, 0xFFFFFFFF);
    } else if (SameGuid(h, kGuidData)) {
      if (!haveData) {
        haveData = true;
        dataOffset = body;
        dataSize = std::min(size - kW64Head, cur.LeftFrom(body));
        if (frames == 0 && bits && channels)
          frames = std::min<uint64_t>((size * 8 - 192) / (uint64_t{bits} * channels), 0x80000000);
      }
    } else if (SameGuid(h, kGuidList)) {
      ReadW64Texts(cur, body, end, *w);
    }
    pos += Align8(size);
  }
  if (!haveFmt) return fail("Couldn't find fmt chunk!");
  if (!haveData) return fail("Couldn't find data chunk!");

  int format;
  uint32_t flags = 0;
  const uint32_t bytes = (bits + 7) / 8;
  switch (tag) {
    case 1:
      switch (bytes) {
        case 1: format = kPcm8; flags = kSourceUnsigned; break;
        case 2: format = kPcm16; break;
        case 3: format = kPcm24; break;
        case 4: format = kPcm32; break;
        default: return fail("Unsupported compression type");
      }
      break;
    case 3: format = bits <= 32 ? kFloat32 : kFloat64; break;
    case 6: format = kALaw; break;
    case 7: format = kMuLaw; break;
    default: return fail("Unsupported compression type");
  }
  if (channels == 0 || channels > 2) return fail("Unsupported number of channels");
  if (bits) frames = std::min<uint64_t>(frames, 0x7FFFFFFF8ull / bits);
  const uint64_t frameBytes = uint64_t{channels} * DataFormatBits(format) / 8;
  frames = std::min<uint64_t>(frames, dataSize / frameBytes);

  w->channels = static_cast<uint8_t>(channels);
  w->length = static_cast<uint32_t>(frames);
  w->fileOffset = dataOffset;
  w->sourcePath = file.Path();
  SetGenericFormat(*w, format, flags);
  if (tag == 1 && bits) w->bits = static_cast<uint8_t>(std::min<uint32_t>(bits, 255));
  return true;
}

namespace {

constexpr uint32_t kW64Writable = 0x00300375;

bool AssembleW64(BlockWriter& o, Waveform& w, const Coding& c, uint32_t channels) {
  const uint64_t frames = w.length;
  const uint64_t dataBytes = frames * channels * c.bytes;
  o.Bytes(kGuidRiff, 16);
  o.U64le(0);
  o.Bytes(kGuidWave, 16);
  o.Bytes(kGuidFmt, 16);
  o.U64le(40);
  o.U16le(c.tag);
  o.U16le(static_cast<uint16_t>(channels));
  o.U32le(w.sampleRate);
  o.U32le(w.sampleRate * channels * c.bytes);
  o.U16le(static_cast<uint16_t>(channels * c.bytes));
  o.U16le(c.bits);
  if (c.tag != 1) {
    o.Bytes(kGuidFact, 16);
    o.U64le(32);
    o.U64le(frames);
  }
  const struct {
    const char* id;
    const char* text;
  } texts[] = {{"INAM", w.name}, {"IART", w.artist}, {"ICMT", w.comment}, {"ICOP", w.copyright}, {"IENG", w.engineer}};
  uint32_t count = 0;
  for (const auto& t : texts) count += t.text[0] != 0;
  if (count) {
    const std::size_t at = o.Size();
    o.Bytes(kGuidList, 16);
    o.U64le(0);
    o.U32le(count);
    for (const auto& t : texts) {
      if (!t.text[0]) continue;
      const std::u16string text = [&] {
        std::u16string s;
        // UTF-8 to UTF-16, surrogate pairs for characters past the BMP.
        const auto* p = reinterpret_cast<const unsigned char*>(t.text);
        while (*p) {
          uint32_t cp = *p++;
          int more = cp >= 0xF0 ? 3 : cp >= 0xE0 ? 2 : cp >= 0xC0 ? 1 : 0;
          if (more) cp &= 0x3F >> more;
          for (; more > 0 && (*p & 0xC0) == 0x80; --more) cp = (cp << 6) | (*p++ & 0x3F);
          if (cp >= 0x10000) {
            s.push_back(static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10)));
            s.push_back(static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF)));
          } else {
            s.push_back(static_cast<char16_t>(cp));
          }
        }
        return s;
      }();
      o.Id(t.id);
      o.U32le(static_cast<uint32_t>((text.size() + 1) * 2));
      for (char16_t u : text) o.U16le(u);
      o.U16le(0);
    }
    const uint64_t listSize = o.Size() - at;
    o.Fill(0, Align8(listSize) - listSize);
    o.PatchU64le(at + 16, Align8(listSize));
  }
  // The data chunk goes last and unpadded: libsndfile takes a Wave-64's data
  // up to the end of the file, so anything behind it would become samples.
  o.Bytes(kGuidData, 16);
  o.U64le(dataBytes + kW64Head);
  if (uint8_t* p = o.Reserve(static_cast<std::size_t>(dataBytes))) {
    SampleSource source;
    if (!SourceFor(w, c, source)) return false;
    EncodeSamples(source, c, p, 0, frames * channels);
  }
  o.PatchU64le(16, o.Size());
  return true;
}

}  // namespace

bool w64_Exp(Item& item, FileRef& file, ExportRequest& request) {
  auto* wave = dynamic_cast<Waveform*>(&item);
  if (!wave) return Fail(kW64Exp, "The file format can not save this item");
  Coding c;
  if (!CodingFor(PickFormat(*wave, request.request, kW64Writable), c)) return Fail(kW64Exp, "Unsupported subformat");
  ClearError();
  AdaptedWave adapted(*wave, PickChannels(*wave, request.request));
  Waveform* w = adapted.get();
  if (!w) return FailRead(kW64Exp);
  if (w->channels < 1 || w->channels > 2) return Fail(kW64Exp, "The file format can not save this item");
  BlockWriter counter;
  if (!AssembleW64(counter, *w, c, w->channels)) return FailRead(kW64Exp);
  auto block = TryAllocArray<uint8_t>(counter.Size());
  if (!block) return Fail(kW64Exp, "Out of memory");
  BlockWriter out(block.get(), counter.Size());
  if (!AssembleW64(out, *w, c, w->channels)) return FailRead(kW64Exp);
  return WriteBlock(file, block.get(), counter.Size(), kW64Exp);
}

// ===================================================================== ID3

namespace {

uint32_t SyncSafe(const uint8_t* p) { return (p[0] & 0x7Fu) << 21 | (p[1] & 0x7Fu) << 14 | (p[2] & 0x7Fu) << 7 | (p[3] & 0x7Fu); }

// An ID3 text field in its encoding byte's coding, as UTF-8.
std::string Id3Text(uint8_t encoding, const uint8_t* p, std::size_t n) {
  if (encoding == 1 || encoding == 2) {
    bool bigEndian = encoding == 2;
    if (n >= 2 && p[0] == 0xFE && p[1] == 0xFF) bigEndian = true, p += 2, n -= 2;
    else if (n >= 2 && p[0] == 0xFF && p[1] == 0xFE) bigEndian = false, p += 2, n -= 2;
    std::string le(n / 2 * 2, '\0');
    for (std::size_t i = 0; i + 1 < n; i += 2) {
      le[i] = static_cast<char>(bigEndian ? p[i + 1] : p[i]);
      le[i + 1] = static_cast<char>(bigEndian ? p[i] : p[i + 1]);
    }
    return n / 2 ? DecodeText(le.data(), n / 2, TextEncoding::Utf16) : std::string();
  }
  const std::size_t len = strnlen(reinterpret_cast<const char*>(p), n);
  if (len == 0) return {};
  if (encoding == 3) return DecodeText(reinterpret_cast<const char*>(p), len, TextEncoding::Utf8);
  return Windows1252ToUtf8(std::string_view(reinterpret_cast<const char*>(p), len));
}

// Skips a terminated string of the encoding: one zero byte, or two for UTF-16.
std::size_t SkipTerminated(uint8_t encoding, const uint8_t* p, std::size_t n) {
  const bool wide = encoding == 1 || encoding == 2;
  std::size_t i = 0;
  if (wide) {
    while (i + 1 < n && (p[i] || p[i + 1])) i += 2;
    return std::min(n, i + 2);
  }
  while (i < n && p[i]) ++i;
  return std::min(n, i + 1);
}

}  // namespace

void ReadId3Text(FileRef& file, uint64_t offset, uint64_t size, Item& item) {
  // Only the text frames matter here; a tag of pictures is cut at 1 MB.
  ByteCursor cur(file);
  uint8_t h[10];
  if (size < 10 || !cur.Seek(offset) || !cur.Bytes(h, sizeof h) || std::memcmp(h, "ID3", 3) != 0) return;
  const int version = h[3];
  if (version < 2 || version > 4) return;
  const uint64_t tagSize = std::min<uint64_t>({SyncSafe(h + 6), size - 10, 1u << 20});
  auto tag = TryAllocArray<uint8_t>(static_cast<std::size_t>(tagSize) + 1);
  if (!tag || !cur.Bytes(tag.get(), static_cast<std::size_t>(tagSize))) return;
  const uint8_t* data = tag.get();
  std::size_t pos = 0;
  if (version >= 3 && (h[5] & 0x40) && tagSize >= 4) {  // extended header
    const uint32_t ext = version == 4 ? SyncSafe(data) : GetU32be(data) + 4;
    pos = ext;
  }
  const std::size_t idLen = version == 2 ? 3 : 4;
  const std::size_t headLen = version == 2 ? 6 : 10;
  struct Map {
    const char* v2;
    const char* v3;
    int parameter;
  };
  static constexpr Map kMap[] = {{"TT2", "TIT2", 209}, {"TP1", "TPE1", 210}, {"COM", "COMM", 211},
                                 {"TCR", "TCOP", 212}, {"TEN", "TENC", 213}, {"TAL", "TALB", 214}};
  while (pos + headLen <= tagSize) {
    const uint8_t* f = data + pos;
    if (f[0] == 0) break;  // padding
    uint64_t frameSize;
    if (version == 2) frameSize = (uint32_t{f[3]} << 16) | (f[4] << 8) | f[5];
    else if (version == 3) frameSize = GetU32be(f + 4);
    else frameSize = SyncSafe(f + 4);
    const std::size_t body = pos + headLen;
    if (frameSize > tagSize - body) break;
    // Compressed or encrypted frames are left alone.
    const bool plain = version == 2 || (version == 3 ? (f[9] & 0xC0) == 0 : (f[9] & 0x0C) == 0);
    for (const Map& m : kMap) {
      if (!plain || frameSize < 1 || std::memcmp(f, version == 2 ? m.v2 : m.v3, idLen) != 0) continue;
      const uint8_t encoding = data[body];
      const uint8_t* text = data + body + 1;
      std::size_t n = static_cast<std::size_t>(frameSize - 1);
      if (m.parameter == 211) {  // language, then a short description before the text
        if (n < 3) break;
        text += 3;
        n -= 3;
        const std::size_t skip = SkipTerminated(encoding, text, n);
        text += skip;
        n -= skip;
      }
      const std::string value = Id3Text(encoding, text, n);
      if (!value.empty()) item.SetParamText(m.parameter, value);
      break;
    }
    pos = body + static_cast<std::size_t>(frameSize);
  }
}

}  // namespace kv
