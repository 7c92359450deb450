// Plugs the synthesizer into the file commands: songs saved in a sound format
// are rendered, and the General MIDI collection a song falls back on opens
// through the import route.
#pragma once

#include "core/items.h"

namespace kv {

void InstallSongRendering();

// A song to a new Waveform in `collection` by the mid2wav settings, with
// their silence trimming and normalising; null with the reason set.
Waveform* RenderSong(Collection& collection, Song& song);

}  // namespace kv
