// The texts the event list, the track and song panes and the command line
// show for MIDI data. Everything here writes into fixed buffers: listing a
// track of millions of events must not allocate once per row.
//
// Texts that read a payload never look past its length; bytes a value needs
// but the event does not have count as 0.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/articulation.h"
#include "core/midi_events.h"

namespace kv {

inline constexpr const char* kMidiColumnTitles[4] = {"Ticks", "Ch", "Event", "Parameters"};

// The window decodes only this much of a track; a longer one ends in a row
// saying so.
inline constexpr std::size_t kMidiListCap = 0x40000;
inline constexpr const char* kMidiMoreTicks = "<more>";
inline constexpr const char* kMidiMoreText = "Only the first 256 KB of data are shown!";

inline constexpr const char* kMidiEndOfTrackRefusal = "Sorry, you can't set an 'End of Track' manually!";

// "Note On", "Meta event"...; "" for a status without a name. `status` has
// the channel removed for channel messages.
const char* MidiStatusName(uint8_t status);
// "Modulation", "Pan"...; nullptr for a controller shown by number.
const char* MidiControllerName(int controller);
// "Tempo", "Track name"...; nullptr for a type shown by number.
const char* MidiMetaName(uint8_t type);

// Each writes a nul-terminated text into out[0..size) and returns its length
// (cut to fit). `size` must be at least 1.
// `data` is the event's payload: an F0 message without its F0.
std::size_t MidiSysExText(char* out, std::size_t size, const uint8_t* data, uint32_t length);
// The value part of a meta event, without the name.
std::size_t MidiMetaValueText(char* out, std::size_t size, uint8_t type, const uint8_t* data,
                              uint32_t length);
// The Parameters column of an event; empty for a status without a name.
std::size_t MidiParameterText(char* out, std::size_t size, const MidiEvent& e, const ParamDisplay& display);

struct MidiEventRow {
  char ticks[24];
  char channel[8];
  const char* event;  // static text
  char parameters[160];
  // Lengths of the four texts, so that a listing of millions of rows need
  // not measure them again.
  uint8_t ticksLength;
  uint8_t channelLength;
  uint8_t eventLength;
  uint16_t parametersLength;
};

void FillMidiEventRow(MidiEventRow& row, uint64_t ticks, const MidiEvent& e, const ParamDisplay& display);
// The closing row of a listing cut at kMidiListCap.
void FillMidiMoreRow(MidiEventRow& row);

// Calls `onRow(const MidiEventRow&)` for each event of `track` from its start,
// with absolute ticks. With `capped`, an event beginning at or past
// kMidiListCap gets no row; one "<more>" row takes the place of the rest.
// Returns whether the listing was cut.
template <class OnRow>
bool ListMidiTrack(std::span<const uint8_t> track, const ParamDisplay& display, bool capped, OnRow&& onRow) {
  MidiEventCursor cursor(track);
  MidiEvent e;
  MidiEventRow row;
  uint64_t ticks = 0;
  while (cursor.Next(e)) {
    // The cursor reads the first event past the cap only to learn that there
    // is one; a track ending right at the cap gets no "<more>".
    if (capped && e.offset >= kMidiListCap) {
      FillMidiMoreRow(row);
      onRow(static_cast<const MidiEventRow&>(row));
      return true;
    }
    ticks += e.delta;
    FillMidiEventRow(row, ticks, e, display);
    onRow(static_cast<const MidiEventRow&>(row));
  }
  return false;
}

// "12 events\n345 Bytes\n\nCh-group: 0\nSeq-no: 1"
std::string MidiTrackInfoText(uint32_t events, uint32_t bytes, int channelGroup, int sequenceNumber);
// "Format 1 (multi track), 96 ticks/4th"; an SMPTE division (bit 15) gives
// "40 ticks/frame, 25 frames/s" from the low byte and bits 8-14.
std::string MidiSongInfoText(int format, uint16_t division);

// Hex pairs as the event editor takes them ("F0 7E 7F 09 01 F7", "0a0B"):
// blanks between pairs only. Fails with "Malformed Hex data!".
bool ParseMidiHex(std::string_view text, std::vector<uint8_t>& out);
// Whether the editor may give an event this status and meta type; End of
// Track is the walk's own and is refused.
bool CheckEventEdit(uint8_t status, uint8_t metaType);

}  // namespace kv
