// The loop tools on random short waves: the bytes choose the form (16-bit or
// float, mono or stereo), the samples, the loop fields, the sustain flag, the
// options and the order of the tools. Oracle: no crash or hang, growth
// bounded by what the tools may add, and every loop within the length.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "core/app.h"
#include "core/instrument_ops.h"
#include "core/items.h"
#include "processing/loops.h"
#include "fuzz_support.h"

using namespace kv;

namespace {

struct Bytes {
  const uint8_t* data;
  std::size_t size;
  std::size_t at = 0;
  uint8_t u8() { return at < size ? data[at++] : 0; }
  uint16_t u16() { return static_cast<uint16_t>(u8() | (u8() << 8)); }
  float unit() { return u16() / 65535.0f; }
};

bool LoopInside(const Waveform& w) {
  return w.loopType == 0 || (w.loopStart >= 0 && w.loopStart <= w.loopEnd && w.loopEnd <= static_cast<float>(w.length));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  fuzz::QuietBoxes();
  Bytes in{data, size};
  Collection c;
  auto* w = Create<Waveform>(c, "fuzz");
  const uint8_t form = in.u8();
  w->channels = (form & 1) ? 2 : 1;
  w->length = in.u16() % 3000;
  w->sampleRate = 8000 + (in.u16() % 4) * 14025;
  const uint64_t count = uint64_t{w->length} * w->channels;
  if (form & 2) {
    w->samplesF = std::make_unique<float[]>(count + 1);
    for (uint64_t i = 0; i < count; ++i) w->samplesF[i] = static_cast<float>(static_cast<int8_t>(in.u8())) / 100.0f;
  } else {
    w->samples16 = std::make_unique<int16_t[]>(count + 1);
    for (uint64_t i = 0; i < count; ++i) w->samples16[i] = static_cast<int16_t>(static_cast<int8_t>(in.u8()) * 256);
  }
  w->loopType = in.u8() % 4;
  w->loopRelease = in.u8() & 1;
  // Points anywhere around the wave, fractions and negatives too.
  w->loopStart = (in.unit() * 1.4f - 0.2f) * w->length;
  w->loopEnd = (in.unit() * 1.4f - 0.2f) * w->length;
  if (in.u8() & 1) w->loopEnd = kLoopEndDefault;

  // Every tool may add a bounded amount: the sanitizer at most doubles and
  // adds 64 frames plus the repeats of a short loop, the trims 32 frames.
  uint64_t limit = w->length;
  const int steps = 1 + in.u8() % 6;
  for (int k = 0; k < steps; ++k) {
    const uint8_t op = in.u8(), flags = in.u8();
    // Garbage points in are fine; a loop that was inside must stay so.
    const bool inside = LoopInside(*w);
    limit = 2 * limit + 1100;
    switch (op % 6) {
      case 0:
        autoLoop(*w, flags & 1, flags & 2, flags & 4, in.unit(), in.unit(), in.unit(), in.unit());
        break;
      case 1:
        crossfadeLoop(*w, static_cast<int64_t>(w->loopStart), static_cast<int64_t>(w->loopEnd), in.u16(), flags & 1,
                      flags & 2);
        break;
      case 2:
        sanitizeLoop(*w, flags & 1, flags & 2, flags & 4, flags & 8, flags & 16);
        break;
      case 3:
        trimAfterLoop(*w, flags & 1, flags & 2, flags & 4);
        break;
      case 4:
        moveLoopToZeroCrossing(*w);
        break;
      default:
        setLoopsEnabled(*w, flags % kLoopChoiceCount);
        break;
    }
    for (Waveform* each : c.All<Waveform>()) {
      if (each->length > limit) std::abort();
      if ((each != w || inside) && !LoopInside(*each)) std::abort();
    }
  }
  return 0;
}
