// The one walk over a Standard MIDI File track body. Tracks keep their bytes
// exactly as a file has them; counting, listing, the song operations and the
// player all decode them through this cursor, so they agree on every stream,
// odd ones included.
//
// The walk: a delta of at most four bytes (a fifth is never read, whatever
// the fourth's high bit says); a byte with its high bit set becomes the
// current status, else the current status runs on, after meta and SysEx
// events too; channel messages carry two data bytes (program and channel
// pressure one), F1 and F3 one, F2 two, F4-FE none; meta and SysEx carry a
// variable-length count of bytes. The walk ends after End of Track (meta 2F)
// or at the end of the buffer. A length that reaches past the buffer ends the
// walk there; nothing is ever read beyond it, and the walk allocates nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kv {

struct MidiEvent {
  uint32_t delta = 0;          // ticks since the event before
  uint8_t status = 0;          // 0x80-0xE0 for channel messages (channel removed), else 0xF0-0xFF
  uint8_t channel = 0;         // of the last channel status byte
  uint8_t data1 = 0;           // channel and system common messages, 7 bits
  uint8_t data2 = 0;
  uint8_t metaType = 0;        // status 0xFF
  bool runningStatus = false;  // the stream left the status byte out
  const uint8_t* payload = nullptr;  // meta and SysEx bytes
  uint32_t length = 0;
  std::size_t offset = 0;      // where the event begins, at its delta

  bool IsEndOfTrack() const { return status == 0xFF && metaType == 0x2F; }
};

// Data bytes of a status (0x80-0xFE, channel removed for channel messages)
// that is neither meta nor SysEx.
constexpr int MidiDataBytes(uint8_t status) {
  if (status < 0xF0) return status == 0xC0 || status == 0xD0 ? 1 : 2;
  if (status == 0xF1 || status == 0xF3) return 1;
  if (status == 0xF2) return 2;
  return 0;
}

class MidiEventCursor {
 public:
  explicit MidiEventCursor(std::span<const uint8_t> track) : data_(track), end_(track.size()) {}

  // The next event; false once the walk has ended.
  bool Next(MidiEvent& event);

  std::size_t Position() const { return pos_; }
  // Events begin only before this bound; it starts at the buffer's end.
  std::size_t End() const { return end_; }
  void SetEnd(std::size_t end) { end_ = end < data_.size() ? end : data_.size(); }

 private:
  // At most four bytes; false when the buffer ends inside the quantity.
  bool ReadVarLen(uint32_t& value);

  std::span<const uint8_t> data_;
  std::size_t end_;
  std::size_t pos_ = 0;
  uint8_t status_ = 0;  // 0 until the stream gives one
  uint8_t channel_ = 0;
  bool done_ = false;
};

// Appends events to a track body as a file stores them: deltas as
// variable-length quantities (limited to 0x0FFFFFFF, the largest that fits
// four bytes), running status only between channel messages of the same
// status byte, meta, SysEx and system messages always with theirs. What it
// writes is read the same by our walk and by other players.
class MidiEventWriter {
 public:
  explicit MidiEventWriter(std::vector<uint8_t>& out) : out_(out) {}

  // `status` 0x80-0xE0 with `channel` 0-15; data masked to 7 bits.
  void Channel(uint32_t delta, uint8_t status, uint8_t channel, uint8_t data1, uint8_t data2 = 0);
  void Meta(uint32_t delta, uint8_t type, std::span<const uint8_t> data);
  // `status` 0xF0 or 0xF7; `data` as the file stores it (an F0 message's
  // bytes up to and with its closing F7).
  void SysEx(uint32_t delta, uint8_t status, std::span<const uint8_t> data);
  // 0xF1-0xFE other than 0xF7 and 0xFF.
  void System(uint32_t delta, uint8_t status, uint8_t data1 = 0, uint8_t data2 = 0);
  void EndOfTrack(uint32_t delta) { Meta(delta, 0x2F, {}); }
  // Any event the walk gave.
  void Write(const MidiEvent& event);

 private:
  std::vector<uint8_t>& out_;
  uint8_t running_ = 0;  // the last status byte written for a channel message, 0 after anything else
};

void AppendVarLen(std::vector<uint8_t>& out, uint32_t value);

// Events in a track body. The count alone narrows its bound by one byte for
// each event that begins fewer than four bytes before it, so a truncated tail
// ends the count early instead of being read as events.
uint32_t CountTrackEvents(std::span<const uint8_t> track);

}  // namespace kv
