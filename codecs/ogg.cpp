#include "codecs/ogg.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <functional>
#include <memory>

#include "codecs/addon.h"
#include "core/error.h"
#include "core/fileref.h"

namespace kv {

namespace {

// The few types of libvorbisfile and libvorbis that are called here, as the
// libraries' C ABI has them. Structures the code never looks into are kept
// as opaque, generously sized, aligned blocks.
struct OvCallbacks {
  std::size_t (*read)(void* ptr, std::size_t size, std::size_t count, void* source);
  int (*seek)(void* source, int64_t offset, int whence);
  int (*close)(void* source);
  long (*tell)(void* source);
};
struct VorbisInfo {
  int version;
  int channels;
  long rate;
  long bitrateUpper, bitrateNominal, bitrateLower, bitrateWindow;
  void* codecSetup;
};
struct VorbisComment {
  char** userComments;
  int* commentLengths;
  int comments;
  char* vendor;
};
struct OggPacket {
  unsigned char* packet;
  long bytes;
  long bos;
  long eos;
  int64_t granulepos;
  int64_t packetno;
};
struct alignas(16) Opaque {
  unsigned char bytes[8192];
};

// ---- libvorbisfile ----

enum { kOvOpen, kOvInfo, kOvPcmTotal, kOvReadFloat, kOvClear, kOvPcmSeek, kOvComment, kOvCount };
constexpr const char* kOvNames[kOvCount] = {"ov_open_callbacks", "ov_info",  "ov_pcm_total", "ov_read_float",
                                            "ov_clear",          "\nov_pcm_seek", "\nov_comment"};
constexpr const char* kOvFiles[] = {"libvorbisfile.so.3"};
void* ovSlots[kOvCount] = {};

using OvOpenFn = int (*)(void*, void*, const char*, long, OvCallbacks);
using OvInfoFn = VorbisInfo* (*)(void*, int);
using OvPcmTotalFn = int64_t (*)(void*, int);
using OvReadFloatFn = long (*)(void*, float***, int, int*);
using OvClearFn = int (*)(void*);

template <typename Fn>
Fn Slot(void* const* slots, int i) {
  return reinterpret_cast<Fn>(slots[i]);
}

// ---- libvorbis and libogg ----

enum {
  kViInit, kViClear, kVcInit, kVcClear, kHeaderIn, kSynthInit, kBlockInit, kSynthesis, kBlockIn, kPcmOut,
  kSynthRead, kBlockClear, kDspClear, kViCount
};
constexpr const char* kViNames[kViCount] = {
    "vorbis_info_init",     "vorbis_info_clear",   "vorbis_comment_init", "vorbis_comment_clear",
    "vorbis_synthesis_headerin", "vorbis_synthesis_init", "vorbis_block_init", "vorbis_synthesis",
    "vorbis_synthesis_blockin", "vorbis_synthesis_pcmout", "vorbis_synthesis_read", "vorbis_block_clear",
    "vorbis_dsp_clear"};
constexpr const char* kViFiles[] = {"libvorbis.so.0"};
void* viSlots[kViCount] = {};
constexpr const char* kOggNames[] = {"ogg_sync_init"};
constexpr const char* kOggFiles[] = {"libogg.so.0"};
void* oggSlots[1] = {};

bool BindVorbisFile() { return bindAddOn(kOvFiles, ovSlots, kOvNames); }
bool BindVorbis() { return bindAddOn(kOggFiles, oggSlots, kOggNames) && bindAddOn(kViFiles, viSlots, kViNames); }

struct MemorySource {
  const uint8_t* data;
  std::size_t size;
  std::size_t pos;
};

std::size_t MemRead(void* ptr, std::size_t size, std::size_t count, void* source) {
  auto* m = static_cast<MemorySource*>(source);
  if (size == 0) return 0;
  const std::size_t items = std::min(count, (m->size - m->pos) / size);
  std::memcpy(ptr, m->data + m->pos, items * size);
  m->pos += items * size;
  return items;
}
int MemSeek(void* source, int64_t offset, int whence) {
  auto* m = static_cast<MemorySource*>(source);
  int64_t base = whence == 0 ? 0 : whence == 1 ? static_cast<int64_t>(m->pos) : static_cast<int64_t>(m->size);
  int64_t to = base + offset;
  if (to < 0 || to > static_cast<int64_t>(m->size)) return -1;
  m->pos = static_cast<std::size_t>(to);
  return 0;
}
int MemClose(void*) { return 0; }
long MemTell(void* source) { return static_cast<long>(static_cast<MemorySource*>(source)->pos); }

uint32_t U32(const uint8_t* p) { return p[0] | (p[1] << 8) | (p[2] << 16) | (uint32_t{p[3]} << 24); }

}  // namespace

bool kvOggDecoderAvailable() { return BindVorbisFile(); }

bool kvOggDecHelper(std::span<const uint8_t> block, OggDecoded& out) {
  static constexpr const char* kContext = "kvOggDecHelper";
  if (!BindVorbisFile()) return Fail(kContext, "%s", kOggMissing);
  MemorySource source{block.data(), block.size(), 0};
  auto file = std::make_unique<Opaque>();
  const OvCallbacks callbacks{MemRead, MemSeek, MemClose, MemTell};
  if (Slot<OvOpenFn>(ovSlots, kOvOpen)(&source, file.get(), nullptr, 0, callbacks) != 0) {
    return Fail(kContext, "Could not open Ogg file");
  }
  struct Closer {
    void* f;
    ~Closer() { Slot<OvClearFn>(ovSlots, kOvClear)(f); }
  } closer{file.get()};

  const VorbisInfo* info = Slot<OvInfoFn>(ovSlots, kOvInfo)(file.get(), -1);
  if (!info || info->channels < 1 || info->channels > 255 || info->rate <= 0) {
    return Fail(kContext, "Couldn't get Ogg stream info");
  }
  const int64_t total = Slot<OvPcmTotalFn>(ovSlots, kOvPcmTotal)(file.get(), -1);
  if (total < 0) return Fail(kContext, "Unknown Ogg length");
  // A stream can't hold more frames than some dozens per byte; refuse the
  // allocation a forged total would ask for.
  if (static_cast<uint64_t>(total) > static_cast<uint64_t>(block.size()) * 256 + 65536) {
    return Fail(kContext, "Stream error");
  }
  out.channels = info->channels;
  out.rate = static_cast<uint32_t>(info->rate);
  out.samples.assign(static_cast<std::size_t>(total) * out.channels, 0.0f);
  uint64_t done = 0;
  while (done < static_cast<uint64_t>(total)) {
    float** pcm = nullptr;
    int section = 0;
    const int want = static_cast<int>(std::min<uint64_t>(4096, total - done));
    const long got = Slot<OvReadFloatFn>(ovSlots, kOvReadFloat)(file.get(), &pcm, want, &section);
    if (got == 0) break;
    if (got < 0) return Fail(kContext, "Stream error");
    const uint64_t frames = std::min<uint64_t>(static_cast<uint64_t>(got), total - done);
    for (uint64_t f = 0; f < frames; ++f)
      for (int ch = 0; ch < out.channels; ++ch) out.samples[(done + f) * out.channels + ch] = pcm[ch][f];
    done += frames;
  }
  out.frames = done;
  out.samples.resize(done * out.channels);
  return true;
}

bool kvOggDecRawHelper(std::span<const std::span<const uint8_t>> headers,
                       std::span<const std::span<const uint8_t>> packets, OggDecoded& out) {
  static constexpr const char* kContext = "kvOggDecRawHelper";
  if (!BindVorbis()) return Fail(kContext, "%s", kVorbisRawMissing);
  if (headers.size() != 3) return Fail(kContext, "Invalid Ogg header packet");
  using InitFn = void (*)(void*);
  using IntFn = int (*)(void*);
  using HeaderInFn = int (*)(void*, void*, OggPacket*);
  using TwoFn = int (*)(void*, void*);
  using SynthFn = int (*)(void*, OggPacket*);
  using PcmOutFn = int (*)(void*, float***);
  using ReadFn = int (*)(void*, int);
  VorbisInfo info{};
  VorbisComment comment{};
  Slot<InitFn>(viSlots, kViInit)(&info);
  Slot<InitFn>(viSlots, kVcInit)(&comment);
  auto dsp = std::make_unique<Opaque>();
  auto block = std::make_unique<Opaque>();
  bool dspReady = false;
  struct Cleanup {
    std::function<void()> fn;
    ~Cleanup() { fn(); }
  };
  Cleanup cleanup{[&] {
    if (dspReady) {
      Slot<IntFn>(viSlots, kBlockClear)(block.get());
      Slot<InitFn>(viSlots, kDspClear)(dsp.get());
    }
    Slot<InitFn>(viSlots, kVcClear)(&comment);
    Slot<InitFn>(viSlots, kViClear)(&info);
  }};
  int64_t number = 0;
  for (std::size_t i = 0; i < 3; ++i) {
    OggPacket p{const_cast<unsigned char*>(headers[i].data()), static_cast<long>(headers[i].size()), i == 0, 0, 0,
                number++};
    if (Slot<HeaderInFn>(viSlots, kHeaderIn)(&info, &comment, &p) != 0) {
      return Fail(kContext, "Invalid Ogg header packet");
    }
  }
  if (info.channels < 1 || info.rate <= 0) return Fail(kContext, "Invalid Ogg header packet");
  if (Slot<TwoFn>(viSlots, kSynthInit)(dsp.get(), &info) != 0) return Fail(kContext, "Could not initialize Ogg");
  Slot<TwoFn>(viSlots, kBlockInit)(dsp.get(), block.get());
  dspReady = true;
  out.channels = info.channels;
  out.rate = static_cast<uint32_t>(info.rate);
  out.samples.clear();
  for (std::size_t i = 0; i < packets.size(); ++i) {
    OggPacket p{const_cast<unsigned char*>(packets[i].data()), static_cast<long>(packets[i].size()), 0,
                i + 1 == packets.size(), -1, number++};
    if (Slot<SynthFn>(viSlots, kSynthesis)(block.get(), &p) != 0) return Fail(kContext, "Corrupted Ogg data packet");
    Slot<TwoFn>(viSlots, kBlockIn)(dsp.get(), block.get());
    float** pcm = nullptr;
    int n;
    while ((n = Slot<PcmOutFn>(viSlots, kPcmOut)(dsp.get(), &pcm)) > 0) {
      for (int f = 0; f < n; ++f)
        for (int ch = 0; ch < out.channels; ++ch) out.samples.push_back(pcm[ch][f]);
      Slot<ReadFn>(viSlots, kSynthRead)(dsp.get(), n);
    }
  }
  out.frames = out.samples.size() / out.channels;
  return true;
}

bool kvOggProbe(std::span<const uint8_t> head, std::span<const uint8_t> tail, int& channels, uint32_t& rate,
                uint64_t& frames) {
  // First page: "OggS", 27-byte header, segment table, then the packet
  // "\x01vorbis", version u32, channels u8, rate u32.
  if (head.size() < 28 || std::memcmp(head.data(), "OggS", 4) != 0) return false;
  const std::size_t segments = head[26];
  const std::size_t packet = 27 + segments;
  if (head.size() < packet + 16 || std::memcmp(head.data() + packet, "\x01vorbis", 7) != 0) return false;
  channels = head[packet + 11];
  rate = U32(head.data() + packet + 12);
  if (channels == 0 || rate == 0) return false;
  // The granule position of the last page is the stream's frame count.
  frames = 0;
  for (std::size_t i = tail.size() >= 27 ? tail.size() - 27 + 1 : 0; i-- > 0;) {
    if (std::memcmp(tail.data() + i, "OggS", 4) != 0 || tail[i + 4] != 0) continue;
    const uint64_t granule = U32(tail.data() + i + 6) | (uint64_t{U32(tail.data() + i + 10)} << 32);
    if (granule == ~uint64_t{0}) continue;
    frames = granule;
    return true;
  }
  return false;
}

// ---------------------------------------------------------------- files

namespace {

struct FileSource {
  FileRef* file;
  uint64_t base;
  uint64_t size;
};

std::size_t FileRead(void* ptr, std::size_t size, std::size_t count, void* source) {
  auto* f = static_cast<FileSource*>(source);
  if (size == 0 || count == 0) return 0;
  const int64_t got = f->file->Read(std::span<std::byte>(static_cast<std::byte*>(ptr), size * count));
  return got <= 0 ? 0 : static_cast<std::size_t>(got) / size;
}
int FileSeek(void* source, int64_t offset, int whence) {
  auto* f = static_cast<FileSource*>(source);
  const int64_t length = static_cast<int64_t>(f->size - f->base);
  const int64_t base = whence == 0 ? 0 : whence == 1 ? static_cast<int64_t>(f->file->Tell() - f->base) : length;
  const int64_t to = base + offset;
  if (to < 0 || to > length) return -1;
  return f->file->Seek(f->base + static_cast<uint64_t>(to)) ? 0 : -1;
}
long FileTell(void* source) {
  auto* f = static_cast<FileSource*>(source);
  return static_cast<long>(f->file->Tell() - f->base);
}

void TakeComments(const VorbisComment* c, std::vector<std::string>& out) {
  if (!c || c->comments < 0 || !c->userComments || !c->commentLengths) return;
  for (int i = 0; i < c->comments && i < 1024; ++i) {
    if (!c->userComments[i] || c->commentLengths[i] < 0) continue;
    out.emplace_back(c->userComments[i], static_cast<std::size_t>(std::min(c->commentLengths[i], 4096)));
  }
}

}  // namespace

bool kvOggDecHelper(FileRef& file, CodecHead& head, FloatSink sink, void* user) {
  static constexpr const char* kContext = "kvOggDecHelper";
  head = {};
  if (!BindVorbisFile()) return Fail(kContext, "%s", kOggMissing);
  FileSource source{&file, file.Tell(), file.Size()};
  if (source.base > source.size) return Fail(kContext, "Could not open Ogg file");
  auto vf = std::make_unique<Opaque>();
  const OvCallbacks callbacks{FileRead, FileSeek, MemClose, FileTell};
  if (Slot<OvOpenFn>(ovSlots, kOvOpen)(&source, vf.get(), nullptr, 0, callbacks) != 0)
    return Fail(kContext, "Could not open Ogg file");
  struct Closer {
    void* f;
    ~Closer() { Slot<OvClearFn>(ovSlots, kOvClear)(f); }
  } closer{vf.get()};
  const VorbisInfo* info = Slot<OvInfoFn>(ovSlots, kOvInfo)(vf.get(), -1);
  if (!info || info->channels < 1 || info->channels > 255 || info->rate <= 0 || info->rate > 0x7FFFFFFF)
    return Fail(kContext, "Couldn't get Ogg stream info");
  const int64_t total = Slot<OvPcmTotalFn>(ovSlots, kOvPcmTotal)(vf.get(), -1);
  if (total < 0) return Fail(kContext, "Unknown Ogg length");
  head.rate = static_cast<uint32_t>(info->rate);
  head.channels = std::min(info->channels, 2);
  head.frames = static_cast<uint64_t>(total);
  head.nominalKbps = info->bitrateNominal > 0 ? static_cast<int>(info->bitrateNominal / 1000) : 0;
  using CommentFn = VorbisComment* (*)(void*, int);
  if (ovSlots[kOvComment]) TakeComments(Slot<CommentFn>(ovSlots, kOvComment)(vf.get(), -1), head.comments);
  if (!sink) return true;

  const int fileChannels = info->channels;
  float block[2 * 4096];
  uint64_t done = 0;
  while (done < head.frames) {
    float** pcm = nullptr;
    int section = 0;
    const int want = static_cast<int>(std::min<uint64_t>(4096, head.frames - done));
    const long got = Slot<OvReadFloatFn>(ovSlots, kOvReadFloat)(vf.get(), &pcm, want, &section);
    if (got == 0) break;
    if (got < 0) return Fail(kContext, "Stream error");
    // A chained stream may change its layout; the first link's decides.
    const VorbisInfo* now = Slot<OvInfoFn>(ovSlots, kOvInfo)(vf.get(), -1);
    if (!now || now->channels != fileChannels) return Fail(kContext, "Stream error");
    const uint32_t frames = static_cast<uint32_t>(std::min<uint64_t>(static_cast<uint64_t>(got), head.frames - done));
    for (uint32_t f = 0; f < frames; ++f)
      for (int ch = 0; ch < head.channels; ++ch) block[f * head.channels + ch] = pcm[ch][f];
    if (!sink(user, block, frames)) return false;
    done += frames;
  }
  head.frames = done;
  return true;
}

// ---------------------------------------------------------------- encoder

namespace {

enum {
  kEnViInit, kEnViClear, kEnVcInit, kEnVcClear, kEnVcAddTag, kEnAnInit, kEnBlockInit, kEnHeaderOut, kEnBuffer,
  kEnWrote, kEnBlockOut, kEnAnalysis, kEnAddBlock, kEnFlushPacket, kEnBlockClear, kEnDspClear, kEnCount
};
constexpr const char* kEnNames[kEnCount] = {
    "vorbis_info_init",        "vorbis_info_clear",       "vorbis_comment_init",     "vorbis_comment_clear",
    "vorbis_comment_add_tag",  "vorbis_analysis_init",    "vorbis_block_init",       "vorbis_analysis_headerout",
    "vorbis_analysis_buffer",  "vorbis_analysis_wrote",   "vorbis_analysis_blockout", "vorbis_analysis",
    "vorbis_bitrate_addblock", "vorbis_bitrate_flushpacket", "vorbis_block_clear",   "vorbis_dsp_clear"};
void* enSlots[kEnCount] = {};
constexpr const char* kVencNames[] = {"vorbis_encode_init"};
constexpr const char* kVencFiles[] = {"libvorbisenc.so.2"};
void* vencSlots[1] = {};
enum { kOsInit, kOsPacketIn, kOsPageOut, kOsFlush, kOsClear, kOsCount };
constexpr const char* kOsNames[kOsCount] = {"ogg_stream_init", "ogg_stream_packetin", "ogg_stream_pageout",
                                            "ogg_stream_flush", "ogg_stream_clear"};
void* osSlots[kOsCount] = {};

bool BindEncoder() {
  return bindAddOn(kOggFiles, osSlots, kOsNames) && bindAddOn(kViFiles, enSlots, kEnNames) &&
         bindAddOn(kVencFiles, vencSlots, kVencNames);
}

struct OggPage {
  unsigned char* header;
  long headerLength;
  unsigned char* body;
  long bodyLength;
};

}  // namespace

bool kvOggEncoderAvailable() { return BindEncoder(); }

bool kvOggEncHelper(FileRef& file, const LossyEncodeSetup& setup, FloatSource source, void* user) {
  static constexpr const char* kContext = "kvOggEncHelper";
  if (!BindEncoder()) return Fail(kContext, "%s", kOggEncMissing);
  using InitFn = void (*)(void*);
  using IntFn = int (*)(void*);
  using EncodeInitFn = int (*)(void*, long, long, long, long, long);
  using AddTagFn = void (*)(void*, const char*, const char*);
  using TwoFn = int (*)(void*, void*);
  using HeaderOutFn = int (*)(void*, void*, OggPacket*, OggPacket*, OggPacket*);
  using BufferFn = float** (*)(void*, int);
  using WroteFn = int (*)(void*, int);
  using FlushPacketFn = int (*)(void*, OggPacket*);
  using StreamInitFn = int (*)(void*, int);
  using PacketInFn = int (*)(void*, OggPacket*);
  using PageFn = int (*)(void*, OggPage*);

  VorbisInfo info{};
  VorbisComment comment{};
  auto dsp = std::make_unique<Opaque>();
  auto block = std::make_unique<Opaque>();
  auto stream = std::make_unique<Opaque>();
  Slot<InitFn>(enSlots, kEnViInit)(&info);
  bool dspReady = false, streamReady = false;
  struct Cleanup {
    std::function<void()> fn;
    ~Cleanup() { fn(); }
  };
  Cleanup cleanup{[&] {
    if (streamReady) Slot<IntFn>(osSlots, kOsClear)(stream.get());
    if (dspReady) {
      Slot<IntFn>(enSlots, kEnBlockClear)(block.get());
      Slot<InitFn>(enSlots, kEnDspClear)(dsp.get());
      Slot<InitFn>(enSlots, kEnVcClear)(&comment);
    }
    Slot<InitFn>(enSlots, kEnViClear)(&info);
  }};
  const long bitrate = static_cast<long>(setup.kbps) * 1000;
  if (setup.channels < 1 || setup.channels > 2 || setup.rate == 0 ||
      Slot<EncodeInitFn>(vencSlots, 0)(&info, setup.channels, setup.rate, -1, bitrate, -1) != 0)
    return Fail(kContext, "Could not initialize Ogg encoder with the selected format");
  Slot<InitFn>(enSlots, kEnVcInit)(&comment);
  for (const auto& [tag, value] : setup.tags)
    Slot<AddTagFn>(enSlots, kEnVcAddTag)(&comment, tag.c_str(), value.c_str());
  if (Slot<TwoFn>(enSlots, kEnAnInit)(dsp.get(), &info) != 0) {
    Slot<InitFn>(enSlots, kEnVcClear)(&comment);
    return Fail(kContext, "Could not initialize Ogg encoder with the selected format");
  }
  Slot<TwoFn>(enSlots, kEnBlockInit)(dsp.get(), block.get());
  dspReady = true;
  Slot<StreamInitFn>(osSlots, kOsInit)(stream.get(), 0x4B56);
  streamReady = true;

  auto writePage = [&](const OggPage& page) {
    return file.Write(page.header, static_cast<std::size_t>(page.headerLength)) &&
           file.Write(page.body, static_cast<std::size_t>(page.bodyLength));
  };
  OggPacket h1{}, h2{}, h3{};
  Slot<HeaderOutFn>(enSlots, kEnHeaderOut)(dsp.get(), &comment, &h1, &h2, &h3);
  Slot<PacketInFn>(osSlots, kOsPacketIn)(stream.get(), &h1);
  Slot<PacketInFn>(osSlots, kOsPacketIn)(stream.get(), &h2);
  Slot<PacketInFn>(osSlots, kOsPacketIn)(stream.get(), &h3);
  OggPage page{};
  // The headers take pages of their own, so audio starts on a fresh page.
  while (Slot<PageFn>(osSlots, kOsFlush)(stream.get(), &page) != 0)
    if (!writePage(page)) return Fail(kContext, "Writing to file failed");

  auto drain = [&]() {
    OggPacket packet{};
    while (Slot<TwoFn>(enSlots, kEnBlockOut)(dsp.get(), block.get()) == 1) {
      Slot<TwoFn>(enSlots, kEnAnalysis)(block.get(), nullptr);
      Slot<IntFn>(enSlots, kEnAddBlock)(block.get());
      while (Slot<FlushPacketFn>(enSlots, kEnFlushPacket)(dsp.get(), &packet) == 1) {
        Slot<PacketInFn>(osSlots, kOsPacketIn)(stream.get(), &packet);
        while (Slot<PageFn>(osSlots, kOsPageOut)(stream.get(), &page) != 0)
          if (!writePage(page)) return false;
      }
    }
    return true;
  };
  constexpr uint32_t kBlock = 4096;
  std::vector<float> interleaved(std::size_t{kBlock} * setup.channels);
  for (uint64_t done = 0; done < setup.frames;) {
    const uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(kBlock, setup.frames - done));
    if (!source(user, done, n, interleaved.data())) return false;
    float** buffer = Slot<BufferFn>(enSlots, kEnBuffer)(dsp.get(), static_cast<int>(n));
    for (uint32_t f = 0; f < n; ++f)
      for (int ch = 0; ch < setup.channels; ++ch) buffer[ch][f] = interleaved[f * setup.channels + ch];
    Slot<WroteFn>(enSlots, kEnWrote)(dsp.get(), static_cast<int>(n));
    if (!drain()) return Fail(kContext, "Writing to file failed");
    done += n;
  }
  Slot<WroteFn>(enSlots, kEnWrote)(dsp.get(), 0);
  if (!drain()) return Fail(kContext, "Writing to file failed");
  while (Slot<PageFn>(osSlots, kOsFlush)(stream.get(), &page) != 0)
    if (!writePage(page)) return Fail(kContext, "Writing to file failed");
  return true;
}

}  // namespace kv
