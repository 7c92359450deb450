// The ADPCM, GSM 06.10 and G.722 kernels on arbitrary bytes with arbitrary
// framing (block align, samples per block, coefficient tables, widths,
// channel counts, dialects), the encoders on what the decoders made, GSM in
// WAV with any block align and 771 records, and every coded raw row's
// reader through the real lazy path. Oracles: no crash, no read or write out of
// bounds (the sanitizers), encoders whose state stays the decoder's, and
// raw waves that read exactly the frames their rows promise.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <span>
#include <vector>

#include "codecs/adpcm.h"
#include "codecs/codepack.h"
#include "codecs/g722.h"
#include "codecs/g72x.h"
#include "codecs/gsm610.h"
#include "codecs/rockwell.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/wavestore.h"
#include "formats/modules/raw.h"
#include "formats/modules/wav.h"
#include "fuzz/fuzz_support.h"

namespace {

using namespace kv;

// The framing comes from the first bytes, the codes are the rest.
struct Params {
  uint8_t kernel, channels, bits, dialect;
  uint16_t blockAlign, perBlock, coefficients;
};

void Trap(const char* what) {
  std::fprintf(stderr, "%s\n", what);
  __builtin_trap();
}

void Kernels(const Params& p, std::span<const uint8_t> codes) {
  const int channels = 1 + p.channels % 8;
  std::vector<int16_t> out;
  switch (p.kernel % 9) {
    case 0: {  // IMA blocks of any align and samples per block
      const int bits = 2 + p.bits % 3;
      const std::size_t align = std::min<std::size_t>(p.blockAlign, codes.size());
      const uint32_t frames = std::min<uint32_t>(p.perBlock, kvImaBlockFrames(align, channels, bits));
      out.resize(std::size_t{frames} * 2);
      kvDecodeImaBlock(codes.first(align), channels, bits, frames, out, 2);
      break;
    }
    case 1: {  // MS ADPCM with a coefficient table taken from the bytes
      std::vector<MsAdpcmCoefficients> table(p.coefficients % 300);
      for (std::size_t i = 0; i < table.size() && 4 * i + 3 < codes.size(); ++i)
        table[i] = {static_cast<int16_t>(codes[4 * i] | (codes[4 * i + 1] << 8)),
                    static_cast<int16_t>(codes[4 * i + 2] | (codes[4 * i + 3] << 8))};
      const std::size_t align = std::min<std::size_t>(p.blockAlign, codes.size());
      const uint32_t frames = std::min<uint32_t>(p.perBlock, kvMsAdpcmBlockFrames(align, channels));
      out.resize(std::size_t{frames} * 2);
      kvDecodeMsAdpcmBlock(codes.first(align), channels, table, frames, out, 2);
      break;
    }
    case 2: {
      DialogicState s, enc;
      out.resize(codes.size() * 2 - (p.bits & 1 && !codes.empty()));
      kvDecodeDialogic(codes, s, out);
      std::vector<uint8_t> again((out.size() + 1) / 2);
      kvEncodeDialogic(out, enc, again);
      break;
    }
    case 3: {
      const int ch = 1 + (p.channels & 1);
      YamahaState s[2], enc[2];
      const uint64_t frames = ch == 2 ? codes.size() : codes.size() * 2;
      out.resize(frames * ch);
      kvDecodeYamaha(codes, s, ch, frames, out);
      std::vector<uint8_t> again((out.size() + 1) / 2);
      kvEncodeYamaha(out, enc, ch, again);
      break;
    }
    case 4:
    case 5: {
      const int bits = 2 + p.bits % 4;
      G72xState s, enc, dec;
      kvG72xInit(s, bits, static_cast<G72xDialect>(p.dialect % 4));
      out.resize(kvPackedCodeCount(codes.size(), bits));
      kvDecodeG72x(codes, s, p.kernel & 1, out);
      // The encoder keeps the decoder's state, code by code.
      kvG72xInit(enc, bits);
      kvG72xInit(dec, bits);
      for (std::size_t i = 0; i < std::min<std::size_t>(out.size(), 512); ++i) {
        kvG72xDecode(dec, kvG72xEncode(enc, out[i]));
        if (!(enc == dec)) Trap("G.72x encoder left the decoder's state");
      }
      break;
    }
    case 7: {  // GSM: frames (a bad nibble stops), pairs, and the encoder on what came out
      GsmDecoderState d;
      GsmEncoderState e;
      int16_t pcm[320];
      uint8_t again[65];
      for (std::size_t at = 0; at + 33 <= codes.size(); at += 33)
        if (!kvGsmDecodeFrame(d, std::span<const uint8_t, 33>(codes.data() + at, 33), std::span<int16_t, 160>(pcm, 160)))
          break;
      for (std::size_t at = 0; at + 65 <= codes.size(); at += 65) {
        kvGsmDecodePair(d, std::span<const uint8_t, 65>(codes.data() + at, 65), pcm);
        kvGsmEncodePair(e, pcm, again);
      }
      break;
    }
    case 8: {  // G.722 at any width; the encoder on the decoding
      G722State d, e;
      kvG722Init(d, 6 + p.bits % 3);
      kvG722Init(e);
      out.resize(codes.size() * 2);
      kvDecodeG722(d, codes, out);
      std::vector<uint8_t> again(codes.size());
      kvEncodeG722(e, out, again);
      break;
    }
    default: {
      const int bits = 2 + p.bits % 3;
      RockwellState s, enc;
      kvRockwellInit(s, bits);
      kvRockwellInit(enc, bits);
      out.resize(kvPackedCodeCount(codes.size(), bits));
      kvDecodeRockwell(codes, s, out);
      std::vector<uint8_t> again(kvPackedCodeBytes(std::min<std::size_t>(out.size(), 512), bits));
      kvEncodeRockwell(std::span<const int16_t>(out).first(std::min<std::size_t>(out.size(), 512)), enc, again);
      break;
    }
  }
}

// Every coded raw row's reader, and the lazy read it installs.
void RawRows(const uint8_t* data, std::size_t size, uint8_t which) {
  static constexpr uint32_t kRows[] = {
      RawParameter(kRawALaw, 8),     RawParameter(kRawMuLaw, 8),          RawParameter(kRawDialogic, 4),
      RawParameter(kRawDialogic, 4, false, 6000), RawParameter(kRawYamaha, 4), RawParameter(kRawCcitt, 2),
      RawParameter(kRawCcitt, 3),    RawParameter(kRawCcitt, 4),          RawParameter(kRawCcitt, 5),
      RawParameter(kRawRockwell, 2), RawParameter(kRawRockwell, 3),       RawParameter(kRawRockwell, 4),
      RawParameter(kRawGsm, 0),      RawParameter(kRawG722, 8, false, 16000), RawParameter(kRawG722, 7, false, 16000),
      RawParameter(kRawG722, 6, false, 16000)};
  const uint32_t parameter = kRows[which % (sizeof kRows / sizeof kRows[0])];
  const fuzz::InputFile input(data, size, "fuzz.raw");
  Collection c;
  FileRef file;
  if (!input.Open(file) || !raw_CodedImp(c, file, parameter)) return;
  for (Waveform* w : c.All<Waveform>()) {
    const uint32_t promised = w->length;
    if (!w->EnsureData()) continue;
    if (w->length != promised || (promised && !w->HasData())) Trap("a raw wave read other frames than it promised");
  }
}

// GSM and G.722 in WAV: tags 49, 4096, 771 and 101 with the block align and
// fact count of the bytes, the codes as data.
void WavGsm(const Params& p, std::span<const uint8_t> codes) {
  static constexpr uint16_t kTags[] = {49, 4096, 771, 101};
  const uint16_t tag = kTags[p.dialect % 4];
  std::vector<uint8_t> f;
  auto u16 = [&](uint32_t v) { f.push_back(static_cast<uint8_t>(v)); f.push_back(static_cast<uint8_t>(v >> 8)); };
  auto u32 = [&](uint32_t v) { u16(v & 0xFFFF); u16(v >> 16); };
  auto id = [&](const char* s) { f.insert(f.end(), s, s + 4); };
  id("RIFF");
  u32(static_cast<uint32_t>(4 + 28 + 12 + 8 + codes.size()));
  id("WAVE");
  id("fmt ");
  u32(20);
  u16(tag);
  u16(1 + (p.channels % 8 == 7));
  u32(8000);
  u32(1625);
  u16(p.blockAlign);
  u16(0);
  u16(2);
  u16(320);
  id("fact");
  u32(4);
  u32(p.perBlock | uint32_t{p.coefficients} << 16);
  id("data");
  u32(static_cast<uint32_t>(codes.size()));
  f.insert(f.end(), codes.begin(), codes.end());
  const fuzz::InputFile input(f.data(), f.size(), "fuzz.wav");
  Collection c;
  FileRef file;
  if (!input.Open(file) || !wav_Imp(c, file, 0)) return;
  for (Waveform* w : c.All<Waveform>()) {
    // Nothing is allocated past what the data implies: a pair is 320
    // frames in 65 bytes, a 771 record 160 in 38, a G.722 byte 2.
    if (uint64_t{w->length} > (codes.size() + 65) * 5 + 640) Trap("a GSM or G.722 wave claims more than its data holds");
    w->EnsureData();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  fuzz::QuietBoxes();
  if (size < 10) return 0;
  const Params p{data[0], data[1], data[2], data[3], static_cast<uint16_t>(data[4] | (data[5] << 8)),
                 static_cast<uint16_t>(data[6] | (data[7] << 8)), static_cast<uint16_t>(data[8] | (data[9] << 8))};
  Kernels(p, {data + 10, size - 10});
  RawRows(data + 10, size - 10, data[0] >> 3);
  WavGsm(p, {data + 10, size - 10});
  return 0;
}
