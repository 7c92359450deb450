// The synthesizer's way out to the sound card (RtAudio) and in from a MIDI
// keyboard (RtMidi), plus a null output that pulls blocks at real-time pace
// for machines without sound and for tests.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class RtAudio;
class RtMidiIn;

namespace kv {

class SymtDev;
class SynthEngine;

inline constexpr const char* kDefaultAudioDevice = "System default";
inline constexpr const char* kNullAudioDevice = "null";

// Output names ("System default" first) and MIDI input port names.
std::vector<std::string> AudioOutputNames();
std::vector<std::string> MidiInputNames();

// Frames per device period: 512 shared or 128 exclusive for a negative
// latency, else the milliseconds at `rate` rounded up to whole blocks.
uint32_t DevicePeriodFrames(int latencyMs, uint32_t rate, bool exclusive);

class AudioOutput {
 public:
  AudioOutput();
  ~AudioOutput();
  AudioOutput(const AudioOutput&) = delete;
  AudioOutput& operator=(const AudioOutput&) = delete;

  // Starts pulling float stereo from `device`. `name` is a device name,
  // "System default" (or empty) or "null". False with "Couldn't open the
  // audio device!" (context "Auditioning") when nothing could be opened.
  bool Open(const std::string& name, uint32_t rate, bool exclusive, int latencyMs, SymtDev& device);
  void Close();
  bool IsOpen() const { return open_; }
  uint32_t Rate() const { return rate_; }
  uint32_t PeriodFrames() const { return period_; }

  // Null output only: every frame pulled is also appended here (stereo).
  void CaptureInto(std::vector<float>* sink);

 private:
  static int Callback(void* out, void* in, unsigned int frames, double time, unsigned int status, void* self);
  void NullLoop();

  std::unique_ptr<RtAudio> rt_;
  SymtDev* device_ = nullptr;
  bool open_ = false;
  uint32_t rate_ = 0, period_ = 0;
  std::thread null_;
  std::atomic<bool> stopNull_{false};
  std::mutex captureLock_;
  std::vector<float>* capture_ = nullptr;
};

class MidiInput {
 public:
  MidiInput();
  ~MidiInput();
  MidiInput(const MidiInput&) = delete;
  MidiInput& operator=(const MidiInput&) = delete;

  // Opens the port by exact name, then by name without its client:port
  // numbers; an empty name takes the first port that isn't "Midi Through".
  // Channel messages then play on the engine's next block.
  bool Open(const std::string& port, SynthEngine& engine);
  void Close();
  const std::string& PortName() const { return portName_; }

 private:
  static void Received(double delta, std::vector<unsigned char>* message, void* self);

  std::unique_ptr<RtMidiIn> in_;
  SynthEngine* engine_ = nullptr;
  std::string portName_;
};

// "Midi Keys 20:0" -> "Midi Keys": ALSA renumbers clients on replug.
std::string WithoutPortNumbers(const std::string& name);

}  // namespace kv
