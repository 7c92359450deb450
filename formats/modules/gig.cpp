// GigaStudio parts of the DLS module: dimension region articulation,
// block-coded waves in the pool and as .wa! files.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "codecs/gigpack.h"
#include "core/articulation.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/fixup.h"
#include "core/items.h"
#include "core/wavestore.h"
#include "formats/modules/dls.h"
#include "formats/modules/dls_format.h"
#include "formats/modules/gig_format.h"
#include "formats/modules/module.h"
#include "formats/modules/wav.h"

namespace kv {
namespace gig {

namespace {

// Field reader over a 3ewa body: a field the body doesn't reach reads as
// `fallback`, the value the format has without the chunk.
class Fields {
 public:
  explicit Fields(std::span<const uint8_t> b) : b_(b) {}
  bool Has(std::size_t off, std::size_t n) const { return off + n <= b_.size(); }
  int32_t I32(std::size_t off, int32_t fallback) const {
    if (!Has(off, 4)) return fallback;
    const uint8_t* p = b_.data() + off;
    return static_cast<int32_t>(p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24));
  }
  int U16(std::size_t off, int fallback) const { return Has(off, 2) ? b_[off] | (b_[off + 1] << 8) : fallback; }
  int I16(std::size_t off, int fallback) const { return Has(off, 2) ? static_cast<int16_t>(U16(off, 0)) : fallback; }
  int U8(std::size_t off, int fallback) const { return Has(off, 1) ? b_[off] : fallback; }

