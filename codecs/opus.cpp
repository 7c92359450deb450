#include "codecs/opus.h"

#include <algorithm>
#include <cstddef>
#include <vector>

#include "codecs/addon.h"
#include "core/error.h"
#include "core/fileref.h"

namespace kv {

namespace {

enum {
  kOpTest, kOpOpen, kOpFree, kOpHead, kOpChannels, kOpTotal, kOpBitrate, kOpTags, kOpRead, kOpReadStereo, kOpSeek,
  kOpCount
};
constexpr const char* kOpNames[kOpCount] = {"op_test",         "op_open_callbacks", "op_free",  "op_head",
                                            "op_channel_count", "op_pcm_total",     "op_bitrate", "op_tags",
                                            "op_read_float",   "op_read_float_stereo", "op_pcm_seek"};
constexpr const char* kOpFiles[] = {"libopusfile.so.0"};
void* opSlots[kOpCount] = {};

enum { kEnCreate, kEnCtl, kEnWrite, kEnDrain, kEnDestroy, kEnComments, kEnAdd, kEnCommentsFree, kEnCount };
constexpr const char* kEnNames[kEnCount] = {"ope_encoder_create_callbacks", "ope_encoder_ctl",
                                            "ope_encoder_write_float",      "ope_encoder_drain",
                                            "ope_encoder_destroy",          "ope_comments_create",
                                            "ope_comments_add",             "ope_comments_destroy"};
constexpr const char* kEnFiles[] = {"libopusenc.so.0"};
void* enSlots[kEnCount] = {};

template <typename Fn>
Fn Slot(void* const* slots, int i) {
  return reinterpret_cast<Fn>(slots[i]);
}

// opusfile's reader table and tags, as its C ABI has them.
struct OpusCallbacks {
  int (*read)(void* stream, unsigned char* ptr, int bytes);
  int (*seek)(void* stream, int64_t offset, int whence);
  int64_t (*tell)(void* stream);
  int (*close)(void* stream);
};
struct OpusTagsView {
  char** userComments;
  int* commentLengths;
  int comments;
  char* vendor;
};

struct FileSource {
  FileRef* file;
  uint64_t base;
  uint64_t size;
};

int Read(void* stream, unsigned char* ptr, int bytes) {
  auto* f = static_cast<FileSource*>(stream);
  if (bytes <= 0) return 0;
  const int64_t got = f->file->Read(std::span<std::byte>(reinterpret_cast<std::byte*>(ptr), bytes));
  return got < 0 ? -1 : static_cast<int>(got);
}
int Seek(void* stream, int64_t offset, int whence) {
  auto* f = static_cast<FileSource*>(stream);
  const int64_t length = static_cast<int64_t>(f->size - f->base);
  const int64_t base = whence == 0 ? 0 : whence == 1 ? static_cast<int64_t>(f->file->Tell() - f->base) : length;
  const int64_t to = base + offset;
  if (to < 0 || to > length) return -1;
  return f->file->Seek(f->base + static_cast<uint64_t>(to)) ? 0 : -1;
}
int64_t Tell(void* stream) {
  auto* f = static_cast<FileSource*>(stream);
  return static_cast<int64_t>(f->file->Tell() - f->base);
}
int Close(void*) { return 0; }

bool BindDecoder() { return bindAddOn(kOpFiles, opSlots, kOpNames); }
bool BindEncoder() { return bindAddOn(kEnFiles, enSlots, kEnNames); }

}  // namespace

bool kvOpusDecoderAvailable() { return BindDecoder(); }
bool kvOpusEncoderAvailable() { return BindEncoder(); }

bool kvOpusDecHelper(FileRef& file, CodecHead& head, FloatSink sink, void* user) {
  static constexpr const char* kContext = "kvOpusDecHelper";
  head = {};
  if (!BindDecoder()) return Fail(kContext, "%s", kOpusMissing);
  using OpenFn = void* (*)(void*, const OpusCallbacks*, const unsigned char*, std::size_t, int*);
  using FreeFn = void (*)(void*);
  using IntLinkFn = int (*)(const void*, int);
  using TotalFn = int64_t (*)(const void*, int);
  using BitrateFn = int32_t (*)(const void*, int);
  using TagsFn = const OpusTagsView* (*)(const void*, int);
  using ReadFn = int (*)(void*, float*, int, int*);
  using StereoFn = int (*)(void*, float*, int);
  FileSource source{&file, file.Tell(), file.Size()};
  if (source.base > source.size) return Fail(kContext, "Failed opening Opus stream");
  static const OpusCallbacks callbacks{Read, Seek, Tell, Close};
  int error = 0;
  void* of = Slot<OpenFn>(opSlots, kOpOpen)(&source, &callbacks, nullptr, 0, &error);
  if (!of) return Fail(kContext, "Failed opening Opus stream");
  struct Closer {
    void* f;
    ~Closer() { Slot<FreeFn>(opSlots, kOpFree)(f); }
  } closer{of};
  const int fileChannels = Slot<IntLinkFn>(opSlots, kOpChannels)(of, -1);
  const int64_t total = Slot<TotalFn>(opSlots, kOpTotal)(of, -1);
  if (total < 0) return Fail(kContext, "Unknown Opus length");
  if (fileChannels < 1 || fileChannels > 255) return Fail(kContext, "Failed opening Opus stream");
  head.rate = 48000;
  head.channels = std::min(fileChannels, 2);
  head.frames = static_cast<uint64_t>(total);
  const int32_t bitrate = Slot<BitrateFn>(opSlots, kOpBitrate)(of, -1);
  head.nominalKbps = bitrate > 0 ? (bitrate + 500) / 1000 : 0;
  if (const OpusTagsView* tags = Slot<TagsFn>(opSlots, kOpTags)(of, -1);
      tags && tags->userComments && tags->commentLengths) {
    for (int i = 0; i < tags->comments && i < 1024; ++i)
      if (tags->userComments[i] && tags->commentLengths[i] >= 0)
        head.comments.emplace_back(tags->userComments[i], std::min(tags->commentLengths[i], 4096));
  }
  if (!sink) return true;

  // 120 ms at 48 kHz is the longest packet: a buffer of that many frames
  // always takes what one call returns.
  constexpr int kFrames = 5760;
  std::vector<float> block(std::size_t{kFrames} * (fileChannels > 2 ? 2 : fileChannels));
  uint64_t done = 0;
  int holes = 0;
  while (done < head.frames) {
    int got;
    if (fileChannels > 2) {
      got = Slot<StereoFn>(opSlots, kOpReadStereo)(of, block.data(), kFrames * 2);
    } else {
      int link = 0;
      got = Slot<ReadFn>(opSlots, kOpRead)(of, block.data(), static_cast<int>(block.size()), &link);
      // A chained stream whose layout changes would scramble the channels.
      if (got > 0 && Slot<IntLinkFn>(opSlots, kOpChannels)(of, link) != fileChannels)
        return Fail(kContext, "Stream error");
    }
    if (got == 0) break;
    if (got < 0) {
      // A hole in the data: opusfile goes on after it, a damaged file's worth of times.
      if (got == -3 && ++holes < 4096) continue;
      return Fail(kContext, "Stream error");
    }
    const uint32_t frames = static_cast<uint32_t>(std::min<uint64_t>(static_cast<uint64_t>(got), head.frames - done));
    if (!sink(user, block.data(), frames)) return false;
    done += frames;
  }
  head.frames = done;
  return true;
}

namespace {

struct Writer {
  FileRef* file;
  bool failed = false;
};
int WritePage(void* user, const unsigned char* ptr, int32_t length) {
  auto* w = static_cast<Writer*>(user);
  if (length < 0 || !w->file->Write(ptr, static_cast<std::size_t>(length))) {
    w->failed = true;
    return 1;
  }
  return 0;
}
int CloseWriter(void*) { return 0; }
struct EncCallbacks {
  int (*write)(void*, const unsigned char*, int32_t);
  int (*close)(void*);
};

constexpr int kSetApplication = 4000;
constexpr int kSetBitrate = 4002;
constexpr int kApplicationVoip = 2048;
constexpr int kApplicationAudio = 2049;

}  // namespace

bool kvOpusEncHelper(FileRef& file, const LossyEncodeSetup& setup, FloatSource source, void* user) {
  static constexpr const char* kContext = "kvOpusEncHelper";
  if (!BindEncoder()) return Fail(kContext, "%s", kOpusMissing);
  using CommentsFn = void* (*)();
  using AddFn = int (*)(void*, const char*, const char*);
  using FreeFn = void (*)(void*);
  using CreateFn = void* (*)(const EncCallbacks*, void*, void*, int32_t, int, int, int*);
  using CtlFn = int (*)(void*, int, ...);
  using WriteFn = int (*)(void*, const float*, int);
  using DrainFn = int (*)(void*);
  void* comments = Slot<CommentsFn>(enSlots, kEnComments)();
  if (!comments) return Fail(kContext, "Couldn't create Opus");
  struct CommentsFree {
    void* c;
    ~CommentsFree() { Slot<FreeFn>(enSlots, kEnCommentsFree)(c); }
  } commentsFree{comments};
  for (const auto& [tag, value] : setup.tags) Slot<AddFn>(enSlots, kEnAdd)(comments, tag.c_str(), value.c_str());
  Writer writer{&file};
  static const EncCallbacks callbacks{WritePage, CloseWriter};
  int error = 0;
  if (setup.channels < 1 || setup.channels > 2 || setup.rate == 0) return Fail(kContext, "Couldn't create Opus");
  void* enc = Slot<CreateFn>(enSlots, kEnCreate)(&callbacks, &writer, comments, static_cast<int32_t>(setup.rate),
                                                 setup.channels, 0, &error);
  if (!enc) return Fail(kContext, "Couldn't create Opus");
  struct Destroy {
    void* e;
    ~Destroy() { Slot<FreeFn>(enSlots, kEnDestroy)(e); }
  } destroy{enc};
  CtlFn ctl = Slot<CtlFn>(enSlots, kEnCtl);
  if (ctl(enc, kSetApplication, static_cast<int32_t>(setup.voice ? kApplicationVoip : kApplicationAudio)) != 0 ||
      ctl(enc, kSetBitrate, static_cast<int32_t>(setup.kbps * 1000)) != 0)
    return Fail(kContext, "Couldn't create Opus");
  constexpr uint32_t kBlock = 4096;
  std::vector<float> block(std::size_t{kBlock} * setup.channels);
  for (uint64_t done = 0; done < setup.frames;) {
    const uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(kBlock, setup.frames - done));
    if (!source(user, done, n, block.data())) return false;
    if (Slot<WriteFn>(enSlots, kEnWrite)(enc, block.data(), static_cast<int>(n)) != 0 || writer.failed)
      return Fail(kContext, "Writing to file failed");
    done += n;
  }
  if (Slot<DrainFn>(enSlots, kEnDrain)(enc) != 0 || writer.failed) return Fail(kContext, "Writing to file failed");
  return true;
}

}  // namespace kv
