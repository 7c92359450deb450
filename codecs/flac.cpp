#include "codecs/flac.h"

#include <algorithm>
#include <memory>

#include "codecs/addon.h"
#include "core/error.h"
#include "core/fileref.h"

namespace kv {

namespace {

constexpr const char* kFiles[] = {"libFLAC.so.14", "libFLAC.so.12"};

enum {
  kDecNew, kDecDelete, kDecInitStream, kDecProcess, kDecFinish, kDecMd5,
  kEncNew, kEncDelete, kEncVerify, kEncChannels, kEncBits, kEncRate, kEncLevel, kEncTotal, kEncMetadata,
  kEncInitStream, kEncProcess, kEncFinish, kSlotCount
};
constexpr const char* kNames[kSlotCount] = {
    "FLAC__stream_decoder_new", "FLAC__stream_decoder_delete", "FLAC__stream_decoder_init_stream",
    "FLAC__stream_decoder_process_until_end_of_stream", "FLAC__stream_decoder_finish",
    "\nFLAC__stream_decoder_set_md5_checking",
    "FLAC__stream_encoder_new", "FLAC__stream_encoder_delete", "FLAC__stream_encoder_set_verify",
    "FLAC__stream_encoder_set_channels", "FLAC__stream_encoder_set_bits_per_sample",
    "FLAC__stream_encoder_set_sample_rate", "FLAC__stream_encoder_set_compression_level",
    "FLAC__stream_encoder_set_total_samples_estimate", "FLAC__stream_encoder_set_metadata",
    "FLAC__stream_encoder_init_stream", "FLAC__stream_encoder_process_interleaved",
    "FLAC__stream_encoder_finish"};
void* slots[kSlotCount] = {};

template <typename Fn>
Fn At(int i) {
  return reinterpret_cast<Fn>(slots[i]);
}

bool Bind() { return bindAddOn(kFiles, slots, kNames); }

// The head of libFLAC's frame header, as its C ABI lays it out.
struct FrameHead {
  uint32_t blocksize;
  uint32_t sampleRate;
  uint32_t channels;
  uint32_t channelAssignment;
  uint32_t bitsPerSample;
};

struct DecodeState {
  FileRef* file;
  uint64_t base;
  uint64_t size;
  int channels;
  int bits;
  FlacSink sink;
  void* user;
  bool badFrame = false;
  bool stopped = false;
};

int DecRead(const void*, uint8_t* buffer, std::size_t* bytes, void* client) {
  auto* s = static_cast<DecodeState*>(client);
  if (*bytes == 0) return 2;
  const int64_t got = s->file->Read(std::span<std::byte>(reinterpret_cast<std::byte*>(buffer), *bytes));
  if (got < 0) return 2;  // abort
  *bytes = static_cast<std::size_t>(got);
  return got == 0 ? 1 : 0;  // end of stream : continue
}
int DecSeek(const void*, uint64_t offset, void* client) {
  auto* s = static_cast<DecodeState*>(client);
  return offset <= s->size - s->base && s->file->Seek(s->base + offset) ? 0 : 1;
}
int DecTell(const void*, uint64_t* offset, void* client) {
  auto* s = static_cast<DecodeState*>(client);
  *offset = s->file->Tell() - s->base;
  return 0;
}
int DecLength(const void*, uint64_t* length, void* client) {
  auto* s = static_cast<DecodeState*>(client);
  *length = s->size - s->base;
  return 0;
}
int DecEof(const void*, void* client) {
  auto* s = static_cast<DecodeState*>(client);
  return s->file->Tell() >= s->size;
}
int DecWrite(const void*, const FrameHead* frame, const int32_t* const* planes, void* client) {
  auto* s = static_cast<DecodeState*>(client);
  if (static_cast<int>(frame->channels) != s->channels || static_cast<int>(frame->bitsPerSample) != s->bits) {
    s->badFrame = true;
    return 1;  // abort
  }
  if (!s->sink(s->user, planes, frame->blocksize)) {
    s->stopped = true;
    return 1;
  }
  return 0;
}
void DecError(const void*, int, void*) {}

}  // namespace

bool kvFlacAvailable() { return Bind(); }

bool kvFlacDecHelper(FileRef& file, const char* context, int channels, int bits, FlacSink sink, void* user,
                     bool& md5Mismatch) {
  md5Mismatch = false;
  if (!Bind()) return Fail(context, "%s", kFlacReadMissing);
  using NewFn = void* (*)();
  using DeleteFn = void (*)(void*);
  using InitFn = int (*)(void*, decltype(&DecRead), decltype(&DecSeek), decltype(&DecTell), decltype(&DecLength),
                         decltype(&DecEof), decltype(&DecWrite), void*, decltype(&DecError), void*);
  using BoolFn = int (*)(void*);
  using SetBoolFn = int (*)(void*, int);
  void* decoder = At<NewFn>(kDecNew)();
  if (!decoder) return Fail(context, "Could not create the FLAC decoder");
  struct Deleter {
    void* d;
    ~Deleter() { At<DeleteFn>(kDecDelete)(d); }
  } deleter{decoder};
  const bool checkMd5 = slots[kDecMd5] != nullptr;
  if (checkMd5) At<SetBoolFn>(kDecMd5)(decoder, 1);
  DecodeState state{&file, file.Tell(), file.Size(), channels, bits, sink, user};
  if (At<InitFn>(kDecInitStream)(decoder, DecRead, DecSeek, DecTell, DecLength, DecEof, DecWrite, nullptr, DecError,
                                 &state) != 0)
    return Fail(context, "Could not initialize the FLAC decoder");
  const bool ran = At<BoolFn>(kDecProcess)(decoder) != 0;
  // finish() answers false for an MD5 that differs from the decoded samples.
  const bool sound = At<BoolFn>(kDecFinish)(decoder) != 0;
  if (state.stopped) return false;  // the sink filled the error texts
  if (!ran || state.badFrame) return Fail(context, "Failed decoding FLAC file");
  md5Mismatch = checkMd5 && !sound;
  return true;
}

// ---------------------------------------------------------------- encoder

namespace {

// libFLAC's metadata record for the two block kinds written here, as its C
// ABI lays it out: type, is_last, length, then the union (8-aligned).
struct CommentEntry {
  uint32_t length;
  uint8_t* entry;
};
struct MetadataBlock {
  int type;
  int isLast;
  uint32_t length;
  union {
    struct {
      uint8_t id[4];
      uint8_t* data;
    } application;
    struct {
      CommentEntry vendor;
      uint32_t count;
      CommentEntry* comments;
    } comment;
    uint8_t space[256];  // the union's full size in libFLAC, with room to spare
  } data;
};

struct EncodeState {
  FileRef* file;
  uint64_t base;
  bool writeFailed = false;
};

int EncWrite(const void*, const uint8_t* buffer, std::size_t bytes, uint32_t, uint32_t, void* client) {
  auto* s = static_cast<EncodeState*>(client);
  if (!s->file->Write(buffer, bytes)) {
    s->writeFailed = true;
    return 1;  // fatal
  }
  return 0;
}
int EncSeek(const void*, uint64_t offset, void* client) {
  auto* s = static_cast<EncodeState*>(client);
  return s->file->Seek(s->base + offset) ? 0 : 1;
}
int EncTell(const void*, uint64_t* offset, void* client) {
  auto* s = static_cast<EncodeState*>(client);
  *offset = s->file->Tell() - s->base;
  return 0;
}

}  // namespace

bool kvFlacEncHelper(FileRef& file, const char* context, const FlacEncodeSetup& setup, FlacSource source,
                     void* user) {
  if (!Bind()) return Fail(context, "%s", kFlacWriteMissing);
  using NewFn = void* (*)();
  using DeleteFn = void (*)(void*);
  using SetUFn = int (*)(void*, uint32_t);
  using SetU64Fn = int (*)(void*, uint64_t);
  using SetMetaFn = int (*)(void*, MetadataBlock**, uint32_t);
  using InitFn = int (*)(void*, decltype(&EncWrite), decltype(&EncSeek), decltype(&EncTell), void*, void*);
  using ProcessFn = int (*)(void*, const int32_t*, uint32_t);
  using BoolFn = int (*)(void*);
  void* encoder = At<NewFn>(kEncNew)();
  if (!encoder) return Fail(context, "Could not create FLAC encoder");
  struct Deleter {
    void* e;
    ~Deleter() { At<DeleteFn>(kEncDelete)(e); }
  } deleter{encoder};

  // Comments first, then the application blocks in their order.
  std::vector<CommentEntry> entries;
  for (const std::string& c : setup.comments)
    entries.push_back({static_cast<uint32_t>(c.size()), reinterpret_cast<uint8_t*>(const_cast<char*>(c.data()))});
  static uint8_t noVendor[1] = {0};
  std::vector<MetadataBlock> blocks(1 + setup.applications.size());
  std::vector<MetadataBlock*> list;
  blocks[0] = {};
  blocks[0].type = 4;  // VORBIS_COMMENT
  blocks[0].data.comment.vendor = {0, noVendor};
  blocks[0].data.comment.count = static_cast<uint32_t>(entries.size());
  blocks[0].data.comment.comments = entries.data();
  uint32_t length = 8;
  for (const CommentEntry& e : entries) length += 4 + e.length;
  blocks[0].length = length;
  list.push_back(&blocks[0]);
  for (std::size_t i = 0; i < setup.applications.size(); ++i) {
    const std::vector<uint8_t>& a = setup.applications[i];
    if (a.size() < 4 || a.size() >= (1u << 24)) continue;
    MetadataBlock& b = blocks[i + 1];
    b = {};
    b.type = 2;  // APPLICATION
    b.length = static_cast<uint32_t>(a.size());
    std::copy_n(a.begin(), 4, b.data.application.id);
    b.data.application.data = const_cast<uint8_t*>(a.data() + 4);
    list.push_back(&b);
  }

  At<SetUFn>(kEncVerify)(encoder, 1);
  At<SetUFn>(kEncChannels)(encoder, static_cast<uint32_t>(setup.channels));
  At<SetUFn>(kEncBits)(encoder, static_cast<uint32_t>(setup.bits));
  At<SetUFn>(kEncRate)(encoder, setup.rate);
  At<SetUFn>(kEncLevel)(encoder, static_cast<uint32_t>(setup.level));
  At<SetU64Fn>(kEncTotal)(encoder, setup.frames);
  At<SetMetaFn>(kEncMetadata)(encoder, list.data(), static_cast<uint32_t>(list.size()));
  EncodeState state{&file, file.Tell()};
  if (At<InitFn>(kEncInitStream)(encoder, EncWrite, EncSeek, EncTell, nullptr, &state) != 0)
    return Fail(context, "Couldn't initialize FLAC encoder");

  constexpr uint32_t kBlock = 8192;
  auto block = std::make_unique<int32_t[]>(std::size_t{kBlock} * setup.channels);
  for (uint64_t done = 0; done < setup.frames;) {
    const uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(kBlock, setup.frames - done));
    if (!source(user, done, n, block.get())) {
      At<BoolFn>(kEncFinish)(encoder);
      return false;
    }
    if (!At<ProcessFn>(kEncProcess)(encoder, block.get(), n)) {
      At<BoolFn>(kEncFinish)(encoder);
      return Fail(context, state.writeFailed ? "Writing to file failed" : "FLAC verification failed");
    }
    done += n;
  }
  if (!At<BoolFn>(kEncFinish)(encoder))
    return Fail(context, state.writeFailed ? "Writing to file failed" : "FLAC verification failed");
  // finish() rewrote STREAMINFO at the start; the file ends where the stream does.
  return file.Seek(file.Size());
}

}  // namespace kv
