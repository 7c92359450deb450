// What the streaming codec wrappers share: the head of a decoded stream and
// the sample hand-over in both directions, interleaved float.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace kv {

struct CodecHead {
  uint32_t rate = 0;
  int channels = 0;      // as decoded: at most two
  uint64_t frames = 0;   // the stream's total
  int nominalKbps = 0;   // 0 when the stream names none
  std::vector<std::string> comments;  // "NAME=value"
};

// Takes `frames` decoded frames (head.channels each). False stops the decode.
using FloatSink = bool (*)(void* user, const float* interleaved, uint32_t frames);
// Fills `frames` frames from `first` on. False stops the encode.
using FloatSource = bool (*)(void* user, uint64_t first, uint32_t frames, float* interleaved);

struct LossyEncodeSetup {
  uint32_t rate = 44100;
  int channels = 1;
  uint64_t frames = 0;
  int kbps = 128;
  bool voice = false;  // Opus: the VoIP application instead of audio
  std::vector<std::pair<std::string, std::string>> tags;
};

}  // namespace kv
