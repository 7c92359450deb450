#include "processing/length.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "core/error.h"
#include "core/resample.h"
#include "core/wavestore.h"

namespace kv {

namespace {

constexpr uint32_t kShortTailCut = 64536;
constexpr const char* kAppendContext = "Append waves";

bool Loaded(Waveform& wave) { return wave.HasData() || wave.EnsureData() || wave.SampleCount() == 0; }

// A run of frames of the new data: `frames` frames of `from` starting at
// `offset`, silence past its end; silence throughout without a wave.
struct Piece {
  const Waveform* from;
  uint32_t offset;
  uint32_t frames;
};

// A channel-adapted copy of a source, deleted when it goes out of scope.
class Adapted {
 public:
  Adapted() = default;
  Adapted(const Adapted&) = delete;
  Adapted& operator=(const Adapted&) = delete;
  ~Adapted() {
    if (original_) ReleaseAdapted(*original_, wave_);
  }
  // The source in `channels` channels; null when it can't be had.
  Waveform* Take(Waveform& source, int channels) {
    original_ = &source;
    wave_ = AdaptWaveChannels(source, channels);
    return wave_;
  }

 private:
  Waveform* original_ = nullptr;
  Waveform* wave_ = nullptr;
};

// A copy of a source at another rate, deleted when it goes out of scope.
class Resampled {
 public:
  Resampled() = default;
  Resampled(const Resampled&) = delete;
  Resampled& operator=(const Resampled&) = delete;
  ~Resampled() {
    if (wave_) DeleteItem(wave_);
  }
  // The source at `rate` (the resampler's automatic filter); null when it
  // can't be made.
  Waveform* Take(Waveform& source, uint32_t rate) {
    if (!source.collection) return (Fail("kvResample2", "Out of memory"), nullptr);
    wave_ = static_cast<Waveform*>(CloneItem(source, *source.collection, source.name, false));
    if (!wave_ || !resampleToRate(*wave_, source, rate, kResampleAuto, nullptr)) return nullptr;
    return wave_;
  }

