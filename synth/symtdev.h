// The synthesizer as an output device: one engine, the instrument being
// edited compiled into it, blocks handed out in whatever sizes the audio
// back-end asks for, and notes shed when rendering can't keep up.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "core/items.h"
#include "synth/engine.h"

namespace kv {

class SymtDev {
 public:
  static constexpr const char* kDeviceName = "Kelvo Synthesizer";
  // Nanoseconds of a monotonic clock; tests give their own.
  using Clock = uint64_t (*)();

  explicit SymtDev(std::unique_ptr<SynthEngine> engine, Clock clock = nullptr);

  // Compiles `instrument` into the engine. Without `keepOthers` the engine
  // goes quiet, forgets every instrument and starts live with this one;
  // with it the instrument joins or replaces its key while playing.
  // `melodic` files a drum kit under its key without the drum flag, so that
  // any channel plays it.
  bool Load(const Instrument& instrument, bool keepOthers, bool melodic = false);

  // Fills `frames` stereo frames (interleaved) from whole blocks. Silence
  // while the engine isn't live.
  void Render(float* out, std::size_t frames);

  // "3 regions", with " -CLIPPING-" when something clipped since the last
  // look; empty when nothing sounds.
  std::string StatusText();

  SynthEngine* Engine() { return engine_.get(); }

 private:
  void RenderTimed(float* block);

  std::unique_ptr<SynthEngine> engine_;
  Clock clock_;
  std::atomic<uint8_t> rendering_{0};
  alignas(16) float pending_[2 * kSynthBlock] = {};
  std::size_t pendingUsed_ = 2 * kSynthBlock;  // samples of pending_ already handed out
};

}  // namespace kv
