// RIFF WAVE family: Microsoft wave, Broadcast wave, Rockwell ADPCM, SmartSound
// SDS and Wave-64.
#include "formats/modules/wav.h"

#include <sys/mman.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "core/app.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/param_ids.h"
#include "core/samplecodec.h"
#include "core/text.h"
#include "core/wavestore.h"
#include "formats/detect_bytes.h"
#include "formats/modules/wav_coded.h"
#include "formats/modules/wav_cursor.h"

namespace kv {

using namespace detect;

namespace {

// The 12-byte RIFF head with form WAVE, or its RF64 twin for files past 4 GB
// when `rf64` allows. A truncated body is still readable (the reader warns
// and reads what is there), so only the head must fit.
bool IsRiffWave(const uint8_t* data, uint32_t size, uint64_t fileSize, bool rf64 = true) {
  return fileSize >= 12 && (FourCC(data, size, 0, "RIFF") || (rf64 && FourCC(data, size, 0, "RF64"))) &&
         FourCC(data, size, 8, "WAVE");
}

constexpr uint8_t kW64Riff[16] = {0x72, 0x69, 0x66, 0x66, 0x2E, 0x91, 0xCF, 0x11,
                                  0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00};
constexpr uint8_t kW64Wave[16] = {0x77, 0x61, 0x76, 0x65, 0xF3, 0xAC, 0xD3, 0x11,
                                  0x8C, 0xD1, 0x00, 0xC0, 0x4F, 0x8E, 0xDB, 0x8A};

}  // namespace

int wav_Detect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  return IsRiffWave(data, size, fileSize) ? 6 : 0;
}

int wav_BwfDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  if (!IsRiffWave(data, size, fileSize)) return 0;
  // Only the first four chunks count, and only before the sample data.
  uint64_t pos = 12;
  for (int chunk = 0; chunk < 4 && Has(size, pos, 8); ++chunk) {
    if (FourCC(data, size, pos, "bext")) return 6;
    if (FourCC(data, size, pos, "data")) break;
    const uint64_t body = U32le(data + pos + 4);
    pos += 8 + body + (body & 1);  // odd sizes are padded to even
  }
  return 2;
}

int wav_RockwellDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  // Format tag 0x0300 at its usual place behind the first `fmt ` head; in
  // RF64 the ds64 chunk stands there.
  if (!IsRiffWave(data, size, fileSize, false) || !Has(size, 20, 2)) return 0;
  return data[20] == 0x00 && data[21] == 0x03 ? 6 : 0;
}

int wav_SdsDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  return fileSize >= 12 && FourCC(data, size, 0, "SDSS") && FourCC(data, size, 8, "WAVE") ? 4 : 0;
}

int wav_W64Detect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  // The reader needs the 40-byte head: riff GUID, u64 size, wave GUID.
  if (fileSize < 40 || !Has(size, 0, 40)) return 0;
  return Tag(data, size, 0, reinterpret_cast<const char*>(kW64Riff), 16) &&
                 Tag(data, size, 24, reinterpret_cast<const char*>(kW64Wave), 16)
             ? 6
             : 0;
}

// ===================================================================== reader

