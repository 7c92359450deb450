#include "core/midi_events.h"

namespace kv {

bool MidiEventCursor::ReadVarLen(uint32_t& value) {
  value = 0;
  for (int i = 0; i < 4; ++i) {
    if (pos_ >= data_.size()) return false;
    const uint8_t b = data_[pos_++];
    value = (value << 7) | (b & 0x7Fu);
    if (!(b & 0x80)) break;
  }
  return true;
}

bool MidiEventCursor::Next(MidiEvent& e) {
  if (done_ || pos_ >= end_) return false;
  e = MidiEvent{};
  e.offset = pos_;
  if (!ReadVarLen(e.delta) || pos_ >= data_.size()) return done_ = true, false;

  const uint8_t first = data_[pos_];
  if (first & 0x80) {
    ++pos_;
    if (first < 0xF0) {
      status_ = first & 0xF0;
      channel_ = first & 0x0F;
    } else {
      status_ = first;
    }
  } else {
    // A data byte with no status before it has no meaning.
    if (status_ == 0) return done_ = true, false;
    e.runningStatus = true;
  }
  e.status = status_;
  e.channel = channel_;

  if (status_ == 0xFF || status_ == 0xF0 || status_ == 0xF7) {
    if (status_ == 0xFF) {
      if (pos_ >= data_.size()) return done_ = true, false;
      e.metaType = data_[pos_++];
    }
    uint32_t length = 0;
    if (!ReadVarLen(length)) return done_ = true, false;
    const std::size_t left = data_.size() - pos_;
    e.payload = data_.data() + pos_;
    if (length > left) {
      // The stream promises more than the buffer holds: what is there is the
      // event's, and the walk ends with it.
      e.length = static_cast<uint32_t>(left);
      pos_ = data_.size();
      done_ = true;
      return true;
    }
    e.length = length;
    pos_ += length;
    if (e.IsEndOfTrack()) done_ = true;
    return true;
  }

  const int bytes = MidiDataBytes(status_);
  if (static_cast<std::size_t>(bytes) > data_.size() - pos_) return done_ = true, false;
  if (bytes > 0) e.data1 = data_[pos_++] & 0x7F;
  if (bytes > 1) e.data2 = data_[pos_++] & 0x7F;
  return true;
}

uint32_t CountTrackEvents(std::span<const uint8_t> track) {
  MidiEventCursor cursor(track);
  MidiEvent e;
  uint32_t count = 0;
  while (cursor.Position() < cursor.End()) {
    if (cursor.End() - cursor.Position() < 4) cursor.SetEnd(cursor.End() - 1);
    if (!cursor.Next(e)) break;
    ++count;
  }
  return count;
}

}  // namespace kv
