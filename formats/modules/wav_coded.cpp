// The ADPCM tags of RIFF WAVE: fmt fields, frame counts and the lazy decode.
#include "formats/modules/wav_coded.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <span>
#include <vector>

#include "codecs/codepack.h"
#include "codecs/g722.h"
#include "codecs/g72x.h"
#include "codecs/gsm610.h"
#include "codecs/rockwell.h"
#include "core/error.h"
#include "core/items.h"
#include "core/wavestore.h"
#include "formats/modules/wav_cursor.h"

namespace kv::wavcoded {

namespace {

constexpr const char* kImp = "wav_Imp";
constexpr const char* kImpWave = "wav_ImpWave";
constexpr const char* kBadMs = "Unsupported or invalid MS ADPCM file";
constexpr const char* kBadIma = "Unsupported or invalid IMA ADPCM file";
constexpr const char* kBadCcitt = "Invalid no bits/sample for CCITT G.721/.723/.726 ADPCM encoding";
// Bytes read from the file at a time: whole blocks, or whole codes.
constexpr uint64_t kChunkBytes = 1u << 20;
// Frames a stream codec decodes per chunk: a multiple of 8, so that every
// chunk starts on a byte whatever the code width and channel count.
constexpr uint64_t kChunkFrames = 1u << 16;

bool IsBlockTag(uint32_t tag) { return tag == 2 || tag == 17; }

// The WAVE GSM form's block: block align bytes of 65-byte pairs, or the whole
// data as pairs when the block align is below a pair.
uint64_t GsmBlockBytes(const CodedFormat& f) { return f.blockAlign >= kGsmPairBytes ? f.blockAlign : kGsmPairBytes; }
uint64_t GsmFrames(const CodedFormat& f, uint64_t bytes) {
  if (f.tag == 771) return bytes / 38 * kGsmFrameSamples;
  const uint64_t block = GsmBlockBytes(f);
  const uint64_t pairsPerBlock = block / kGsmPairBytes;
  return (bytes / block * pairsPerBlock + std::min(pairsPerBlock, bytes % block / kGsmPairBytes)) * 2 * kGsmFrameSamples;
}

// Tags 49 and 4096: the pairs of each block in turn, one state throughout.
// A pair cut short by the end of a block or of the data is left as zeros.
bool DecodeGsmPairs(ByteCursor& cur, const CodedFormat& f, uint64_t dataBytes, uint64_t decodable, int16_t* out,
                    uint64_t& done) {
  const uint64_t block = GsmBlockBytes(f);
  const uint64_t chunkBytes = std::max<uint64_t>(1, kChunkBytes / block) * block;
  auto buffer = TryAllocArray<uint8_t>(static_cast<std::size_t>(std::min(chunkBytes, std::max<uint64_t>(dataBytes, 1))));
  if (!buffer) return Fail(kImpWave, "Out of memory");
  GsmDecoderState state;
  uint64_t left = dataBytes;
  while (done < decodable && left > 0) {
    const std::size_t n = static_cast<std::size_t>(std::min(chunkBytes, left));
    if (!cur.Bytes(buffer.get(), n)) return Fail(kImpWave, "Reading from file failed");
    left -= n;
    for (std::size_t at = 0; at < n && done < decodable; at += block) {
      const std::size_t end = static_cast<std::size_t>(std::min<uint64_t>(at + block, n));
      for (std::size_t p = at; p + kGsmPairBytes <= end && done < decodable; p += kGsmPairBytes) {
        int16_t pcm[2 * kGsmFrameSamples];
        kvGsmDecodePair(state, std::span<const uint8_t, kGsmPairBytes>(buffer.get() + p, kGsmPairBytes), pcm);
        const uint64_t take = std::min<uint64_t>(2 * kGsmFrameSamples, decodable - done);
        std::memcpy(out + done, pcm, take * sizeof(int16_t));
        done += take;
      }
    }
  }
  return true;
}

// Tag 771: 38-byte records whose frame sits at byte 2 when the record looks
// like one with a 2-byte head (byte 0 is 254 or 182, or byte 35 is 0), and
// at byte 0 otherwise. Such a record moves the read on by 33 bytes only,
// while the bytes left still fall by 38: the files this reads were written
// that way.
bool DecodeGsm771(ByteCursor& cur, uint64_t dataBytes, uint64_t decodable, int16_t* out, uint64_t& done) {
  const uint64_t start = cur.Tell();
  GsmDecoderState state;
  uint64_t at = 0;
  for (uint64_t left = dataBytes; left >= 38 && done < decodable; left -= 38) {
    uint8_t record[38] = {};
    const std::size_t have = static_cast<std::size_t>(std::min<uint64_t>(38, dataBytes - std::min(at, dataBytes)));
    if (have < kGsmFrameBytes) break;
    if (!cur.Seek(start + at) || !cur.Bytes(record, have)) return Fail(kImpWave, "Reading from file failed");
    const bool headed = record[0] == 254 || record[0] == 182 || record[35] == 0;
    const std::size_t frameAt = headed ? 2 : 0;
    if (frameAt + kGsmFrameBytes > have) break;
    int16_t pcm[kGsmFrameSamples];
    if (!kvGsmDecodeFrame(state, std::span<const uint8_t, kGsmFrameBytes>(record + frameAt, kGsmFrameBytes), pcm))
      return Fail(kImpWave, "Corrupted GSM stream");
    const uint64_t take = std::min<uint64_t>(kGsmFrameSamples, decodable - done);
    std::memcpy(out + done, pcm, take * sizeof(int16_t));
    done += take;
    at += headed ? 38 : 33;
  }
  return true;
}

uint32_t BlockFramesOf(const CodedFormat& f, uint64_t bytes) {
  const std::size_t b = static_cast<std::size_t>(std::min<uint64_t>(bytes, SIZE_MAX));
  const uint32_t holds = f.tag == 2 ? kvMsAdpcmBlockFrames(b, static_cast<int>(f.channels))
                                    : kvImaBlockFrames(b, static_cast<int>(f.channels), static_cast<int>(f.bits));
  return std::min(holds, f.samplesPerBlock);
}

// G.722 at 64 kbit/s: a byte per two samples of one channel, the channels'
// bytes in turn, each channel its own decoder.
void DecodeG722Chunk(std::span<const uint8_t> in, G722State (&state)[2], int fileChannels, int channels, uint64_t frames,
                     int16_t* out) {
  if (fileChannels == 1) {
    const uint64_t bytes = std::min<uint64_t>(in.size(), frames / 2);
    kvDecodeG722(state[0], in.first(bytes), {out, bytes * 2});
    if (frames & 1 && bytes < in.size()) {
      int16_t pair[2];
      kvDecodeG722(state[0], in.subspan(bytes, 1), pair);
      out[frames - 1] = pair[0];
    }
    return;
  }
  for (uint64_t i = 0; i < frames; i += 2) {
    for (int c = 0; c < channels; ++c) {
      const uint64_t at = i / 2 * fileChannels + c;
      if (at >= in.size()) return;
      int16_t pair[2];
      kvDecodeG722(state[c], in.subspan(at, 1), pair);
      out[i * channels + c] = pair[0];
      if (i + 1 < frames) out[(i + 1) * channels + c] = pair[1];
    }
  }
}

}  // namespace

bool IsCcittTag(uint32_t tag) {
  switch (tag) {
    case 20: case 64: case 66: case 69: case 89: case 100: case 133: case 139: case 147:
    case 0x123: case 0x140: case 0x4243: case 0xA105: case 0xA107: return true;
    default: return false;
  }
}

bool IsGsmTag(uint32_t tag) { return tag == 49 || tag == 4096 || tag == 771; }

bool IsCodedTag(uint32_t tag) {
  return tag == 2 || tag == 17 || IsCcittTag(tag) || tag == 23 || tag == 32 || tag == 59 || tag == 768 || IsGsmTag(tag) ||
         tag == 101;
}

bool CodedFields(ByteCursor& cur, uint64_t body, uint64_t fmtSize, std::vector<uint8_t>& fields) {
  // Enough for a full MS ADPCM table; longer fmts carry nothing a decoder reads.
  constexpr uint64_t kMostRead = 40 + 8 + 256 * 4;
  std::vector<uint8_t> raw(static_cast<std::size_t>(std::min(fmtSize, kMostRead)));
  if (raw.size() < 14 || !cur.Seek(body) || !cur.Bytes(raw.data(), raw.size())) return false;
  fields.clear();
  if (GetU16le(raw.data()) != 0xFFFE) {
    fields.assign(raw.begin() + 14, raw.end());
    return true;
  }
  // Extensible: the container bits stand where the plain form has them, and
  // the coding's own fields follow the SubFormat GUID.
  if (raw.size() < 40) return false;
  const std::size_t extra = raw.size() - 40;
  fields = {raw[14], raw[15], static_cast<uint8_t>(extra), static_cast<uint8_t>(extra >> 8)};
  fields.insert(fields.end(), raw.begin() + 40, raw.end());
  // Some writers put the samples per block in the union instead.
  if (extra == 0) fields.insert(fields.end(), raw.begin() + 18, raw.begin() + 20);
  return true;
}

bool ParseCodedFmt(std::span<const uint8_t> fields, uint32_t tag, uint32_t channels, uint32_t blockAlign,
                   CodedFormat& f) {
  f = CodedFormat{};
  f.tag = IsCcittTag(tag) ? 69 : tag == 4096 ? 49 : tag;
  f.channels = channels;
  f.blockAlign = blockAlign;
  if (channels == 0) return Fail(kImp, "No channels in the 'fmt ' chunk");
  auto u16 = [&](std::size_t at) { return at + 2 <= fields.size() ? GetU16le(fields.data() + at) : -1; };
  if (tag == 2) {
    // bits, cbSize, samples per block, coefficient count, then the pairs.
    if (u16(0) != 4 || fields.size() < 36) return Fail(kImp, "%s", kBadMs);
    f.bits = 4;
    f.samplesPerBlock = static_cast<uint32_t>(u16(4));
    const std::size_t present = (fields.size() - 8) / 4;
    f.coefficientCount = static_cast<uint32_t>(std::min<std::size_t>({static_cast<std::size_t>(u16(6)), present, 256}));
    if (f.coefficientCount == 0 || blockAlign < 7 * channels || f.samplesPerBlock == 0 ||
        f.samplesPerBlock > kvMsAdpcmBlockFrames(blockAlign, static_cast<int>(channels)))
      return Fail(kImp, "%s", kBadMs);
    for (uint32_t i = 0; i < f.coefficientCount; ++i) {
      const uint8_t* c = fields.data() + 8 + 4 * i;
      f.coefficients[i] = {static_cast<int16_t>(GetU16le(c)), static_cast<int16_t>(GetU16le(c + 2))};
    }
    return true;
  }
  if (tag == 17) {
    if (u16(0) < 2 || u16(0) > 4 || u16(4) < 0) return Fail(kImp, "%s", kBadIma);
    f.bits = static_cast<uint32_t>(u16(0));
    f.samplesPerBlock = static_cast<uint32_t>(u16(4));
    if (blockAlign < 4 * channels || f.samplesPerBlock == 0 ||
        f.samplesPerBlock > kvImaBlockFrames(blockAlign, static_cast<int>(channels), static_cast<int>(f.bits)))
      return Fail(kImp, "%s", kBadIma);
    return true;
  }
  if (IsCcittTag(tag)) {
    if (u16(0) < 2 || u16(0) > 5) return Fail(kImp, "%s", kBadCcitt);
    f.bits = static_cast<uint32_t>(u16(0));
    return true;
  }
  if (tag == 23) {
    if (channels != 1) return Fail(kImp, "Can only handle mono Dialogic ADPCM format");
    if (u16(0) != 4) return Fail(kImp, "Unsupported or invalid Dialogic ADPCM file");
    f.bits = 4;
    return true;
  }
  if (tag == 32) {
    if (channels > 2) return Fail(kImp, "> 2ch Yamaha ADPCM not supported");
    if (fields.empty() || fields[0] != 4) return Fail(kImp, "Unsupported bits/sample for Yamaha ADPCM format");
    f.bits = 4;
    return true;
  }
  if (IsGsmTag(tag)) {
    if (channels != 1) return Fail(kImp, "Can only handle (the standard!) mono GSM");
    f.bits = 2;
    return true;
  }
  if (tag == 101) {
    // A byte codes two samples: 4 bits a sample.
    f.bits = 4;
    return true;
  }
  if (tag == 59 || tag == 768) {
    if (u16(0) < 2 || u16(0) > 4) return Fail(kImp, "Unsupported or invalid Rockwell ADPCM file");
    if (channels != 1) return Fail(kImp, "Can only handle mono Rockwell ADPCM format");
    f.bits = static_cast<uint32_t>(u16(0));
    return true;
  }
  return Fail(kImp, "Unsupported compression type");
}

bool ReadCodedFmt(ByteCursor& cur, uint64_t fmtOffset, CodedFormat& f) {
  uint8_t head[14];
  uint32_t size = 0;
  std::vector<uint8_t> fields;
  if (fmtOffset < 4 || !cur.Seek(fmtOffset - 4) || !cur.U32le(size) || !cur.Bytes(head, sizeof head) ||
      !CodedFields(cur, fmtOffset, size, fields))
    return Fail(kImpWave, "Reading from file failed");
  uint32_t tag = GetU16le(head);
  if (tag == 0xFFFE) {
    uint8_t sub[4];
    if (!cur.Seek(fmtOffset + 24) || !cur.Bytes(sub, sizeof sub)) return Fail(kImpWave, "Reading from file failed");
    tag = GetU32le(sub);
  }
  if (!ParseCodedFmt(fields, tag, GetU16le(head + 2), GetU16le(head + 12), f)) {
    std::snprintf(ErrorContext, sizeof ErrorContext, "%s", kImpWave);
    return false;
  }
  return true;
}

uint64_t CodedFrames(const CodedFormat& f, uint64_t dataBytes) {
  if (f.channels == 0) return 0;
  if (IsBlockTag(f.tag)) {
    if (f.blockAlign == 0) return 0;
    const uint64_t whole = dataBytes / f.blockAlign;
    return whole * BlockFramesOf(f, f.blockAlign) + BlockFramesOf(f, dataBytes % f.blockAlign);
  }
  if (f.tag == 49 || f.tag == 771) return GsmFrames(f, dataBytes);
  if (f.tag == 23) return dataBytes * 2;
  if (f.tag == 101) return dataBytes * 2 / f.channels;
  if (f.tag == 32) return f.channels == 2 ? dataBytes : dataBytes * 2;
  return kvPackedCodeCount(dataBytes, static_cast<int>(f.bits)) / f.channels;
}

uint64_t CodedBlockFrames(const CodedFormat& f) {
  if (IsBlockTag(f.tag)) return f.samplesPerBlock;
  // GSM and G.722: a pair, a record or a byte, whatever the block align, so
  // that a fact can't make the decoder allocate much past the data.
  if (f.tag == 49) return 2 * kGsmFrameSamples;
  if (f.tag == 771) return kGsmFrameSamples;
  if (f.tag == 101) return 2;
  return std::max<uint64_t>(1, CodedFrames(f, f.blockAlign));
}

bool DecodeCoded(Waveform& w, ByteCursor& cur, const CodedFormat& f, uint64_t dataBytes) {
  const int fileChannels = static_cast<int>(f.channels);
  const int channels = std::min(fileChannels, 2);
  w.channels = static_cast<uint8_t>(channels);
  const uint64_t frames = w.length;
  if (frames == 0) return Fail(kImpWave, "Zero length");
  int16_t* out = AllocSamples16(w);
  if (!out) return Fail(kImpWave, "Out of memory");
  uint64_t done = 0;
  // Frames the data doesn't hold are zeros, however the decode ends.
  struct ZeroTail {
    int16_t* out;
    const uint64_t& done;
    uint64_t frames;
    int channels;
    ~ZeroTail() { std::memset(out + done * channels, 0, (frames - done) * channels * sizeof(int16_t)); }
  } zeroTail{out, done, frames, channels};

  dataBytes = std::min(dataBytes, cur.Left());
  // Only the frames the data holds are decoded; the rest stay zero.
  const uint64_t decodable = std::min(frames, CodedFrames(f, dataBytes));
  if (f.tag == 49) return DecodeGsmPairs(cur, f, dataBytes, decodable, out, done);
  if (f.tag == 771) return DecodeGsm771(cur, dataBytes, decodable, out, done);
  const uint64_t bufferBytes =
      IsBlockTag(f.tag) ? std::max<uint64_t>(1, kChunkBytes / f.blockAlign) * f.blockAlign
                        : kvPackedCodeBytes(kChunkFrames * fileChannels, static_cast<int>(f.bits));
  auto buffer = TryAllocArray<uint8_t>(static_cast<std::size_t>(std::min(bufferBytes, std::max<uint64_t>(dataBytes, 1))));
  if (!buffer) return Fail(kImpWave, "Out of memory");

  uint64_t left = dataBytes;
  auto read = [&](uint64_t want, std::span<const uint8_t>& got) {
    const std::size_t n = static_cast<std::size_t>(std::min(want, left));
    if (!cur.Bytes(buffer.get(), n)) return Fail(kImpWave, "Reading from file failed");
    left -= n;
    got = {buffer.get(), n};
    return true;
  };

  if (IsBlockTag(f.tag)) {
    while (done < decodable && left > 0) {
      std::span<const uint8_t> chunk;
      if (!read(bufferBytes, chunk)) return false;
      for (std::size_t at = 0; at < chunk.size() && done < decodable; at += f.blockAlign) {
        const std::span<const uint8_t> block = chunk.subspan(at, std::min<std::size_t>(f.blockAlign, chunk.size() - at));
        const uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(BlockFramesOf(f, block.size()), decodable - done));
        const std::span<int16_t> o(out + done * channels, uint64_t{n} * channels);
        if (f.tag == 17) {
          kvDecodeImaBlock(block, fileChannels, static_cast<int>(f.bits), n, o, channels);
        } else if (!kvDecodeMsAdpcmBlock(block, fileChannels, {f.coefficients, f.coefficientCount}, n, o, channels)) {
          return true;  // a predictor outside the table ends the decode; the rest stays zero
        }
        done += n;
      }
    }
    return true;
  }

