// WavPack over codecs/wavpack, and the Monkey's Audio rows.
#include "formats/modules/wv.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "codecs/wavpack.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/wavestore.h"
#include "formats/modules/module.h"
#include "formats/modules/wav.h"
#include "formats/modules/xiph_common.h"

namespace kv {

namespace {

constexpr const char* kImpWave = "wv_ImpWave";

uint32_t GetLe32(const uint8_t* p) { return p[0] | p[1] << 8 | p[2] << 16 | uint32_t{p[3]} << 24; }

struct DecodeTarget {
  GrowingWave* out;
  int channels;
  int width;  // bits the integers arrive at
  bool isFloat;
};

bool Sink(void* user, const int32_t* in, uint32_t frames) {
  auto* t = static_cast<DecodeTarget*>(user);
  const uint64_t count = uint64_t{frames} * t->channels;
  if (!t->isFloat && t->width <= 16) {
    int16_t* to = t->out->Reserve16(frames);
    if (!to) return t->out->outOfMemory ? FailMessage("Out of memory") : true;
    const int shift = 16 - t->width;
    for (uint64_t i = 0; i < uint64_t{frames} * t->channels; ++i) to[i] = static_cast<int16_t>(in[i] * (1 << shift));
  } else {
    float* to = t->out->ReserveFloat(frames);
    if (!to) return t->out->outOfMemory ? FailMessage("Out of memory") : true;
    if (t->isFloat) {
      std::memcpy(to, in, std::min<uint64_t>(count, uint64_t{frames} * t->channels) * sizeof(float));
    } else {
      const float scale = 1.0f / static_cast<float>(1u << (t->width - 1));
      for (uint64_t i = 0; i < uint64_t{frames} * t->channels; ++i) to[i] = static_cast<float>(in[i]) * scale;
    }
  }
  t->out->Commit(frames);
  return true;
}

}  // namespace

int wv_Detect(const uint8_t* data, uint32_t, uint32_t size, uint64_t) {
  // Block header: "wvpk", size, version 0x402-0x410.
  if (size < 32 || std::memcmp(data, "wvpk", 4) != 0) return 0;
  const uint32_t version = data[8] | data[9] << 8;
  if (version < 0x402 || version > 0x410) return 2;
  // The first block's sub-blocks tell a file's audio from a correction file
  // (.wvc), which holds only what a hybrid file lacks and is not read alone.
  const uint32_t blockEnd = static_cast<uint32_t>(std::min<uint64_t>(size, 8 + uint64_t{GetLe32(data + 4)}));
  for (uint32_t pos = 32; pos + 2 <= blockEnd;) {
    const uint8_t id = data[pos];
    const bool large = (id & 0x80) != 0;
    if (large && pos + 4 > blockEnd) break;
    const uint32_t words = large ? data[pos + 1] | data[pos + 2] << 8 | data[pos + 3] << 16 : data[pos + 1];
    if ((id & 0x3F) == 0x0B) return 0;
    if ((id & 0x3F) == 0x0A) return 6;
    pos += (large ? 4 : 2) + words * 2;
  }
  return 6;
}

bool wv_Imp(Collection& collection, FileRef& file, uint32_t) {
  WavPackHead head;
  if (!kvWavPackDecHelper(file.Path(), head, nullptr, nullptr)) return false;
  if (head.frames == 0) return Fail("kvWavPackDecHelper", "Zero length");
  Waveform* wave = Create<Waveform>(collection);
  const std::string stem = file.Path().stem().string();
  wave->SetName(stem.data(), stem.size(), TextEncoding::Foreign);
  wave->sampleRate = head.rate;
  wave->channels = static_cast<uint8_t>(head.channels);
  wave->bits = static_cast<uint8_t>(head.isFloat ? 32 : head.bits);
  wave->length = static_cast<uint32_t>(head.frames);
  const int own = head.isFloat ? kFloat32 : head.bits <= 8 ? kPcm8 : head.bits <= 16 ? kPcm16 : head.bits <= 24 ? kPcm24 : kPcm32;
  if (const int preferred = PreferredFormatFor(own); preferred >= 0) wave->preferredFormat = static_cast<uint8_t>(preferred);
  wave->fileOffset = 0;
  wave->sourcePath = file.Path();
  wave->readCallback = wv_ImpWave;
  const std::span<const uint8_t> parts[] = {head.wrapperHead, head.wrapperTail};
  wav_ReadWrapper(parts, *wave);
  return true;
}

bool wv_ImpWave(Waveform& wave, FileRef& file) {
  ClearError();
  WavPackHead head;
  if (!kvWavPackDecHelper(file.Path(), head, nullptr, nullptr)) return false;
  GrowingWave out(head.channels, wave.length, head.isFloat || head.bytes > 2, "-- Decoding WavPack: %d%% --",
                  wave.length);
  DecodeTarget target{&out, head.channels, head.bytes * 8, head.isFloat};
  if (!kvWavPackDecHelper(file.Path(), head, Sink, &target)) return false;
  return out.Finish(wave, kImpWave);
}

// ---------------------------------------------------------------- writer

namespace {

constexpr const char* kExp = "wv_Exp";

struct EncodeSource {
  Waveform* wave;
  int bits;
  bool isFloat;
};

bool Source(void* user, uint64_t first, uint32_t frames, int32_t* block) {
  auto* s = static_cast<EncodeSource*>(user);
  const Waveform& w = *s->wave;
  const uint64_t from = first * w.channels;
  const uint64_t count = uint64_t{frames} * w.channels;
  if (s->isFloat) {
    for (uint64_t i = 0; i < count; ++i) {
      const float x = w.samplesF ? w.samplesF[from + i] : w.samples16[from + i] * 3.0517578e-5f;
      std::memcpy(&block[i], &x, 4);
    }
  } else if (w.samples16) {
    const int shift = s->bits - 16;
    for (uint64_t i = 0; i < count; ++i) {
      const int32_t v = w.samples16[from + i];
      block[i] = shift >= 0 ? static_cast<int32_t>(static_cast<int64_t>(v) << shift) : v >> -shift;
    }
  } else {
    const double full = std::ldexp(1.0, s->bits - 1);
    for (uint64_t i = 0; i < count; ++i) {
      const double v = std::floor((static_cast<double>(w.samplesF[from + i]) + 1.0) * full + 0.5) - full;
      block[i] = static_cast<int32_t>(std::clamp(v, -full, full - 1));
    }
  }
  return true;
}

}  // namespace

bool wv_Exp(Item& item, FileRef& file, ExportRequest& request) {
  auto* wave = dynamic_cast<Waveform*>(&item);
  if (!wave) return Fail(kExp, "The file format can not save this item");
  if (!kvWavPackAvailable()) return Fail("kvWavPackEncHelper", "%s", kWavPackMissing);
  constexpr uint32_t kMask = (1u << kPcm8) | (1u << kPcm16) | (1u << kPcm24) | (1u << kPcm32) | (1u << kFloat32);
  DataFormatChoice choice;
  choice.own = PreferredFormatDataFormat(wave->preferredFormat);
  if (choice.own == kFormatNone || !((1u << choice.own) & kMask)) {
    choice.own = wave->bits <= 8 ? kPcm8 : wave->bits <= 16 ? kPcm16 : kPcm24;
    if (choice.own == kPcm24 && wave->samples16 && !wave->samplesF) choice.own = kPcm16;
  }
  choice.request = (request.request & kMask) ? (request.request & kMask) : kMask;
  float unused = 0;
  const int format = ChooseDataFormat(choice, unused);
  if (!((1u << format) & kMask) || format >= kDataFormatCount) return Fail(kExp, "Unsupported subformat");
  const bool isFloat = format == kFloat32;
  const int bits = format == kPcm8 ? 8 : format == kPcm16 ? 16 : format == kPcm24 ? 24 : 32;

  int channels = 0;
  if (request.request & (kCapMono | kCapStereo)) {
    if (wave->channels == 2 && !(request.request & kCapStereo)) channels = 1;
    else if (wave->channels == 1 && !(request.request & kCapMono)) channels = 2;
  }
  ClearError();
  if (!wave->EnsureData()) return false;
  Waveform* w = AdaptWaveChannels(*wave, channels);
  if (!w) return ErrorMessage[0] ? false : Fail(kExp, "Out of memory");
  struct Release {
    Waveform& original;
    Waveform* adapted;
    ~Release() { ReleaseAdapted(original, adapted); }
  } release{*wave, w};
  if (!w->HasData() && !w->EnsureData()) return false;

  WavPackEncodeSetup setup;
  setup.rate = w->sampleRate;
  setup.channels = w->channels;
  setup.bits = bits;
  setup.isFloat = isFloat;
  setup.frames = w->length;
  WaveWrapper(*w, format, setup.wrapperHead, setup.wrapperTail);
  EncodeSource source{w, bits, isFloat};
  return kvWavPackEncHelper(file, setup, Source, &source);
}

int ape_Detect(const uint8_t* data, uint32_t, uint32_t size, uint64_t) {
  return size >= 8 && std::memcmp(data, "MAC ", 4) == 0 ? 6 : 0;
}

bool ape_Exp(Item&, FileRef&, ExportRequest&) {
  return Fail("ape_Exp", "Monkey's Audio compression is not available on this system");
}

}  // namespace kv
