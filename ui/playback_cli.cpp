#include "ui/playback_cli.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <thread>

#include "core/app.h"
#include "core/error.h"
#include "core/settings.h"
#include "synth/engine.h"
#include "synth/midi_player.h"
#include "synth/symtdev.h"
#include "ui/audio_device.h"
#include "ui/interrupt.h"

namespace kv {

namespace {

constexpr const char* kPlay = "MidiPlayer";

int Failed() {
  ShowErrorBox();
  return 1;
}

// The audition engine: clip-limit off, and a gain that leaves a few notes
// at full scale unless the settings name one.
std::unique_ptr<SymtDev> NewDevice(int channels, uint32_t rate) {
  const int polyphony = std::max(1, Settings().mid2wav.iMaxPolyphony);
  const float db = Settings().aio.fdbMixGain;
  const float gain = db == 0 ? std::min(1.0f, 2.5f / std::sqrt(static_cast<float>(polyphony))) : std::pow(10.0f, db / 20);
  auto engine = std::make_unique<SynthEngine>(channels, polyphony, gain, rate);
  engine->clipLimit.store(0);
  return std::make_unique<SymtDev>(std::move(engine));
}

bool OpenOutput(AudioOutput& out, const PlaybackOptions& options, SymtDev& device) {
  const auto& aio = Settings().aio;
  const std::string name = options.device.empty() ? aio.szAudioOutDev : options.device;
  const uint32_t rate = aio.szAudioOutSampleRate ? aio.szAudioOutSampleRate : 48000;
  if (!out.Open(name, rate, aio.bAudioOutExclusive != 0, aio.nLatency, device)) return false;
  if (options.capture) out.CaptureInto(options.capture);
  return true;
}

// Waits a period or two so that queued words reach the device before it closes.
void LetDeviceDrain(const AudioOutput& out) {
  std::this_thread::sleep_for(std::chrono::duration<double>(3.0 * out.PeriodFrames() / out.Rate() + 0.02));
}

int PlaySong(const PlaybackOptions& options, Collection& collection, Item* item) {
  if (!item) {
    const auto songs = collection.All<Song>();
    if (songs.empty()) return Fail(kPlay, "Can't play non-MIDI items"), Failed();
    item = songs.front();
  }
  if (item->Type() != ItemType::Song) return Fail(kPlay, "Can't play non-MIDI items"), Failed();
  FlatSong probe;
  if (!FlattenSong(static_cast<const Song&>(*item), probe)) return Fail(kPlay, "Failed processing MIDI"), Failed();
  auto device = NewDevice(16 * probe.channelGroups, 48000);
  AudioOutput out;
  if (!OpenOutput(out, options, *device)) return Failed();
  MidiPlayer player(*device->Engine());
  if (!player.Load(collection, *item)) return Failed();
  device->Engine()->live.store(1);
  ClearInterrupt();
  player.Play(options.start);
  const double length = player.Length();
  int shown = -1;
  while (player.Playing() && !Interrupted()) {
    const double at = player.Position();
    if (options.maxSeconds > 0 && at >= options.maxSeconds) break;
    if (static_cast<int>(at * 10) != shown) {
      shown = static_cast<int>(at * 10);
      std::fprintf(stderr, "\rPlaying %s  %6.1f / %.1f s", item->name, at, length);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  std::fprintf(stderr, "\n");
  player.Stop();
  LetDeviceDrain(out);
  out.Close();
  return 0;
}

int PlayFromKeyboard(const PlaybackOptions& options, Item* item) {
  constexpr const char* kContext = "Auditioning";
  if (!item || item->Type() != ItemType::Instrument) return Fail(kContext, "Can't audition this type"), Failed();
  auto device = NewDevice(16, 48000);
  AudioOutput out;
  if (!OpenOutput(out, options, *device)) return Failed();
  StatusText("Sending to synth...");
  // A drum kit answers on every channel too, as a melodic instrument.
  if (!device->Load(static_cast<const Instrument&>(*item), false, true)) return Failed();
  // The instrument answers on every channel: program and banks as it sits.
  const auto& inst = static_cast<const Instrument&>(*item);
  const uint32_t key = inst.location & ~kKeyDrum;
  for (int c = 0; c < 16; ++c) {
    device->Engine()->QueueAtBlock(MakeMidiWord(0xB0, c, 0, LocationMajorBank(key)), 0);
    device->Engine()->QueueAtBlock(MakeMidiWord(0xB0, c, 32, LocationMinorBank(key)), 0);
    device->Engine()->QueueAtBlock(MakeMidiWord(0xC0, c, static_cast<int>(key & 0x7F)), 0);
  }
  MidiInput in;
  const std::string port = options.midiPort.empty() ? Settings().aio.szMidiInDev : options.midiPort;
  if (!in.Open(port, *device->Engine())) return Failed();
  StatusText("Auditioning");
  std::fprintf(stderr, "Playing %s from %s; Ctrl+C stops.\n", item->name, in.PortName().c_str());
  ClearInterrupt();
  while (!Interrupted()) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  in.Close();
  for (int c = 0; c < 16; ++c) device->Engine()->QueueAtBlock(MakeMidiWord(0xB0, c, 123, 0), 0);
  LetDeviceDrain(out);
  return 0;
}

}  // namespace

void AddPlaybackOptions(CLI::App& app, PlaybackOptions& options) {
  app.add_flag("--play", options.play, "Play the song (or --item) on the audio device; Ctrl+C stops");
  app.add_option("--start", options.start, "With --play: start at this many seconds");
  app.add_option("--audio-device", options.device, "Audio output by name, \"System default\" or null");
  app.add_flag("--audio-devices", options.listDevices, "List the audio outputs and MIDI inputs");
  options.midiIn = app.add_option("--midi-in", options.midiPort, "Play --item from a MIDI keyboard (port name optional) until Ctrl+C")
      ->expected(0, 1);
}

int RunPlaybackOptions(const PlaybackOptions& options, Collection& collection, Item* item) {
  if (options.listDevices) {
    std::printf("Audio outputs:\n");
    for (const std::string& n : AudioOutputNames()) std::printf("  %s\n", n.c_str());
    std::printf("  %s\n", kNullAudioDevice);
    std::printf("MIDI inputs:\n");
    for (const std::string& n : MidiInputNames()) std::printf("  %s\n", n.c_str());
  }
  if (options.midiIn && options.midiIn->count() > 0) return PlayFromKeyboard(options, item);
  if (options.play) return PlaySong(options, collection, item);
  return 0;
}

}  // namespace kv
