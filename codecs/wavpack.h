// WavPack through the libwavpack add-on. Files are opened by path so that
// the library finds a hybrid file's correction part (.wvc) beside it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

namespace kv {

class FileRef;

inline constexpr const char* kWavPackMissing =
    "To read or write WavPack files (.wv) you need install the 'libwavpack' add-on (Debian package libwavpack1)";

struct WavPackHead {
  uint32_t rate = 0;
  int channels = 0;      // as decoded: at most two
  int fileChannels = 0;
  int bits = 0;          // valid bits of integer data; 32 for float
  int bytes = 0;         // container bytes: integers arrive scaled to this width
  bool isFloat = false;
  bool lossless = false;  // pure lossless, or hybrid with its correction file found
  uint64_t frames = 0;
  std::vector<uint8_t> wrapperHead;  // the RIFF chunks before the samples, as stored
  std::vector<uint8_t> wrapperTail;  // those after them
};

// Receives decoded frames, interleaved (head.channels each): integers at the
// stream's width, or float bits for float data. False stops the decode.
using WavPackSink = bool (*)(void* user, const int32_t* interleaved, uint32_t frames);

// Opens the file and fills `head`; with a sink, decodes every frame into it.
// Context "kvWavPackDecHelper".
bool kvWavPackDecHelper(const std::filesystem::path& path, WavPackHead& head, WavPackSink sink, void* user);

struct WavPackEncodeSetup {
  uint32_t rate = 44100;
  int channels = 1;
  int bits = 16;         // 8, 16, 24, 32; 32 with isFloat for float
  bool isFloat = false;
  uint64_t frames = 0;
  std::vector<uint8_t> wrapperHead;  // optional RIFF head and tail to keep
  std::vector<uint8_t> wrapperTail;
};
// Fills `frames` interleaved frames from `first` on, as the sink above has them.
using WavPackSource = bool (*)(void* user, uint64_t first, uint32_t frames, int32_t* interleaved);

// Lossless encoding into the file at its current position. Context
// "kvWavPackEncHelper".
bool kvWavPackEncHelper(FileRef& file, const WavPackEncodeSetup& setup, WavPackSource source, void* user);

bool kvWavPackAvailable();

}  // namespace kv