 private:
  Waveform* wave_ = nullptr;
};

template <typename T>
T SampleOf(const Waveform& w, uint64_t i) {
  if constexpr (std::is_same_v<T, float>)
    return w.samplesF ? w.samplesF[i] : static_cast<float>(w.samples16[i]) * (1.0f / 32768.0f);
  else
    return w.samples16[i];
}

template <typename T>
void Fill(T* out, std::span<const Piece> pieces, uint32_t channels) {
  for (const Piece& p : pieces) {
    const uint64_t n = uint64_t{p.frames} * channels;
    uint64_t have = 0;
    if (p.from && p.offset < p.from->length) {
      have = uint64_t{std::min(p.frames, p.from->length - p.offset)} * channels;
      const uint64_t at = uint64_t{p.offset} * channels;
      const bool same = std::is_same_v<T, float> ? p.from->samplesF != nullptr : true;
      if (same) {
        const T* src;
        if constexpr (std::is_same_v<T, float>) src = p.from->samplesF.get();
        else src = p.from->samples16.get();
        std::memcpy(out, src + at, have * sizeof(T));
      } else {
        for (uint64_t i = 0; i < have; ++i) out[i] = SampleOf<T>(*p.from, at + i);
      }
    }
    std::fill(out + have, out + n, T{});
    out += n;
  }
}

// Replaces the data of `wave` by the pieces, in `wave`'s channels, float
// when `asFloat`. Every wave of the pieces holds its data in those channels
// (16-bit ones at least when not `asFloat`). On failure nothing changed.
bool Rebuild(Waveform& wave, std::span<const Piece> pieces, bool asFloat, const char* context) {
  uint64_t frames = 0;
  for (const Piece& p : pieces) frames += p.frames;
  if (frames > UINT32_MAX) return Fail(context, "Out of memory");
  const uint64_t count = frames * wave.channels;
  if (asFloat) {
    auto out = TryAllocArray<float>(count + 1);
    if (!out) return Fail(context, "Out of memory");
    Fill(out.get(), pieces, wave.channels);
    wave.samples16.reset();
    wave.samplesF = std::move(out);
  } else {
    auto out = TryAllocArray<int16_t>(count + 1);
    if (!out) return Fail(context, "Out of memory");
    Fill(out.get(), pieces, wave.channels);
    wave.samplesF.reset();
    wave.samples16 = std::move(out);
  }
  wave.length = static_cast<uint32_t>(frames);
  wave.readCallback = nullptr;
  return true;
}

}  // namespace

void CutLoop(Waveform& wave, uint32_t a, uint32_t b) {
  const auto fa = static_cast<float>(a), fb = static_cast<float>(b), gone = static_cast<float>(b - a);
  if (wave.loopStart > fa) wave.loopStart = fb <= wave.loopStart ? wave.loopStart - gone : fa;
  // The default end (no loop end set) means the wave's end and stays so.
  if (wave.loopEnd > fa && wave.loopEnd < kLoopEndDefault)
    wave.loopEnd = fb < wave.loopEnd ? wave.loopEnd - gone : fa + 1.0f;
  if (wave.loopEnd <= wave.loopStart) wave.loopType = 0;
}

EditResult cutFrames(Waveform& wave, int64_t first, int64_t end, const char* context) {
  if (!Loaded(wave)) return EditResult::Failed;
  const FrameSpan span = SpanOf(wave, first, end);
  if (span.empty()) return EditResult::Unchanged;
  const uint32_t a = span.first, b = span.end, length = wave.length;
  if (a == 0 && b == length) return EditResult::Unchanged;  // never the whole wave
  if (!OwnData(wave)) return EditResult::Failed;
  if (b == length && b - a < kShortTailCut) {
    wave.length = a;  // the buffer keeps its tail
  } else {
    const Piece pieces[] = {{&wave, 0, a}, {&wave, b, length - b}};
    if (!Rebuild(wave, pieces, wave.samplesF != nullptr, context)) return EditResult::Failed;
  }
  CutLoop(wave, a, b);
  return EditResult::Changed;
}

EditResult trimToSelection(Waveform& wave, int64_t first, int64_t end) {
  static constexpr const char* kContext = "Trim waveform to selection";
  if (!Loaded(wave)) return EditResult::Failed;
  const uint32_t length = wave.length;
  const bool tail = end > 0 && end < length;
  const uint32_t kept = tail ? static_cast<uint32_t>(end) : length;
  const bool head = first > 0 && first < kept;
  if (!tail && !head) return EditResult::Unchanged;
  // Both cuts in one buffer, so that the second can't fail after the first.
  if (!head) return cutFrames(wave, kept, length, kContext);
  if (!OwnData(wave)) return EditResult::Failed;
  const auto a = static_cast<uint32_t>(first);
  const Piece pieces[] = {{&wave, a, kept - a}};
  if (!Rebuild(wave, pieces, wave.samplesF != nullptr, kContext)) return EditResult::Failed;
  if (tail) CutLoop(wave, kept, length);
  CutLoop(wave, 0, a);
  return EditResult::Changed;
}

EditResult insertFrames(Waveform& wave, int64_t position, Waveform* source, uint32_t sourceOffset, uint32_t count,
                        const char* context) {
  if (position < 0) position = 0;
  if (!Loaded(wave)) return EditResult::Failed;
  const uint32_t length = wave.length;
  const uint64_t at = static_cast<uint64_t>(position);
  if (count == 0 && at <= length) return EditResult::Unchanged;
  if (std::max<uint64_t>(at, length) + count > UINT32_MAX) {
    Fail(context, "Out of memory");
    return EditResult::Failed;
  }
  Resampled resampled;
  Adapted adapted;
  const Waveform* from = nullptr;
  if (source && count) {
    if (!Loaded(*source)) return EditResult::Failed;
    if (source->sampleRate != wave.sampleRate) {
      if (!(source = resampled.Take(*source, wave.sampleRate))) {
        const std::string why = ErrorMessage;  // the core's text under this edit's title
        Fail(context, "%s", why.c_str());
        return EditResult::Failed;
      }
    }
    from = source->channels == wave.channels ? source : adapted.Take(*source, wave.channels);
    if (!from) {
      Fail(context, source->channels > 2 || wave.channels > 2 ? "Incompatible channel formats" : "Out of memory");
      return EditResult::Failed;
    }
  }
  const auto p = static_cast<uint32_t>(std::min<uint64_t>(at, length));
  const Piece pieces[] = {
      {&wave, 0, p},
      {nullptr, 0, static_cast<uint32_t>(at - p)},  // the gap behind the end
      {from, sourceOffset, count},
      {&wave, p, length - p},
  };
  const bool asFloat = wave.samplesF || (from && from->samplesF);
  if (!Rebuild(wave, pieces, asFloat, context)) return EditResult::Failed;
  const auto fp = static_cast<float>(at), moved = static_cast<float>(count);
  if (wave.loopStart >= fp) wave.loopStart += moved;
  if (wave.loopEnd > fp && wave.loopEnd < kLoopEndDefault) wave.loopEnd += moved;
  return EditResult::Changed;
}

EditResult appendWaves(Waveform& target, std::span<Waveform* const> picks) {
  std::vector<Piece> pieces;
  // The pickers are four; their adapted copies stay until the data is built.
  Adapted adapted[4];
  const Waveform* firstPicked = nullptr;
  bool asFloat = false;
  std::size_t n = 0;
  for (Waveform* pick : picks) {
    if (!pick) continue;
    if (n == std::size(adapted) || pick->channels < 1 || pick->channels > 2) {
      Fail(kAppendContext, "Incompatible channel formats");
      return EditResult::Failed;
    }
    if (!Loaded(*pick)) return EditResult::Failed;
    const Waveform* from = pick->channels == target.channels ? pick : adapted[n].Take(*pick, target.channels);
    ++n;
    if (!from) {
      Fail(kAppendContext, target.channels > 2 ? "Incompatible channel formats" : "Out of memory");
      return EditResult::Failed;
    }
    if (!firstPicked) firstPicked = pick;
    asFloat = asFloat || from->samplesF;
    pieces.push_back({from, 0, from->length});
  }
  if (!firstPicked) {
    Fail(kAppendContext, "All null waveforms");
    return EditResult::Failed;
  }
  // The target's own data may be among the pieces: it is read before it goes.
  if (!Loaded(target)) return EditResult::Failed;
  const uint8_t loopType = firstPicked->loopType, loopRelease = firstPicked->loopRelease;
  const float loopStart = firstPicked->loopStart, loopEnd = firstPicked->loopEnd, loopPitch = firstPicked->loopPitch;
  if (!Rebuild(target, pieces, asFloat, kAppendContext)) return EditResult::Failed;
  target.loopType = loopType;
  target.loopRelease = loopRelease;
  target.loopStart = loopStart;
  target.loopEnd = loopEnd;
  target.loopPitch = loopPitch;
  return EditResult::Changed;
}

}  // namespace kv
