#include "ui/song_render.h"

#include "core/app.h"
#include "core/error.h"
#include "core/settings.h"
#include "formats/export.h"
#include "formats/import.h"
#include "processing/volume.h"
#include "synth/player.h"
#include "ui/interrupt.h"

namespace kv {

namespace {

bool OpenBank(const std::filesystem::path& path, Collection& into) { return ImportFile(into, path, false); }

}  // namespace

// The render, then the settings' finishing: the silence at both ends cut at
// one 16-bit step, and the peak brought to full scale.
Waveform* RenderSong(Collection& collection, Song& song) {
  StatusText("Rendering MIDI to Waveform...");
  Waveform* wave = RenderSongToWave(collection, song, InterruptFlag());
  if (!wave) return nullptr;
  const auto& mid2wav = Settings().mid2wav;
  if (mid2wav.bDeleteSilence) removeSilence(*wave, true, true, false, 3.0517578e-5f, 0.02f, false, false, false);
  if (mid2wav.bNormalizePeak) {
    StatusText("Normalizing Peak-value...");
    maximizeAmplitude(*wave, 1);
  }
  StatusText("Done: Rendered %s to waveform \"%s\".", song.name, wave->name);
  return wave;
}

void InstallSongRendering() {
  SetBankOpener(OpenBank);
  SetSongRenderer(RenderSong);
}

}  // namespace kv
