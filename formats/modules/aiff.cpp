// AIFF family: AIFF, AIFC and MAUD through one IFF walker (big-endian).
#include "formats/modules/aiff.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <string>

#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/param_ids.h"
#include "core/samplecodec.h"
#include "core/text.h"
#include "core/wavestore.h"
#include "formats/detect_bytes.h"
#include "formats/modules/wav.h"
#include "formats/modules/wav_cursor.h"
#include "formats/modules/module.h"

namespace kv {

using namespace detect;

int aiff_Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize) {
  static constexpr const char* kForm[] = {"AIFF", "AIFC", "MAUD"};
  if (parameter > 2 || fileSize < 12 || !FourCC(data, size, 0, "FORM")) return 0;
  return Tag(data, size, 8, kForm[parameter], 4) ? 6 : 0;
}

// 8SVX and 16SV forms belong to the plain IFF rows; scored here because the
// FORM head is the same.
int aiff_IffDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  if (fileSize < 12 || !FourCC(data, size, 0, "FORM")) return 0;
  return FourCC(data, size, 8, "8SVX") || FourCC(data, size, 8, "16SV") ? 6 : 0;
}

// ===================================================================== reader

namespace {

constexpr const char* kImp = "aiff_Imp";
constexpr const char* kImpWave = "aiff_ImpWave";
constexpr const char* kExp = "aiff_Exp";

bool IdIs(const char* id, const char* want) { return std::memcmp(id, want, 4) == 0; }
uint64_t Even(uint64_t size) { return size + (size & 1); }

struct AiffState {
  uint32_t channels = 1;
  uint32_t frames = 0;
  uint32_t bits = 0;
  int64_t rate = 0;
  bool haveComm = false;
  int format = -1;          // generic DataFormat, -1: a coding without a decoder
  uint32_t flags = 0;
  uint64_t typeOffset = 0;  // where COMM's compression type lies
  bool haveData = false;
  uint64_t dataOffset = 0;
  uint64_t dataSize = 0;
  std::map<uint32_t, uint32_t> markers;
  bool haveInst = false;
  uint8_t inst[20] = {};
};

int PcmFormat(uint32_t bits) {
  if (bits == 0) return -1;
  if (bits <= 8) return kPcm8;
  if (bits <= 16) return kPcm16;
  if (bits <= 24) return kPcm24;
  if (bits <= 32) return kPcm32;
  return -1;
}

// COMM: channels, frames, bits, 80-bit rate, and for AIFC the compression
// type and its name.
bool ReadComm(ByteCursor& cur, AiffState& st, uint64_t body, uint32_t size) {
  uint8_t b[23] = {};
  std::memcpy(b + 18, "NONE", 4);
  const std::size_t n = std::min<uint32_t>(size, sizeof b);
  if (!cur.Bytes(b, n)) return Fail(kImp, "Can't read the COMM chunk");
  st.haveComm = true;
  st.channels = GetU16be(b);
  if (st.channels > 2) return Fail(kImp, "Can't handle > 2 channel files");
  st.frames = GetU32be(b + 2);
  st.bits = GetU16be(b + 6);
  st.rate = aiff_Rate80(b + 8);
  st.typeOffset = body + 18;
  char type[5] = {};
  std::memcpy(type, b + 18, 4);
  std::string name;
  if (size > 22) {
    char text[97] = {};
    const std::size_t want = std::min<std::size_t>({b[22], 96, size - 23});
    name.assign(text, cur.BytesUpTo(text, want));
  }

  st.format = -1;
  st.flags = kSourceBigEndian;
  if (IdIs(type, "NONE") || IdIs(type, "none") || IdIs(type, "twos") || IdIs(type, "lpcm")) {
    st.format = PcmFormat(st.bits);  // 8 bits or less are signed
  } else if (IdIs(type, "sowt")) {
    st.format = PcmFormat(st.bits);
    st.flags = 0;
  } else if (IdIs(type, "in24")) {
    st.format = kPcm24;
    st.bits = 24;
  } else if (IdIs(type, "in32")) {
    st.format = kPcm32;
    st.bits = 32;
  } else if (IdIs(type, "fl32") || IdIs(type, "FL32")) {
    st.format = kFloat32;
    st.bits = 32;
  } else if (IdIs(type, "fl64") || IdIs(type, "FL64")) {
    st.format = kFloat64;
    st.bits = 64;
  } else if (IdIs(type, "ulaw") || IdIs(type, "ULAW")) {
    st.format = kMuLaw;
    st.bits = 8;
  } else if (IdIs(type, "alaw") || IdIs(type, "ALAW")) {
    st.format = kALaw;
    st.bits = 8;
  } else if (IdIs(type, "MAC3")) {
    st.bits = 3;
    st.frames = static_cast<uint32_t>(std::min<uint64_t>(uint64_t{st.frames} * 6, 0xFFFFFFFF));
  } else if (IdIs(type, "MAC6")) {
    st.bits = 1;
    st.frames = static_cast<uint32_t>(std::min<uint64_t>(uint64_t{st.frames} * 6, 0xFFFFFFFF));
  } else if (IdIs(type, "ima4") || IdIs(type, "IMA4")) {
    st.bits = 4;
    st.frames = static_cast<uint32_t>(std::min<uint64_t>(uint64_t{st.frames} * 64, 0xFFFFFFFF));
  } else if (IdIs(type, "GSM ")) {
    st.bits = 2;
    st.frames = static_cast<uint32_t>(std::min<uint64_t>((uint64_t{st.frames} + 159) / 160 * 160, 0xFFFFFFFF));
  } else if (IdIs(type, "G721") || IdIs(type, "G722")) {
    st.bits = 4;
  } else if (IdIs(type, "G723") || IdIs(type, "G726")) {
    st.bits = std::clamp<uint32_t>(st.bits, 2, 5);
  } else if (IdIs(type, "DWVW")) {
    st.bits = std::max<uint32_t>(st.bits, 1);
  } else {
    return Fail(kImp, "Unsupported compression type: %s", name.c_str());
  }
  if (st.format < 0 && (IdIs(type, "NONE") || IdIs(type, "none") || IdIs(type, "twos") || IdIs(type, "lpcm") ||
                        IdIs(type, "sowt")))
    return Fail(kImp, "Unsupported bits/sample for PCM samples");
  return true;
}

// MAUD header: samples, bits, rate as clock over divider, channel info, compression.
bool ReadMhdr(ByteCursor& cur, AiffState& st) {
  uint8_t b[20];
  if (!cur.Bytes(b, sizeof b)) return Fail(kImp, "Can't read the MHDR chunk");
  st.haveComm = true;
  st.frames = GetU32be(b);
  st.bits = GetU16be(b + 4);
  const uint32_t divide = GetU16be(b + 12);
  st.rate = divide ? GetU32be(b + 8) / divide : 0;
  st.channels = GetU16be(b + 14) == 1 ? 2 : 1;
  st.flags = kSourceBigEndian;
  switch (GetU16be(b + 18)) {
    case 0:
      st.format = PcmFormat(st.bits);
      if (st.format == kPcm8) st.flags |= kSourceUnsigned;
      if (st.format < 0) return Fail(kImp, "Unknown sample format or compression");
      break;
    case 2: st.format = kALaw; st.bits = 8; break;
    case 3: st.format = kMuLaw; st.bits = 8; break;
    default: return Fail(kImp, "Unknown sample format or compression");
  }
  return true;
}

void ReadMarkers(ByteCursor& cur, AiffState& st, uint64_t end) {
  uint16_t count;
  if (!cur.U16be(count)) return;
  for (uint32_t i = 0; i < count; ++i) {
    uint16_t id;
    uint32_t position;
    uint8_t length;
    if (cur.Tell() + 7 > end || !cur.U16be(id) || !cur.U32be(position) || !cur.U8(length)) return;
    st.markers[id] = position;
    // The counted name with its count byte is padded to even.
    if (!cur.Skip(length + ((length & 1) ? 0 : 1))) return;
  }
}

void ReadText(ByteCursor& cur, Waveform& w, uint32_t size, int parameter) {
  char text[257] = {};
  const std::size_t n = strnlen(text, cur.BytesUpTo(text, std::min<uint32_t>(size, 256)));
  if (n == 0) return;
  if (parameter == kRowName) w.SetName(text, n, TextEncoding::Foreign);
  else w.SetParamText(parameter, DecodeText(text, n, TextEncoding::Foreign));
}

// Sustain loop first, then release loop, until one gives a loop.
void ApplyInst(const AiffState& st, Waveform& w) {
  const uint8_t* b = st.inst;
  w.rootKey = std::min<uint8_t>(b[0], 127);
  w.fineTune = static_cast<int8_t>(b[1]);
  for (int loop = 0; loop < 2 && w.loopType == 0; ++loop) {
    const uint8_t* l = b + 8 + loop * 6;
    const uint32_t mode = GetU16be(l);
    auto find = [&](uint32_t id, float& out) {
      const auto it = st.markers.lower_bound(id);
      if (it == st.markers.end() || it->first != id) return false;
      out = static_cast<float>(it->second);
      return true;
    };
    float start = 0, end = 0;
    const bool haveStart = find(GetU16be(l + 2), start);
    const bool haveEnd = find(GetU16be(l + 4), end);
    if (haveStart) w.loopStart = start;
    if (haveEnd) w.loopEnd = end;
    if (haveStart && haveEnd && (mode == 1 || mode == 2)) w.loopType = mode == 1 ? 1 : 3;
  }
  if (GetU16be(b + 14) == 0) w.loopRelease = 1;  // a release loop that doesn't play
  const int gain = static_cast<int16_t>(GetU16be(b + 6));
  if (gain >= -96 && gain <= 47) w.volume = static_cast<float>(gain);
}

}  // namespace

