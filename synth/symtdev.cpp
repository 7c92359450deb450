#include "synth/symtdev.h"

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <thread>

#include "core/error.h"
#include "synth/compile.h"

namespace kv {

namespace {

uint64_t MonotonicNs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

}  // namespace

SymtDev::SymtDev(std::unique_ptr<SynthEngine> engine, Clock clock)
    : engine_(std::move(engine)), clock_(clock ? clock : MonotonicNs) {}

bool SymtDev::Load(const Instrument& instrument, bool keepOthers, bool melodic) {
  constexpr const char* kContext = "SymtDev::Load";
  if (!engine_) return Fail(kContext, "Synth not initialized!");
  if (!keepOthers) {
    // Quiet first, and wait for a block that began before we said so.
    engine_->live.store(0, std::memory_order_seq_cst);
    while (rendering_.load(std::memory_order_seq_cst)) std::this_thread::yield();
    engine_->RemoveAllInstruments();
  }
  auto compiled = std::make_unique<SynthInstrument>();
  if (!CompileInstrument(instrument, engine_->Cache(), *compiled)) return Fail(kContext, "Couldn't create instrument");
  if (melodic) compiled->key &= ~kKeyDrum;
  if (!engine_->AddInstrument(std::move(compiled), keepOthers)) return Fail(kContext, "Couldn't create instrument");
  if (!keepOthers) {
    pendingUsed_ = 2 * kSynthBlock;
    engine_->clipped.store(0, std::memory_order_relaxed);
    engine_->live.store(1, std::memory_order_seq_cst);
  }
  return true;
}

void SymtDev::RenderTimed(float* block) {
  const uint64_t start = clock_();
  engine_->RenderBlock(block);
  const uint64_t elapsed = clock_() - start;
  // Load: the time a block took over the time it lasts.
  const double load = static_cast<double>(elapsed) * (static_cast<double>(engine_->SampleRate()) / (kSynthBlock * 1e9));
  if (load <= 0.8) return;
  const int count = std::min(static_cast<int>((load - 0.8) / 0.05) + 1, static_cast<int>(engine_->GroupCount() + 2) / 4);
  for (int i = 0; i < count; ++i) engine_->ShedOneNote(load < 1.0);
}

void SymtDev::Render(float* out, std::size_t frames) {
  std::size_t samples = 2 * frames;
  rendering_.store(1, std::memory_order_seq_cst);
  if (!engine_ || !engine_->live.load(std::memory_order_seq_cst)) {
    rendering_.store(0, std::memory_order_seq_cst);
    std::fill(out, out + samples, 0.0f);
    return;
  }
  while (samples > 0) {
    if (pendingUsed_ == 2 * kSynthBlock) {
      RenderTimed(pending_);
      pendingUsed_ = 0;
    }
    const std::size_t n = std::min(samples, 2 * kSynthBlock - pendingUsed_);
    std::copy(pending_ + pendingUsed_, pending_ + pendingUsed_ + n, out);
    pendingUsed_ += n;
    out += n;
    samples -= n;
  }
  rendering_.store(0, std::memory_order_seq_cst);
}

std::string SymtDev::StatusText() {
  if (!engine_) return {};
  const uint32_t voices = engine_->VoiceCount();
  const bool clipped = engine_->clipped.exchange(0, std::memory_order_relaxed) != 0;
  if (voices == 0 && engine_->lastPeak == 0.0f && !clipped) return {};
  char text[48];
  std::snprintf(text, sizeof text, "%u region%s%s", voices, voices == 1 ? "" : "s", clipped ? " -CLIPPING-" : "");
  return text;
}

}  // namespace kv