  G72xState g72x[2];
  RockwellState rockwell;
  DialogicState dialogic;
  YamahaState yamaha[2];
  G722State g722[2];
  for (G722State& s : g722) kvG722Init(s, 8);
  for (G72xState& s : g72x) kvG72xInit(s, static_cast<int>(f.bits));
  kvRockwellInit(rockwell, static_cast<int>(f.bits));
  while (done < decodable) {
    const uint64_t n = std::min(kChunkFrames, decodable - done);
    std::span<const uint8_t> chunk;
    if (!read(kvPackedCodeBytes(n * fileChannels, static_cast<int>(f.bits)), chunk)) return false;
    int16_t* o = out + done * channels;
    switch (f.tag) {
      case 23: kvDecodeDialogic(chunk, dialogic, {o, n}); break;
      case 32: kvDecodeYamaha(chunk, yamaha, channels, n, {o, n * channels}); break;
      case 59: case 768: kvDecodeRockwell(chunk, rockwell, {o, n}); break;
      case 101: DecodeG722Chunk(chunk, g722, fileChannels, channels, n, o); break;
      default: {
        // Codes most significant bit first, the channels' codes in turn.
        CodeReader codes(chunk, static_cast<int>(f.bits), true);
        for (uint64_t i = 0; i < n; ++i)
          for (int c = 0; c < fileChannels; ++c) {
            const unsigned code = codes.Next();
            if (c < channels) o[i * channels + c] = kvG72xDecode(g72x[c], code);
          }
        break;
      }
    }
    done += n;
  }
  return true;
}

std::string CodedName(const CodedFormat& f) {
  char text[64];
  switch (f.tag) {
    case 2: return "MS ADPCM 4-bit";
    case 17: std::snprintf(text, sizeof text, "IMA ADPCM %u-bit", f.bits); return text;
    case 69:
      std::snprintf(text, sizeof text, "CCITT %s ADPCM %u-bit", f.bits == 4 ? "G.721" : f.bits == 2 ? "G.726" : "G.723",
                    f.bits);
      return text;
    case 23: return "Dialogic ADPCM 4-bit";
    case 32: return "Yamaha ADPCM 4-bit";
    case 59: case 768: std::snprintf(text, sizeof text, "Rockwell ADPCM %u-bit", f.bits); return text;
    case 49: case 771: return "GSM 06.10";
    case 101: return "G.722 64 kbit/s";
    default: return {};
  }
}

}  // namespace kv::wavcoded
