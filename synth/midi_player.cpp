#include "synth/midi_player.h"

#include <algorithm>
#include <array>
#include <chrono>

#include "core/app.h"
#include "core/error.h"
#include "synth/engine.h"

namespace kv {

namespace {

constexpr const char* kContext = "MidiPlayer";

// The most events due within any `window` seconds of the song.
std::size_t DensestWindow(const std::vector<TimedWord>& events, double window) {
  std::size_t best = 0;
  for (std::size_t i = 0, j = 0; j < events.size(); ++j) {
    while (events[j].seconds - events[i].seconds > window) ++i;
    best = std::max(best, j - i + 1);
  }
  return best;
}

}  // namespace

MidiPlayer::MidiPlayer(SynthEngine& engine)
    : engine_(engine), keys_(static_cast<std::size_t>(engine.ChannelCount()) * 128) {}

MidiPlayer::~MidiPlayer() {
  quit_.store(true);
  if (timer_.joinable()) timer_.join();
}

bool MidiPlayer::Load(const Collection& collection, const Item& item) {
  Stop();
  if (item.Type() != ItemType::Song) return Fail(kContext, "Can't play non-MIDI items");
  FlatSong flat;
  if (!FlattenSong(static_cast<const Song&>(item), flat)) return Fail(kContext, "Failed processing MIDI");
  song_ = std::move(flat);
  next_ = 0;
  bool gmFailed = false;
  LoadSongInstruments(engine_, collection, NeededInstruments(song_), gmFailed);
  if (gmFailed)
    MessageBox("Could not open the default GM/GS collection!\nInstruments will be missing from the song.", kProgramName);
  // Two lookaheads of the densest passage plus one audio period: the ring
  // then never wraps onto words the audio thread hasn't taken yet.
  engine_.ResizeRing(2 * DensestWindow(song_.events, kLookahead) + 4096);
  return true;
}

double MidiPlayer::Position() const { return engine_.TimeSeconds(); }

bool MidiPlayer::KeyDown(int channel, int key) const {
  const auto at = static_cast<std::size_t>(channel) * 128 + static_cast<std::size_t>(key & 0x7F);
  return at < keys_.size() && keys_[at].load(std::memory_order_relaxed) != 0;
}

void MidiPlayer::SetKey(int channel, int key, bool down) {
  const auto at = static_cast<std::size_t>(channel) * 128 + static_cast<std::size_t>(key & 0x7F);
  if (at < keys_.size()) keys_[at].store(down ? 1 : 0, std::memory_order_relaxed);
}

void MidiPlayer::Tick() {
  if (!playing_.load(std::memory_order_acquire)) return;
  const double horizon = Position() + kLookahead;
  while (next_ < song_.events.size() && song_.events[next_].seconds <= horizon) {
    const TimedWord& e = song_.events[next_++];
    if (!e.word) continue;
    engine_.QueueAtSeconds(e.word, e.seconds);
    const int channel = WordChannelIndex(e.word), status = WordStatus(e.word);
    if (status == 0x90) {
      SetKey(channel, WordData1(e.word), WordData2(e.word) > 0);
    } else if (status == 0x80) {
      SetKey(channel, WordData1(e.word), false);
    } else if (status == 0xB0 && (WordData1(e.word) == 123 || WordData1(e.word) == 120)) {
      for (int k = 0; k < 128; ++k) SetKey(channel, k, false);
    }
  }
  if (Position() > Length()) playing_.store(false, std::memory_order_release);
}

void MidiPlayer::Seek(double seconds) {
  if (Playing()) {
    Play(seconds);
    return;
  }
  SeekStopped(seconds);
}

void MidiPlayer::SeekStopped(double seconds) {
  const int channels = std::min(engine_.ChannelCount(), ChannelsNeeded());
  struct State {
    std::array<int16_t, 129> controllers;  // -1: no value; 128 is the drum flag
    int program = -1;
    int bend = -1;
  };
  std::vector<State> state(static_cast<std::size_t>(channels));
  for (State& s : state) s.controllers.fill(-1);
  std::size_t i = 0;
  for (; i < song_.events.size() && song_.events[i].seconds < seconds; ++i) {
    const MidiWord w = song_.events[i].word;
    const int channel = WordChannelIndex(w);
    if (!w || channel >= channels) continue;
    State& s = state[static_cast<std::size_t>(channel)];
    switch (WordStatus(w)) {
      case 0xB0:
        if (WordData1(w) == 121) s.controllers.fill(-1);
        else if (WordData1(w) != 123 && WordData1(w) != 120 && WordData1(w) <= 128)
          s.controllers[static_cast<std::size_t>(WordData1(w))] = static_cast<int16_t>(WordData2(w));
        break;
      case 0xC0: s.program = WordData1(w); break;
      case 0xE0: s.bend = WordData1(w) | WordData2(w) << 7; break;
      default: break;
    }
  }
  engine_.Seek(seconds, true);
  for (int k = 0; k < static_cast<int>(keys_.size()); ++k) keys_[static_cast<std::size_t>(k)].store(0);
  for (int c = 0; c < channels; ++c) {
    const State& s = state[static_cast<std::size_t>(c)];
    const int group = c / 16, channel = c % 16;
    engine_.QueueAtSeconds(MakeMidiWord(0xB0, channel, 121, 0, group), seconds);
    for (int cc = 0; cc <= 128; ++cc)
      if (s.controllers[static_cast<std::size_t>(cc)] >= 0)
        engine_.QueueAtSeconds(MakeMidiWord(0xB0, channel, cc, s.controllers[static_cast<std::size_t>(cc)], group),
                               seconds);
    if (s.program >= 0) engine_.QueueAtSeconds(MakeMidiWord(0xC0, channel, s.program, 0, group), seconds);
    if (s.bend >= 0)
      engine_.QueueAtSeconds(MakeMidiWord(0xE0, channel, s.bend & 0x7F, s.bend >> 7, group), seconds);
  }
  next_ = i;
}

void MidiPlayer::Play(double seconds) {
  Stop();
  if (seconds > 0) {
    SeekStopped(seconds);
  } else {
    engine_.Seek(0, true);
    next_ = 0;
  }
  playing_.store(true, std::memory_order_release);
  Tick();
  quit_.store(false);
  timer_ = std::thread([this] { TimerLoop(); });
}

void MidiPlayer::TimerLoop() {
  auto due = std::chrono::steady_clock::now();
  while (!quit_.load() && Playing()) {
    Tick();
    due += std::chrono::milliseconds(kTimerMs);
    std::this_thread::sleep_until(due);
  }
}

void MidiPlayer::Stop() {
  quit_.store(true);
  if (timer_.joinable()) timer_.join();
  if (playing_.exchange(false)) {
    const double now = Position();
    for (int c = 0; c < engine_.ChannelCount(); ++c)
      engine_.QueueAtSeconds(MakeMidiWord(0xB0, c % 16, 123, 0, c / 16), now);
  }
  for (auto& k : keys_) k.store(0, std::memory_order_relaxed);
}

}  // namespace kv
