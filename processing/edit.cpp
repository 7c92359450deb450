#include "processing/edit.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "core/error.h"
#include "core/wavestore.h"

namespace kv {

const char* const kFadeModeLabels[kFadeModeCount] = {
    "Using a linearly increasing fade in",
    "Using an exponentially increasing fade in",
    "Using a linearly decreasing fade out",
    "Using an logaritmically decreasing fade out",
};

const char* const kSmoothModeLabels[kSmoothModeCount] = {
    "Using 3 point triangular filter.",
    "Using 2 point left-right 'two towers' filter.",
    "Using 2 point rightsided block filter.",
    "Using 2 point leftsided block filter.",
};

namespace {

// The wave's data, loaded; false (error set) when it can't be read.
bool Loaded(Waveform& wave) { return wave.HasData() || wave.EnsureData(); }

}  // namespace

double FadeGain(int mode, uint32_t k, uint32_t n) {
  const double step = 1.0 / (static_cast<double>(n) + 1.0);
  switch (mode) {
    case 0: return k * step;
    case 1: return 1.0 - std::log10((static_cast<double>(n) + 1.0 - k) * step * 9.0 + 1.0);
    case 2: return (static_cast<double>(n) + 1.0 - k) * step;
    default: return 1.0 - std::log10(k * step * 9.0 + 1.0);
  }
}

int16_t Fade16(int16_t s, double gain) {
  double v = std::trunc((s / 32768.0 * gain + 1.0) * 32768.0 + 0.5);
  if (v < 0.0) v = 0.0;
  v -= 32768.0;
  if (v > 32767.0) v = 32767.0;
  return static_cast<int16_t>(v);
}

EditResult fadeRange(Waveform& wave, int mode, int64_t first, int64_t end) {
  if (mode < 0 || mode >= kFadeModeCount) {
    Fail("Fade in/out selection", "Invalid fade mode %d", mode);
    return EditResult::Failed;
  }
  if (!Loaded(wave)) return EditResult::Failed;
  const FrameSpan span = SpanOf(wave, first, end);
  if (span.empty()) return EditResult::Unchanged;
  if (!OwnData(wave)) return EditResult::Failed;
  const uint32_t n = span.size();
  const int ch = wave.channels;
  for (uint32_t k = 1; k <= n; ++k) {
    const double gain = FadeGain(mode, k, n);
    const uint64_t at = (uint64_t{span.first} + k - 1) * ch;
    if (wave.samples16) {
      for (int c = 0; c < ch; ++c) wave.samples16[at + c] = Fade16(wave.samples16[at + c], gain);
    } else {
      const auto g = static_cast<float>(gain);
      for (int c = 0; c < ch; ++c) wave.samplesF[at + c] *= g;
    }
  }
  return EditResult::Changed;
}

EditResult invertRange(Waveform& wave, int64_t first, int64_t end) {
  if (!Loaded(wave)) return EditResult::Failed;
  const FrameSpan span = SpanOf(wave, first, end);
  if (span.empty()) return EditResult::Unchanged;
  if (!OwnData(wave)) return EditResult::Failed;
  const uint64_t from = uint64_t{span.first} * wave.channels, to = uint64_t{span.end} * wave.channels;
  if (wave.samples16) {
    int16_t* s = wave.samples16.get();
    for (uint64_t i = from; i < to; ++i) s[i] = static_cast<int16_t>(~s[i]);
  } else {
    // The sign bit, so that 0 becomes -0 as the original does.
    auto* s = reinterpret_cast<uint32_t*>(wave.samplesF.get());
    for (uint64_t i = from; i < to; ++i) s[i] ^= 0x80000000u;
  }
  return EditResult::Changed;
}

namespace {

template <typename T>
void ReverseFrames(T* s, int channels, uint32_t first, uint32_t end) {
  if (channels == 1) {
    std::reverse(s + first, s + end);
    return;
  }
  if (channels == 2) {
    // A stereo frame of two 16-bit or float samples reverses as one unit.
    using Pair = std::conditional_t<sizeof(T) == 2, uint32_t, uint64_t>;
    static_assert(sizeof(Pair) == 2 * sizeof(T));
    T* a = s + uint64_t{first} * 2;
    T* b = s + uint64_t{end} * 2;
    while (b - a >= 4) {
      b -= 2;
      Pair x, y;
      std::memcpy(&x, a, sizeof x);
      std::memcpy(&y, b, sizeof y);
      std::memcpy(a, &y, sizeof y);
      std::memcpy(b, &x, sizeof x);
      a += 2;
    }
    return;
  }
  for (uint32_t i = first, j = end - 1; i < j; ++i, --j)
    for (int c = 0; c < channels; ++c) std::swap(s[uint64_t{i} * channels + c], s[uint64_t{j} * channels + c]);
}

}  // namespace

EditResult reverseRange(Waveform& wave, int64_t first, int64_t end) {
  if (!Loaded(wave)) return EditResult::Failed;
  const FrameSpan span = SpanOf(wave, first, end);
  if (span.empty()) return EditResult::Unchanged;
  if (!OwnData(wave)) return EditResult::Failed;
  if (wave.samples16) ReverseFrames(wave.samples16.get(), wave.channels, span.first, span.end);
  else ReverseFrames(wave.samplesF.get(), wave.channels, span.first, span.end);
  return EditResult::Changed;
}

EditResult smoothRange(Waveform& wave, int mode, int64_t first, int64_t end) {
  if (mode < 0 || mode >= kSmoothModeCount) {
    Fail("Smooth within the selection", "Invalid smoothing mode %d", mode);
    return EditResult::Failed;
  }
  if (!Loaded(wave)) return EditResult::Failed;
  const FrameSpan span = SpanOf(wave, first, end);
  const uint32_t a = span.first, b = span.end;
  // Modes 0 and 1 change frames a+1..b-2 only.
  if (span.empty() || (mode <= 1 && b - a < 3)) return EditResult::Unchanged;
  float* x = MakeSamplesFloat(wave);
  if (!x) return EditResult::Failed;
  const uint64_t ch = wave.channels;
  const uint32_t length = wave.length;
  for (uint64_t c = 0; c < ch; ++c) {
    auto at = [&](uint64_t frame) -> float& { return x[frame * ch + c]; };
    switch (mode) {
      case 0:
      case 1: {
        float before = at(a);  // x[i-1] as it was before filtering
        for (uint32_t i = a + 1; i + 1 < b; ++i) {
          const float here = at(i);
          at(i) = mode == 0 ? (before + 2.0f * here + at(i + 1)) * 0.25f : (before + at(i + 1)) * 0.5f;
          before = here;
        }
        break;
      }
      case 2:
        for (uint32_t i = a; i < b; ++i) at(i) = (at(i) + at(i + 1 < length ? i + 1 : i)) * 0.5f;
        break;
      default:
        for (uint32_t i = b; i-- > a;) at(i) = (at(i) + at(i > 0 ? i - 1 : i)) * 0.5f;
        break;
    }
  }
  return EditResult::Changed;
}

EditResult swapChannels(Waveform& wave) {
  if (wave.channels != 2) return EditResult::Unchanged;
  if (!Loaded(wave)) return EditResult::Failed;
  if (wave.length == 0) return EditResult::Unchanged;
  if (!OwnData(wave)) return EditResult::Failed;
  const uint64_t n = wave.length;
  if (wave.samples16) {
    int16_t* s = wave.samples16.get();
    for (uint64_t i = 0; i < n; ++i) std::swap(s[2 * i], s[2 * i + 1]);
  } else {
    float* s = wave.samplesF.get();
    for (uint64_t i = 0; i < n; ++i) std::swap(s[2 * i], s[2 * i + 1]);
  }
  return EditResult::Changed;
}

}  // namespace kv
