// FLAC: the head by our own reader of the metadata blocks, the samples and
// the writer through libFLAC.
#include "formats/modules/flac.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "codecs/flac.h"
#include "core/app.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/wavestore.h"
#include "formats/modules/module.h"
#include "formats/modules/wav.h"
#include "formats/modules/wav_cursor.h"
#include "formats/modules/xiph_common.h"

namespace kv {

namespace {

constexpr const char* kImp = "flac_Imp";
constexpr const char* kImpWave = "flac_ImpWave";
constexpr const char* kExp = "flac_Exp";
// Comments and kept WAV chunks beyond this are not read: they are text and
// a few chunks, never megabytes.
constexpr uint64_t kMetadataLimit = 16u << 20;

uint32_t U24be(const uint8_t* p) { return uint32_t{p[0]} << 16 | uint32_t{p[1]} << 8 | p[2]; }
uint32_t U32le(const uint8_t* p) { return p[0] | p[1] << 8 | p[2] << 16 | uint32_t{p[3]} << 24; }

// Where "fLaC" starts: 0, or after an ID3v2 tag some writers put first.
uint64_t StreamStart(const uint8_t* data, uint64_t size) {
  if (size >= 10 && std::memcmp(data, "ID3", 3) == 0) {
    const uint64_t tag = 10 + ((data[6] & 0x7Fu) << 21 | (data[7] & 0x7Fu) << 14 | (data[8] & 0x7Fu) << 7 |
                               (data[9] & 0x7Fu)) + ((data[5] & 0x10) ? 10 : 0);
    return tag;
  }
  return 0;
}

void ReadComments(const std::vector<uint8_t>& b, std::vector<std::string>& out) {
  std::size_t pos = 0;
  auto u32 = [&](uint32_t& v) {
    if (pos + 4 > b.size()) return false;
    v = U32le(b.data() + pos);
    pos += 4;
    return true;
  };
  uint32_t vendor, count;
  if (!u32(vendor) || vendor > b.size() - pos) return;
  pos += vendor;
  if (!u32(count)) return;
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t n;
    if (!u32(n) || n > b.size() - pos) return;
    out.emplace_back(reinterpret_cast<const char*>(b.data() + pos), n);
    pos += n;
  }
}

struct DecodeTarget {
  GrowingWave* out;
  int channels;  // kept: at most two
  int bits;
};

bool Sink(void* user, const int32_t* const* planes, uint32_t frames) {
  auto* t = static_cast<DecodeTarget*>(user);
  for (uint32_t done = 0; done < frames;) {
    uint32_t n = frames - done;
    if (t->bits <= 16) {
      int16_t* to = t->out->Reserve16(n);
      if (!to) break;
      const int shift = 16 - t->bits;
      for (uint32_t f = 0; f < n; ++f)
        for (int c = 0; c < t->channels; ++c)
          to[f * t->channels + c] = static_cast<int16_t>(planes[c][done + f] * (1 << shift));
    } else {
      float* to = t->out->ReserveFloat(n);
      if (!to) break;
      const float scale = 1.0f / static_cast<float>(1u << (t->bits - 1));
      for (uint32_t f = 0; f < n; ++f)
        for (int c = 0; c < t->channels; ++c)
          to[f * t->channels + c] = static_cast<float>(planes[c][done + f]) * scale;
    }
    t->out->Commit(n);
    done += n;
  }
  if (t->out->outOfMemory) return !Fail(kImpWave, "Out of memory");
  return true;
}

}  // namespace

int flac_Detect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  const uint64_t start = StreamStart(data, size);
  if (start + 8 > size || start + 42 > fileSize) return 0;
  return std::memcmp(data + start, "fLaC", 4) == 0 ? 6 : 0;
}

