#include "codecs/wavpack.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "codecs/addon.h"
#include "core/error.h"
#include "core/fileref.h"

namespace kv {

namespace {

enum {
  kOpenInput, kNumSamples, kMode, kUnpack, kRate, kBits, kBytes, kChannels, kWrapperBytes, kWrapperData,
  kFreeWrapper, kTrailing, kOpenOutput, kSetConfig, kPackInit, kPack, kFlush, kAddWrapper, kClose, kCount
};
constexpr const char* kNames[kCount] = {
    "WavpackOpenFileInput",   "WavpackGetNumSamples",    "WavpackGetMode",        "WavpackUnpackSamples",
    "WavpackGetSampleRate",   "WavpackGetBitsPerSample", "WavpackGetBytesPerSample", "WavpackGetNumChannels",
    "WavpackGetWrapperBytes", "WavpackGetWrapperData",   "WavpackFreeWrapper",    "WavpackSeekTrailingWrapper",
    "WavpackOpenFileOutput",  "WavpackSetConfiguration", "WavpackPackInit",       "WavpackPackSamples",
    "WavpackFlushSamples",    "WavpackAddWrapper",       "WavpackCloseFile"};
constexpr const char* kFiles[] = {"libwavpack.so.1"};
void* slots[kCount] = {};

template <typename Fn>
Fn At(int i) {
  return reinterpret_cast<Fn>(slots[i]);
}
bool Bind() { return bindAddOn(kFiles, slots, kNames); }

constexpr int kOpenWvc = 0x1, kOpenWrapper = 0x4, kOpenNormalize = 0x10, kOpenDsdAsPcm = 0x200;
constexpr int kModeWvc = 0x1, kModeLossless = 0x2, kModeHybrid = 0x4, kModeFloat = 0x8;

// libwavpack's configuration record, as its C ABI lays it out.
struct Config {
  float bitrate, shapingWeight;
  int bitsPerSample, bytesPerSample;
  int qmode, flags, xmode, numChannels, floatNormExp;
  int32_t blockSamples, extraFlags, sampleRate, channelMask;
  unsigned char md5[16], md5Read;
  int numTagStrings;
  char** tagStrings;
};

using CloseFn = void* (*)(void*);

struct Context {
  void* wpc = nullptr;
  ~Context() {
    if (wpc) At<CloseFn>(kClose)(wpc);
  }
};

void TakeWrapper(void* wpc, std::vector<uint8_t>& out) {
  using BytesFn = uint32_t (*)(void*);
  using DataFn = unsigned char* (*)(void*);
  using FreeFn = void (*)(void*);
  const uint32_t n = At<BytesFn>(kWrapperBytes)(wpc);
  const unsigned char* data = At<DataFn>(kWrapperData)(wpc);
  // A wrapper is a few chunks of metadata; one past this is not kept.
  if (data && n > 0 && n <= (16u << 20)) out.assign(data, data + n);
  At<FreeFn>(kFreeWrapper)(wpc);
}

}  // namespace

bool kvWavPackAvailable() { return Bind(); }

bool kvWavPackDecHelper(const std::filesystem::path& path, WavPackHead& head, WavPackSink sink, void* user) {
  static constexpr const char* kContext = "kvWavPackDecHelper";
  head = {};
  if (!Bind()) return Fail(kContext, "%s", kWavPackMissing);
  using OpenFn = void* (*)(const char*, char*, int, int);
  using U32Fn = uint32_t (*)(void*);
  using IntFn = int (*)(void*);
  using UnpackFn = uint32_t (*)(void*, int32_t*, uint32_t);
  using VoidFn = void (*)(void*);
  char error[128] = {};
  Context c;
  c.wpc = At<OpenFn>(kOpenInput)(path.c_str(), error, kOpenWvc | kOpenWrapper | kOpenNormalize | kOpenDsdAsPcm, 0);
  if (!c.wpc) return Fail(kContext, "WavPack initialization failed!");
  const int mode = At<IntFn>(kMode)(c.wpc);
  head.rate = At<U32Fn>(kRate)(c.wpc);
  head.fileChannels = At<IntFn>(kChannels)(c.wpc);
  head.channels = std::min(head.fileChannels, 2);
  head.bits = At<IntFn>(kBits)(c.wpc);
  const int bytes = At<IntFn>(kBytes)(c.wpc);
  head.bytes = bytes;
  head.isFloat = (mode & kModeFloat) != 0;
  head.lossless = (mode & kModeLossless) && (!(mode & kModeHybrid) || (mode & kModeWvc));
  const uint32_t count = At<U32Fn>(kNumSamples)(c.wpc);
  if (head.rate == 0 || head.fileChannels < 1 || head.bits < 1 || head.bits > 32 || bytes < 1 || bytes > 4)
    return Fail(kContext, "WavPack initialization failed!");
  if (count == 0xFFFFFFFF) return Fail(kContext, "Unknown WavPack length");
  head.frames = count;
  TakeWrapper(c.wpc, head.wrapperHead);
  if (!sink) {
    At<VoidFn>(kTrailing)(c.wpc);
    TakeWrapper(c.wpc, head.wrapperTail);
    return true;
  }

  constexpr uint32_t kBlock = 4096;
  const std::size_t fileChannels = static_cast<std::size_t>(head.fileChannels);
  std::vector<int32_t> block(kBlock * fileChannels);
  std::vector<int32_t> kept(head.fileChannels > 2 ? kBlock * 2 : 0);
  uint64_t done = 0;
  while (done < head.frames) {
    const uint32_t want = static_cast<uint32_t>(std::min<uint64_t>(kBlock, head.frames - done));
    const uint32_t got = At<UnpackFn>(kUnpack)(c.wpc, block.data(), want);
    if (got == 0) break;
    const int32_t* out = block.data();
    if (head.fileChannels > 2) {
      for (uint32_t f = 0; f < got; ++f) {
        kept[2 * f] = block[f * fileChannels];
        kept[2 * f + 1] = block[f * fileChannels + 1];
      }
      out = kept.data();
    }
    if (!sink(user, out, got)) return false;
    done += got;
  }
  head.frames = done;
  return true;
}

namespace {

struct BlockWriterState {
  FileRef* file;
  bool failed = false;
};
int WriteBlock(void* id, void* data, int32_t bytes) {
  auto* w = static_cast<BlockWriterState*>(id);
  if (bytes < 0 || !w->file->Write(data, static_cast<std::size_t>(bytes))) {
    w->failed = true;
    return 0;
  }
  return 1;
}

}  // namespace

bool kvWavPackEncHelper(FileRef& file, const WavPackEncodeSetup& setup, WavPackSource source, void* user) {
  static constexpr const char* kContext = "kvWavPackEncHelper";
  if (!Bind()) return Fail(kContext, "%s", kWavPackMissing);
  using OpenFn = void* (*)(int (*)(void*, void*, int32_t), void*, void*);
  using ConfigFn = int (*)(void*, Config*, uint32_t);
  using IntFn = int (*)(void*);
  using PackFn = int (*)(void*, int32_t*, uint32_t);
  using WrapFn = int (*)(void*, void*, uint32_t);
  if (setup.frames >= 0xFFFFFFFF) return Fail(kContext, "WavPack configuration failed");
  BlockWriterState writer{&file};
  Context c;
  c.wpc = At<OpenFn>(kOpenOutput)(WriteBlock, &writer, nullptr);
  if (!c.wpc) return Fail(kContext, "WavPack initialization failed!");
  Config config{};
  config.bitsPerSample = setup.bits;
  config.bytesPerSample = (setup.bits + 7) / 8;
  config.numChannels = setup.channels;
  config.sampleRate = static_cast<int32_t>(setup.rate);
  config.channelMask = setup.channels == 1 ? 4 : 3;
  if (setup.isFloat) config.floatNormExp = 127;
  if (!At<ConfigFn>(kSetConfig)(c.wpc, &config, static_cast<uint32_t>(setup.frames)))
    return Fail(kContext, "WavPack configuration failed");
  if (!setup.wrapperHead.empty() &&
      !At<WrapFn>(kAddWrapper)(c.wpc, const_cast<uint8_t*>(setup.wrapperHead.data()),
                               static_cast<uint32_t>(setup.wrapperHead.size())))
    return Fail(kContext, "WavPack configuration failed");
  if (!At<IntFn>(kPackInit)(c.wpc)) return Fail(kContext, "WavPack initialization failed!");
  constexpr uint32_t kBlock = 4096;
  std::vector<int32_t> block(std::size_t{kBlock} * setup.channels);
  for (uint64_t done = 0; done < setup.frames;) {
    const uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(kBlock, setup.frames - done));
    if (!source(user, done, n, block.data())) return false;
    if (!At<PackFn>(kPack)(c.wpc, block.data(), n) || writer.failed)
      return Fail(kContext, "Could not compress & write to file");
    done += n;
  }
  if (!At<IntFn>(kFlush)(c.wpc) || writer.failed) return Fail(kContext, "Could not compress & write to file");
  if (!setup.wrapperTail.empty()) {
    At<WrapFn>(kAddWrapper)(c.wpc, const_cast<uint8_t*>(setup.wrapperTail.data()),
                            static_cast<uint32_t>(setup.wrapperTail.size()));
    if (!At<IntFn>(kFlush)(c.wpc) || writer.failed) return Fail(kContext, "Could not compress & write to file");
  }
  return true;
}

}  // namespace kv
