#include "formats/modules/xiph_common.h"

#include <algorithm>
#include <cstring>

#include "core/app.h"
#include "core/error.h"
#include "core/items.h"
#include "core/param_ids.h"
#include "core/wavestore.h"

namespace kv {

namespace {

struct CommentField {
  const char* name;
  int parameter;
};
// ORGANIZATION last: only FLAC has it.
constexpr CommentField kFields[] = {{"TITLE", kRowName},         {"ARTIST", kRowArtist},
                                    {"ALBUM", kRowProduct},      {"COPYRIGHT", kRowCopyright},
                                    {"DESCRIPTION", kRowComment}, {"ORGANIZATION", kRowEngineer}};

bool NameIs(const std::string& comment, std::size_t equals, const char* name) {
  if (equals != std::strlen(name)) return false;
  for (std::size_t i = 0; i < equals; ++i)
    if (std::toupper(static_cast<unsigned char>(comment[i])) != name[i]) return false;
  return true;
}

}  // namespace

void ApplyVorbisComments(const std::vector<std::string>& comments, Waveform& wave, bool flac) {
  const std::size_t fields = flac ? std::size(kFields) : std::size(kFields) - 1;
  for (const std::string& c : comments) {
    const std::size_t equals = c.find('=');
    if (equals == std::string::npos || equals + 1 >= c.size()) continue;
    for (std::size_t k = 0; k < fields; ++k) {
      if (!NameIs(c, equals, kFields[k].name)) continue;
      const std::string value = c.substr(equals + 1);
      if (kFields[k].parameter == kRowName) wave.SetName(value.data(), value.size(), TextEncoding::Utf8);
      else wave.SetParamText(kFields[k].parameter, value);
      break;
    }
  }
}

std::vector<std::pair<std::string, std::string>> VorbisCommentsOf(const Waveform& wave, bool flac) {
  std::vector<std::pair<std::string, std::string>> out;
  const std::size_t fields = flac ? std::size(kFields) : std::size(kFields) - 1;
  for (std::size_t k = 0; k < fields; ++k) {
    std::string value = wave.GetParamText(kFields[k].parameter);
    if (!value.empty()) out.emplace_back(kFields[k].name, std::move(value));
  }
  return out;
}

GrowingWave::GrowingWave(int channels, uint64_t cap, bool asFloat, const char* status, uint64_t expected)
    : channels_(channels), cap_(cap), float_(asFloat), status_(status), expected_(expected) {}

bool GrowingWave::Grow(uint64_t frames) {
  if (frames <= capacity_) return true;
  // Doubling from a second's worth; never past the cap.
  uint64_t want = std::max<uint64_t>({frames, capacity_ * 2, 65536});
  want = std::min(want, cap_);
  if (want < frames) return false;
  const std::size_t count = static_cast<std::size_t>(want * channels_);
  if (float_) {
    auto next = TryAllocArray<float>(count);
    if (!next) return !(outOfMemory = true);
    if (frames_) std::memcpy(next.get(), f_.get(), frames_ * channels_ * sizeof(float));
    f_ = std::move(next);
  } else {
    auto next = TryAllocArray<int16_t>(count);
    if (!next) return !(outOfMemory = true);
    if (frames_) std::memcpy(next.get(), s16_.get(), frames_ * channels_ * sizeof(int16_t));
    s16_ = std::move(next);
  }
  capacity_ = want;
  return true;
}

void GrowingWave::Progress() {
  if (!status_ || expected_ == 0) return;
  const int percent = static_cast<int>(std::min<uint64_t>(100, frames_ * 100 / expected_));
  if (percent == percent_) return;
  percent_ = percent;
  StatusText(status_, percent);
}

int16_t* GrowingWave::Reserve16(uint32_t& frames) {
  frames = static_cast<uint32_t>(std::min<uint64_t>(frames, cap_ - frames_));
  if (frames == 0 || !Grow(frames_ + frames)) return nullptr;
  return s16_.get() + frames_ * channels_;
}

float* GrowingWave::ReserveFloat(uint32_t& frames) {
  frames = static_cast<uint32_t>(std::min<uint64_t>(frames, cap_ - frames_));
  if (frames == 0 || !Grow(frames_ + frames)) return nullptr;
  return f_.get() + frames_ * channels_;
}

void GrowingWave::Commit(uint32_t frames) {
  frames_ += frames;
  Progress();
}

bool GrowingWave::Add16(const int16_t* interleaved, uint32_t frames) {
  int16_t* to = Reserve16(frames);
  if (!to) return !outOfMemory;
  std::memcpy(to, interleaved, std::size_t{frames} * channels_ * sizeof(int16_t));
  Commit(frames);
  return true;
}

bool GrowingWave::AddFloat(const float* interleaved, uint32_t frames) {
  float* to = ReserveFloat(frames);
  if (!to) return !outOfMemory;
  std::memcpy(to, interleaved, std::size_t{frames} * channels_ * sizeof(float));
  Commit(frames);
  return true;
}

bool GrowingWave::Finish(Waveform& wave, const char* context) {
  if (outOfMemory) return Fail(context, "Out of memory");
  if (frames_ == 0) return Fail(context, "Zero length");
  wave.length = static_cast<uint32_t>(std::min<uint64_t>(frames_, 0xFFFFFFFF));
  wave.channels = static_cast<uint8_t>(channels_);
  if (float_) {
    wave.samples16.reset();
    wave.samplesF = std::move(f_);
  } else {
    wave.samplesF.reset();
    wave.samples16 = std::move(s16_);
  }
  return true;
}

}  // namespace kv