 private:
  std::span<const uint8_t> b_;
};

// Times and LFO rates share one log scale: 2^(x / (1200 * 65536)).
constexpr int32_t kTimeZero = dls::kZeroTime;
int32_t ScaleOf(double value) { return dls::SecondsToTime(value); }
double Seconds(int32_t raw) {
  const double s = dls::TimeToSeconds(raw);
  return s < 1e-6 ? 0.0 : s;
}

// The cutoff byte counts as a key number.
double CutoffHz(int value) { return 440.0 * std::exp2((value - 69) / 12.0); }
int CutoffValue(double hz) { return std::clamp(static_cast<int>(std::lround(69 + 12 * std::log2(hz / 440.0))), 0, 127); }
// The resonance byte: 0.2 dB a step.
constexpr double kResonanceStep = 0.2;

// gig filter types to the model's and back.
int FilterFromGig(int type) {
  switch (type) {
    case 1: return 10;    // band-pass
    case 2: return 6;     // high-pass
    case 3: return 12;    // band-reject
    case 0xFF: return 4;  // "turbo" low-pass, 24 dB
    default: return 2;    // low-pass
  }
}
int FilterToGig(int type) {
  if (type >= 5 && type <= 8) return 2;
  if (type == 9 || type == 10) return 1;
  if (type == 11 || type == 12) return 3;
  return 0;
}

// Layout offsets of the 3ewa fields.
enum : std::size_t {
  kLfo3Freq = 4, kEg3Attack = 8, kLfo1Depth = 14, kLfo3Depth = 18, kLfo1CtlDepth = 22, kLfo3CtlDepth = 26,
  kEg1Attack = 28, kEg1Decay1 = 32, kEg1Sustain = 38, kEg1Release = 40, kEg1Ctl = 44, kEg2Ctl = 46,
  kLfo1Freq = 48, kEg2Attack = 52, kEg2Decay1 = 56, kEg2Sustain = 62, kEg2Release = 64, kLfo2CtlDepth = 70,
  kLfo2Freq = 72, kLfo2Depth = 78, kEg1Decay2 = 80, kEg1PreAttack = 86, kEg2Decay2 = 88, kEg2PreAttack = 94,
  kVelResponse = 96, kRelVelResponse = 97, kVelScaling = 98, kAttThreshold = 99, kStartOffset = 104,
  kPitchTrack = 108, kPan = 109, kSelfMask = 110, kLfo3Ctl = 112, kAttCtl = 113, kLfo2Ctl = 114, kLfo1Ctl = 115,
  kEg3Depth = 116, kChannelOffset = 120, kRegOptions = 121, kVelUpper = 124, kRelTriggerDecay = 128,
  kEg1Hold = 131, kCutoff = 132, kCutoffCtl = 133, kVelScale = 134, kResonance = 136, kKeyTrack = 137,
  kVcfVelocity = 138, kVcfType = 139, kUpperLimits = 140,
};
constexpr std::size_t kSizeV2 = 140, kSizeV3 = 148;
constexpr int32_t kInfinite = 0x7FFFFFFF;

}  // namespace

const char* DimensionName(uint8_t type, char (&buffer)[32]) {
  switch (type) {
    case kDimKeyboard: return "keyswitch";
    case 0x83: return "channel aftertouch";
    case 0x88: return "smart MIDI";
    case kDimLayer: return "layer";
    default: break;
  }
  if (type < 0x80) {
    std::snprintf(buffer, sizeof buffer, "CC %d", type);
    return buffer;
  }
  std::snprintf(buffer, sizeof buffer, "type 0x%02X", type);
  return buffer;
}

DimensionExtras ReadArticulation(std::span<const uint8_t> ewa, Articulation& a) {
  const Fields f(ewa);
  DimensionExtras x;
  auto set = [&](int row, double v) { a.Set(row, static_cast<float>(v)); };
  constexpr int32_t oneRaw = 0;  // 1 Hz on the log scale

  // Amplitude envelope (EG1).
  set(kRowVEnvA2Time, Seconds(f.I32(kEg1Attack, kTimeZero)));
  set(kRowVEnvD2Time, Seconds(f.I32(kEg1Decay1, ScaleOf(0.005))));
  set(kRowVEnvSustain, std::clamp(f.U16(kEg1Sustain, 1000) / 1000.0, 0.0, 1.0));
  set(kRowVEnvR1Rate, Seconds(f.I32(kEg1Release, ScaleOf(0.3))));
  const int32_t eg1Decay2 = f.I32(kEg1Decay2, kInfinite);
  x.unread += eg1Decay2 != kInfinite;
  x.unread += f.U16(kEg1PreAttack, 0) != 0;
  x.unread += (f.U8(kEg1Hold, 0) & 0x80) != 0;
  x.unread += f.U8(kEg1Ctl, 0) != 0;
  x.unread += f.U8(kEg2Ctl, 0) != 0;

  // LFO1 moves the amplitude, LFO2 the cutoff, LFO3 the pitch.
  set(kRowVLfoFrequency, dls::TimeToSeconds(f.I32(kLfo1Freq, oneRaw)));
  set(kRowFLfoFrequency, dls::TimeToSeconds(f.I32(kLfo2Freq, oneRaw)));
  set(kRowPLfoFrequency, dls::TimeToSeconds(f.I32(kLfo3Freq, oneRaw)));
  x.unread += f.U16(kLfo1Depth, 0) != 0 || f.U16(kLfo1CtlDepth, 0) != 0;
  {
    // Controller 0 internal, 1 mod wheel, 2 aftertouch, 3 and 4 both.
    const int ctl = f.U8(kLfo3Ctl, 1) & 7;
    const double depth = f.I16(kLfo3Depth, 0) / 100.0, ctlDepth = f.I16(kLfo3CtlDepth, 0) / 100.0;
    if (ctl == 0 || ctl >= 3) set(kRowPLfoToPitch, depth);
    if (ctl == 1 || ctl == 3) set(kRowModWheelToPLfoPitch, ctlDepth);
    if (ctl == 2 || ctl == 4) set(kRowAftertouchToPLfoPitch, ctlDepth);
  }

  // Pitch envelope (EG3: attack only) and tracking.
  {
    const int raw = f.U16(kEg3Depth, 0);
    const int depth = raw <= 1200 ? raw : -static_cast<int16_t>((raw ^ 0xFFF) + 1);
    if (depth != 0) {
      set(kRowPEnvToPitch, depth / 100.0);
      set(kRowPEnvA2Time, Seconds(f.I32(kEg3Attack, kTimeZero)));
    }
  }
  if (f.U8(kPitchTrack, 0) & 1) set(kRowKeyToPitch, 0.0);

  // Filter, with EG2 and LFO2 on the cutoff.
  const int cutoff = f.U8(kCutoff, 0);
  if (cutoff & 0x80) {
    const int type = f.U8(kVcfType, 0);
    set(kRowFilterType, (type == 0 && (f.U8(kLfo3Ctl, 0) & 0x40)) ? 4 : FilterFromGig(type));
    set(kRowCutoff, CutoffHz(cutoff & 0x7F));
    set(kRowResonance, (f.U8(kResonance, 0) & 0x7F) * kResonanceStep);
    set(kRowFEnvA2Time, Seconds(f.I32(kEg2Attack, kTimeZero)));
    set(kRowFEnvD2Time, Seconds(f.I32(kEg2Decay1, ScaleOf(0.005))));
    set(kRowFEnvSustain, std::clamp(f.U16(kEg2Sustain, 1000) / 1000.0, 0.0, 1.0));
    set(kRowFEnvR1Rate, Seconds(f.I32(kEg2Release, ScaleOf(60.0))));
    const int ctl = f.U8(kLfo2Ctl, 0) & 7;
    if (ctl == 0 || ctl >= 3) set(kRowFLfoToCutoff, f.U16(kLfo2Depth, 0) / 100.0);
    if (ctl == 1 || ctl == 3) set(kRowModWheelToFLfoCutoff, f.U16(kLfo2CtlDepth, 0) / 100.0);
    if (ctl == 2 || ctl == 4) set(kRowAftertouchToFLfoCutoff, f.U16(kLfo2CtlDepth, 0) / 100.0);
    x.unread += f.U8(kCutoffCtl, 0) != 0;
    x.unread += (f.U8(kVelScale, 0) & 0x7F) != 0;
    x.unread += (f.U8(kKeyTrack, 0) & 0x80) != 0;
  }

  // Placement and the rest.
  {
    const int raw = f.U8(kPan, 0);
    const int pan = raw < 64 ? raw : -(raw - 63);
    if (pan != 0) set(kRowPan, std::clamp(pan / 63.0, -1.0, 1.0));
  }
  x.startOffset = static_cast<uint16_t>(f.I16(kStartOffset, 0));
  x.unread += f.U8(kVelResponse, 3) != 3;
  x.unread += f.U8(kAttCtl, 0) != 0;
  x.unread += f.U8(kChannelOffset, 0) != 0;
  x.unread += (f.U8(kRegOptions, 0) & 3) != 0;
  x.unread += f.U8(kRelTriggerDecay, 0) != 0;
  x.velocityLimit = f.U8(kVelUpper, 0);
  if (f.Has(kUpperLimits, 8)) {
    x.haveUpperLimits = true;
    for (int i = 0; i < 8; ++i) x.upperLimits[i] = static_cast<uint8_t>(f.U8(kUpperLimits + i, 127));
  }
  return x;
}

uint32_t Crc32(const uint8_t* data, std::size_t size, uint32_t crc) {
  static const auto table = [] {
    std::array<uint32_t, 256> t{};
    for (uint32_t i = 0; i < 256; ++i) {
      uint32_t c = i;
      for (int j = 0; j < 8; ++j) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
      t[i] = c;
    }
    return t;
  }();
  crc = ~crc;
  for (std::size_t i = 0; i < size; ++i) crc = table[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
  return ~crc;
}

std::vector<uint8_t> WriteArticulation(const Articulation& a, uint32_t startOffset, bool version3,
                                       int velocityLimit, const uint8_t (&upperLimits)[8]) {
  const std::size_t size = version3 ? kSizeV3 : kSizeV2;
  std::vector<uint8_t> b(size, 0);
  auto put32 = [&](std::size_t off, int32_t v) {
    for (int i = 0; i < 4; ++i) b[off + i] = static_cast<uint8_t>(static_cast<uint32_t>(v) >> (8 * i));
  };
  auto put16 = [&](std::size_t off, int v) {
    b[off] = static_cast<uint8_t>(v);
    b[off + 1] = static_cast<uint8_t>(v >> 8);
  };
  auto v = [&](int row) { return static_cast<double>(a.value[row]); };
  put32(0, static_cast<int32_t>(size));
  put32(kLfo3Freq, ScaleOf(std::max(v(kRowPLfoFrequency), 0.01)));
  put32(kEg3Attack, ScaleOf(v(kRowPEnvA2Time)));
  put32(kEg1Attack, ScaleOf(v(kRowVEnvA1Time) + v(kRowVEnvA2Time)));
  put32(kEg1Decay1, ScaleOf(v(kRowVEnvD1Time) + v(kRowVEnvD2Time)));
  put16(kEg1Sustain, static_cast<int>(std::lround(std::clamp(v(kRowVEnvSustain), 0.0, 1.0) * 1000)));
  put32(kEg1Release, ScaleOf(v(kRowVEnvR1Rate)));
  put32(kLfo1Freq, ScaleOf(std::max(v(kRowVLfoFrequency), 0.01)));
  put32(kEg2Attack, ScaleOf(v(kRowFEnvA1Time) + v(kRowFEnvA2Time)));
  put32(kEg2Decay1, ScaleOf(v(kRowFEnvD1Time) + v(kRowFEnvD2Time)));
  put16(kEg2Sustain, static_cast<int>(std::lround(std::clamp(v(kRowFEnvSustain), 0.0, 1.0) * 1000)));
  put32(kEg2Release, ScaleOf(v(kRowFEnvR1Rate)));
  put32(kLfo2Freq, ScaleOf(std::max(v(kRowFLfoFrequency), 0.01)));
  put32(kEg1Decay2, kInfinite);
  put32(kEg2Decay2, kInfinite);
  b[kVelResponse] = 3;
  b[kRelVelResponse] = 3;
  b[kVelScaling] = 32;
  put16(kStartOffset, static_cast<int>(std::min<uint32_t>(startOffset, 0xFFFF)));

  // LFO3 on the pitch: internal depth, or the mod wheel's.
  const double pitchDepth = v(kRowPLfoToPitch), wheelDepth = v(kRowModWheelToPLfoPitch);
  put16(kLfo3Depth, static_cast<int>(std::lround(std::clamp(pitchDepth * 100, -1200.0, 1200.0))));
  put16(kLfo3CtlDepth, static_cast<int>(std::lround(std::clamp(wheelDepth * 100, -1200.0, 1200.0))));
  const bool wheel = a.IsSet(kRowModWheelToPLfoPitch) || wheelDepth != 0;
  b[kLfo3Ctl] = static_cast<uint8_t>(wheel ? (a.IsSet(kRowPLfoToPitch) || pitchDepth != 0 ? 3 : 1) : 0);
  if (v(kRowPEnvToPitch) != 0) {
    const int cents = static_cast<int>(std::lround(std::clamp(v(kRowPEnvToPitch) * 100, -1200.0, 1200.0)));
    put16(kEg3Depth, cents >= 0 ? cents : ((-cents - 1) ^ 0xFFF));
  }
  if (a.value[kRowKeyToPitch] == 0.0f) b[kPitchTrack] = 1;
  {
    const int pan = static_cast<int>(std::lround(std::clamp(v(kRowPan), -1.0, 1.0) * 63));
    b[kPan] = static_cast<uint8_t>(pan >= 0 ? pan : 63 - pan);
  }
  b[kSelfMask] = 1;
  const int type = static_cast<int>(a.value[kRowFilterType]);
  if (type != 0) {
    b[kCutoff] = static_cast<uint8_t>(0x80 | CutoffValue(std::max(v(kRowCutoff), 1.0)));
    b[kResonance] = static_cast<uint8_t>(std::clamp<long>(std::lround(std::max(v(kRowResonance), 0.0) / kResonanceStep), 0, 127));
    b[kVcfType] = static_cast<uint8_t>(FilterToGig(type));
    if (type >= 3 && type <= 4) b[kLfo3Ctl] |= 0x40;
    put16(kLfo2Depth, static_cast<int>(std::lround(std::clamp(v(kRowFLfoToCutoff) * 100, 0.0, 1200.0))));
  }
  b[kVelUpper] = static_cast<uint8_t>(std::clamp(velocityLimit, 0, 127));
  if (version3)
    for (int i = 0; i < 8; ++i) b[kUpperLimits + i] = upperLimits[i];
  return b;
}

bool SetupCompressedWave(FileRef& file, uint64_t dataAt, uint64_t dataEnd, Waveform& wave) {
  const int channels = std::clamp<int>(wave.channels, 1, 2);
  const bool bits24 = wave.bits > 16;
  uint64_t frames = 0;
  for (uint64_t pos = dataAt; pos + channels <= dataEnd;) {
    uint8_t modes[2];
    if (!file.Seek(pos) || !file.ReadExact(modes, static_cast<std::size_t>(channels))) break;
    uint64_t n = 0, body = 0;
    bool last = false;
    if (!kvGigPackBlockSize(modes, channels, bits24, dataEnd - pos - channels, n, body, last)) break;
    frames += n;
    if (last) break;
    pos += channels + body;
  }
  wave.channels = static_cast<uint8_t>(channels);
  wave.bits = bits24 ? 24 : 16;
  wave.length = static_cast<uint32_t>(std::min<uint64_t>(frames, 0xFFFFFFFF));
  wave.fileOffset = dataAt;
  wave.dataEnd = dataEnd;
  wave.sourceFormat = 0;
  wave.readCallback = wa_ImpWave;
  wave.preferredFormat = static_cast<uint8_t>(PreferredFormatFor(bits24 ? kPcm24 : kPcm16));
  wave.sourcePath = file.Path();
  wave.samples16.reset();
  wave.samplesF.reset();
  return true;
}

std::vector<uint8_t> WaveExtension(bool compressed, uint64_t pcmBytes, bool stereo24) {
  // A 24-bit stereo wave's truncation field lies at 84: the chunk reaches it.
  std::vector<uint8_t> b(stereo24 ? 88 : 68, 0);
  b[0] = 60;  // version
  b[8] = compressed ? 1 : 0;
  for (int i = 0; i < 4; ++i) b[12 + i] = static_cast<uint8_t>(std::min<uint64_t>(pcmBytes, 0xFFFFFFFF) >> (8 * i));
  return b;
}

}  // namespace gig

bool wa_Imp(Collection& collection, FileRef& file, uint32_t) {
  static constexpr const char* kCtx = "wa!_Imp";
  uint8_t head[12];
  const uint64_t fileSize = file.Size();
  if (fileSize < 12 || !file.Seek(0) || !file.ReadExact(head, sizeof head) || std::memcmp(head, "RIFF", 4) != 0 ||
      std::memcmp(head + 8, "WAVE", 4) != 0)
    return Fail(kCtx, "Not a RIFF WAVE file");
  uint64_t dataAt = 0, dataEnd = 0;
  bool haveData = false, coded = false;
  int tag = -1;
  for (uint64_t pos = 12; pos + 8 <= fileSize;) {
    uint8_t h[10];
    if (!file.Seek(pos) || !file.ReadExact(h, 8)) break;
    const uint64_t size = std::min<uint64_t>(h[4] | (h[5] << 8) | (h[6] << 16) | (uint64_t{h[7]} << 24), fileSize - pos - 8);
    if (std::memcmp(h, "data", 4) == 0 && !haveData) {
      haveData = true;
      dataAt = pos + 8;
      dataEnd = dataAt + size;
    } else if (std::memcmp(h, "ewav", 4) == 0) {
      coded = true;
    } else if (std::memcmp(h, "fmt ", 4) == 0 && size >= 2 && file.ReadExact(h + 8, 2)) {
      tag = h[8] | (h[9] << 8);
    }
    pos += 8 + size + (size & 1);
  }
  if (!haveData) return Fail(kCtx, "No wave data found!");
  if (tag != 1) return Fail(kCtx, "Unsupported compression type");
  Waveform* wave = Create<Waveform>(collection);
  const std::string stem = file.Path().stem().string();
  wave->SetName(stem.data(), stem.size(), TextEncoding::Foreign);
  wave->bits = 16;
  if (!wav_ReadWaveBody(file, 12, fileSize, *wave)) {
    const std::string message = ErrorMessage;
    DeleteItem(wave);
    return Fail(kCtx, "%s", message.c_str());
  }
  if (coded) gig::SetupCompressedWave(file, dataAt, dataEnd, *wave);
  return true;
}

bool gigwav_Exp(Item& item, FileRef& file, ExportRequest&) {
  static constexpr const char* kCtx = "gigwav_Exp";
  if (item.Type() != ItemType::Waveform) return Fail(kCtx, "The file format can not save this item");
  Waveform& wave = static_cast<Waveform&>(item);
  const int channels = wave.channels == 2 ? 2 : 1;
  const bool wide = wave.bits > 16;
  const std::size_t count = static_cast<std::size_t>(wave.SampleCount());
  std::vector<uint8_t> coded;
  uint64_t pcmBytes = 0;
  if (wide) {
    const float* f = count ? SamplesFloat(wave) : nullptr;
    if (count && !f) return false;
    std::vector<int32_t> values(count);
    for (std::size_t i = 0; i < count; ++i)
      values[i] = static_cast<int32_t>(std::clamp(std::lround(static_cast<double>(f[i]) * 8388608.0), -8388608L, 8388607L));
    kvGigPackEncode24(values, channels, coded);
    pcmBytes = uint64_t{count} * 3;
  } else {
    const int16_t* s = count ? Samples16(wave) : nullptr;
    if (count && !s) return false;
    kvGigPackEncode16(std::span<const int16_t>(s, count), channels, coded);
    pcmBytes = uint64_t{count} * 2;
  }
  // Little-endian fields appended to a body.
  struct Body {
    std::vector<uint8_t> v;
    void U16(uint32_t x) {
      v.push_back(static_cast<uint8_t>(x));
      v.push_back(static_cast<uint8_t>(x >> 8));
    }
    void U32(uint32_t x) {
      U16(x & 0xFFFF);
      U16(x >> 16);
    }
    void Id(const char* t) {
      for (int i = 0; i < 4; ++i) v.push_back(static_cast<uint8_t>(t[i]));
    }
    void Chunk(const char* t, const std::vector<uint8_t>& body) {
      Id(t);
      U32(static_cast<uint32_t>(body.size()));
      v.insert(v.end(), body.begin(), body.end());
      if (body.size() & 1) v.push_back(0);
    }
  };
  const int bytes = wide ? 3 : 2;
  Body file_;
  file_.Id("RIFF");
  file_.U32(0);
  file_.Id("WAVE");
  {
    Body fmt;
    fmt.U16(1);
    fmt.U16(static_cast<uint32_t>(channels));
    fmt.U32(wave.sampleRate);
    fmt.U32(wave.sampleRate * static_cast<uint32_t>(channels * bytes));
    fmt.U16(static_cast<uint32_t>(channels * bytes));
    fmt.U16(static_cast<uint32_t>(8 * bytes));
    file_.Chunk("fmt ", fmt.v);
  }
  {
    const std::string name(wave.Name());
    std::vector<uint8_t> text(name.begin(), name.end());
    text.push_back(0);
    Body list;
    list.Id("INFO");
    list.Chunk("INAM", text);
    file_.Chunk("LIST", list.v);
  }
  if (coded.size() > 0xFFFFFF00u) return Fail(kCtx, "Too much data");
  file_.Chunk("data", coded);
  {
    // smpl: the header, no loop, eight bytes of sampler data.
    Body smpl;
    smpl.U32(0);
    smpl.U32(0);
    smpl.U32(static_cast<uint32_t>(std::lround(1e9 / std::max<uint32_t>(wave.sampleRate, 1))));
    smpl.U32(wave.rootKey);
    for (int i = 0; i < 4; ++i) smpl.U32(0);
    smpl.U32(8);
    smpl.U32(0);
    smpl.U32(0);
    file_.Chunk("smpl", smpl.v);
  }
  file_.Chunk("ewav", gig::WaveExtension(true, pcmBytes, false));
  std::vector<uint8_t>& out = file_.v;
  const uint32_t riff = static_cast<uint32_t>(out.size() - 8);
  for (int i = 0; i < 4; ++i) out[4 + i] = static_cast<uint8_t>(riff >> (8 * i));
  if (!file.Write(out.data(), out.size())) return Fail(kCtx, "Writing to file failed");
  return true;
}

bool wa_ImpWave(Waveform& wave, FileRef& file) {
  static constexpr const char* kCtx = "wa!_ImpWave";
  if (wave.dataEnd < wave.fileOffset) return Fail(kCtx, "Reading from file failed");
  // The coded data is never larger than the file it sits in, and holds at
  // least a byte per frame and channel.
  const uint64_t fileSize = file.Size();
  const uint64_t size = std::min(wave.dataEnd - wave.fileOffset, fileSize - std::min(fileSize, wave.fileOffset));
  const std::size_t count = static_cast<std::size_t>(wave.SampleCount());
  std::unique_ptr<uint8_t[]> data = TryAllocArray<uint8_t>(static_cast<std::size_t>(size) + 1);
  if (!data) return Fail(kCtx, "Out of memory");
  if (size > 0 && (!file.Seek(wave.fileOffset) || !file.ReadExact(data.get(), static_cast<std::size_t>(size))))
    return Fail(kCtx, "Reading from file failed");
  const std::span<const uint8_t> coded(data.get(), static_cast<std::size_t>(size));
  if (wave.bits > 16) {
    std::unique_ptr<int32_t[]> values = TryAllocArray<int32_t>(count + 1);
    if (!values) return Fail(kCtx, "Out of memory");
    kvGigPackDecode24(coded, wave.channels, std::span<int32_t>(values.get(), count));
    float* out = AllocSamplesFloat(wave);
    if (!out && count) return Fail(kCtx, "Out of memory");
    for (std::size_t i = 0; i < count; ++i) out[i] = static_cast<float>(values[i] / 8388608.0);
  } else {
    int16_t* out = AllocSamples16(wave);
    if (!out && count) return Fail(kCtx, "Out of memory");
    if (count) kvGigPackDecode16(coded, wave.channels, std::span<int16_t>(out, count));
  }
  return true;
}

}  // namespace kv