namespace {

constexpr const char* kImp = "wav_Imp";
constexpr const char* kImpWave = "wav_ImpWave";
constexpr const char* kBadFmt = "Invalid 'fmt ' chunk";
// Nested lists deeper than this are skipped: real files nest two or three
// levels, and a crafted file must not run the stack out.
constexpr int kMaxDepth = 16;
// Sentinel sample counts carried through the walk until `data` is seen.
constexpr int64_t kCountGsm771 = -999;

// The standard base GUID {xxxxxxxx-0000-0010-8000-00AA00389B71} after its
// first four bytes, as stored.
constexpr uint8_t kGuidBaseTail[12] = {0x00, 0x00, 0x10, 0x00, 0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};

struct CuePoint {
  uint32_t id;
  uint32_t sampleOffset;
};

// RF64's ds64 chunk: the 64-bit sizes of chunks whose 32-bit size says
// 0xFFFFFFFF (the RF64 head, data, and any listed in its table) and the
// 64-bit fact count.
struct Ds64 {
  bool present = false;
  uint64_t riffSize = 0;
  uint64_t dataSize = 0;
  uint64_t sampleCount = 0;
  std::vector<std::pair<uint32_t, uint64_t>> table;  // chunk id as read, size
};
constexpr uint32_t kSizeInDs64 = 0xFFFFFFFF;

struct WavState {
  ByteCursor& cur;
  Waveform& wave;
  int64_t count = 0;           // frames; negative values are the sentinels above
  uint32_t fileChannels = 1;   // as the fmt says, before the model's limit of two
  uint32_t sampleBytes = 2;    // container bytes per sample of the plain codings
  uint64_t fmtOffset = 0;      // payload of the first fmt; 0 while none seen
  uint32_t formatTag = 0;
  uint32_t lastTag = 0;        // the tag after the walk (formatTag is cleared)
  uint32_t byteSkip = 0;
  bool haveData = false;
  uint64_t dataOffset = 0;
  uint64_t dataSize = 0;
  bool haveCue = false;
  std::vector<CuePoint> cues;
  bool sawRiff = false;
  Ds64 ds64;
  bool countFromFact = false;  // the count was set by a fact chunk
  wavcoded::CodedFormat coded; // the ADPCM tags' fmt fields
};

bool IdIs(const char (&id)[5], const char* want) { return std::memcmp(id, want, 4) == 0; }

// A chunk's size: the 32-bit field, or the ds64's entry for it in an RF64
// file when the field is 0xFFFFFFFF.
uint64_t ChunkSize(const WavState& st, const char (&id)[5], uint32_t size) {
  if (size != kSizeInDs64 || !st.ds64.present) return size;
  if (IdIs(id, "RF64")) return st.ds64.riffSize;
  if (IdIs(id, "data")) return st.ds64.dataSize;
  for (const auto& [chunk, bytes] : st.ds64.table)
    if (chunk == GetU32le(reinterpret_cast<const uint8_t*>(id))) return bytes;
  return size;
}

// The ds64 chunk, which must open the RF64 body. Without one the sizes stay
// as written, and a 0xFFFFFFFF runs to the end of the file.
void ReadDs64(WavState& st, uint64_t pos, uint64_t end) {
  ByteCursor& cur = st.cur;
  char id[5];
  uint32_t size;
  uint8_t h[28];
  if (pos + 8 + sizeof h > end || !cur.Seek(pos) || !cur.FourCC(id) || !cur.U32le(size) || !IdIs(id, "ds64") ||
      size < sizeof h || !cur.Bytes(h, sizeof h))
    return;
  Ds64& d = st.ds64;
  d.present = true;
  d.riffSize = GetU64le(h);
  d.dataSize = GetU64le(h + 8);
  d.sampleCount = GetU64le(h + 16);
  // Never more entries than the chunk holds; each is read before it is kept.
  const uint64_t entries = std::min<uint64_t>(GetU32le(h + 24), (std::min<uint64_t>(size, end - pos - 8) - 28) / 12);
  for (uint64_t i = 0; i < entries; ++i) {
    uint8_t e[12];
    if (!cur.Bytes(e, sizeof e)) break;
    d.table.emplace_back(GetU32le(e), GetU64le(e + 4));
  }
}

uint64_t Even(uint64_t size) { return size + (size & 1); }

// Where a body of `size` bytes at `body` ends, cut to `end` (body < end); a
// 64-bit size from ds64 may be anything, so the sum is never formed past it.
uint64_t EndOf(uint64_t body, uint64_t size, uint64_t end) { return size >= end - body ? end : body + size; }

const CuePoint* FindCue(const WavState& st, uint32_t id) {
  for (const CuePoint& c : st.cues)
    if (c.id == id) return &c;
  return nullptr;
}

bool IsBitRateCode(int preferred) {
  return preferred >= kPreferredFirstCompressed && preferred <= kPreferredLastCompressed;
}

using wavcoded::IsCcittTag;
bool IsAacTag(uint32_t tag) {
  switch (tag) {
    case 176: case 255: case 384: case 8198: case 8199: case 16707: case 41222: return true;
    default: return false;
  }
}
bool IsOggTag(uint32_t tag) { return (tag >= 26447 && tag <= 26449) || (tag >= 26479 && tag <= 26481); }
bool IsPlainTag(uint32_t tag) { return tag == 1 || tag == 3 || tag == 6 || tag == 7 || tag == 0x171 || tag == 0x172; }

// Frames from the data size while the count is unknown or a sentinel.
int64_t DeriveCount(const WavState& st, uint64_t size) {
  const Waveform& w = st.wave;
  if (st.count == kCountGsm771) return static_cast<int64_t>(size / 38 * 160);
  if (st.count < 0) return static_cast<int64_t>(size / static_cast<uint64_t>(-st.count));
  if (st.count > 1) return st.count;  // a count of 1 is not trusted
  if (w.bits == 1 && IsBitRateCode(w.preferredFormat)) {
    const double kbps = PreferredFormatRate(w.preferredFormat);
    if (kbps <= 0) return 0;
    return static_cast<int64_t>(std::floor(static_cast<double>(size) * 8.0 * w.sampleRate / (kbps * 1000.0) + 0.5));
  }
  double width;
  if (st.formatTag == 1) width = (w.bits + 7) / 8 * 8;
  else if (st.formatTag == 49 || st.formatTag == 4096) width = 1.625;
  else width = w.bits ? w.bits : 1;
  if (w.channels == 0) return 0;
  return static_cast<int64_t>(static_cast<double>(size) * 8.0 / (w.channels * width) + 0.5);
}

bool Walk(WavState& st, uint64_t start, uint64_t end, int depth);

// ---- fmt ----

bool ParseFmt(WavState& st, uint64_t body, uint64_t bodyEnd) {
  ByteCursor& cur = st.cur;
  Waveform& w = st.wave;
  w.bits = 16;
  st.count = 0;
  st.countFromFact = false;
  w.readCallback = wav_ImpWave;
  w.preferredFormat = 1;
  st.fmtOffset = body;

  uint8_t head[14];
  if (!cur.Seek(body) || !cur.Bytes(head, sizeof head)) return Fail(kImp, kBadFmt);
  uint32_t tag = GetU16le(head);
  const uint32_t channels = GetU16le(head + 2);
  w.sampleRate = GetU32le(head + 4);
  const uint32_t avgBytes = GetU32le(head + 8);
  const uint32_t blockAlign = GetU16le(head + 12);
  if (channels == 0) return Fail(kImp, "No channels in the 'fmt ' chunk");
  st.fileChannels = channels;
  w.channels = static_cast<uint8_t>(std::min<uint32_t>(channels, 255));

  bool extensible = false;
  uint32_t containerBits = 0;
  if (tag == 0xFFFE) {
    // container bits, cbSize, valid bits, channel mask, SubFormat GUID
    uint8_t x[26];
    if (!cur.Bytes(x, sizeof x) || !cur.Seek(body + 14)) return Fail(kImp, kBadFmt);
    if (std::memcmp(x + 14, kGuidBaseTail, sizeof kGuidBaseTail) != 0 || GetU32le(x + 10) >= 0x10000)
      return Fail(kImp, "Unsupported 'Extensible' subformat GUID");
    containerBits = GetU16le(x);
    tag = GetU32le(x + 10);
    w.bits = static_cast<uint8_t>(std::min<uint32_t>(GetU16le(x + 4), 255));
    st.count = -static_cast<int64_t>(containerBits / 8 * channels);
    extensible = true;
  }

  auto bitsU16 = [&](uint32_t& bits) {
    uint16_t b;
    if (!cur.U16le(b)) return false;
    bits = b;
    return true;
  };
  auto setBits = [&](uint32_t bits) { w.bits = static_cast<uint8_t>(std::min<uint32_t>(bits, 255)); };
  auto rateCode = [&](double kbps) { w.preferredFormat = static_cast<uint8_t>(PreferredFormatForRate(kbps)); };
  auto limitTwo = [&] { w.channels = static_cast<uint8_t>(std::min<uint32_t>(channels, 2)); };

  st.formatTag = tag;
  if (tag == 1) {
    uint32_t bits = w.bits;
    if (!extensible) {
      // A bare 14-byte WAVEFORMAT has no bits field: the block align tells.
      if (bodyEnd - body < 16) bits = blockAlign / channels * 8;
      else if (!bitsU16(bits)) return Fail(kImp, kBadFmt);
      setBits(bits);
    }
    if (w.bits == 0) return Fail(kImp, "Unsupported bits/sample for PCM samples");
    limitTwo();
    w.preferredFormat = w.bits > 24 ? 3 : w.bits > 16 ? 2 : w.bits > 8 ? 1 : 0;
    st.sampleBytes = ((extensible ? containerBits : w.bits) + 7) / 8;
    if (st.sampleBytes == 0) st.sampleBytes = (w.bits + 7) / 8;
  } else if (wavcoded::IsCodedTag(tag)) {
    // MS ADPCM, IMA, CCITT, Dialogic, Yamaha, Rockwell: their fields are
    // checked here, so that a wave that loads also decodes.
    std::vector<uint8_t> fields;
    if (!wavcoded::CodedFields(cur, body, bodyEnd - body, fields)) return Fail(kImp, kBadFmt);
    if (!wavcoded::ParseCodedFmt(fields, tag, channels, blockAlign, st.coded)) return false;
    st.count = 0;  // an extensible container width says nothing about coded frames
    setBits(st.coded.bits);
    if (wavcoded::IsGsmTag(tag)) {
      if (tag == 771) st.count = kCountGsm771;
    } else {
      w.preferredFormat = 7;
    }
  } else if (tag == 3) {
    uint32_t bits = 0;
    if (!bitsU16(bits) || (bits != 32 && bits != 64))
      return Fail(kImp, "Unsupported bits/sample for IEEE floating point samples");
    setBits(bits);
    limitTwo();
    w.preferredFormat = 4;
    st.sampleBytes = bits / 8;
  } else if (tag == 6 || tag == 0x172 || tag == 7 || tag == 0x171) {
    setBits(8);
    w.preferredFormat = (tag == 6 || tag == 0x172) ? 6 : 5;
    st.sampleBytes = 1;
  } else if (tag == 80) {
    uint8_t x[26];
    if (!cur.Bytes(x, sizeof x)) return Fail(kImp, kBadFmt);
    const uint32_t mode = GetU16le(x + 10);
    if ((mode & 8) && (mode & 7)) return Fail(kImp, "Can't handle mixed channel mode MPEG streams");
    const uint32_t rate = GetU32le(x + 6);
    setBits(1);
    rateCode(rate < 8000 ? 128.0 : rate / 1000.0);
  } else if (tag == 85) {
    uint8_t x[16];
    if (!cur.Bytes(x, sizeof x)) return Fail(kImp, kBadFmt);
    const double d = w.sampleRate < 28000 ? 2.0 : 1.0;
    setBits(1);
    rateCode(GetU16le(x + 10) * static_cast<double>(w.sampleRate) / (144000.0 / d));
  } else if (IsAacTag(tag) || IsOggTag(tag)) {
    setBits(1);
    rateCode(avgBytes * 8.0 / 1000.0);
  } else {
    return Fail(kImp, "Unsupported compression type");
  }
  return true;
}

// ---- data ----

void ReadData(WavState& st, uint64_t body, uint64_t size) {
  st.haveData = true;
  st.dataOffset = body;
  st.dataSize = size;
  const uint64_t there = st.cur.LeftFrom(body);
  if (st.dataSize > there) {
    MessageBox("Warning: data chunk truncated - will read what data there is", kProgramName);
    st.dataSize = there;
  }
  st.count = DeriveCount(st, st.dataSize);
}

// ---- smpl ----

void ReadSmpl(WavState& st, uint64_t body, uint64_t chunkEnd) {
  ByteCursor& cur = st.cur;
  Waveform& w = st.wave;
  uint8_t h[36];
  if (body + sizeof h > chunkEnd || !cur.Bytes(h, sizeof h)) return;
  const uint32_t manufacturer = GetU32le(h);
  const uint32_t product = GetU32le(h + 4);
  const uint32_t unityNote = GetU32le(h + 12);
  const uint32_t pitchFraction = GetU32le(h + 16);
  const uint32_t loopCount = GetU32le(h + 28);
  const uint32_t samplerData = GetU32le(h + 32);

  bool haveLoop = false;
  uint32_t loopType = 0, loopStart = 0, loopEnd = 0, loopFraction = 0;
  if (loopCount > 0 && body + 36 + 24 <= chunkEnd) {
    uint8_t l[24];
    if (cur.Bytes(l, sizeof l)) {
      haveLoop = true;
      loopType = GetU32le(l + 4);
      loopStart = GetU32le(l + 8);
      loopEnd = GetU32le(l + 12);
      loopFraction = GetU32le(l + 16);
    }
  }
  // Only the first loop is kept; the sampler data follows all of them.
  const uint64_t extra = body + 36 + uint64_t{loopCount} * 24;

  if (samplerData == 28 && extra + 28 <= chunkEnd) {
    uint8_t c[28];
    if (cur.Seek(extra) && cur.Bytes(c, sizeof c) && std::memcmp(c, "CWDT", 4) == 0) {
      // Creamware STS: loop tuning in cents, and a loop end one past the usual.
      w.loopPitch = static_cast<int8_t>(c[4]) * 0.01f;
      if (haveLoop) --loopEnd;
    }
  }

  if ((unityNote & 0xFF) < 128) w.rootKey = static_cast<uint8_t>(unityNote & 0xFF);
  if (w.rootKey == 0) {
    // Some writers store the note big-endian.
    const uint32_t swapped = __builtin_bswap32(unityNote);
    if (swapped >= 1 && swapped <= 127) w.rootKey = static_cast<uint8_t>(swapped);
  }
  w.fineTune = static_cast<int8_t>(-static_cast<int>(pitchFraction * 100.0 / 4294967296.0 + 0.499));

  if (haveLoop) {
    w.loopStart = static_cast<float>(loopStart);
    w.loopEnd = static_cast<float>(loopEnd + 1.0 + loopFraction / 4294967296.0);
    switch (loopType) {
      case 0: w.loopType = 1; break;
      case 1: w.loopType = 3; break;
      case 2: w.loopType = 2; break;
      case 255: w.loopType = 0; break;
      default: w.loopType = 1; break;
    }
  }

  // Akai MPC trim and loop blocks.
  if ((manufacturer & 0xFFFFFF) == 71 && product == 94 && samplerData == 18 && extra + 18 <= chunkEnd) {
    uint8_t a[18];
    if (!cur.Seek(extra) || !cur.Bytes(a, sizeof a)) return;
    if (std::memcmp(a, "loop", 4) == 0) {
      const uint64_t next = extra + 18 + 6;
      if (next + 18 > chunkEnd || !cur.Seek(next) || !cur.Bytes(a, sizeof a)) return;
    }
    if (a[0] > 2 || a[1] != 0) return;
    w.rootKey = static_cast<uint8_t>(std::clamp(a[2] - static_cast<int8_t>(a[3]), 0, 127));
    w.fineTune = static_cast<int8_t>(a[4]);
    switch (a[6]) {
      case 0: case 1: w.loopType = 0; break;
      case 2: w.loopType = 1; break;
      case 3: w.loopType = 1; w.loopRelease = 1; break;
      default: break;
    }
    const uint32_t start = GetU32le(a + 10);
    const uint32_t end = GetU32le(a + 14);
    if (end > start && static_cast<int64_t>(end - start) < st.count) {
      if (start != 0) {
        const uint64_t frameBytes = (uint64_t{w.channels} * w.bits + 7) / 8;
        st.byteSkip = static_cast<uint32_t>(std::min<uint64_t>(uint64_t{start} * frameBytes, 0xFFFFFFFF));
      }
      st.count = end - start;
    }
  }
}

// ---- Akai mesa ----

char AkaiChar(uint8_t c) {
  if (c <= 9) return static_cast<char>('0' + c);
  if (c == 10) return ' ';
  if (c >= 11 && c <= 36) return static_cast<char>('A' + (c - 11));
  if (c == 38) return '+';
  if (c == 39) return '-';
  if (c == 40) return '.';
  return '_';
}

void ReadMesa(WavState& st, uint64_t body, uint64_t chunkEnd) {
  Waveform& w = st.wave;
  uint8_t h[141];
  if (body + sizeof h > chunkEnd || !st.cur.Bytes(h, sizeof h)) return;
  char name[12];
  for (int i = 0; i < 12; ++i) name[i] = AkaiChar(h[3 + i]);
  w.SetName(name, sizeof name, TextEncoding::Utf8);
  w.sampleRate = GetU16le(h + 138);
  w.rootKey = static_cast<uint8_t>(std::clamp(h[2] - static_cast<int8_t>(h[21]), 0, 127));
  w.fineTune = static_cast<int8_t>(h[20]);
  if (h[16] > 0) {
    const uint32_t start = GetU32le(h + 38);
    w.loopType = 1;
    w.loopStart = static_cast<float>(start);
    w.loopEnd = static_cast<float>(start + static_cast<double>(GetU32le(h + 44)) + GetU16le(h + 42) * 1.5258789e-5);
    if (h[19] == 1) w.loopRelease = 1;
    w.loopPitch = static_cast<int8_t>(h[140]) * 0.01f;
  }
}

// ---- wsmp (the DLS sample block) ----

void ReadWsmp(WavState& st, uint64_t body, uint64_t chunkEnd) {
  Waveform& w = st.wave;
  uint8_t h[20];
  if (body + sizeof h > chunkEnd || !st.cur.Bytes(h, sizeof h)) return;
  int root = GetU16le(h + 4);
  int fine = static_cast<int16_t>(GetU16le(h + 6));
  const int32_t attenuation = static_cast<int32_t>(GetU32le(h + 8));
  const uint32_t loops = GetU32le(h + 16);
  // Fine tunes past a semitone move into the root key.
  while (fine >= 101) { fine -= 100; --root; }
  while (fine <= -101) { fine += 100; ++root; }
  w.rootKey = static_cast<uint8_t>(std::clamp(root, 0, 127));
  w.fineTune = static_cast<int8_t>(fine);
  w.volume = static_cast<float>(attenuation / 655360.0);
  if (loops != 0) {
    const uint64_t loopAt = body + GetU32le(h);  // cbSize: the loop records follow the head
    uint8_t l[16];
    if (loopAt + sizeof l > chunkEnd || !st.cur.Seek(loopAt) || !st.cur.Bytes(l, sizeof l)) return;
    const uint32_t start = GetU32le(l + 8);
    w.loopType = 1;
    w.loopRelease = GetU32le(l + 4) == 1 ? 1 : 0;
    w.loopStart = static_cast<float>(start);
    w.loopEnd = static_cast<float>(static_cast<double>(start) + GetU32le(l + 12));
  }
}

// ---- LIST INFO ----

void ReadInfo(WavState& st, uint64_t start, uint64_t end, int depth) {
  static constexpr const char* kIds[] = {"INAM", "IART", "ICMT", "ICOP", "IENG", "IPRD"};
  ByteCursor& cur = st.cur;
  uint64_t pos = start;
  while (pos + 8 < end) {
    char id[5];
    uint32_t size;
    if (!cur.Seek(pos) || !cur.FourCC(id) || !cur.U32le(size)) return;
    const uint64_t body = pos + 8;
    const uint64_t next = std::min(body + Even(size), end);
    if (IdIs(id, "LIST")) {
      if (depth < kMaxDepth) ReadInfo(st, body + 4, std::min(body + size, end), depth + 1);
    } else if (size > 0) {
      for (int k = 0; k < 6; ++k) {
        if (!IdIs(id, kIds[k])) continue;
        // The model's fields hold at most 255 bytes; longer texts are cut.
        char text[1024];
        const std::size_t want = static_cast<std::size_t>(std::min<uint64_t>(size, sizeof text));
        const std::size_t got = cur.BytesUpTo(text, want);
        const std::size_t n = strnlen(text, got);
        if (n > 0) st.wave.SetParamText(kRowName + k, DecodeText(text, n, TextEncoding::Foreign));
        break;
      }
    }
    pos = next;
  }
}

// ---- cue, labl, ltxt ----

void ReadCue(WavState& st, uint64_t body, uint64_t chunkEnd) {
  uint32_t count;
  if (body + 4 > chunkEnd || !st.cur.U32le(count)) return;
  st.haveCue = true;
  // Never more points than the chunk can hold.
  count = static_cast<uint32_t>(std::min<uint64_t>(count, (chunkEnd - body - 4) / 24));
  st.cues.reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    uint8_t p[24];
    if (!st.cur.Bytes(p, sizeof p)) break;
    st.cues.push_back({GetU32le(p), GetU32le(p + 20)});
  }
}

