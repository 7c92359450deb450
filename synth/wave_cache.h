// Float copies of the waves the compiled instruments play, shared between
// instruments by reference count. The loader takes and drops references under
// the cache's lock; the audio thread never looks anything up here: a zone
// carries the CachedWave it plays.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "core/items.h"
#include "synth/synth_types.h"

namespace kv {

// A wave alone, or two mono waves played as one stereo voice (left, right).
// Both ids take part: two pairs that share their left wave stay apart.
constexpr uint64_t WaveCacheKey(ItemId left, ItemId right = kNoItem) {
  return uint64_t{left} | uint64_t{right} << 32;
}

class WaveCache {
 public:
  WaveCache() = default;
  WaveCache(const WaveCache&) = delete;
  WaveCache& operator=(const WaveCache&) = delete;

  // The wave's (or the pair's) frames, loaded on the first reference, with
  // one more reference counted. The item's own buffers are let go afterwards
  // where its read callback can bring them back, so that a bank is not held
  // twice. False (ErrorContext/ErrorMessage set) when the samples can't be read.
  bool Acquire(Waveform& left, Waveform* right, uint64_t& key, CachedWave& out);
  // One reference less; the frames go with the last.
  void Release(uint64_t key);
  void Clear();

  std::size_t Size() const;
  uint32_t References(uint64_t key) const;

 private:
  struct Entry {
    std::unique_ptr<float[]> buffer;
    CachedWave wave;
    uint32_t references = 0;
  };
  mutable std::mutex mutex_;
  std::unordered_map<uint64_t, Entry> entries_;
};

}  // namespace kv