bool flac_Imp(Collection& collection, FileRef& file, uint32_t) {
  ByteCursor cur(file);
  uint8_t id3[10] = {};
  if (!cur.Seek(0) || !cur.Bytes(id3, sizeof id3)) return Fail(kImp, "Not a FLAC file");
  const uint64_t start = StreamStart(id3, sizeof id3);
  uint8_t magic[4];
  if (!cur.Seek(start) || !cur.Bytes(magic, 4) || std::memcmp(magic, "fLaC", 4) != 0)
    return Fail(kImp, "Not a FLAC file");

  bool haveInfo = false, last = false;
  uint32_t rate = 0, channels = 0, bits = 0;
  uint64_t total = 0;
  std::vector<std::string> comments;
  std::vector<std::vector<uint8_t>> riff;
  uint64_t kept = 0;
  while (!last) {
    uint8_t h[4];
    if (!cur.Bytes(h, 4)) return Fail(kImp, "Not a FLAC file");
    last = (h[0] & 0x80) != 0;
    const int type = h[0] & 0x7F;
    const uint32_t length = U24be(h + 1);
    const uint64_t body = cur.Tell();
    if (length > cur.Left()) return Fail(kImp, "Not a FLAC file");
    if (type == 0 && length >= 34) {
      uint8_t s[34];
      if (!cur.Bytes(s, sizeof s)) return Fail(kImp, "Not a FLAC file");
      rate = uint32_t{s[10]} << 12 | uint32_t{s[11]} << 4 | s[12] >> 4;
      channels = ((s[12] >> 1) & 7) + 1;
      bits = ((s[12] & 1) << 4 | s[13] >> 4) + 1;
      total = uint64_t{s[13] & 0x0Fu} << 32 | uint64_t{s[14]} << 24 | uint64_t{s[15]} << 16 |
              uint64_t{s[16]} << 8 | s[17];
      haveInfo = true;
    } else if ((type == 4 || type == 2) && kept + length <= kMetadataLimit) {
      std::vector<uint8_t> b(length);
      if (!cur.Bytes(b.data(), b.size())) return Fail(kImp, "Not a FLAC file");
      kept += length;
      if (type == 4) ReadComments(b, comments);
      else if (length > 4 && std::memcmp(b.data(), "riff", 4) == 0) riff.emplace_back(b.begin() + 4, b.end());
    }
    if (!cur.Seek(body + length)) return Fail(kImp, "Not a FLAC file");
  }
  if (!haveInfo || rate == 0 || bits < 4 || bits > 32) return Fail(kImp, "Invalid FLAC stream info");

  Waveform* wave = Create<Waveform>(collection);
  const std::string stem = file.Path().stem().string();
  wave->SetName(stem.data(), stem.size(), TextEncoding::Foreign);
  wave->sampleRate = rate;
  wave->channels = static_cast<uint8_t>(std::min<uint32_t>(channels, 2));
  wave->bits = static_cast<uint8_t>(bits);
  wave->length = static_cast<uint32_t>(std::min<uint64_t>(total, 0xFFFFFFFF));
  const int preferred = PreferredFormatFor(bits <= 8 ? kPcm8 : bits <= 16 ? kPcm16 : kPcm24);
  if (preferred >= 0) wave->preferredFormat = static_cast<uint8_t>(preferred);
  wave->fileOffset = start;
  wave->sourcePath = file.Path();
  wave->readCallback = flac_ImpWave;
  if (!riff.empty()) {
    std::vector<std::span<const uint8_t>> parts(riff.begin(), riff.end());
    wav_ReadWrapper(parts, *wave);
  }
  ApplyVorbisComments(comments, *wave, true);
  // Without a total the stream is decoded now, to its end.
  if (total == 0 && !wave->EnsureData()) {
    DeleteItem(wave);
    return false;
  }
  return true;
}

bool flac_ImpWave(Waveform& wave, FileRef& file) {
  const int channels = wave.channels;
  if (wave.bits < 4 || wave.bits > 32 || channels < 1 || channels > 2) return Fail(kImpWave, "Failed decoding FLAC file");
  // The file's own channel count: the decoder checks every frame against it.
  ByteCursor cur(file);
  uint8_t s[4 + 4 + 34];
  const uint64_t start = cur.Tell();
  if (!cur.Bytes(s, sizeof s)) return Fail(kImpWave, "Failed decoding FLAC file");
  const int fileChannels = ((s[8 + 12] >> 1) & 7) + 1;
  if (!file.Seek(start)) return Fail(kImpWave, "Failed decoding FLAC file");
  const uint64_t cap = wave.length ? wave.length : 0xFFFFFFFFu;
  GrowingWave out(channels, cap, wave.bits > 16, "-- Decoding FLAC: %d%% --", wave.length);
  DecodeTarget target{&out, channels, wave.bits};
  bool md5Mismatch = false;
  ClearError();
  if (!kvFlacDecHelper(file, kImpWave, fileChannels, wave.bits, Sink, &target, md5Mismatch)) return false;
  if (!out.Finish(wave, kImpWave)) return false;
  if (md5Mismatch)
    MessageBox("Warning: the MD5 signature of this FLAC file doesn't match its decoded samples - the file is damaged",
               kProgramName);
  return true;
}

// ---------------------------------------------------------------- writer