void ReadLabl(WavState& st, uint64_t body, uint64_t chunkEnd) {
  uint32_t cueId;
  if (body + 4 > chunkEnd || !st.cur.U32le(cueId)) return;
  char text[261] = {};
  const std::size_t n = st.cur.BytesUpTo(text, static_cast<std::size_t>(std::min<uint64_t>(chunkEnd - body - 4, 260)));
  const std::string_view label(text, strnlen(text, n));
  const CuePoint* cue = FindCue(st, cueId);
  if (!cue) return;
  if (EqualsNoCase(label, "Loop Start")) {
    st.wave.loopStart = static_cast<float>(cue->sampleOffset);
  } else if (EqualsNoCase(label, "Loop End")) {
    st.wave.loopEnd = static_cast<float>(cue->sampleOffset);
    st.wave.loopType = 1;
  }
}

void ReadLtxt(WavState& st, uint64_t body, uint64_t chunkEnd) {
  uint8_t t[20];
  if (body + sizeof t > chunkEnd || !st.cur.Bytes(t, sizeof t)) return;
  if (std::memcmp(t + 8, "mark", 4) != 0 && std::memcmp(t + 8, "rgn ", 4) != 0) return;
  const CuePoint* cue = FindCue(st, GetU32le(t));
  if (!cue) return;
  st.wave.loopStart = static_cast<float>(cue->sampleOffset);
  st.wave.loopEnd = static_cast<float>(static_cast<double>(cue->sampleOffset) + GetU32le(t + 4));
  st.wave.loopType = 1;
}

