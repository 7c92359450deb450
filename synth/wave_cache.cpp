#include "synth/wave_cache.h"

#include <algorithm>
#include <cstring>

#include "core/error.h"
#include "core/wavestore.h"

namespace kv {

namespace {

constexpr float kScale16 = 3.0517578e-5f;  // 1 / 32768
constexpr uint32_t kFramesBefore = 1;
constexpr uint32_t kFramesAfter = 3;

// Reads the wave and checks that it holds samples to copy.
bool LoadSource(Waveform& wave) {
  if (!wave.EnsureData()) return false;
  if (!wave.HasData() || wave.length == 0 || wave.channels == 0)
    return Fail("Load wave for playback", "The wave \"%s\" has no samples", wave.name);
  return true;
}

// Sample `channel` of `frame`, scaled to -1..1.
float SampleAt(const Waveform& wave, uint32_t frame, uint32_t channel) {
  const std::size_t i = std::size_t{frame} * wave.channels + channel;
  return wave.samplesF ? wave.samplesF[i] : wave.samples16[i] * kScale16;
}

}  // namespace

bool WaveCache::Acquire(Waveform& left, Waveform* right, uint64_t& key, CachedWave& out) {
  key = WaveCacheKey(left.id, right ? right->id : kNoItem);
  // Loading under the lock: two loader threads must not read or let go of the
  // same item's buffers at once, and loads are rare next to look-ups.
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = entries_.find(key);
  if (found != entries_.end()) {
    ++found->second.references;
    out = found->second.wave;
    return true;
  }

  if (!LoadSource(left)) return false;
  if (right && !LoadSource(*right)) {
    UnloadData(left);
    return false;
  }
  const uint32_t channels = right || left.channels >= 2 ? 2 : 1;
  const uint32_t length = right ? std::min(left.length, right->length) : left.length;
  const std::size_t total = std::size_t{kFramesBefore + length + kFramesAfter} * channels;
  std::unique_ptr<float[]> buffer = TryAllocArray<float>(total);
  if (!buffer) {
    UnloadData(left);
    if (right) UnloadData(*right);
    return Fail("Load wave for playback", "Out of memory");
  }
  float* frames = buffer.get() + kFramesBefore * channels;
  std::fill(buffer.get(), frames, 0.0f);
  if (right) {
    for (uint32_t f = 0; f < length; ++f) {
      frames[2 * f] = SampleAt(left, f, 0);
      frames[2 * f + 1] = SampleAt(*right, f, 0);
    }
  } else if (channels == left.channels && left.samplesF) {
    std::memcpy(frames, left.samplesF.get(), std::size_t{length} * channels * sizeof(float));
  } else {
    for (uint32_t f = 0; f < length; ++f)
      for (uint32_t ch = 0; ch < channels; ++ch) frames[f * channels + ch] = SampleAt(left, f, ch);
  }
  float* tail = frames + std::size_t{length} * channels;
  std::fill(tail, tail + kFramesAfter * channels, 0.0f);
  // A loop that runs to the data end wraps there: interpolation past the last
  // frame must read the loop's first frames, not silence.
  if (left.loopType != 0 && left.loopEnd >= static_cast<float>(length) && left.loopStart >= 0.0f &&
      left.loopStart < static_cast<float>(length)) {
    const uint32_t start = static_cast<uint32_t>(left.loopStart);
    const uint32_t count = std::min(length - start, kFramesAfter);
    std::memcpy(tail, frames + std::size_t{start} * channels, std::size_t{count} * channels * sizeof(float));
  }

  UnloadData(left);
  if (right) UnloadData(*right);

  Entry& entry = entries_[key];
  entry.wave.frames = frames;
  entry.wave.length = length;
  entry.wave.sampleRate = static_cast<float>(left.sampleRate);
  entry.wave.stereo = channels == 2;
  entry.buffer = std::move(buffer);
  entry.references = 1;
  out = entry.wave;
  return true;
}

void WaveCache::Release(uint64_t key) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = entries_.find(key);
  if (found == entries_.end()) return;
  if (--found->second.references == 0) entries_.erase(found);
}

void WaveCache::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.clear();
}

std::size_t WaveCache::Size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return entries_.size();
}

uint32_t WaveCache::References(uint64_t key) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = entries_.find(key);
  return found == entries_.end() ? 0 : found->second.references;
}

}  // namespace kv
