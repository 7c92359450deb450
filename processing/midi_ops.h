// The song operations on Standard MIDI track bodies: each walks a body with
// the shared event cursor and builds a new one with the event writer, so a
// result is always a standard stream (running status only between channel
// messages, an End of Track at its end). A dropped event passes its delta on
// to the next kept one. The song table's pages (song_table.cpp) drive them.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "core/items.h"

namespace kv {

using TrackBytes = std::vector<uint8_t>;

// Page texts of the song table beyond its controls' labels.
inline constexpr const char* kFormat1PageText = "Format 1 (multiple tracks)\nAssigns each MIDI ch to its own track.";
inline constexpr const char* kCompactNote =
    "Note: The last two options tend to counter-act each other, so for maximum size saving use either, but not both.";

// Each per-track function leaves `out` with the new body and returns whether
// any event changed; when it returns false `out` is to be ignored.

// New deltas from delta * ratio with the rounding error carried.
bool RescaleTrackTicks(std::span<const uint8_t> in, double ratio, TrackBytes& out);

// Note On of velocity 0 to Note Off of velocity 0.
bool VelocityZeroToNoteOff(std::span<const uint8_t> in, TrackBytes& out);

// Keys of Note Off, Note On and poly pressure moved; channel index 9 spared
// when `spareDrums`; a key leaving 0..127 drops its event.
bool TransposeTrack(std::span<const uint8_t> in, int semitones, bool spareDrums, TrackBytes& out);

struct MidiFilter {
  bool sysEx = false;
  bool meta = false;        // all but tempo, track name and End of Track
  bool aftertouch = false;  // channel and poly pressure
  int firstChannel = 0;     // channel messages outside first..last (0-15) go
  int lastChannel = 15;
};
bool FilterTrack(std::span<const uint8_t> in, const MidiFilter& filter, TrackBytes& out);

// Repeated values dropped (`duplicates`), Note Off spelled as Note On of
// velocity 0 (`noteOffAsNoteOn`).
bool CompactTrack(std::span<const uint8_t> in, bool duplicates, bool noteOffAsNoteOn, TrackBytes& out);

struct FixOptions {
  bool bankLsb = false;        // a CC 32 for every CC 0 that lacks one
  bool programFirst = false;   // Program Change 0 before a channel's first note
  bool dropSysEx = false;
  bool noteOff = false;        // velocity-0 Note On as Note Off
  // Whether an instrument answers a location (core/items.h's location word);
  // null: only the standard set is known.
  std::function<bool(uint32_t location)> known;
};
bool FixTrack(std::span<const uint8_t> in, const FixOptions& options, TrackBytes& out);
// The General MIDI and GS locations every synthesizer of that kind has.
bool InStandardSet(uint32_t location);

// A single track split by channel: `control` takes what has no channel,
// `channels[c]` channel c's messages; each ends with End of Track at the
// source's end. Empty results stay empty vectors.
void SplitTrackByChannel(std::span<const uint8_t> in, TrackBytes& control, std::vector<TrackBytes>& channels);

// Song time: ticks to seconds and back through the tempo changes of every
// track (500000 microseconds a quarter until one says otherwise, a tempo of 0
// counting as that), or the fixed rate of a frame-based division.
class TempoMap {
 public:
  TempoMap(std::span<const std::span<const uint8_t>> tracks, uint16_t division);
  double Seconds(uint64_t tick) const;
  uint64_t TickAt(double seconds) const;  // the first tick at or after

 private:
  struct Change {
    uint64_t tick;
    double seconds;        // at the change
    double secondsPerTick;
  };
  std::vector<Change> changes_;
};

// Tick of the first Note On (velocity above 0), or UINT64_MAX when none.
uint64_t FirstNoteTick(std::span<const uint8_t> in);

// The cut at `cutTick` and, when `endTick` is set, the end there: before the
// cut only the last value of each state event stays, at tick 0; notes begun
// before it go with their Note Off; notes sounding at the end get a Note Off
// there, then End of Track.
bool TrimTrack(std::span<const uint8_t> in, uint64_t cutTick, uint64_t endTick, TrackBytes& out);
inline constexpr uint64_t kNoEnd = UINT64_MAX;

}  // namespace kv
