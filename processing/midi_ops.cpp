#include "processing/midi_ops.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "core/midi_events.h"

namespace kv {

namespace {

constexpr uint32_t kMaxDelta = 0x0FFFFFFF;
constexpr uint32_t kDefaultTempo = 500000;

// Writes kept events with the deltas of dropped ones carried on, and closes
// the body with End of Track when the source had none.
class Rewriter {
 public:
  explicit Rewriter(TrackBytes& out, std::size_t sizeHint) : out_(out), writer_(out) {
    out.clear();
    out.reserve(sizeHint + sizeHint / 2 + 4);
  }
  void Drop(const MidiEvent& e) { carry_ += e.delta; }
  void Keep(const MidiEvent& e) {
    MidiEvent copy = e;
    copy.delta = Delta(e.delta);
    writer_.Write(copy);
    if (e.IsEndOfTrack()) ended_ = true;
  }
  void Channel(uint32_t delta, uint8_t status, uint8_t channel, uint8_t d1, uint8_t d2 = 0) {
    writer_.Channel(Delta(delta), status, channel, d1, d2);
  }
  void Finish() {
    if (!ended_) writer_.EndOfTrack(Delta(0));
  }
  TrackBytes& Bytes() { return out_; }

 private:
  uint32_t Delta(uint32_t delta) {
    const uint64_t total = carry_ + delta;
    carry_ = 0;
    return static_cast<uint32_t>(std::min<uint64_t>(total, kMaxDelta));
  }
  TrackBytes& out_;
  MidiEventWriter writer_;
  uint64_t carry_ = 0;
  bool ended_ = false;
};

bool IsNoteOn(const MidiEvent& e) { return e.status == 0x90 && e.data2 > 0; }
bool IsNoteOff(const MidiEvent& e) { return e.status == 0x80 || (e.status == 0x90 && e.data2 == 0); }

uint32_t TempoOf(const MidiEvent& e) {
  if (e.length < 3) return kDefaultTempo;
  const uint32_t us = uint32_t{e.payload[0]} << 16 | uint32_t{e.payload[1]} << 8 | e.payload[2];
  return us ? us : kDefaultTempo;
}

}  // namespace

bool RescaleTrackTicks(std::span<const uint8_t> in, double ratio, TrackBytes& out) {
  Rewriter w(out, in.size());
  MidiEventCursor cursor(in);
  MidiEvent e;
  double error = 0.0;
  while (cursor.Next(e)) {
    error += e.delta * ratio;
    double d = std::trunc(error + 0.5);
    if (d < 0) d = 0;
    if (d > kMaxDelta) d = kMaxDelta;
    error -= d;
    e.delta = static_cast<uint32_t>(d);
    w.Keep(e);
  }
  w.Finish();
  return true;
}

bool VelocityZeroToNoteOff(std::span<const uint8_t> in, TrackBytes& out) {
  Rewriter w(out, in.size());
  MidiEventCursor cursor(in);
  MidiEvent e;
  bool changed = false;
  while (cursor.Next(e)) {
    if (e.status == 0x90 && e.data2 == 0) {
      e.status = 0x80;
      changed = true;
    }
    w.Keep(e);
  }
  w.Finish();
  return changed;
}

bool TransposeTrack(std::span<const uint8_t> in, int semitones, bool spareDrums, TrackBytes& out) {
  Rewriter w(out, in.size());
  MidiEventCursor cursor(in);
  MidiEvent e;
  bool changed = false;
  while (cursor.Next(e)) {
    const bool keyed = e.status == 0x80 || e.status == 0x90 || e.status == 0xA0;
    if (keyed && semitones != 0 && !(spareDrums && e.channel == 9)) {
      const int key = e.data1 + semitones;
      changed = true;
      if (key < 0 || key > 127) {
        w.Drop(e);
        continue;
      }
      e.data1 = static_cast<uint8_t>(key);
    }
    w.Keep(e);
  }
  w.Finish();
  return changed;
}

bool FilterTrack(std::span<const uint8_t> in, const MidiFilter& f, TrackBytes& out) {
  Rewriter w(out, in.size());
  MidiEventCursor cursor(in);
  MidiEvent e;
  bool changed = false;
  while (cursor.Next(e)) {
    bool drop = false;
    if (e.status < 0xF0) {
      drop = e.channel < f.firstChannel || e.channel > f.lastChannel ||
             (f.aftertouch && (e.status == 0xA0 || e.status == 0xD0));
    } else if (e.status == 0xF0 || e.status == 0xF7) {
      drop = f.sysEx;
    } else if (e.status == 0xFF) {
      drop = f.meta && e.metaType != 0x51 && e.metaType != 0x03 && e.metaType != 0x2F;
    }
    if (drop) {
      w.Drop(e);
      changed = true;
    } else {
      w.Keep(e);
    }
  }
  w.Finish();
  return changed;
}

bool CompactTrack(std::span<const uint8_t> in, bool duplicates, bool noteOffAsNoteOn, TrackBytes& out) {
  // The value each channel holds, -1 while unknown.
  struct ChannelState {
    std::array<int16_t, 128> controller;
    int16_t program, pressure;
    int32_t bend;
    void Forget() {
      controller.fill(-1);
      program = pressure = -1;
      bend = -1;
    }
  };
  std::array<ChannelState, 16> state;
  for (auto& s : state) s.Forget();
  int64_t tempo = -1;

  Rewriter w(out, in.size());
  MidiEventCursor cursor(in);
  MidiEvent e;
  bool changed = false;
  while (cursor.Next(e)) {
    bool duplicate = false;
    ChannelState& s = state[e.channel];
    switch (e.status) {
      case 0xB0: {
        const int cc = e.data1;
        // Data entry and parameter numbers mean something by their order,
        // mode messages by their arrival: never repeats.
        const bool stateful = !(cc == 6 || cc == 38 || (cc >= 96 && cc <= 101) || cc >= 120);
        if (stateful) {
          duplicate = s.controller[cc] == e.data2;
          s.controller[cc] = e.data2;
        } else if (cc == 121) {
          s.Forget();  // a synthesizer resets its controllers: nothing is known after it
        }
        break;
      }
      case 0xC0:
        duplicate = s.program == e.data1;
        s.program = e.data1;
        break;
      case 0xD0:
        duplicate = s.pressure == e.data1;
        s.pressure = e.data1;
        break;
      case 0xE0: {
        const int32_t bend = e.data1 | e.data2 << 7;
        duplicate = s.bend == bend;
        s.bend = bend;
        break;
      }
      case 0xF0:
      case 0xF7:
        for (auto& c : state) c.Forget();  // a reset message may be among them
        break;
      case 0xFF:
        if (e.metaType == 0x51) {
          const int64_t t = TempoOf(e);
          duplicate = t == tempo;
          tempo = t;
        }
        break;
      default: break;
    }
    if (duplicate && duplicates) {
      w.Drop(e);
      changed = true;
      continue;
    }
    if (noteOffAsNoteOn && e.status == 0x80) {
      e.status = 0x90;
      e.data2 = 0;
      changed = true;
    }
    w.Keep(e);
  }
  w.Finish();
  return changed;
}

// ---- the standard set ----

namespace {

// Melodic variation tones of the GS map as the Roland SC-55 owner's manual
// lists them ("GS sound set": capital tones are bank 0, variations by their
// CC 0 number), programs counted from 0. Bank 0 has every program.
constexpr uint8_t kGsBank1[] = {38, 57, 60, 80, 81, 98, 102, 104, 120, 121, 122, 123, 124, 125, 126, 127};
constexpr uint8_t kGsBank2[] = {102, 120, 122, 123, 124, 125, 126, 127};
constexpr uint8_t kGsBank3[] = {122, 123, 124, 125, 126, 127};
constexpr uint8_t kGsBank4[] = {122, 124, 125, 126};
constexpr uint8_t kGsBank5[] = {122, 124, 125, 126};
constexpr uint8_t kGsBank6[] = {125};
constexpr uint8_t kGsBank7[] = {125};
constexpr uint8_t kGsBank8[] = {0,  1,  2,  3,  4,  5,  6,  11, 12, 14,  16,  17,  19,  21,  24,  25, 26, 27, 28,
                                30, 31, 38, 39, 40, 48, 50, 61, 62, 63, 80, 81, 107, 115, 116, 117, 118, 125};
constexpr uint8_t kGsBank9[] = {14, 118, 125};
constexpr uint8_t kGsBank16[] = {0, 4, 5, 6, 16, 19, 24, 25, 28, 39, 62, 63};
constexpr uint8_t kGsBank24[] = {4, 6};
constexpr uint8_t kGsBank32[] = {16, 17, 24, 52};
struct VariationRow {
  uint8_t bank;
  std::span<const uint8_t> programs;
};
constexpr VariationRow kGsVariations[] = {
    {1, kGsBank1},
    {2, kGsBank2},
    {3, kGsBank3},
    {4, kGsBank4},
    {5, kGsBank5},
    {6, kGsBank6},
    {7, kGsBank7},
    {8, kGsBank8},
    {9, kGsBank9},
    {16, kGsBank16},
    {24, kGsBank24},
    {32, kGsBank32},
};
constexpr uint8_t kDrumKits[] = {0, 8, 16, 24, 25, 32, 40, 48, 56};

}  // namespace

bool InStandardSet(uint32_t location) {
  const uint32_t program = location & 0x7F, lsb = (location >> 7) & 0x7F, msb = (location >> 14) & 0x7F;
  if (lsb != 0) return false;
  if (location & (1u << 21))
    return msb == 0 && std::find(std::begin(kDrumKits), std::end(kDrumKits), program) != std::end(kDrumKits);
  if (msb == 0) return true;
  for (const VariationRow& row : kGsVariations)
    if (row.bank == msb) return std::find(row.programs.begin(), row.programs.end(), program) != row.programs.end();
  return false;
}

bool FixTrack(std::span<const uint8_t> in, const FixOptions& o, TrackBytes& out) {
  // Which CC 0 events find a CC 32 of their channel before its next Program
  // Change: settled in one pass ahead, one bit per CC 0 in order.
  std::vector<bool> hasLsb;
  if (o.bankLsb) {
    std::array<std::vector<uint32_t>, 16> waiting;
    MidiEventCursor ahead(in);
    MidiEvent e;
    while (ahead.Next(e)) {
      if (e.status == 0xB0 && e.data1 == 0) {
        waiting[e.channel].push_back(static_cast<uint32_t>(hasLsb.size()));
        hasLsb.push_back(false);
      } else if ((e.status == 0xB0 && e.data1 == 32) || e.status == 0xC0) {
        if (e.status == 0xB0)
          for (uint32_t i : waiting[e.channel]) hasLsb[i] = true;
        waiting[e.channel].clear();
      }
    }
  }

  // Per channel: the bank bytes and where the output holds them, to be
  // zeroed when the location they select is unknown.
  struct ChannelState {
    uint8_t msb = 0, lsb = 0;
    std::size_t msbAt = SIZE_MAX, lsbAt = SIZE_MAX;
    bool program = false;
  };
  std::array<ChannelState, 16> ch;
  std::size_t bankIndex = 0;

  Rewriter w(out, in.size());
  TrackBytes& bytes = w.Bytes();
  MidiEventCursor cursor(in);
  MidiEvent e;
  bool changed = false;
  while (cursor.Next(e)) {
    ChannelState& s = ch[e.channel];
    if (o.dropSysEx && (e.status == 0xF0 || e.status == 0xF7)) {
      w.Drop(e);
      changed = true;
      continue;
    }
    if (o.programFirst && IsNoteOn(e) && !s.program) {
      w.Channel(e.delta, 0xC0, e.channel, 0);
      e.delta = 0;
      s.program = true;
      changed = true;
    }
    if (o.noteOff && e.status == 0x90 && e.data2 == 0) {
      e.status = 0x80;
      changed = true;
    }
    w.Keep(e);
    if (e.status == 0xB0 && (e.data1 == 0 || e.data1 == 32)) {
      // The value is the event's last byte.
      (e.data1 == 0 ? s.msbAt : s.lsbAt) = bytes.size() - 1;
      (e.data1 == 0 ? s.msb : s.lsb) = e.data2;
      if (e.data1 == 0 && o.bankLsb && !hasLsb[bankIndex++]) {
        w.Channel(0, 0xB0, e.channel, 32, 0);
        s.lsbAt = bytes.size() - 1;
        s.lsb = 0;
        changed = true;
      }
    } else if (e.status == 0xC0) {
      s.program = true;
      const uint32_t location = MakeLocation(s.msb, s.lsb, e.data1, e.channel == 9);
      if ((s.msb || s.lsb) && !(o.known && o.known(location)) && !InStandardSet(location)) {
        for (std::size_t at : {s.msbAt, s.lsbAt})
          if (at != SIZE_MAX && bytes[at] != 0) {
            bytes[at] = 0;
            changed = true;
          }
        s.msb = s.lsb = 0;
      }
    }
  }
  w.Finish();
  return changed;
}

void SplitTrackByChannel(std::span<const uint8_t> in, TrackBytes& control, std::vector<TrackBytes>& channels) {
  control.clear();
  channels.assign(16, {});
  struct Part {
    MidiEventWriter writer;
    uint64_t tick = 0;
    bool used = false;
  };
  std::vector<Part> parts;
  parts.reserve(17);
  parts.push_back(Part{MidiEventWriter(control)});
  for (auto& c : channels) parts.push_back(Part{MidiEventWriter(c)});
  MidiEventCursor cursor(in);
  MidiEvent e;
  uint64_t tick = 0;
  while (cursor.Next(e)) {
    tick += e.delta;
    if (e.IsEndOfTrack()) break;
    Part& p = parts[e.status < 0xF0 ? 1 + e.channel : 0];
    e.delta = static_cast<uint32_t>(std::min<uint64_t>(tick - p.tick, kMaxDelta));
    p.tick = tick;
    p.used = true;
    p.writer.Write(e);
  }
  for (Part& p : parts)
    if (p.used) p.writer.EndOfTrack(static_cast<uint32_t>(std::min<uint64_t>(tick - p.tick, kMaxDelta)));
}

// ---- time ----

TempoMap::TempoMap(std::span<const std::span<const uint8_t>> tracks, uint16_t division) {
  if (division & 0x8000) {
    // Frames a second (as the negative high byte) times ticks a frame.
    const int fps = 256 - (division >> 8);
    const double rate = (fps == 29 ? 29.97 : std::max(fps, 1)) * std::max(division & 0xFF, 1);
    changes_.push_back({0, 0.0, 1.0 / rate});
    return;
  }
  const double perQuarter = std::max(division, uint16_t{1});
  std::vector<std::pair<uint64_t, uint32_t>> tempos;
  for (const auto& t : tracks) {
    MidiEventCursor cursor(t);
    MidiEvent e;
    uint64_t tick = 0;
    while (cursor.Next(e)) {
      tick += e.delta;
      if (e.status == 0xFF && e.metaType == 0x51) tempos.emplace_back(tick, TempoOf(e));
    }
  }
  std::stable_sort(tempos.begin(), tempos.end(), [](auto& a, auto& b) { return a.first < b.first; });
  changes_.push_back({0, 0.0, kDefaultTempo * 1e-6 / perQuarter});
  for (const auto& [tick, us] : tempos) {
    const Change& last = changes_.back();
    const double spt = us * 1e-6 / perQuarter;
    if (tick == last.tick) changes_.back().secondsPerTick = spt;
    else changes_.push_back({tick, last.seconds + static_cast<double>(tick - last.tick) * last.secondsPerTick, spt});
  }
}

double TempoMap::Seconds(uint64_t tick) const {
  auto it = std::upper_bound(changes_.begin(), changes_.end(), tick,
                             [](uint64_t t, const Change& c) { return t < c.tick; });
  const Change& c = *(it - 1);
  return c.seconds + static_cast<double>(tick - c.tick) * c.secondsPerTick;
}

uint64_t TempoMap::TickAt(double seconds) const {
  if (seconds <= 0) return 0;
  auto it = std::upper_bound(changes_.begin(), changes_.end(), seconds,
                             [](double s, const Change& c) { return s < c.seconds; });
  const Change& c = *(it - 1);
  const double ticks = std::ceil((seconds - c.seconds) / c.secondsPerTick - 1e-9);
  if (!(ticks < 1.8e19)) return UINT64_MAX - 1;
  return c.tick + static_cast<uint64_t>(std::max(ticks, 0.0));
}

uint64_t FirstNoteTick(std::span<const uint8_t> in) {
  MidiEventCursor cursor(in);
  MidiEvent e;
  uint64_t tick = 0;
  while (cursor.Next(e)) {
    tick += e.delta;
    if (IsNoteOn(e)) return tick;
  }
  return UINT64_MAX;
}

bool TrimTrack(std::span<const uint8_t> in, uint64_t cut, uint64_t end, TrackBytes& out) {
  // Slots of the state events whose last value before the cut survives:
  // tempo, time and key signature, track name, then per channel program,
  // pressure, bend and the 128 controllers.
  constexpr std::size_t kPerChannel = 131, kSlots = 4 + 16 * kPerChannel;
  auto slotOf = [](const MidiEvent& e) -> std::size_t {
    if (e.status == 0xFF) {
      switch (e.metaType) {
        case 0x51: return 0;
        case 0x58: return 1;
        case 0x59: return 2;
        case 0x03: return 3;
        default: return SIZE_MAX;
      }
    }
    const std::size_t base = 4 + e.channel * kPerChannel;
    switch (e.status) {
      case 0xC0: return base;
      case 0xD0: return base + 1;
      case 0xE0: return base + 2;
      case 0xB0: return base + 3 + e.data1;
      default: return SIZE_MAX;
    }
  };
  std::vector<std::size_t> lastAt(kSlots, SIZE_MAX);
  if (cut > 0) {
    MidiEventCursor cursor(in);
    MidiEvent e;
    uint64_t tick = 0;
    while (cursor.Next(e) && (tick += e.delta) < cut) {
      const std::size_t slot = slotOf(e);
      if (slot != SIZE_MAX) lastAt[slot] = e.offset;
    }
  }
  std::vector<std::size_t> kept;
  for (std::size_t at : lastAt)
    if (at != SIZE_MAX) kept.push_back(at);
  std::sort(kept.begin(), kept.end());

  // Notes begun before the cut, and notes sounding in the result, by
  // channel and key.
  std::vector<uint16_t> before(16 * 128, 0), sounding(16 * 128, 0);
  Rewriter w(out, in.size());
  MidiEventCursor cursor(in);
  MidiEvent e;
  uint64_t tick = 0, written = 0;  // `written`: the source tick the output stands at
  bool changed = cut > 0 || end != kNoEnd, ended = false;
  while (cursor.Next(e)) {
    tick += e.delta;
    const std::size_t note = e.channel * 128u + e.data1;
    if (tick < cut) {
      if (e.status < 0xF0 && IsNoteOn(e)) before[note] = static_cast<uint16_t>(std::min(before[note] + 1, 0xFFFF));
      else if (e.status < 0xF0 && IsNoteOff(e) && before[note]) --before[note];
      if (std::binary_search(kept.begin(), kept.end(), e.offset)) {
        e.delta = 0;
        w.Keep(e);
      }
      continue;
    }
    if (tick >= end) break;
    const uint64_t at = std::max(written, cut);
    e.delta = static_cast<uint32_t>(std::min<uint64_t>(tick - at, kMaxDelta));
    if (e.status < 0xF0 && IsNoteOff(e) && before[note]) {
      --before[note];  // the note it ends was cut away
      w.Drop(e);
      written = tick;
      continue;
    }
    if (e.status < 0xF0 && IsNoteOn(e)) ++sounding[note];
    else if (e.status < 0xF0 && IsNoteOff(e) && sounding[note]) --sounding[note];
    if (e.IsEndOfTrack()) ended = true;
    w.Keep(e);
    written = tick;
  }
  if (end != kNoEnd && !ended) {
    uint32_t delta = static_cast<uint32_t>(std::min<uint64_t>(end - std::max(written, cut), kMaxDelta));
    for (std::size_t n = 0; n < sounding.size(); ++n)
      for (; sounding[n] > 0; --sounding[n]) {
        w.Channel(delta, 0x80, static_cast<uint8_t>(n / 128), static_cast<uint8_t>(n % 128), 0);
        delta = 0;
      }
    MidiEvent eot;
    eot.status = 0xFF;
    eot.metaType = 0x2F;
    eot.delta = delta;
    w.Keep(eot);
  }
  w.Finish();
  return changed;
}

}  // namespace kv
