// The wavetable synthesizer's engine: compiled instruments played by MIDI
// command words, in blocks of 64 stereo float frames.
//
// Threads. One audio thread renders blocks and does all dispatch and every
// note and voice change, without locks. Up to three workers render voices
// beside it, each woken by its own semaphore. Other threads only queue
// commands (a ring whose slots are claimed by compare-and-swap and published
// by their command word) and add or remove instruments (atomic hand-overs
// the audio thread completes while the engine is live).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <semaphore>
#include <thread>

#include <pthread.h>
#include <vector>

#include "synth/channel_fx.h"
#include "synth/synth_types.h"
#include "synth/voice.h"
#include "synth/wave_cache.h"

namespace kv {

// The raw controller bytes of a channel, kept for program changes, data
// entry and reset.
struct MidiChannelState {
  uint32_t key = 0;  // instrument key: program, bank LSB, bank MSB, drum flag
  uint8_t volume = 100;      // CC 7
  uint8_t expression = 127;  // CC 11
  uint8_t modulation = 0;    // CC 1
  uint8_t pan = 64;          // CC 10
  uint8_t rpnMsb = 0;        // CC 101
  uint8_t dataMsb = 0;       // CC 6
  uint8_t portaMsb = 1;      // CC 5
  uint8_t volumeLsb = 255;   // CC 39, 255 = not received
  uint8_t expressionLsb = 255;  // CC 43
  uint8_t modulationLsb = 255;  // CC 33
  uint8_t panLsb = 255;      // CC 42
  uint8_t rpnLsb = 255;      // CC 100: no RPN until it arrives
  uint8_t dataLsb = 255;     // CC 38
  uint8_t portaLsb = 255;    // CC 37
  uint8_t spare = 1;
  uint8_t programReceived = 0;
};
static_assert(sizeof(MidiChannelState) == 20, "20 bytes of controller state per channel");

// A value that moves to its target over a number of blocks.
struct Ramp {
  float delta = 0.0f;
  float target = 0.0f;
  uint32_t steps = 0;
};

enum RampId : int { kRampPortamento, kRampVolume, kRampPressure, kRampModulation, kRampBend, kRampPan, kRampSendA, kRampSendB, kRampCount };

// The bend range a channel has until RPN 0 sets one.
inline constexpr float kBendRangeUnset = -1.1234568e31f;

struct SynthChannel {
  SynthInstrument* instrument = nullptr;
  float volume = (100.0f / 127.0f) * (100.0f / 127.0f);  // CC 7 at 100, squared
  float pressure = 0.0f, modulation = 0.0f, bend = 0.0f, pan = 0.0f;
  Ramp ramp[kRampCount];
  int activeRamps = 0;
  float bendRange = kBendRangeUnset;
  float fineTune = 0.0f;  // semitones
  int coarseTune = 0;
  float send[4] = {};
  float portamentoTime = 0.00875f;
  float portamentoKey = 0.0f;
  bool sustain = false, sostenuto = false, soft = false, mono = false, portamento = false;
  uint8_t roundRobin[16] = {};
  std::vector<uint32_t> notes;  // NoteGroup indices, newest last; room for every group
  uint32_t rampStepsFactor = 17;
};

struct NoteGroup {
  uint32_t firstVoice = kNoVoice;
  uint32_t voiceCount = 0;
  uint16_t channel = 0;
  uint8_t key = 0;
  uint8_t velocity = 0;
  bool released = false;
  bool shutting = false;
  bool heldBySustain = false;
  bool heldBySostenuto = false;
  bool inUse = false;
  SynthInstrument* instrument = nullptr;
};

struct alignas(16) ChannelBus {
  alignas(16) float dry[2 * kSynthBlock];
  alignas(16) float sendBus[4][2 * kSynthBlock];
  bool empty = true;
  bool sendEmpty[4] = {true, true, true, true};
  std::atomic<uint8_t> lock{0};
  float pan = 0.0f;
  float gain = 0.0f;
  float send[4] = {};
  ChannelFxState fx[4];
};

class SynthEngine {
 public:
  // A negative master gain means 1 / sqrt(polyphony). workers < 1 takes
  // min(processors, 4), the caller counting as worker 0.
  SynthEngine(int channels, int polyphony, float masterGain, uint32_t sampleRate, int workers = 0);
  ~SynthEngine();
  SynthEngine(const SynthEngine&) = delete;
  SynthEngine& operator=(const SynthEngine&) = delete;