// ---- inst ----

void ReadInst(WavState& st, uint64_t body, uint64_t chunkEnd) {
  Waveform& w = st.wave;
  uint8_t b[7];
  if (body + sizeof b > chunkEnd || !st.cur.Bytes(b, sizeof b)) return;
  if (w.rootKey == 60 && w.fineTune == 0) {
    if (b[0] < 128) w.rootKey = b[0];
    w.fineTune = static_cast<int8_t>(b[1]);
  }
  w.volume = static_cast<int8_t>(b[2]);
}

// The RIFF handler's closing steps, shared with embedded wave bodies.
bool CloseBody(WavState& st) {
  st.cues.clear();
  st.cues.shrink_to_fit();
  if (!st.haveData || st.fmtOffset == 0) return Fail(kImp, "No wave data found!");
  st.lastTag = st.formatTag;
  st.formatTag = 0;
  if (st.byteSkip != 0) {
    const uint64_t skip = std::min<uint64_t>(st.byteSkip, st.dataSize);
    st.dataSize -= skip;
    st.dataOffset += skip;
    st.byteSkip = 0;
  }
  return true;
}

bool Walk(WavState& st, uint64_t start, uint64_t end, int depth) {
  ByteCursor& cur = st.cur;
  Waveform& w = st.wave;
  uint64_t pos = start;
  while (pos + 8 < end) {
    char id[5];
    uint32_t size32;
    if (!cur.Seek(pos) || !cur.FourCC(id) || !cur.U32le(size32)) return true;  // a walk stops silently at the end
    const uint64_t body = pos + 8;
    const uint64_t size = ChunkSize(st, id, size32);
    uint64_t bodyEnd = EndOf(body, size, end);
    const uint64_t next = bodyEnd == end ? end : std::min(body + Even(size), end);

    if (IdIs(id, "RIFF") || IdIs(id, "SDSS") || IdIs(id, "RF64")) {
      if (depth == 0) {
        char form[5];
        if (!cur.FourCC(form) || !IdIs(form, "WAVE")) return Fail(kImp, "Not a RIFF WAVE file");
        st.ds64 = {};
        if (IdIs(id, "RF64")) {
          ReadDs64(st, body + 4, end);
          bodyEnd = EndOf(body, ChunkSize(st, id, size32), end);
        }
        st.fmtOffset = 0;
        st.formatTag = 0;
        st.byteSkip = 0;
        st.cues.clear();
        st.haveCue = false;
        st.haveData = false;
        st.dataSize = 0;
        const bool ok = Walk(st, body + 4, bodyEnd, depth + 1);
        if (!ok) return false;
        st.sawRiff = true;
        return CloseBody(st);
      }
    } else if (IdIs(id, "LIST")) {
      char type[5];
      if (body + 4 <= bodyEnd && cur.FourCC(type)) {
        if (IdIs(type, "INFO")) {
          ReadInfo(st, body + 4, bodyEnd, depth + 1);
        } else if (depth < kMaxDepth && !Walk(st, body + 4, bodyEnd, depth + 1)) {
          return false;
        }
      }
    } else if (IdIs(id, "fmt ")) {
      if (st.fmtOffset == 0 && !ParseFmt(st, body, bodyEnd)) return false;
    } else if (IdIs(id, "data")) {
      if (!st.haveData) ReadData(st, body, size);
    } else if (IdIs(id, "fact")) {
      uint32_t n;
      if (body + 4 <= bodyEnd && cur.U32le(n) && n != 0) {
        st.count = n;
        st.countFromFact = true;
        if (n == kSizeInDs64 && st.ds64.present && st.ds64.sampleCount != 0)
          st.count = static_cast<int64_t>(std::min<uint64_t>(st.ds64.sampleCount, INT64_MAX));
      }
    } else if (IdIs(id, "cue ")) {
      if (!st.haveCue) ReadCue(st, body, bodyEnd);
    } else if (IdIs(id, "labl")) {
      if (w.loopType == 0) ReadLabl(st, body, bodyEnd);
    } else if (IdIs(id, "ltxt")) {
      if (w.loopType == 0) ReadLtxt(st, body, bodyEnd);
    } else if (IdIs(id, "smpl")) {
      ReadSmpl(st, body, bodyEnd);
    } else if (IdIs(id, "inst")) {
      ReadInst(st, body, bodyEnd);
    } else if (IdIs(id, "wsmp")) {
      ReadWsmp(st, body, bodyEnd);
    } else if (IdIs(id, "mesa")) {
      ReadMesa(st, body, bodyEnd);
    } else if (IdIs(id, "ID3 ") || IdIs(id, "id3 ")) {
      ReadId3Text(cur.File(), body, bodyEnd - body, w);
      cur.Invalidate();  // the ID3 reader leaves the descriptor anywhere
    } else if (IdIs(id, "atem")) {
      // Chunks behind a RIFF body whose size is too small are still read.
      end = std::max(end, cur.FileSize());
    }
    pos = next;
  }
  return true;
}