namespace {

struct EncodeSource {
  Waveform* wave;
  int bits;
};

// The system's rounding of float samples to integers, at any width.
int32_t FromFloat(float x, int bits) {
  const double full = static_cast<double>(1u << (bits - 1));
  const double v = std::floor((static_cast<double>(x) + 1.0) * full + 0.5) - full;
  return static_cast<int32_t>(std::clamp(v, -full, full - 1));
}

bool Source(void* user, uint64_t first, uint32_t frames, int32_t* block) {
  auto* s = static_cast<EncodeSource*>(user);
  const Waveform& w = *s->wave;
  const uint64_t from = first * w.channels;
  const uint64_t count = uint64_t{frames} * w.channels;
  if (w.samples16) {
    const int16_t* p = w.samples16.get() + from;
    const int shift = s->bits - 16;
    for (uint64_t i = 0; i < count; ++i)
      block[i] = shift >= 0 ? int32_t{p[i]} * (1 << shift) : int32_t{p[i]} >> -shift;
  } else {
    const float* p = w.samplesF.get() + from;
    for (uint64_t i = 0; i < count; ++i) block[i] = FromFloat(p[i], s->bits);
  }
  return true;
}

// Each chunk of the WAV wrapper in an application block of its own, the
// RIFF head first and the data chunk's head between those before and after
// the samples: the layout `flac --keep-foreign-metadata` writes and reads.
void RiffBlocks(const std::vector<uint8_t>& head, const std::vector<uint8_t>& tail,
                std::vector<std::vector<uint8_t>>& out) {
  auto block = [&](const uint8_t* p, std::size_t n) {
    std::vector<uint8_t> b = {'r', 'i', 'f', 'f'};
    b.insert(b.end(), p, p + n);
    out.push_back(std::move(b));
  };
  if (head.size() < 12) return;
  block(head.data(), 12);
  for (std::size_t pos = 12; pos + 8 <= head.size();) {
    const bool data = std::memcmp(head.data() + pos, "data", 4) == 0;
    const uint64_t size = data ? 0 : U32le(head.data() + pos + 4);
    const std::size_t n = static_cast<std::size_t>(std::min<uint64_t>(8 + size + (size & 1), head.size() - pos));
    block(head.data() + pos, n);
    pos += n;
  }
  for (std::size_t pos = tail.empty() || tail[0] >= 0x20 ? 0 : 1; pos + 8 <= tail.size();) {
    const uint64_t size = U32le(tail.data() + pos + 4);
    const std::size_t n = static_cast<std::size_t>(std::min<uint64_t>(8 + size + (size & 1), tail.size() - pos));
    block(tail.data() + pos, n);
    pos += n;
  }
}

}  // namespace

bool flac_Exp(Item& item, FileRef& file, ExportRequest& request) {
  auto* wave = dynamic_cast<Waveform*>(&item);
  if (!wave) return Fail(kExp, "The file format can not save this item");
  if (!kvFlacAvailable()) return Fail(kExp, "%s", kFlacWriteMissing);
  constexpr uint32_t kPcmMask = (1u << kPcm8) | (1u << kPcm16) | (1u << kPcm24);
  DataFormatChoice choice;
  choice.own = PreferredFormatDataFormat(wave->preferredFormat);
  if (choice.own == kFormatNone || choice.own > kPcm24) {
    // The wave's own width, where it has no PCM preference of its own.
    choice.own = wave->bits <= 8 ? kPcm8 : wave->bits <= 16 ? kPcm16 : kPcm24;
    if (choice.own == kPcm24 && wave->samples16 && !wave->samplesF) choice.own = kPcm16;
  }
  choice.request = (request.request & kPcmMask) ? (request.request & kPcmMask) : kPcmMask;
  float unused = 0;
  const int format = ChooseDataFormat(choice, unused);
  if (format != kPcm8 && format != kPcm16 && format != kPcm24) return Fail(kExp, "Unsupported subformat");
  const int bits = format == kPcm8 ? 8 : format == kPcm16 ? 16 : 24;

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

  FlacEncodeSetup setup;
  setup.rate = w->sampleRate;
  setup.channels = w->channels;
  setup.bits = bits;
  setup.level = request.parameter <= 8 ? static_cast<int>(request.parameter) : 5;
  setup.frames = w->length;
  for (const auto& [name, value] : VorbisCommentsOf(*w, true)) setup.comments.push_back(name + "=" + value);
  std::vector<uint8_t> head, tail;
  if (WaveWrapper(*w, format, head, tail)) RiffBlocks(head, tail, setup.applications);
  EncodeSource source{w, bits};
  return kvFlacEncHelper(file, kExp, setup, Source, &source);
}

}  // namespace kv
