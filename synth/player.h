// Songs to command words in time: tracks flattened into one list sorted by
// time in seconds, the instruments a song needs, and the offline render of a
// song to a Waveform through a private engine.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include "core/items.h"
#include "synth/synth_types.h"

namespace kv {

class SynthEngine;

struct TimedWord {
  double seconds = 0;
  MidiWord word = 0;  // 0 on the closing entry, whose time is the song's end
};

struct FlatSong {
  std::vector<TimedWord> events;  // time order; the last entry closes the song
  int gmMode = -1;                // from a GM System On/Off message: 1 GM1, 0 off, 2 GM2
  int channelGroups = 1;
  double EndSeconds() const { return events.empty() ? 0.0 : events.back().seconds; }
};

// Every track's events as words (the channel group in the top byte), merged
// in time: one tempo list from the first track that has events (500000
// microseconds a quarter until it says otherwise), a GS "use for rhythm part"
// message as controller 128 of its part's channel. False when the song has
// no tracks with events.
bool FlattenSong(const Song& song, FlatSong& out);

// Moves every event before the first note to time 0 and the whole list
// earlier by the first note's time: a render starts with its first note.
void TrimLeadIn(FlatSong& song);

// The instrument keys the song's program changes ask for, and the keys of
// channels that play before any program change, each once, in order.
std::vector<InstrumentKey> NeededInstruments(const FlatSong& song);

// Opens a bank of instruments (a General MIDI collection) into `into`; the
// program installs one that goes through its import route.
using BankOpener = bool (*)(const std::filesystem::path& path, Collection& into);
void SetBankOpener(BankOpener opener);

// Compiles into `engine` the instruments of `keys` from `collection`, then
// those missing from the General MIDI collection of the settings, with a
// program change's fallbacks. Returns the keys nothing could be found for;
// `gmFailed` tells whether the General MIDI collection was needed and
// couldn't be opened.
std::vector<InstrumentKey> LoadSongInstruments(SynthEngine& engine, const Collection& collection,
                                               const std::vector<InstrumentKey>& keys, bool& gmFailed);

// Renders `song` to a new stereo float Waveform in `collection`, named as the
// song, at the settings' rate and polyphony; null with ErrorContext and
// ErrorMessage set on failure, or (with "Done: No notes to render!") for a
// song without notes. `abort`, when given, is polled between blocks.
Waveform* RenderSongToWave(Collection& collection, const Song& song, const volatile bool* abort = nullptr);

}  // namespace kv
