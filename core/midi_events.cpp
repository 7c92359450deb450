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

void AppendVarLen(std::vector<uint8_t>& out, uint32_t value) {
  if (value > 0x0FFFFFFF) value = 0x0FFFFFFF;
  uint8_t bytes[4];
  int n = 0;
  do {
    bytes[n++] = value & 0x7F;
    value >>= 7;
  } while (value != 0);
  while (n-- > 0) out.push_back(static_cast<uint8_t>(bytes[n] | (n > 0 ? 0x80 : 0)));
}

void MidiEventWriter::Channel(uint32_t delta, uint8_t status, uint8_t channel, uint8_t data1, uint8_t data2) {
  AppendVarLen(out_, delta);
  const uint8_t byte = static_cast<uint8_t>((status & 0xF0) | (channel & 0x0F));
  if (byte != running_) out_.push_back(byte);
  running_ = byte;
  out_.push_back(data1 & 0x7F);
  if (MidiDataBytes(status & 0xF0) > 1) out_.push_back(data2 & 0x7F);
}

void MidiEventWriter::Meta(uint32_t delta, uint8_t type, std::span<const uint8_t> data) {
  AppendVarLen(out_, delta);
  out_.push_back(0xFF);
  out_.push_back(type);
  AppendVarLen(out_, static_cast<uint32_t>(data.size()));
  out_.insert(out_.end(), data.begin(), data.end());
  running_ = 0;
}

void MidiEventWriter::SysEx(uint32_t delta, uint8_t status, std::span<const uint8_t> data) {
  AppendVarLen(out_, delta);
  out_.push_back(status);
  AppendVarLen(out_, static_cast<uint32_t>(data.size()));
  out_.insert(out_.end(), data.begin(), data.end());
  running_ = 0;
}

void MidiEventWriter::System(uint32_t delta, uint8_t status, uint8_t data1, uint8_t data2) {
  AppendVarLen(out_, delta);
  out_.push_back(status);
  const int bytes = MidiDataBytes(status);
  if (bytes > 0) out_.push_back(data1 & 0x7F);
  if (bytes > 1) out_.push_back(data2 & 0x7F);
  running_ = 0;
}

void MidiEventWriter::Write(const MidiEvent& e) {
  const std::span<const uint8_t> payload(e.payload, e.length);
  if (e.status < 0xF0) Channel(e.delta, e.status, e.channel, e.data1, e.data2);
  else if (e.status == 0xFF) Meta(e.delta, e.metaType, payload);
  else if (e.status == 0xF0 || e.status == 0xF7) SysEx(e.delta, e.status, payload);
  else System(e.delta, e.status, e.data1, e.data2);
}

}  // namespace kv