  // No-op when equal; otherwise kills every voice and re-derives what the
  // rate sets.
  void SetSampleRate(uint32_t rate);
  uint32_t SampleRate() const { return sampleRate_; }

  // One block into `out` (128 floats, 16-byte aligned); true if anything sounded.
  bool RenderBlock(float* out);

  // Any thread. Stamps count blocks.
  void QueueAtSeconds(MidiWord word, double seconds);
  void QueueAtMs(MidiWord word, uint32_t ms);
  void QueueAtBlock(MidiWord word, uint32_t block);
  static uint32_t StampForSeconds(uint32_t rate, double seconds);
  static uint32_t StampForMs(uint32_t rate, uint32_t ms);
  double TimeSeconds() const;
  uint64_t TimeMs() const;
  // Clears the ring and moves the clock; with `shutVoices` every voice fades out.
  void Seek(double seconds, bool shutVoices);
  void ResizeRing(std::size_t capacity);

  // The quietest note: marked and faded (soft) or killed at once.
  void ShedOneNote(bool soft);

  // Takes the instrument under its key. Without `replace` one already there
  // is removed first (its notes stop); with it the old one plays on until the
  // swap, which moves its voices to the zones of the same region. False when
  // the table is full.
  bool AddInstrument(std::unique_ptr<SynthInstrument> instrument, bool replace);
  void RemoveAllInstruments();
  const SynthInstrument* FindInstrument(InstrumentKey key) const;

  WaveCache& Cache() { return cache_; }

  // While live, removals and replacements go through the audio thread and
  // the caller waits for it; while not, the caller does them and must not
  // render at the same time.
  std::atomic<uint8_t> live{0};
  std::atomic<uint8_t> clipLimit{1};
  std::atomic<uint8_t> effects{1};
  std::atomic<uint8_t> clipped{0};
  float masterGain = 1.0f;
  float lastPeak = 0.0f;

  // For the device wrapper and tests; read between blocks.
  uint32_t VoiceCount() const { return voiceCount_.load(std::memory_order_acquire); }
  uint32_t GroupCount() const { return groupsInUse_; }
  uint32_t GroupCapacity() const { return static_cast<uint32_t>(groups_.size()); }
  uint32_t VoiceCapacity() const { return static_cast<uint32_t>(voices_.size()); }
  int WorkerCount() const { return static_cast<int>(workers_.size()) + 1; }
  uint32_t BlockCounter() const { return blockCounter_.load(std::memory_order_acquire); }
  // Command words taken from the ring so far.
  uint64_t DrainedCount() const { return drained_; }
  const SynthChannel& Channel(int index) const { return channels_[static_cast<std::size_t>(index)]; }
  const MidiChannelState& ChannelState(int index) const { return states_[static_cast<std::size_t>(index)]; }
  const ChannelFxState& FxSlot(int channel, int slot) const {
    return buses_[static_cast<std::size_t>(channel)].fx[static_cast<std::size_t>(slot)];
  }
  const FxLinePool& FxPool() const { return fxPool_; }
  const NoteGroup& Group(uint32_t index) const { return groups_[index]; }
  const SynthVoice& Voice(uint32_t index) const { return voices_[index].head; }
  const VoiceRecord& Record(uint32_t index) const { return voices_[index]; }
  int ChannelCount() const { return static_cast<int>(channels_.size()); }
  // Whether the notes, voices and channel lists agree with each other:
  // every voice in exactly one note's list, counts matching, every note
  // listed once by its channel. For tests and fuzzing, between blocks.
  bool BooksBalance() const;
  // The note stealing would take now, or kNoVoice.
  uint32_t QuietestNote(bool skipShutting) const;

  // Dispatches a command word at once (the audio thread's own path; tests).
  void Dispatch(MidiWord word);
  // How much of a zone a key and velocity hear where its window fades.
  static float CrossfadeFor(const SynthZone& zone, int key, int velocity);