uint32_t aiff_Rate80(const uint8_t* p) {
  const bool negative = p[0] & 0x80;
  const int e = ((p[0] & 0x7F) << 8) | p[1];
  const uint32_t m = GetU32be(p + 2);
  if (e == 32767) return 0x7FFFFFFF;
  if (e == 0 && m == 0) return 0;
  const int shift = e - 16414;
  uint64_t rate;
  if (shift >= 0) rate = shift >= 32 ? 0x7FFFFFFF : std::min<uint64_t>(uint64_t{m} << shift, 0x7FFFFFFF);
  else rate = -shift >= 32 ? 0 : m >> -shift;
  return negative ? 0 : static_cast<uint32_t>(rate);
}

void aiff_PutRate80(uint32_t rate, uint8_t* b) {
  std::memset(b, 0, 10);
  if (rate == 0) return;
  const int top = 31 - __builtin_clz(rate);
  const uint32_t e = 16383 + top;
  const uint64_t m = uint64_t{rate} << (63 - top);
  b[0] = static_cast<uint8_t>(e >> 8);
  b[1] = static_cast<uint8_t>(e);
  for (int i = 0; i < 8; ++i) b[2 + i] = static_cast<uint8_t>(m >> (56 - 8 * i));
}

bool aiff_Imp(Collection& collection, FileRef& file, uint32_t) {
  ByteCursor cur(file);
  char id[5], type[5];
  uint32_t formSize = 0;
  if (!cur.Seek(0) || !cur.FourCC(id) || !IdIs(id, "FORM") || !cur.U32be(formSize))
    return Fail(kImp, "No FORM starting IFF file");
  if (!cur.FourCC(type) || (!IdIs(type, "AIFF") && !IdIs(type, "AIFC") && !IdIs(type, "MAUD")))
    return Fail(kImp, "Not an AIFF, AIFC, MAUD type IFF-FORM");
  uint64_t end = cur.FileSize();
  if (formSize != 0) end = std::min<uint64_t>(end, uint64_t{formSize} + 8);

  Waveform* w = Create<Waveform>(collection);
  const std::string stem = file.Path().stem().string();
  w->SetName(stem.data(), stem.size(), TextEncoding::Foreign);
  AiffState st;
  auto fail = [&] {
    DeleteItem(w);
    return false;
  };

  for (uint64_t pos = 12; pos + 8 <= end;) {
    uint32_t size;
    if (!cur.Seek(pos) || !cur.FourCC(id) || !cur.U32be(size)) break;
    const uint64_t body = pos + 8;
    const uint64_t bodyEnd = std::min(body + size, end);
    if (IdIs(id, "COMM")) {
      if (!ReadComm(cur, st, body, size)) return fail();
    } else if (IdIs(id, "SSND")) {
      uint32_t offset, blockSize;
      if (!st.haveData && size >= 8 && cur.U32be(offset) && cur.U32be(blockSize)) {
        st.haveData = true;
        st.dataOffset = body + 8 + offset;
        st.dataSize = uint64_t{offset} + 8 <= size ? size - offset - 8 : 0;
      }
    } else if (IdIs(id, "MARK")) {
      ReadMarkers(cur, st, bodyEnd);
    } else if (IdIs(id, "INST")) {
      if (size >= 20 && cur.Bytes(st.inst, sizeof st.inst)) st.haveInst = true;
    } else if (IdIs(id, "NAME")) {
      ReadText(cur, *w, size, kRowName);
    } else if (IdIs(id, "AUTH")) {
      ReadText(cur, *w, size, kRowArtist);
    } else if (IdIs(id, "ANNO")) {
      ReadText(cur, *w, size, kRowComment);
    } else if (IdIs(id, "(c) ")) {
      ReadText(cur, *w, size, kRowCopyright);
    } else if (IdIs(id, "ID3 ") || IdIs(id, "id3 ")) {
      ReadId3Text(file, body, bodyEnd - body, *w);
      cur.Invalidate();
    } else if (IdIs(id, "MHDR")) {
      if (!ReadMhdr(cur, st)) return fail();
    } else if (IdIs(id, "MDAT")) {
      if (!st.haveData) {
        st.haveData = true;
        st.dataOffset = body;
        st.dataSize = size;
      }
    }
    pos = body + Even(size);
  }

  if (st.haveInst) ApplyInst(st, *w);
  if (!st.haveData) {
    Fail(kImp, "No SSND data");
    return fail();
  }
  if (!st.haveComm || st.channels == 0) {
    Fail(kImp, "No COMM chunk found");
    return fail();
  }
  st.dataSize = std::min(st.dataSize, cur.LeftFrom(st.dataOffset));
  uint64_t frames = st.frames;
  w->channels = static_cast<uint8_t>(st.channels);
  w->sampleRate = static_cast<uint32_t>(st.rate);
  w->fileOffset = st.dataOffset;
  w->sourcePath = file.Path();
  if (st.format >= 0) {
    // Frames the data can't hold are cut.
    const uint64_t frameBytes = uint64_t{st.channels} * DataFormatBits(st.format) / 8;
    frames = std::min<uint64_t>(frames, st.dataSize / frameBytes);
    SetGenericFormat(*w, st.format, st.flags);
    w->bits = static_cast<uint8_t>(std::min<uint32_t>(st.bits, 255));
  } else {
    w->readCallback = aiff_ImpWave;
    w->sourceFormat = 0;
    w->bits = static_cast<uint8_t>(st.bits);
    w->codingChunkOffset = st.typeOffset;
    if (st.bits < 8) w->preferredFormat = 7;
  }
  w->length = static_cast<uint32_t>(frames);
  return true;
}

