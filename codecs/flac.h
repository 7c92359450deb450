// FLAC through the libFLAC add-on: the stream decoder over a file and the
// stream encoder into one. The container's metadata blocks are the format
// module's business; these wrappers move samples only.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace kv {

class FileRef;

inline constexpr const char* kFlacReadMissing =
    "You need to install the libFLAC codec add-on (Debian package libflac12) if you wish to read FLAC files.";
inline constexpr const char* kFlacWriteMissing =
    "You need to install the libFLAC codec add-on (Debian package libflac12) if you wish to write FLAC files.";

// Whether libFLAC can be bound now (tried again on every call).
bool kvFlacAvailable();

// Receives each decoded block: one plane of `frames` samples per channel at
// the stream's width. False stops the decode.
using FlacSink = bool (*)(void* user, const int32_t* const* planes, uint32_t frames);

// Decodes the stream from the file's current position to its end. Frames
// whose channel count or width differ from `channels`/`bits` fail. With
// `md5Mismatch` the stream's MD5 was checked and differs. Failures report
// under `context` with the FLAC reader's texts.
bool kvFlacDecHelper(FileRef& file, const char* context, int channels, int bits, FlacSink sink, void* user,
                     bool& md5Mismatch);

struct FlacEncodeSetup {
  uint32_t rate = 44100;
  int channels = 1;
  int bits = 16;              // 8-24
  int level = 5;              // 0-8
  uint64_t frames = 0;
  std::vector<std::string> comments;                // "NAME=value"
  std::vector<std::vector<uint8_t>> applications;   // each: 4-byte id, then its data
};

// Fills `block` (interleaved, `frames` x channels at the setup's width) with
// the samples from `first` on. False stops the encode.
using FlacSource = bool (*)(void* user, uint64_t first, uint32_t frames, int32_t* block);

// Encodes with verification on into the file at its current position.
bool kvFlacEncHelper(FileRef& file, const char* context, const FlacEncodeSetup& setup, FlacSource source,
                     void* user);

}  // namespace kv
