// Playing on the command line: `--play` a song through the sound card (or
// the null device), `--midi-in` an instrument from a keyboard, and
// `--audio-devices` to list what there is.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace kv {

class Collection;
class Item;

struct PlaybackOptions {
  bool play = false;
  double start = 0;
  std::string device;  // empty: the aio.szAudioOutDev setting
  bool listDevices = false;
  CLI::Option* midiIn = nullptr;  // given, with or without a port
  std::string midiPort;           // empty: aio.szMidiInDev, then the first port
  // Null device only: stop after this many seconds of audio (tests).
  double maxSeconds = 0;
  // Null device only: every frame played, stereo (tests).
  std::vector<float>* capture = nullptr;
};

void AddPlaybackOptions(CLI::App& app, PlaybackOptions& options);

// Runs what the options ask for; `item` is the --item choice (null: the
// first song for --play). 0 when done or nothing asked, 1 on failure
// (ErrorContext/ErrorMessage shown).
int RunPlaybackOptions(const PlaybackOptions& options, Collection& collection, Item* item);

}  // namespace kv