// Which generic coding a plain wave's data has, or -1 when wav_ImpWave must
// decode it itself (more than two channels, containers the generic reader
// has no form for).
int GenericFormat(const WavState& st, uint32_t& flags) {
  flags = 0;
  if (st.fileChannels > 2) return -1;
  switch (st.lastTag) {
    case 1:
      switch (st.sampleBytes) {
        case 1: flags = kSourceUnsigned; return kPcm8;
        case 2: return kPcm16;
        case 3: return kPcm24;
        case 4: return kPcm32;
        default: return -1;
      }
    case 3: return st.sampleBytes == 4 ? kFloat32 : kFloat64;
    case 6: case 0x172: return kALaw;
    case 7: case 0x171: return kMuLaw;
    default: return -1;
  }
}

// Turns the walk's findings into the wave's fields and read callback.
void FinishWave(WavState& st, FileRef& file) {
  Waveform& w = st.wave;
  int64_t count = st.count < 0 ? DeriveCount(st, st.dataSize) : st.count;
  if (IsPlainTag(st.lastTag)) {
    // A count larger than the data (a lying fact chunk, a truncated file)
    // is cut to the frames that are there.
    const uint64_t frameBytes = uint64_t{st.fileChannels} * st.sampleBytes;
    if (frameBytes) count = std::min<int64_t>(count, static_cast<int64_t>(st.dataSize / frameBytes));
  } else if (wavcoded::IsCodedTag(st.lastTag)) {
    // Frames a fact claims past the data read as zeros, up to a block's
    // worth; a count beyond that is cut to the data, so that no count can
    // make the decoder allocate more than the data implies. Without a fact
    // the data decides.
    const uint64_t holds = wavcoded::CodedFrames(st.coded, st.dataSize);
    const uint64_t claimed = static_cast<uint64_t>(std::max<int64_t>(count, 0));
    if (!st.countFromFact) {
      count = static_cast<int64_t>(std::min(claimed, holds));
    } else if (claimed > holds + wavcoded::CodedBlockFrames(st.coded)) {
      char text[200];
      std::snprintf(text, sizeof text,
                    "Note: the 'fact' chunk claims %llu frames, but the data holds %llu; the wave is cut to those.",
                    static_cast<unsigned long long>(claimed), static_cast<unsigned long long>(holds));
      MessageBox(text, kProgramName);
      count = static_cast<int64_t>(holds);
    }
    w.dataEnd = st.dataOffset + st.dataSize;
  }
  w.length = static_cast<uint32_t>(std::clamp<int64_t>(count, 0, 0xFFFFFFFF));
  w.fileOffset = st.dataOffset;
  w.sourcePath = file.Path();
  if (w.channels > 2) w.channels = 2;

  uint32_t flags = 0;
  const int generic = GenericFormat(st, flags);
  if (generic >= 0) {
    const uint8_t bits = w.bits;
    const uint8_t preferred = w.preferredFormat;
    SetGenericFormat(w, generic, flags);
    w.bits = bits;  // valid bits of an extensible container stay as the file says
    w.preferredFormat = preferred;
  } else {
    w.readCallback = wav_ImpWave;
    w.sourceFormat = 0;
    // wav_ImpWave re-reads the fmt payload, as the decoders need its fields.
    w.codingChunkOffset = st.fmtOffset;
  }
}

