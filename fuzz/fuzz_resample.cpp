// The resampler on any ratio, length, algorithm, loop and memory budget the
// bytes describe. Oracle: either it works (the new length, the source's
// channels, float data, samples within -1..1 for finite input, the loop
// inside the length) or it fails with "Out of memory" and the wave is
// exactly as it was; regions follow only an in-place run that worked.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/error.h"
#include "core/items.h"
#include "core/resample.h"
#include "fuzz_support.h"

namespace {

using namespace kv;

class Bytes {
 public:
  Bytes(const uint8_t* data, std::size_t size) : data_(data), size_(size) {}
  template <typename T>
  T Take() {
    T v{};
    const std::size_t n = std::min(sizeof(T), size_ - std::min(at_, size_));
    if (n) std::memcpy(&v, data_ + at_, n);
    at_ += sizeof(T);
    return v;
  }
  std::size_t Left() const { return at_ < size_ ? size_ - at_ : 0; }
  const uint8_t* Here() const { return data_ + std::min(at_, size_); }

 private:
  const uint8_t* data_;
  std::size_t size_;
  std::size_t at_ = 0;
};

struct Snapshot {
  std::vector<int16_t> s16;
  std::vector<float> f;
  uint32_t length, rate;
  uint8_t channels, loopType;
  float loopStart, loopEnd;
  explicit Snapshot(const Waveform& w)
      : length(w.length), rate(w.sampleRate), channels(w.channels), loopType(w.loopType), loopStart(w.loopStart),
        loopEnd(w.loopEnd) {
    if (w.samples16) s16.assign(w.samples16.get(), w.samples16.get() + w.SampleCount());
    if (w.samplesF) f.assign(w.samplesF.get(), w.samplesF.get() + w.SampleCount());
  }
  // Bit for bit, so that NaN loop points compare too.
  bool operator==(const Snapshot& o) const {
    return s16 == o.s16 && f.size() == o.f.size() &&
           (f.empty() || !std::memcmp(f.data(), o.f.data(), f.size() * sizeof(float))) &&
           length == o.length && rate == o.rate && channels == o.channels && loopType == o.loopType &&
           !std::memcmp(&loopStart, &o.loopStart, sizeof(float)) && !std::memcmp(&loopEnd, &o.loopEnd, sizeof(float));
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  fuzz::QuietBoxes();
  Bytes in(data, size);
  const uint8_t mode = in.Take<uint8_t>();
  const int algorithm = in.Take<uint8_t>() % 12;  // 9-11 work as linear
  const int channels = 1 + (mode & 1);
  const bool asFloat = mode & 2;
  const bool inPlace = mode & 4;
  const int call = (mode >> 3) & 3;  // kvResample2, resampleToRate, resampleToLength
  // Ratios from 1/4 to 8 by two rates, or any double the bytes spell, kept
  // in that range so that one input stays fast under the sanitizers.
  const uint32_t fromRate = 1 + in.Take<uint16_t>() % 192000;
  uint32_t toRate = 1 + in.Take<uint16_t>() % 192000;
  toRate = static_cast<uint32_t>(std::clamp<double>(toRate, fromRate / 4.0 + 1, fromRate * 8.0));
  double ratio = in.Take<double>();
  if (!std::isfinite(ratio) || ratio < 0.25 || ratio > 8) ratio = static_cast<double>(toRate) / fromRate;
  const uint32_t newLength = in.Take<uint16_t>() % 4096;
  float loop[2];
  loop[0] = in.Take<float>();
  loop[1] = in.Take<float>();
  SetResampleMemoryBudget((1 + in.Take<uint8_t>() % 4) << 20);

  const std::size_t sampleBytes = asFloat ? 4 : 2;
  const uint32_t frames = std::min<std::size_t>(1024, in.Left() / (sampleBytes * channels));
  Collection c;
  auto* w = Create<Waveform>(c, "fuzz");
  w->channels = static_cast<uint8_t>(channels);
  w->length = frames;
  w->sampleRate = fromRate;
  w->loopType = 1;
  w->loopStart = loop[0];
  w->loopEnd = loop[1];
  const uint64_t n = uint64_t{frames} * channels;
  bool finite = true;
  if (asFloat) {
    w->samplesF = std::make_unique<float[]>(n + 1);
    if (n) std::memcpy(w->samplesF.get(), in.Here(), n * 4);
    for (uint64_t i = 0; i < n; ++i) finite &= std::isfinite(w->samplesF[i]);
  } else {
    w->samples16 = std::make_unique<int16_t[]>(n + 1);
    if (n) std::memcpy(w->samples16.get(), in.Here(), n * 2);
  }
  auto* region = Create<Region>(c, "r");
  SetRegionWaveform(*region, w->id);
  region->overrideMask = kOverrideLoopStart;
  region->loopStart = 100;

  Waveform* dest = inPlace ? w : Create<Waveform>(c, "dest");
  const Snapshot before(*w);
  ClearError();
  bool ok = false;
  double used = ratio;
  uint32_t wantLength = newLength;
  switch (call) {
    case 1:
      ok = resampleToRate(*dest, *w, toRate, algorithm, &c);
      used = static_cast<double>(toRate) / fromRate;
      wantLength = ResampledLength(frames, fromRate, toRate);
      break;
    case 2:
      ok = frames == 0 || resampleToLength(*dest, *w, newLength, algorithm, &c);
      used = frames ? static_cast<double>(newLength) / frames : 1.0;
      break;
    default: ok = kvResample2(*dest, *w, ratio, newLength, toRate, algorithm); break;
  }
  SetResampleMemoryBudget(0);

  if (!ok) {
    const bool refused = !std::strcmp(ErrorMessage, "Out of memory") ||
                         !std::strcmp(ErrorMessage, "Invalid length or frequency specified");
    if (!refused || !(Snapshot(*w) == before)) std::abort();
    if (region->loopStart != 100) std::abort();
    return 0;
  }
  if (call == 2 && frames == 0) return 0;
  if (inPlace && used == 1.0) {  // nothing to do in place
    if (!(Snapshot(*w) == before)) std::abort();
    return 0;
  }
  if (dest->length != wantLength || dest->channels != channels || !dest->samplesF || dest->samples16) std::abort();
  if (finite && used != 1.0)  // a copy at ratio 1 keeps the samples as they were, unclamped
    for (uint64_t i = 0; i < dest->SampleCount(); ++i)
      if (!(std::fabs(dest->samplesF[i]) <= 1.0f)) std::abort();
  const float end = dest->loopEnd >= kLoopEndDefault ? static_cast<float>(dest->length) : dest->loopEnd;
  if (!(dest->loopStart >= 0 && dest->loopStart <= end && end <= static_cast<float>(dest->length))) std::abort();
  const float regionLoop = inPlace && (call == 1 || call == 2) ? static_cast<float>(100 * used) : 100.0f;
  if (region->loopStart != regionLoop) std::abort();
  return 0;
}
