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

bool InterleaveInto(Waveform& target, const Waveform& left, const Waveform& right, const char* context) {
  const uint32_t frames = std::max(left.length, right.length);
  const uint64_t count = uint64_t{frames} * 2;
  // Read from whichever form each side holds: the inputs are never touched,
  // so a failure leaves all three as they were.
  if (left.samplesF || right.samplesF) {
    auto out = TryAllocArray<float>(count + 1);
    if (!out) return Fail(context, "Out of memory");
    auto at = [](const Waveform& w, uint32_t i) {
      if (i >= w.length) return 0.0f;
      return w.samplesF ? w.samplesF[i] : static_cast<float>(w.samples16[i]) * (1.0f / 32768.0f);
    };
    for (uint32_t i = 0; i < frames; ++i) {
      out[2 * uint64_t{i}] = at(left, i);
      out[2 * uint64_t{i} + 1] = at(right, i);
    }
    target.samples16.reset();
    target.samplesF = std::move(out);
  } else {
    auto out = TryAllocArray<int16_t>(count + 1);
    if (!out) return Fail(context, "Out of memory");
    for (uint32_t i = 0; i < frames; ++i) {
      out[2 * uint64_t{i}] = i < left.length ? left.samples16[i] : int16_t{0};
      out[2 * uint64_t{i} + 1] = i < right.length ? right.samples16[i] : int16_t{0};
    }
    target.samplesF.reset();
    target.samples16 = std::move(out);
  }
  const uint8_t bits = std::max(left.bits, right.bits);
  const auto root = static_cast<uint8_t>((left.rootKey + right.rootKey) / 2);
  target.length = frames;
  target.channels = 2;
  target.readCallback = nullptr;
  target.bits = bits;
  target.rootKey = root;
  return true;
}

template <typename T>
std::unique_ptr<T[]> TakeChannel(const T* stereo, uint32_t frames, int channel) {
  auto out = TryAllocArray<T>(uint64_t{frames} + 1);
  if (!out) return out;
  for (uint32_t i = 0; i < frames; ++i) out[i] = stereo[2 * uint64_t{i} + channel];
  return out;
}
template std::unique_ptr<int16_t[]> TakeChannel(const int16_t*, uint32_t, int);
template std::unique_ptr<float[]> TakeChannel(const float*, uint32_t, int);

std::string StereoSplitBase(std::string_view name) {
  if (name.size() > 2 && (name.ends_with(" S") || name.ends_with("-S"))) name.remove_suffix(2);
  while (!name.empty() && static_cast<unsigned char>(name.back()) <= ' ') name.remove_suffix(1);
  return std::string(name.substr(0, 126));
}

}  // namespace kv
