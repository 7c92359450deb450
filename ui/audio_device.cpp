#include "ui/audio_device.h"

#include <RtAudio.h>
#include <RtMidi.h>
#include <alsa/asoundlib.h>

#include <chrono>
#include <cstring>
#include <regex>

#include "core/error.h"
#include "synth/engine.h"
#include "synth/symtdev.h"

namespace kv {

namespace {

constexpr const char* kAuditioning = "Auditioning";
constexpr const char* kNoDevice = "Couldn't open the audio device!";

// RtAudio and RtMidi report through exceptions; these wrappers are the only
// places they are caught, and nothing past them throws.
template <class F>
bool Guarded(F&& f) {
  try {
    f();
    return true;
  } catch (const RtAudioError&) {
    return false;
  } catch (const RtMidiError&) {
    return false;
  }
}

// ALSA prints its configuration troubles itself; ours are reported as one
// message, so its own go quiet.
void QuietAlsa(const char*, int, const char*, int, const char*, ...) {}

// The first output device RtAudio can reach, with the API it reached it by.
std::unique_ptr<RtAudio> NewRtAudio() {
  snd_lib_error_set_handler(QuietAlsa);
  std::unique_ptr<RtAudio> rt;
  if (!Guarded([&] { rt = std::make_unique<RtAudio>(); })) return nullptr;
  rt->showWarnings(false);
  return rt;
}

}  // namespace

std::vector<std::string> AudioOutputNames() {
  std::vector<std::string> names{kDefaultAudioDevice};
  auto rt = NewRtAudio();
  if (!rt) return names;
  Guarded([&] {
    const unsigned count = rt->getDeviceCount();
    for (unsigned i = 0; i < count; ++i) {
      const RtAudio::DeviceInfo info = rt->getDeviceInfo(i);
      if (info.probed && info.outputChannels >= 2) names.push_back(info.name);
    }
  });
  return names;
}

std::vector<std::string> MidiInputNames() {
  std::vector<std::string> names;
  snd_lib_error_set_handler(QuietAlsa);
  Guarded([&] {
    RtMidiIn in;
    const unsigned count = in.getPortCount();
    for (unsigned i = 0; i < count; ++i) names.push_back(in.getPortName(i));
  });
  return names;
}

std::string WithoutPortNumbers(const std::string& name) {
  static const std::regex suffix(R"( \d+:\d+$)");
  return std::regex_replace(name, suffix, "");
}

uint32_t DevicePeriodFrames(int latencyMs, uint32_t rate, bool exclusive) {
  if (latencyMs < 0) return exclusive ? 128 : 512;
  const uint64_t frames = (static_cast<uint64_t>(latencyMs) * rate + 999) / 1000;
  const uint64_t blocks = std::max<uint64_t>(1, (frames + kSynthBlock - 1) / kSynthBlock);
  return static_cast<uint32_t>(std::min<uint64_t>(blocks * kSynthBlock, 1u << 16));
}

// ---------------------------------------------------------------- output

AudioOutput::AudioOutput() = default;
AudioOutput::~AudioOutput() { Close(); }

int AudioOutput::Callback(void* out, void*, unsigned int frames, double, unsigned int, void* self) {
  static_cast<AudioOutput*>(self)->device_->Render(static_cast<float*>(out), frames);
  return 0;
}

bool AudioOutput::Open(const std::string& name, uint32_t rate, bool exclusive, int latencyMs, SymtDev& device) {
  Close();
  device_ = &device;
  rate_ = rate;
  period_ = DevicePeriodFrames(latencyMs, rate, exclusive);
  device.Engine()->SetSampleRate(rate);
  if (name == kNullAudioDevice) {
    stopNull_.store(false);
    null_ = std::thread([this] { NullLoop(); });
    open_ = true;
    return true;
  }
  rt_ = NewRtAudio();
  if (!rt_) return Fail(kAuditioning, "%s", kNoDevice);
  const bool opened = Guarded([&] {
    RtAudio::StreamParameters params;
    params.nChannels = 2;
    params.deviceId = rt_->getDefaultOutputDevice();
    if (!name.empty() && name != kDefaultAudioDevice) {
      bool found = false;
      const unsigned count = rt_->getDeviceCount();
      for (unsigned i = 0; i < count && !found; ++i) {
        const RtAudio::DeviceInfo info = rt_->getDeviceInfo(i);
        if (info.probed && info.name == name) params.deviceId = i, found = true;
      }
      if (!found) throw RtAudioError("no such device", RtAudioError::INVALID_DEVICE);
    }
    RtAudio::StreamOptions options;
    options.flags = RTAUDIO_SCHEDULE_REALTIME;
    if (exclusive) options.flags |= RTAUDIO_MINIMIZE_LATENCY | RTAUDIO_HOG_DEVICE;
    options.streamName = "Kelvo Studio";
    unsigned frames = period_;
    rt_->openStream(&params, nullptr, RTAUDIO_FLOAT32, rate, &frames, &AudioOutput::Callback, this, &options);
    period_ = frames;
    rt_->startStream();
  });
  if (!opened) {
    rt_.reset();
    return Fail(kAuditioning, "%s", kNoDevice);
  }
  open_ = true;
  return true;
}

void AudioOutput::CaptureInto(std::vector<float>* sink) {
  std::lock_guard lock(captureLock_);
  capture_ = sink;
}

void AudioOutput::NullLoop() {
  std::vector<float> buffer(2 * std::size_t{period_});
  const auto period = std::chrono::duration<double>(static_cast<double>(period_) / rate_);
  auto due = std::chrono::steady_clock::now();
  while (!stopNull_.load()) {
    device_->Render(buffer.data(), period_);
    {
      std::lock_guard lock(captureLock_);
      if (capture_) capture_->insert(capture_->end(), buffer.begin(), buffer.end());
    }
    due += std::chrono::duration_cast<std::chrono::steady_clock::duration>(period);
    std::this_thread::sleep_until(due);
  }
}

void AudioOutput::Close() {
  if (null_.joinable()) {
    stopNull_.store(true);
    null_.join();
  }
  if (rt_) {
    Guarded([&] {
      if (rt_->isStreamRunning()) rt_->stopStream();
      if (rt_->isStreamOpen()) rt_->closeStream();
    });
    rt_.reset();
  }
  open_ = false;
}

// ---------------------------------------------------------------- MIDI in

MidiInput::MidiInput() = default;
MidiInput::~MidiInput() { Close(); }

void MidiInput::Received(double, std::vector<unsigned char>* message, void* self) {
  const auto& m = *message;
  if (m.empty() || m[0] < 0x80 || m[0] >= 0xF0) return;  // SysEx, clock and sensing are ignored
  const int status = m[0] & 0xF0;
  const int data1 = m.size() > 1 ? m[1] & 0x7F : 0, data2 = m.size() > 2 ? m[2] & 0x7F : 0;
  static_cast<MidiInput*>(self)->engine_->QueueAtBlock(MakeMidiWord(status, m[0] & 0x0F, data1, data2), 0);
}

bool MidiInput::Open(const std::string& port, SynthEngine& engine) {
  constexpr const char* kContext = "MIDI input";
  Close();
  engine_ = &engine;
  std::unique_ptr<RtMidiIn> in;
  int chosen = -1;
  snd_lib_error_set_handler(QuietAlsa);
  const bool ok = Guarded([&] {
    in = std::make_unique<RtMidiIn>(RtMidi::UNSPECIFIED, "Kelvo Studio");
    const unsigned count = in->getPortCount();
    std::vector<std::string> names;
    for (unsigned i = 0; i < count; ++i) names.push_back(in->getPortName(i));
    for (unsigned i = 0; i < count && chosen < 0; ++i)
      if (port.empty() ? names[i].find("Midi Through") == std::string::npos : names[i] == port) chosen = static_cast<int>(i);
    for (unsigned i = 0; i < count && chosen < 0 && !port.empty(); ++i)
      if (WithoutPortNumbers(names[i]) == WithoutPortNumbers(port)) chosen = static_cast<int>(i);
    if (chosen < 0) return;
    portName_ = names[static_cast<std::size_t>(chosen)];
    in->ignoreTypes(true, true, true);
    in->setCallback(&MidiInput::Received, this);
    in->openPort(static_cast<unsigned>(chosen), "Kelvo Studio in");
  });
  if (!ok) return Fail(kContext, "Couldn't open the MIDI input device!");
  if (chosen < 0)
    return port.empty() ? Fail(kContext, "No MIDI input device") : Fail(kContext, "No MIDI input \"%s\"", port.c_str());
  in_ = std::move(in);
  return true;
}

void MidiInput::Close() {
  if (in_) {
    Guarded([&] { in_->closePort(); });
    in_.reset();
  }
}

}  // namespace kv
