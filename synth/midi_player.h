// Plays a song live on a running engine: a timer thread keeps the engine's
// command ring a little ahead of its clock, so the audio thread never waits
// on the song and the song never waits on the audio thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "core/items.h"
#include "synth/player.h"

namespace kv {

class SynthEngine;

class MidiPlayer {
 public:
  static constexpr double kLookahead = 0.1;  // seconds queued ahead of the engine
  static constexpr int kTimerMs = 10;

  explicit MidiPlayer(SynthEngine& engine);
  ~MidiPlayer();
  MidiPlayer(const MidiPlayer&) = delete;
  MidiPlayer& operator=(const MidiPlayer&) = delete;

  // Flattens the song and loads the instruments it needs (from `collection`
  // first, then the General MIDI collection). False with "Can't play non-MIDI
  // items" when `item` is not a song, "Failed processing MIDI" when it has no
  // events. The engine needs 16 channels for each of the song's channel groups.
  bool Load(const Collection& collection, const Item& item);
  const FlatSong& Flat() const { return song_; }
  double Length() const { return song_.EndSeconds(); }
  int ChannelsNeeded() const { return 16 * song_.channelGroups; }

  // Starts the timer at `seconds` (a seek when it isn't 0).
  void Play(double seconds = 0.0);
  // Stops the timer and silences every channel (CC 123).
  void Stop();
  bool Playing() const { return playing_.load(std::memory_order_acquire); }
  // The engine's clock: where the listener is.
  double Position() const;
  // Replays program, controllers and bend up to `seconds` so the song sounds
  // as it would had it played there, and goes on from there if playing.
  void Seek(double seconds);

  // One timer tick: queues every event due by Position() + kLookahead; stops
  // past the end. Public so that tests can drive it without the thread.
  void Tick();

  // Keys sounding on a channel, for the keyboard display.
  bool KeyDown(int channel, int key) const;

 private:
  void TimerLoop();
  void SeekStopped(double seconds);
  void SetKey(int channel, int key, bool down);

  SynthEngine& engine_;
  FlatSong song_;
  std::size_t next_ = 0;  // first event not yet queued
  std::atomic<bool> playing_{false};
  std::atomic<bool> quit_{false};
  std::thread timer_;
  std::vector<std::atomic<uint8_t>> keys_;  // channel * 128 + key
};

}  // namespace kv
