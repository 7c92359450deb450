#include "core/wave_edit.h"

#include <algorithm>

#include "core/error.h"
#include "core/wavestore.h"

namespace kv {

FrameSpan SpanOf(const Waveform& wave, int64_t first, int64_t end) {
  const int64_t length = wave.length;
  if (first < 0) first = 0;
  if (end < 0 || end > length) end = length;
  if (first >= end) return {};
  return {static_cast<uint32_t>(first), static_cast<uint32_t>(end)};
}

bool LoadForProcessing(Waveform& w) {
  if (w.HasData()) return true;
  if (w.EnsureData()) return true;
  ClearError();  // a wave that can't be read is left as it is
  return false;
}

void FollowLoopChange(Collection& c, const Waveform& wave, int64_t oldStart, int64_t oldEnd, int64_t newStart,
                      int64_t newEnd) {
  const int64_t length = wave.length;
  const int64_t d = newEnd - oldEnd;
  for (Region* r : c.All<Region>()) {
    if (RegionWaveform(*r) != &wave) continue;
    if (r->startOffset > newStart) r->startOffset = static_cast<int32_t>(newStart);
    if (r->endOffset + length < newEnd) r->endOffset = static_cast<int32_t>(newEnd - length);
    if (d == 0 || !(r->overrideMask & (kOverrideLoopStart | kOverrideLoopEnd))) continue;
    if (r->loopStart < static_cast<float>(oldStart)) continue;
    if (r->loopStart < static_cast<float>(oldEnd)) {
      r->overrideMask &= static_cast<uint8_t>(~(kOverrideLoopStart | kOverrideLoopEnd));
      r->loopStart = wave.loopStart;
      r->loopEnd = wave.loopEnd;
      continue;
    }
    r->loopStart += static_cast<float>(d);
    r->loopEnd += static_cast<float>(d);
    if (!(r->loopEnd < static_cast<float>(length)))
      r->overrideMask &= static_cast<uint8_t>(~(kOverrideLoopStart | kOverrideLoopEnd));
  }
}

bool ResizeFrames(Waveform& w, uint32_t frames, const char* context) {
  const uint64_t keep = uint64_t{std::min(frames, w.length)} * w.channels;
  const uint64_t count = uint64_t{frames} * w.channels;
  if (w.samples16) {
    auto out = TryAllocArray<int16_t>(count + 1);
    if (!out) return Fail(context, "Out of memory");
    std::copy_n(w.samples16.get(), keep, out.get());
    std::fill(out.get() + keep, out.get() + count, int16_t{0});
    w.samples16 = std::move(out);
  } else {
    auto out = TryAllocArray<float>(count + 1);
    if (!out) return Fail(context, "Out of memory");
    if (w.samplesF) std::copy_n(w.samplesF.get(), keep, out.get());
    std::fill(out.get() + keep, out.get() + count, 0.0f);
    w.samplesF = std::move(out);
  }
  w.length = frames;
  return true;
}

bool OwnData(Waveform& w) {
  if (!w.HasData() && !w.EnsureData()) return false;
  // A wave holding both forms keeps the float one: the 16-bit buffer is then
  // only a rounded copy (made for a save or the synthesizer).
  if (w.samplesF) return MakeSamplesFloat(w) != nullptr || w.SampleCount() == 0;
  return MakeSamples16(w) != nullptr || w.SampleCount() == 0;
}

void CopyFrame(Waveform& w, uint32_t to, uint32_t from) {
  const uint32_t ch = w.channels;
  for (uint32_t k = 0; k < ch; ++k) {
    if (w.samples16) w.samples16[uint64_t{to} * ch + k] = w.samples16[uint64_t{from} * ch + k];
    else w.samplesF[uint64_t{to} * ch + k] = w.samplesF[uint64_t{from} * ch + k];
  }
}

}  // namespace kv