// ---- wav_ImpWave ----

const char* MissingDecoder(uint32_t tag) {
  if (tag == 80 || tag == 85) return "MPEG audio";
  if (IsAacTag(tag)) return "AAC";
  if (IsOggTag(tag)) return "Ogg Vorbis";
  return nullptr;
}

// Plain codings with more than two channels or containers over four bytes:
// the first two channels and the top four bytes of each sample are kept.
bool DecodePlain(Waveform& w, ByteCursor& cur, uint32_t tag, uint32_t fileChannels, uint32_t sampleBytes,
                 uint64_t dataSize) {
  const uint64_t frameBytes = uint64_t{fileChannels} * sampleBytes;
  if (frameBytes == 0) return Fail(kImpWave, "Unsupported compression type");
  const uint64_t frames = std::min<uint64_t>(w.length, std::min(dataSize, cur.Left()) / frameBytes);
  w.length = static_cast<uint32_t>(frames);
  if (frames == 0) return Fail(kImpWave, "Zero length");
  const uint32_t outChannels = std::min<uint32_t>(fileChannels, 2);
  w.channels = static_cast<uint8_t>(outChannels);
  const bool toFloat = (tag == 1 && sampleBytes > 2) || tag == 3;
  int16_t* out16 = nullptr;
  float* outF = nullptr;
  if (toFloat) outF = AllocSamplesFloat(w);
  else out16 = AllocSamples16(w);
  if (!out16 && !outF) return FailMessage("Out of memory");

  // Blocks of whole frames keep the work buffer small for long files.
  const uint64_t blockFrames = std::max<uint64_t>(1, (1u << 20) / frameBytes);
  auto work = TryAllocArray<uint8_t>(static_cast<std::size_t>(blockFrames * frameBytes));
  if (!work) return Fail(kImpWave, "Out of memory");
  uint64_t done = 0;
  while (done < frames) {
    const uint64_t n = std::min(blockFrames, frames - done);
    if (!cur.Bytes(work.get(), static_cast<std::size_t>(n * frameBytes))) return Fail(kImpWave, "Reading from file failed");
    for (uint64_t f = 0; f < n; ++f) {
      const uint8_t* frame = work.get() + f * frameBytes;
      for (uint32_t c = 0; c < outChannels; ++c) {
        const uint8_t* s = frame + c * sampleBytes;
        const uint64_t at = (done + f) * outChannels + c;
        if (tag == 3) {
          if (sampleBytes == 4) {
            std::memcpy(outF + at, s, 4);
            kvDecodeFloat32InPlace(std::span<float>(outF + at, 1), false);
          } else kvDecodeFloat64(std::span<const uint8_t>(s, 8), std::span<float>(outF + at, 1), false);
        } else if (tag == 1) {
          if (sampleBytes == 1) out16[at] = static_cast<int16_t>((s[0] - 128) * 256);
          else if (sampleBytes == 2) out16[at] = static_cast<int16_t>(GetU16le(s));
          else if (sampleBytes == 3) kvDecodePcm24(std::span<const uint8_t>(s, 3), std::span<float>(outF + at, 1), false, false);
          else kvDecodePcm32(std::span<const uint8_t>(s + sampleBytes - 4, 4), std::span<float>(outF + at, 1), false, false);
        } else if (tag == 6 || tag == 0x172) {
          out16[at] = kvALawToLinear(s[0]);
        } else {
          out16[at] = kvMuLawToLinear(s[0]);
        }
      }
    }
    done += n;
  }
  return true;
}

}  // namespace

