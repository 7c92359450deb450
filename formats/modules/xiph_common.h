// What the FLAC, Ogg and WavPack modules share: the comment names of the
// text fields, and the lazily decoded buffer that grows as frames arrive.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kv {

class Waveform;

// "NAME=value" comments into the text fields; `flac` adds ORGANIZATION=.
void ApplyVorbisComments(const std::vector<std::string>& comments, Waveform& wave, bool flac);
// The text fields as name/value pairs, empty ones left out.
std::vector<std::pair<std::string, std::string>> VorbisCommentsOf(const Waveform& wave, bool flac);

// The samples of a decode, grown as blocks arrive and never past `cap`
// frames, so a header's count can't make the reader allocate what the data
// doesn't hold. 16-bit or float, interleaved.
class GrowingWave {
 public:
  GrowingWave(int channels, uint64_t cap, bool asFloat, const char* status, uint64_t expected);
  // Appends frames; false with "Out of memory" when the buffer can't grow.
  // Frames past the cap are dropped.
  bool Add16(const int16_t* interleaved, uint32_t frames);
  bool AddFloat(const float* interleaved, uint32_t frames);
  // Hands the buffer to `wave`, setting its length to the frames that came.
  bool Finish(Waveform& wave, const char* context);
  uint64_t Frames() const { return frames_; }
  // Room for `frames` more frames (fewer at the cap); null when full or out of memory.
  int16_t* Reserve16(uint32_t& frames);
  float* ReserveFloat(uint32_t& frames);
  void Commit(uint32_t frames);
  bool outOfMemory = false;

 private:
  bool Grow(uint64_t frames);
  void Progress();
  int channels_;
  uint64_t cap_;
  bool float_;
  const char* status_;
  uint64_t expected_;
  int percent_ = -1;
  uint64_t frames_ = 0;
  uint64_t capacity_ = 0;
  std::unique_ptr<int16_t[]> s16_;
  std::unique_ptr<float[]> f_;
};

}  // namespace kv
