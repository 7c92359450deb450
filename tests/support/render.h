// Rendering checks against FluidSynth: a tiny Standard MIDI file writer, the
// 16-bit WAV reader for its output, and the measure two renders are held to.
#pragma once

#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <vector>

namespace kv::test {

// A format-0 file with one track of 480 ticks per quarter note.
class SmfTrack {
 public:
  void Event(uint32_t deltaTicks, std::initializer_list<int> bytes);
  // The file: header chunk, the track, and an end-of-track meta event.
  std::string File(uint32_t finalDelta = 960) const;

 private:
  std::string track_;
};

// The samples of a 16-bit or 32-bit float WAV file's data chunk, as -1..1.
std::vector<double> ReadWavSamples(const std::filesystem::path& path);

// Renders `midi` with `bank` through FluidSynth into a WAV file; the exit
// status, with FluidSynth's messages in `log`.
int RenderWithFluidSynth(const std::filesystem::path& bank, const std::filesystem::path& midi,
                         const std::filesystem::path& wav, std::string& log);

struct RenderMatch {
  double correlation = 0;   // of the two signals over their common length
  double differenceDb = 0;  // energy of a - b relative to a
};
RenderMatch CompareRenders(const std::vector<double>& a, const std::vector<double>& b);

}  // namespace kv::test