bool wav_ImpWave(Waveform& wave, FileRef& file) {
  ByteCursor cur(file);
  const uint64_t dataOffset = cur.Tell();
  uint8_t head[16] = {};
  if (wave.codingChunkOffset == 0 || !cur.Seek(wave.codingChunkOffset) || !cur.Bytes(head, 14))
    return Fail(kImpWave, "Reading from file failed");
  uint32_t tag = GetU16le(head);
  const uint32_t fileChannels = GetU16le(head + 2);
  if (tag == 0xFFFE) {
    uint8_t x[26];
    if (!cur.Bytes(x, sizeof x)) return Fail(kImpWave, "Reading from file failed");
    tag = GetU32le(x + 10);
    std::memcpy(head + 14, x, 2);
  } else if (IsPlainTag(tag) && !cur.Bytes(head + 14, 2)) {
    return Fail(kImpWave, "Reading from file failed");
  }
  if (wavcoded::IsCodedTag(tag)) {
    wavcoded::CodedFormat coded;
    if (!wavcoded::ReadCodedFmt(cur, wave.codingChunkOffset, coded)) return false;
    // The data chunk's end, noted by the walk: what follows it is no data.
    const uint64_t dataEnd = wave.dataEnd > dataOffset ? wave.dataEnd : cur.FileSize();
    if (!cur.Seek(dataOffset)) return Fail(kImpWave, "Reading from file failed");
    return wavcoded::DecodeCoded(wave, cur, coded, dataEnd - dataOffset);
  }
  if (const char* missing = MissingDecoder(tag))
    return Fail(kImpWave, "%s decoding is not available yet", missing);
  if (!IsPlainTag(tag)) return Fail(kImpWave, "Unsupported compression type");

  uint32_t bits = GetU16le(head + 14);
  if (tag == 6 || tag == 7 || tag == 0x171 || tag == 0x172) bits = 8;
  if (tag == 3 && bits != 32 && bits != 64) return true;  // other float widths read nothing
  const uint32_t sampleBytes = (bits + 7) / 8;
  if (!cur.Seek(dataOffset)) return Fail(kImpWave, "Reading from file failed");
  return DecodePlain(wave, cur, tag, fileChannels, sampleBytes, cur.Left());
}

