// Plugs the synthesizer into the file commands: songs saved in a sound format
// are rendered, and the General MIDI collection a song falls back on opens
// through the import route.
#pragma once

namespace kv {

void InstallSongRendering();

}  // namespace kv