 private:
  struct RingEntry {
    std::atomic<uint32_t> stamp{0};
    std::atomic<uint32_t> word{0};
  };
  struct Worker {
    SynthEngine* engine = nullptr;
    pthread_t thread{};
    std::binary_semaphore wake{0};
    std::atomic<bool> quit{false};
  };

  // Instruments by key, open addressing over atomic pointers: the program
  // change looks up without a lock while the loader stores.
  static constexpr std::size_t kTableSize = 4096;
  std::atomic<SynthInstrument*>* Slot(InstrumentKey key, bool forInsert) const;
  SynthInstrument* Lookup(InstrumentKey key) const;

  void ControlChange(int channel, int controller, int value);
  void DataEntry(int channel);
  void ProgramChange(int channel, int program);
  void NoteOn(int channel, int key, int velocity);
  void NoteOff(int channel, int key);
  void Trigger(int channel, int trigger, int key, int velocity, bool sustain);
  void ReleaseNote(uint32_t group, bool withReleaseZones);
  // The voices of a released note let go of their key, and its release
  // zones start.
  void FinishRelease(uint32_t group, bool withReleaseZones);
  void SelectZones(int channel, const SynthInstrument& instrument, int key, int velocity, int trigger, bool sustain);
  void StartRamp(int channel, RampId ramp, float& value, float target, float rateFactor);
  void StepRamps(int channel);
  void ReconfigureBus(int channel);

  uint32_t AllocateGroup();
  void FreeGroup(uint32_t group);
  void KillNote(uint32_t group);
  void KillVoice(uint32_t voice);
  void ShutdownNote(uint32_t group);
  bool StealNote();
  uint32_t FreeVoices() const { return VoiceCapacity() - VoiceCount(); }
  void FreeDeadVoices();

  void RemoveNow(SynthInstrument* instrument);
  void ReplaceNow(SynthInstrument* old, SynthInstrument* fresh);
  void WaitWhileLive(const std::atomic<SynthInstrument*>& word);

  void VoiceLoop();
  void WorkerMain(Worker& worker);
  void MixVoice(VoiceRecord& voice, const float* block);
  static void VoicePanGains(const SynthVoice& voice, const ChannelBus& bus, float& left, float& right);

  uint32_t sampleRate_;
  float inverseRate_;
  WaveCache cache_;
  std::unique_ptr<std::atomic<SynthInstrument*>[]> table_;
  std::vector<std::unique_ptr<SynthInstrument>> owned_;  // the loader's list; the table points into it

  std::atomic<SynthInstrument*> pendingRemoval_{nullptr};
  std::atomic<SynthInstrument*> pendingOld_{nullptr};
  std::atomic<SynthInstrument*> pendingNew_{nullptr};

  std::vector<NoteGroup> groups_;
  std::vector<uint32_t> freeGroups_;
  uint32_t groupsInUse_ = 0;
  std::vector<VoiceRecord> voices_;
  std::atomic<uint32_t> voiceCount_{0};
  std::vector<uint32_t> dead_;
  std::atomic<uint32_t> deadCount_{0};
  std::vector<const SynthZone*> selected_;  // zones of the note being started
  std::vector<uint32_t> scratch_;           // notes a controller walks while it changes the list

  std::vector<SynthChannel> channels_;
  std::vector<MidiChannelState> states_;
  std::unique_ptr<ChannelBus[]> buses_;
  FxLinePool fxPool_;             // the effects' delay lines; configure takes from it on the audio thread
  std::atomic<uint8_t> fxReset_{0};  // the buses' effects are reset before the next block

  std::vector<std::unique_ptr<Worker>> workers_;
  std::atomic<uint32_t> claim_{0};
  std::atomic<uint32_t> finished_{0};
  std::atomic<int> busyWorkers_{0};  // woken workers still in the voice loop
  uint32_t renderCount_ = 0;  // voices of the block being rendered

  std::unique_ptr<RingEntry[]> ring_;
  std::size_t ringCapacity_ = 0;
  std::atomic<std::size_t> writeIndex_{0};
  std::size_t readIndex_ = 0;
  std::atomic<uint32_t> blockCounter_{0};
  uint64_t drained_ = 0;
};

}  // namespace kv
