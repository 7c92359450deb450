#include "processing/channels.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "core/error.h"
#include "core/samplecodec.h"
#include "core/wavestore.h"

namespace kv {

const char* const kToMonoModeLabels[kToMonoModeCount] = {
    "Average of both channels",
    "Left channel",
    "Right channel",
    "Split into a left and a right wave",
    "Left channel, only if it equals the right",
};

const char* const kToStereoModeLabels[kToStereoModeCount] = {
    "Same on both channels",
    "Left channel, right silent",
    "Right channel, left silent",
    "This wave left, the 2nd wave right",
    "The 2nd wave left, this wave right",
};

namespace {

constexpr const char* kMonoContext = "->Mono";
constexpr const char* kStereoContext = "->Stereo";
constexpr const char* kMixContext = "kvMix";

bool Loaded(Waveform& wave) { return wave.HasData() || wave.EnsureData() || wave.SampleCount() == 0; }

EditResult OutOfMemory(const char* context) {
  Fail(context, "Out of memory");
  return EditResult::Failed;
}

// Phase inversion shows as channels that cancel: the sum of |l + r| below
// that of |l - r|.
template <typename T>
bool RightInverted(const T* s, uint32_t frames) {
  double minus = 0.0, plus = 0.0;
  for (uint64_t i = 0; i < frames; ++i) {
    const double l = s[2 * i], r = s[2 * i + 1];
    minus += std::fabs(l - r);
    plus += std::fabs(l + r);
  }
  return plus < minus;
}

// The average with the right channel negated: the sign bit of a float, the
// ones' complement of a 16-bit sample.
void AverageNegated(const int16_t* s, int16_t* out, uint32_t frames) {
  for (uint64_t i = 0; i < frames; ++i)
    out[i] = static_cast<int16_t>((s[2 * i] + static_cast<int16_t>(~s[2 * i + 1])) / 2);
}
void AverageNegated(const float* s, float* out, uint32_t frames) {
  for (uint64_t i = 0; i < frames; ++i) out[i] = (s[2 * i] + -s[2 * i + 1]) * 0.5f;
}

template <typename T>
EditResult ToMono(Waveform& wave, T* s, int mode, bool phaseFix) {
  const uint32_t frames = wave.length;
  auto put = [&](std::unique_ptr<T[]> mono) {
    if constexpr (std::is_same_v<T, float>) {
      wave.samplesF = std::move(mono);
      wave.samples16.reset();
    } else {
      wave.samples16 = std::move(mono);
      wave.samplesF.reset();
    }
    wave.channels = 1;
    wave.readCallback = nullptr;
  };
  switch (mode) {
    case 0: {
      auto out = TryAllocArray<T>(uint64_t{frames} + 1);
      if (!out) return OutOfMemory(kMonoContext);
      if (phaseFix && RightInverted(s, frames)) AverageNegated(s, out.get(), frames);
      else kvStereoToMono(std::span<const T>(s, uint64_t{frames} * 2), std::span<T>(out.get(), frames));
      put(std::move(out));
      return EditResult::Changed;
    }
    case 4:
      for (uint64_t i = 0; i < frames; ++i)
        if (s[2 * i] != s[2 * i + 1]) return EditResult::Changed;  // stays stereo, still counted
      [[fallthrough]];
    case 1:
    case 2: {
      auto out = TakeChannel(s, frames, mode == 2 ? 1 : 0);
      if (!out) return OutOfMemory(kMonoContext);
      put(std::move(out));
      return EditResult::Changed;
    }
    default: {  // 3: split
      if (!wave.collection) return OutOfMemory(kMonoContext);
      auto left = TakeChannel(s, frames, 0);
      auto right = TakeChannel(s, frames, 1);
      if (!left || !right) return OutOfMemory(kMonoContext);
      const std::string base = StereoSplitBase(wave.Name());
      auto* clone = static_cast<Waveform*>(CloneItem(wave, *wave.collection, (base + " -R").c_str(), false));
      if (!clone) return OutOfMemory(kMonoContext);
      put(std::move(left));
      clone->samples16.reset();
      clone->samplesF.reset();
      if constexpr (std::is_same_v<T, float>) clone->samplesF = std::move(right);
      else clone->samples16 = std::move(right);
      clone->channels = 1;
      clone->readCallback = nullptr;
      wave.SetName(base + " -L");
      return EditResult::Changed;
    }
  }
}

// Sample `i` of a wave as a float value, whichever form it holds.
double ValueAt(const Waveform& w, uint64_t i) {
  return w.samplesF ? static_cast<double>(w.samplesF[i]) : w.samples16[i] * (1.0 / 32768.0);
}

}  // namespace

EditResult convertToMono(Waveform& wave, int mode, bool phaseFix) {
  if (mode < 0 || mode >= kToMonoModeCount) {
    Fail(kMonoContext, "Invalid algorithm");
    return EditResult::Failed;
  }
  if (wave.channels != 2) return EditResult::Unchanged;
  if (!Loaded(wave)) return EditResult::Failed;
  if (wave.samplesF) return ToMono(wave, wave.samplesF.get(), mode, phaseFix && mode == 0);
  if (wave.samples16) return ToMono(wave, wave.samples16.get(), mode, phaseFix && mode == 0);
  // No frames: only the channel count changes (a split still makes its clone).
  if (mode == 3) {
    int16_t none[2] = {};
    return ToMono(wave, none, mode, false);
  }
  wave.channels = 1;
  return EditResult::Changed;
}

EditResult convertToStereo(Waveform& wave, int mode, Waveform* second) {
  if (mode < 0 || mode >= kToStereoModeCount) {
    Fail(kStereoContext, "Invalid algorithm");
    return EditResult::Failed;
  }
  if (wave.channels != 1) return EditResult::Unchanged;
  if (mode >= 3) {
    if (!second) {
      Fail(kStereoContext, "No 2nd waveform specified");
      return EditResult::Failed;
    }
    if (second->channels != 1) {
      Fail(kStereoContext, "2nd waveform is not mono");
      return EditResult::Failed;
    }
    if (!Loaded(wave) || !Loaded(*second)) return EditResult::Failed;
    const bool ok = mode == 3 ? InterleaveInto(wave, wave, *second) : InterleaveInto(wave, *second, wave);
    return ok ? EditResult::Changed : EditResult::Failed;
  }
  if (!Loaded(wave)) return EditResult::Failed;
  const uint64_t frames = wave.length;
  auto widen = [&](auto* s, auto out) {
    using T = std::remove_const_t<std::remove_pointer_t<decltype(s)>>;
    if (mode == 0) {
      kvMonoToStereo(std::span<const T>(s, frames), std::span<T>(out.get(), frames * 2));
    } else {
      for (uint64_t i = 0; i < frames; ++i) {
        out[2 * i + (mode == 1 ? 0 : 1)] = s[i];
        out[2 * i + (mode == 1 ? 1 : 0)] = T{};
      }
    }
    return out;
  };
  if (wave.samplesF) {
    auto out = TryAllocArray<float>(frames * 2 + 1);
    if (!out) return OutOfMemory(kStereoContext);
    wave.samplesF = widen(wave.samplesF.get(), std::move(out));
    wave.samples16.reset();
  } else if (wave.samples16) {
    auto out = TryAllocArray<int16_t>(frames * 2 + 1);
    if (!out) return OutOfMemory(kStereoContext);
    wave.samples16 = widen(wave.samples16.get(), std::move(out));
  }
  wave.channels = 2;
  wave.readCallback = nullptr;
  return EditResult::Changed;
}

EditResult kvMix(Waveform& target, Waveform* w1, Waveform* w2, double a, double b, double c) {
  if (!w1 || !w2) {
    Fail(kMixContext, "A null wave was supplied");
    return EditResult::Failed;
  }
  if (!Loaded(*w1) || !Loaded(*w2) || !Loaded(target)) return EditResult::Failed;
  const uint32_t channels = std::max<uint32_t>({w1->channels, w2->channels, 1});
  const uint32_t frames = std::max(w1->length, w2->length);
  if (channels > 2 || (w1->channels != channels && w1->channels != 1) ||
      (w2->channels != channels && w2->channels != 1)) {
    Fail(kMixContext, "Incompatible channel formats");
    return EditResult::Failed;
  }
  auto out = TryAllocArray<float>(uint64_t{frames} * channels + 1);
  if (!out) return OutOfMemory(kMixContext);
  // Frame i, channel k of a wave; 0 past its end, a mono wave on every channel.
  auto at = [](const Waveform& w, uint32_t i, uint32_t k) {
    if (i >= w.length) return 0.0;
    return ValueAt(w, uint64_t{i} * w.channels + (w.channels == 1 ? 0 : k));
  };
  for (uint32_t i = 0; i < frames; ++i)
    for (uint32_t k = 0; k < channels; ++k) {
      const double v = a * at(*w1, i, k) + b * at(*w2, i, k) + c;
      out[uint64_t{i} * channels + k] = static_cast<float>(std::clamp(v, -1.0, 1.0));
    }
  const uint8_t bits = std::max(w1->bits, w2->bits);
  const auto root = static_cast<uint8_t>((w1->rootKey + w2->rootKey) / 2);
  const auto fine = static_cast<int8_t>((w1->fineTune + w2->fineTune) / 2);
  target.samplesF = std::move(out);
  target.samples16.reset();
  target.length = frames;
  target.channels = static_cast<uint8_t>(channels);
  target.readCallback = nullptr;
  target.bits = bits;
  target.rootKey = root;
  target.fineTune = fine;
  return EditResult::Changed;
}

}  // namespace kv