std::string wav_CodingName(const Waveform& wave) {
  if (wave.readCallback != wav_ImpWave || wave.codingChunkOffset == 0) return {};
  FileRef file;
  if (!file.OpenRead(wave.sourcePath)) return {};
  ByteCursor cur(file);
  uint8_t head[14];
  if (!cur.Seek(wave.codingChunkOffset) || !cur.Bytes(head, sizeof head)) return {};
  uint32_t tag = GetU16le(head);
  if (tag == 0xFFFE) {
    uint8_t x[26];
    if (!cur.Bytes(x, sizeof x)) return {};
    tag = GetU32le(x + 10);
  }
  if (wavcoded::IsCodedTag(tag)) {
    wavcoded::CodedFormat coded;
    return wavcoded::ReadCodedFmt(cur, wave.codingChunkOffset, coded) ? wavcoded::CodedName(coded) : std::string();
  }
  if (const char* name = MissingDecoder(tag)) return name;
  if (IsPlainTag(tag)) return tag == 3 ? "Float" : tag == 1 ? "PCM" : (tag == 6 || tag == 0x172) ? "A-law 8-bit" : "Mu-law 8-bit";
  return {};
}

bool wav_ReadWaveBody(FileRef& file, uint64_t start, uint64_t end, Waveform& wave) {
  ByteCursor cur(file);
  WavState st{cur, wave};
  end = std::min(end, cur.FileSize());
  if (!Walk(st, start, end, 1)) return false;
  // Pool entries may put data before fmt (libgig writes them so); the fmt
  // parser then cleared the count that data had derived without it.
  if (st.haveData && st.fmtOffset != 0 && st.count == 0) st.count = DeriveCount(st, st.dataSize);
  if (!CloseBody(st)) return false;
  FinishWave(st, file);
  return true;
}

void wav_ReadWrapper(std::span<const std::span<const uint8_t>> parts, Waveform& wave) {
  // Only the chunks that describe the wave are walked: the format, the
  // count and the samples are the container's own.
  std::vector<uint8_t> kept;
  for (std::span<const uint8_t> part : parts) {
    std::size_t pos = 0;
    // A tail after an odd data size starts with its pad byte.
    if (!part.empty() && (part[0] < 0x20 || part[0] > 0x7E)) pos = 1;
    while (pos + 8 <= part.size()) {
      const char* id = reinterpret_cast<const char*>(part.data() + pos);
      const uint64_t size = GetU32le(part.data() + pos + 4);
      if (std::memcmp(id, "RIFF", 4) == 0 || std::memcmp(id, "RF64", 4) == 0) {
        pos += 12;
        continue;
      }
      if (std::memcmp(id, "data", 4) == 0) {
        pos += 8;
        continue;
      }
      const uint64_t body = std::min<uint64_t>(size, part.size() - pos - 8);
      if (std::memcmp(id, "fmt ", 4) != 0 && std::memcmp(id, "fact", 4) != 0 && std::memcmp(id, "ds64", 4) != 0) {
        kept.insert(kept.end(), part.begin() + pos, part.begin() + pos + 4);
        const uint8_t length[4] = {static_cast<uint8_t>(body), static_cast<uint8_t>(body >> 8),
                                   static_cast<uint8_t>(body >> 16), static_cast<uint8_t>(body >> 24)};
        kept.insert(kept.end(), length, length + 4);
        kept.insert(kept.end(), part.begin() + pos + 8, part.begin() + pos + 8 + body);
        if (body & 1) kept.push_back(0);
      }
      pos += 8 + Even(size);
    }
  }
  if (kept.empty()) return;
  const int fd = memfd_create("wav-wrapper", MFD_CLOEXEC);
  if (fd < 0) return;
  FileRef file(fd, std::filesystem::path(), true);
  if (!file.Write(kept.data(), kept.size()) || !file.Seek(0)) return;
  ByteCursor cur(file);
  WavState st{cur, wave};
  st.count = wave.length;
  Walk(st, 0, kept.size(), 1);
}

bool wav_Imp(Collection& collection, FileRef& file, uint32_t) {
  Waveform* wave = Create<Waveform>(collection);
  const std::string stem = file.Path().stem().string();
  wave->SetName(stem.data(), stem.size(), TextEncoding::Foreign);
  wave->bits = 16;  // a data chunk before fmt sees 16 bits and one channel
  ByteCursor cur(file);
  WavState st{cur, *wave};
  if (!cur.Seek(0) || !Walk(st, 0, cur.FileSize(), 0) || (!st.sawRiff && !Fail(kImp, "Not a RIFF WAVE file"))) {
    DeleteItem(wave);
    return false;
  }
  FinishWave(st, file);
  return true;
}

}  // namespace kv