bool aiff_ImpWave(Waveform& wave, FileRef& file) {
  ByteCursor cur(file);
  char type[5];
  if (wave.codingChunkOffset == 0 || !cur.Seek(wave.codingChunkOffset) || !cur.FourCC(type))
    return Fail(kImpWave, "Reading from file failed");
  static constexpr struct {
    const char* type;
    const char* decoder;
  } kDecoders[] = {{"MAC3", "MACE 3:1"},      {"MAC6", "MACE 6:1"},         {"ima4", "IMA ADPCM"},
                   {"IMA4", "IMA ADPCM"},     {"GSM ", "GSM 06.10"},        {"G721", "G.721 ADPCM"},
                   {"G722", "G.722 ADPCM"},   {"G723", "G.723 ADPCM"},      {"G726", "G.726 ADPCM"},
                   {"DWVW", "DWVW"}};
  for (const auto& d : kDecoders)
    if (IdIs(type, d.type)) return Fail(kImpWave, "%s decoding is not available yet", d.decoder);
  return Fail(kImpWave, "Unsupported compression type");
}

// ===================================================================== writer

namespace {

bool AssembleAiff(BlockWriter& o, Waveform& w, int format, uint32_t channels) {
  const uint32_t bytes = DataFormatBits(format) / 8;
  const uint64_t count = uint64_t{w.length} * channels;
  const uint64_t dataBytes = count * bytes;
  o.Id("FORM");
  o.U32be(0);
  o.Id("AIFF");
  o.Id("COMM");
  o.U32be(18);
  o.U16be(static_cast<uint16_t>(channels));
  o.U32be(w.length);
  o.U16be(static_cast<uint16_t>(bytes * 8));
  uint8_t rate[10];
  aiff_PutRate80(w.sampleRate, rate);
  o.Bytes(rate, sizeof rate);
  o.Id("SSND");
  o.U32be(static_cast<uint32_t>(8 + dataBytes));
  o.U32be(0);  // offset
  o.U32be(0);  // block size
  if (uint8_t* p = o.Reserve(static_cast<std::size_t>(dataBytes)); p && count) {
    const std::span<uint8_t> out(p, dataBytes);
    if (format == kPcm8 || format == kPcm16) {
      const int16_t* s = Samples16(w);
      if (!s) return false;
      if (format == kPcm8) kvEncodePcm8({s, count}, out, false);
      else kvEncodePcm16({s, count}, out, true, false);
    } else {
      const float* s = SamplesFloat(w);
      if (!s) return false;
      if (format == kPcm24) kvEncodePcm24({s, count}, out, true, false);
      else kvEncodePcm32({s, count}, out, true, false);
    }
  }
  if (dataBytes & 1) o.U8(0);  // IFF pads odd chunks to even
  o.PatchU32be(4, static_cast<uint32_t>(o.Size() - 8));
  return true;
}

}  // namespace

