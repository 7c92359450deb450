// Replacing loaded waveforms by those of the same name in another file, and
// the sample-level replace the external wave editor shares.
#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "core/app.h"
#include "formats/import.h"

namespace kv {

namespace fs = std::filesystem;

namespace {
int g_replacedCount = 0;
}  // namespace

void ReplaceWaveData(Waveform& target, Waveform& source) {
  if (!source.EnsureData()) return;
  const uint64_t count = source.SampleCount();
  target.samples16.reset();
  target.samplesF.reset();
  target.length = source.length;
  target.channels = source.channels;
  target.sampleRate = source.sampleRate;
  target.bits = source.bits;
  target.readCallback = nullptr;

  const bool sourceLooped = !(source.loopType == 0 && source.loopStart == 0.0f &&
                              (source.loopEnd == 0.0f || source.loopEnd == static_cast<float>(source.length)));
  if (sourceLooped && (source.loopStart != target.loopStart || source.loopEnd != target.loopEnd)) {
    target.loopType = source.loopType;
    target.loopRelease = source.loopRelease;
    target.loopStart = source.loopStart;
    target.loopEnd = source.loopEnd;
  }
  if (source.samples16) {
    target.samples16 = std::make_unique<int16_t[]>(count ? count : 1);
    std::copy_n(source.samples16.get(), count, target.samples16.get());
  } else if (source.samplesF) {
    target.samplesF = std::make_unique<float[]>(count ? count : 1);
    std::copy_n(source.samplesF.get(), count, target.samplesF.get());
  }
  target.FixUp();
  ++g_replacedCount;
}

bool ReplaceWavesFile(Collection& collection, const fs::path& path) {
  g_replacedCount = 0;
  Collection scratch;
  if (!ImportFile(scratch, path, true)) return false;
  std::vector<Waveform*> sources = scratch.All<Waveform>();
  for (Waveform* target : collection.All<Waveform>()) {
    auto match = std::find_if(sources.begin(), sources.end(),
                              [&](const Waveform* s) { return std::strcmp(s->name, target->name) == 0; });
    if (match != sources.end()) ReplaceWaveData(*target, **match);
  }
  if (g_replacedCount > 0) App().refresh = true;
  return true;
}

int TakeReplacedCount() {
  int count = g_replacedCount;
  g_replacedCount = 0;
  return count;
}

}  // namespace kv