bool aiff_Exp(Item& item, FileRef& file, ExportRequest& request) {
  auto* wave = dynamic_cast<Waveform*>(&item);
  if (!wave) return Fail(kExp, "The file format can not save this item");
  constexpr uint32_t kPcmMask = (1u << kPcm8) | (1u << kPcm16) | (1u << kPcm24) | (1u << kPcm32);
  DataFormatChoice choice;
  choice.own = PreferredFormatDataFormat(wave->preferredFormat);
  choice.request = (request.request & kCapFormatMask) ? (request.request & kCapFormatMask) : kPcmMask;
  float rate = 0;
  const int format = ChooseDataFormat(choice, rate);
  if (format != kPcm8 && format != kPcm16 && format != kPcm24 && format != kPcm32)
    return Fail(kExp, "Unsupported subformat");

  int channels = 0;
  if (request.request & (kCapMono | kCapStereo)) {
    if (wave->channels == 2 && !(request.request & kCapStereo)) channels = 1;
    else if (wave->channels == 1 && !(request.request & kCapMono)) channels = 2;
  }
  ClearError();
  Waveform* w = AdaptWaveChannels(*wave, channels);
  struct Release {
    Waveform& original;
    Waveform* adapted;
    ~Release() { ReleaseAdapted(original, adapted); }
  } release{*wave, w};
  auto failRead = [] {
    if (ErrorMessage[0] == 0) return Fail(kExp, "The file format can not save this item");
    std::snprintf(ErrorContext, sizeof ErrorContext, "%s", kExp);
    return false;
  };
  if (!w) return failRead();
  if (w->channels < 1 || w->channels > 2) return Fail(kExp, "The file format can not save this item");

  BlockWriter counter;
  if (!AssembleAiff(counter, *w, format, w->channels)) return failRead();
  if (counter.Size() - 8 > 0xFFFFFFFFull) return Fail(kExp, "The wave is too large for an AIFF file");
  auto block = TryAllocArray<uint8_t>(counter.Size());
  if (!block) return Fail(kExp, "Out of memory");
  BlockWriter out(block.get(), counter.Size());
  if (!AssembleAiff(out, *w, format, w->channels)) return failRead();
  for (uint64_t done = 0; done < counter.Size();) {
    const uint64_t n = std::min<uint64_t>(counter.Size() - done, kMaxIoBlock);
    if (!file.Write(block.get() + done, static_cast<std::size_t>(n))) return Fail(kExp, "Writing to file failed");
    done += n;
  }
  return true;
}

}  // namespace kv
