#include "synth/engine.h"

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "synth/compile.h"
#include "synth/kv_math.h"
#include "synth/wave_voice.h"

namespace kv {

// ---------------------------------------------------------------- kind table

namespace {

struct KindTable {
  VoiceKind kinds[kVoiceKindCount];
  KindTable() { kinds[static_cast<int>(VoiceKindId::Wave)] = WaveVoiceKind(); }
};
// Built before main: the audio thread only ever reads it.
KindTable g_table;

// A placeholder in the table that marks a removed instrument: probing goes on
// past it.
SynthInstrument g_tombstone{0xFFFFFFFFu, {}, {}, {}, 0};

uint32_t Fnv1a(uint32_t key) {
  uint32_t h = 2166136261u;
  for (int i = 0; i < 4; ++i) {
    h ^= (key >> (8 * i)) & 0xFFu;
    h *= 16777619u;
  }
  return h;
}

int ProcessorCount() {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (sched_getaffinity(0, sizeof set, &set) != 0) return 1;
  return std::max(1, CPU_COUNT(&set));
}

float& RampValue(SynthChannel& ch, int ramp) {
  switch (ramp) {
    case kRampPortamento: return ch.portamentoKey;
    case kRampVolume: return ch.volume;
    case kRampPressure: return ch.pressure;
    case kRampModulation: return ch.modulation;
    case kRampBend: return ch.bend;
    case kRampPan: return ch.pan;
    case kRampSendA: return ch.send[0];
    default: return ch.send[1];
  }
}

// A controller pair as a level: 14 bits when the LSB came, else MSB / 127.
float Level14(uint8_t msb, uint8_t lsb) {
  return lsb != 255 ? static_cast<float>(msb * 128 + lsb) * 6.200012e-5f : static_cast<float>(msb) / 127.0f;
}

}  // namespace

void SetVoiceKind(VoiceKindId id, const VoiceKind& kind) { g_table.kinds[static_cast<int>(id)] = kind; }
const VoiceKind& GetVoiceKind(VoiceKindId id) { return g_table.kinds[static_cast<int>(id)]; }
void ResetVoiceKinds() { g_table = KindTable(); }

// ---------------------------------------------------------------- life cycle

SynthEngine::SynthEngine(int channels, int polyphony, float gain, uint32_t sampleRate, int workers)
    : sampleRate_(sampleRate ? sampleRate : 44100), inverseRate_(1.0f / static_cast<float>(sampleRate_)) {
  polyphony = std::max(polyphony, 1);
  channels = std::max(channels, 1);
  masterGain = gain < 0.0f ? 1.0f / std::sqrt(static_cast<float>(polyphony)) : gain;
  table_ = std::make_unique<std::atomic<SynthInstrument*>[]>(kTableSize);
  for (std::size_t i = 0; i < kTableSize; ++i) table_[i].store(nullptr, std::memory_order_relaxed);

  groups_.resize(static_cast<std::size_t>(polyphony));
  freeGroups_.reserve(groups_.size());
  for (std::size_t g = groups_.size(); g-- > 0;) freeGroups_.push_back(static_cast<uint32_t>(g));
  voices_.resize(4 * groups_.size());
  dead_.resize(voices_.size());
  selected_.reserve(voices_.size());
  scratch_.reserve(groups_.size());

  channels_.resize(static_cast<std::size_t>(channels));
  states_.resize(channels_.size());
  buses_ = std::make_unique<ChannelBus[]>(channels_.size());
  fxPool_.Reserve(FxPoolFloats(channels, static_cast<float>(sampleRate_)));
  for (std::size_t c = 0; c < channels_.size(); ++c) {
    channels_[c].notes.reserve(groups_.size());
    channels_[c].rampStepsFactor = static_cast<uint32_t>(static_cast<float>(sampleRate_) * 0.000390625f);
    if (c % 16 == 9) states_[c].key = kKeyDrum;
  }
  ResizeRing(1024);

  int count = workers > 0 ? workers : std::min(ProcessorCount(), 4);
  for (int w = 1; w < count; ++w) {
    auto worker = std::make_unique<Worker>();
    Worker* raw = worker.get();
    workers_.push_back(std::move(worker));
    raw->engine = this;
    auto entry = [](void* arg) -> void* {
      auto* me = static_cast<Worker*>(arg);
      me->engine->WorkerMain(*me);
      return nullptr;
    };
    if (pthread_create(&raw->thread, nullptr, entry, raw) != 0) {
      // A worker that can't be made ends the list; the others carry on.
      workers_.pop_back();
      break;
    }
  }
}

SynthEngine::~SynthEngine() {
  for (auto& w : workers_) {
    w->quit.store(true, std::memory_order_release);
    w->wake.release();
  }
  for (auto& w : workers_) pthread_join(w->thread, nullptr);
  for (auto& inst : owned_) ReleaseInstrument(*inst, cache_);
}

void SynthEngine::WorkerMain(Worker& worker) {
  const kvFlushToZeroScope ftz;
  for (;;) {
    worker.wake.acquire();
    if (worker.quit.load(std::memory_order_acquire)) return;
    VoiceLoop();
    busyWorkers_.fetch_sub(1, std::memory_order_acq_rel);
  }
}

void SynthEngine::SetSampleRate(uint32_t rate) {
  if (rate == 0 || rate == sampleRate_) return;
  for (uint32_t g = 0; g < groups_.size(); ++g)
    if (groups_[g].inUse) KillNote(g);
  sampleRate_ = rate;
  inverseRate_ = 1.0f / static_cast<float>(rate);
  // Every line is given back before the pool is made anew for the rate.
  for (std::size_t c = 0; c < channels_.size(); ++c)
    for (ChannelFxState& slot : buses_[c].fx) configure(slot, ChannelFxConfig{}, static_cast<float>(rate), fxPool_);
  fxPool_.Reserve(FxPoolFloats(static_cast<int>(channels_.size()), static_cast<float>(rate)));
  for (std::size_t c = 0; c < channels_.size(); ++c) {
    channels_[c].rampStepsFactor = static_cast<uint32_t>(static_cast<float>(rate) * 0.000390625f);
    ReconfigureBus(static_cast<int>(c));
  }
}

// ---------------------------------------------------------------- the ring

uint32_t SynthEngine::StampForSeconds(uint32_t rate, double seconds) {
  const double frames = std::floor(static_cast<double>(rate) * seconds);
  return frames > 0.0 ? static_cast<uint32_t>(static_cast<uint64_t>(frames) / kSynthBlock) : 0;
}

uint32_t SynthEngine::StampForMs(uint32_t rate, uint32_t ms) {
  return static_cast<uint32_t>((uint64_t{rate} * ms + 500) / 1000 / kSynthBlock);
}

void SynthEngine::QueueAtSeconds(MidiWord word, double seconds) { QueueAtBlock(word, StampForSeconds(sampleRate_, seconds)); }
void SynthEngine::QueueAtMs(MidiWord word, uint32_t ms) { QueueAtBlock(word, StampForMs(sampleRate_, ms)); }

void SynthEngine::QueueAtBlock(MidiWord word, uint32_t block) {
  if (word == 0) return;
  std::size_t index = writeIndex_.load(std::memory_order_relaxed);
  // Claim order is play order: a writer owns its slot once the index moved.
  while (!writeIndex_.compare_exchange_weak(index, (index + 1) % ringCapacity_, std::memory_order_acq_rel,
                                            std::memory_order_relaxed)) {
  }
  RingEntry& e = ring_[index];
  e.stamp.store(block, std::memory_order_relaxed);
  e.word.store(word, std::memory_order_release);
}

double SynthEngine::TimeSeconds() const {
  return static_cast<double>(blockCounter_.load(std::memory_order_acquire)) * kSynthBlock / sampleRate_;
}

uint64_t SynthEngine::TimeMs() const {
  return uint64_t{blockCounter_.load(std::memory_order_acquire)} * kSynthBlock * 1000 / sampleRate_;
}

void SynthEngine::ResizeRing(std::size_t capacity) {
  capacity = std::max<std::size_t>(capacity, 2);
  ring_ = std::make_unique<RingEntry[]>(capacity);
  ringCapacity_ = capacity;
  writeIndex_.store(0, std::memory_order_release);
  readIndex_ = 0;
}

void SynthEngine::Seek(double seconds, bool shutVoices) {
  for (std::size_t i = 0; i < ringCapacity_; ++i) {
    ring_[i].word.store(0, std::memory_order_relaxed);
    ring_[i].stamp.store(0, std::memory_order_relaxed);
  }
  writeIndex_.store(0, std::memory_order_release);
  readIndex_ = 0;
  blockCounter_.store(StampForSeconds(sampleRate_, seconds), std::memory_order_release);
  if (shutVoices) {
    for (uint32_t v = 0; v < VoiceCount(); ++v) voices_[v].head.shutdown = true;
    fxReset_.store(1, std::memory_order_release);
  }
}

// ---------------------------------------------------------------- instruments

std::atomic<SynthInstrument*>* SynthEngine::Slot(InstrumentKey key, bool forInsert) const {
  std::atomic<SynthInstrument*>* reuse = nullptr;
  std::size_t at = Fnv1a(key) & (kTableSize - 1);
  for (std::size_t probe = 0; probe < kTableSize; ++probe, at = (at + 1) & (kTableSize - 1)) {
    SynthInstrument* inst = table_[at].load(std::memory_order_acquire);
    if (!inst) return forInsert ? (reuse ? reuse : &table_[at]) : nullptr;
    if (inst == &g_tombstone) {
      if (!reuse) reuse = &table_[at];
      continue;
    }
    if (inst->key == key) return &table_[at];
  }
  return forInsert ? reuse : nullptr;
}

SynthInstrument* SynthEngine::Lookup(InstrumentKey key) const {
  std::atomic<SynthInstrument*>* slot = Slot(key, false);
  return slot ? slot->load(std::memory_order_acquire) : nullptr;
}

const SynthInstrument* SynthEngine::FindInstrument(InstrumentKey key) const { return Lookup(key & kLocationMask); }

void SynthEngine::WaitWhileLive(const std::atomic<SynthInstrument*>& word) {
  while (word.load(std::memory_order_acquire) && live.load(std::memory_order_acquire)) std::this_thread::yield();
}

bool SynthEngine::AddInstrument(std::unique_ptr<SynthInstrument> instrument, bool replace) {
  if (!instrument) return false;
  instrument->key &= kLocationMask;
  std::atomic<SynthInstrument*>* slot = Slot(instrument->key, true);
  if (!slot) {
    ReleaseInstrument(*instrument, cache_);
    return false;
  }
  SynthInstrument* fresh = instrument.get();
  SynthInstrument* old = slot->load(std::memory_order_acquire);
  if (old == &g_tombstone) old = nullptr;
  // The worst chord this instrument can start must fit the note scratch;
  // the audio thread never grows it.
  if (fresh->maxZonesPerNote > selected_.capacity() && !live.load()) selected_.reserve(fresh->maxZonesPerNote);
  owned_.push_back(std::move(instrument));
  // The new one is found from here on, so a program change can't pick the
  // old one up again while it goes.
  slot->store(fresh, std::memory_order_release);
  if (!old) return true;
  if (replace) {
    pendingNew_.store(fresh, std::memory_order_release);
    pendingOld_.store(old, std::memory_order_release);
    WaitWhileLive(pendingOld_);
    if (pendingOld_.load(std::memory_order_acquire)) {
      ReplaceNow(old, fresh);
      pendingNew_.store(nullptr, std::memory_order_release);
      pendingOld_.store(nullptr, std::memory_order_release);
    }
  } else {
    pendingRemoval_.store(old, std::memory_order_release);
    WaitWhileLive(pendingRemoval_);
    if (pendingRemoval_.load(std::memory_order_acquire)) {
      RemoveNow(old);
      pendingRemoval_.store(nullptr, std::memory_order_release);
    }
  }
  ReleaseInstrument(*old, cache_);
  owned_.erase(std::find_if(owned_.begin(), owned_.end(), [old](const auto& p) { return p.get() == old; }));
  return true;
}

void SynthEngine::RemoveAllInstruments() {
  for (std::size_t i = 0; i < kTableSize; ++i) {
    SynthInstrument* inst = table_[i].load(std::memory_order_acquire);
    if (!inst || inst == &g_tombstone) continue;
    table_[i].store(&g_tombstone, std::memory_order_release);
    pendingRemoval_.store(inst, std::memory_order_release);
    WaitWhileLive(pendingRemoval_);
    if (pendingRemoval_.load(std::memory_order_acquire)) {
      RemoveNow(inst);
      pendingRemoval_.store(nullptr, std::memory_order_release);
    }
  }
  // Nothing is left to be found: the table can start empty again.
  for (std::size_t i = 0; i < kTableSize; ++i) table_[i].store(nullptr, std::memory_order_release);
  for (auto& inst : owned_) ReleaseInstrument(*inst, cache_);
  owned_.clear();
  cache_.Clear();
  fxReset_.store(1, std::memory_order_release);
}

void SynthEngine::RemoveNow(SynthInstrument* instrument) {
  for (uint32_t g = 0; g < groups_.size(); ++g)
    if (groups_[g].inUse && groups_[g].instrument == instrument) KillNote(g);
  for (auto& ch : channels_)
    if (ch.instrument == instrument) ch.instrument = nullptr;
}

void SynthEngine::ReplaceNow(SynthInstrument* old, SynthInstrument* fresh) {
  for (std::size_t c = 0; c < channels_.size(); ++c)
    if (channels_[c].instrument == old) {
      channels_[c].instrument = fresh;
      ReconfigureBus(static_cast<int>(c));
    }
  for (auto& g : groups_)
    if (g.inUse && g.instrument == old) g.instrument = fresh;
  auto find = [](const SynthInstrument& inst, ItemId id) -> const SynthZone* {
    for (const SynthZone& z : inst.zones)
      if (z.id == id) return &z;
    return nullptr;
  };
  for (uint32_t v = 0; v < VoiceCount(); ++v) {
    SynthVoice& h = voices_[v].head;
    if (!find(*old, h.zoneId)) continue;
    const SynthZone* zone = find(*fresh, h.zoneId);
    if (!zone || zone->kind != h.kind) {
      h.shutdown = true;
      h.zone = nullptr;
      continue;
    }
    h.zone = zone;
    h.pan = zone->pan;
    h.cc10ToPan = zone->cc10ToPan;
    std::copy(std::begin(zone->sendLevel), std::end(zone->sendLevel), h.sendLevel);
    std::copy(std::begin(zone->sendDepth), std::end(zone->sendDepth), h.sendDepth);
    const VoiceKind& kind = GetVoiceKind(h.kind);
    if (kind.init) kind.init(voices_[v], *zone, static_cast<float>(sampleRate_), true);
  }
}

void SynthEngine::ReconfigureBus(int channel) {
  const SynthInstrument* inst = channels_[static_cast<std::size_t>(channel)].instrument;
  ChannelBus& bus = buses_[static_cast<std::size_t>(channel)];
  for (int s = 0; s < 4; ++s)
    configure(bus.fx[s], inst ? inst->fx[static_cast<std::size_t>(s)] : ChannelFxConfig{}, static_cast<float>(sampleRate_),
              fxPool_);
}

// ---------------------------------------------------------------- notes and voices

uint32_t SynthEngine::AllocateGroup() {
  if (freeGroups_.empty()) return kNoVoice;
  const uint32_t g = freeGroups_.back();
  freeGroups_.pop_back();
  groups_[g] = NoteGroup{};
  groups_[g].inUse = true;
  ++groupsInUse_;
  return g;
}

void SynthEngine::FreeGroup(uint32_t g) {
  NoteGroup& group = groups_[g];
  if (!group.inUse) return;
  auto& notes = channels_[group.channel].notes;
  notes.erase(std::find(notes.begin(), notes.end(), g));
  group.inUse = false;
  group.firstVoice = kNoVoice;
  group.voiceCount = 0;
  freeGroups_.push_back(g);
  --groupsInUse_;
}

void SynthEngine::KillVoice(uint32_t v) {
  const uint32_t g = voices_[v].head.group;
  NoteGroup& group = groups_[g];
  // Unlink from the group's list.
  if (group.firstVoice == v) {
    group.firstVoice = voices_[v].head.nextInGroup;
  } else {
    for (uint32_t p = group.firstVoice; p != kNoVoice; p = voices_[p].head.nextInGroup)
      if (voices_[p].head.nextInGroup == v) {
        voices_[p].head.nextInGroup = voices_[v].head.nextInGroup;
        break;
      }
  }
  --group.voiceCount;
  // The last voice takes the freed place; only the bytes its kind uses move.
  const uint32_t last = voiceCount_.load(std::memory_order_relaxed) - 1;
  if (v != last) {
    std::memcpy(static_cast<void*>(&voices_[v]), &voices_[last], voices_[last].head.recordSize);
    NoteGroup& moved = groups_[voices_[v].head.group];
    if (moved.firstVoice == last) {
      moved.firstVoice = v;
    } else {
      for (uint32_t p = moved.firstVoice; p != kNoVoice; p = voices_[p].head.nextInGroup)
        if (voices_[p].head.nextInGroup == last) {
          voices_[p].head.nextInGroup = v;
          break;
        }
    }
  }
  voiceCount_.store(last, std::memory_order_release);
  if (group.voiceCount == 0) FreeGroup(g);
}

void SynthEngine::KillNote(uint32_t g) {
  while (groups_[g].inUse && groups_[g].firstVoice != kNoVoice) KillVoice(groups_[g].firstVoice);
  FreeGroup(g);
}

void SynthEngine::ShutdownNote(uint32_t g) {
  for (uint32_t v = groups_[g].firstVoice; v != kNoVoice; v = voices_[v].head.nextInGroup)
    voices_[v].head.shutdown = true;
}

uint32_t SynthEngine::QuietestNote(bool skipShutting) const {
  uint32_t best = kNoVoice;
  int64_t bestValue = 0;
  for (uint32_t g = 0; g < groups_.size(); ++g) {
    const NoteGroup& group = groups_[g];
    if (!group.inUse || (skipShutting && group.shutting)) continue;
    float loudest = 0.0f;
    for (uint32_t v = group.firstVoice; v != kNoVoice; v = voices_[v].head.nextInGroup)
      loudest = std::max(loudest, voices_[v].head.lastGain);
    const auto value = static_cast<int64_t>(loudest * 65536.0f);
    if (best == kNoVoice || value < bestValue) {
      best = g;
      bestValue = value;
    }
  }
  return best;
}

bool SynthEngine::BooksBalance() const {
  const uint32_t voices = VoiceCount();
  if (groupsInUse_ > groups_.size() || voices > voices_.size()) return false;
  if (freeGroups_.size() + groupsInUse_ != groups_.size()) return false;
  std::vector<uint8_t> seen(voices, 0);
  uint32_t inUse = 0;
  for (uint32_t g = 0; g < groups_.size(); ++g) {
    const NoteGroup& group = groups_[g];
    if (!group.inUse) continue;
    ++inUse;
    uint32_t count = 0;
    for (uint32_t v = group.firstVoice; v != kNoVoice; v = voices_[v].head.nextInGroup) {
      if (v >= voices || seen[v]++ || voices_[v].head.group != g || voices_[v].head.channel != group.channel ||
          ++count > voices)
        return false;
    }
    if (count != group.voiceCount || count == 0) return false;
  }
  uint32_t listed = 0;
  for (std::size_t c = 0; c < channels_.size(); ++c)
    for (uint32_t g : channels_[c].notes) {
      if (g >= groups_.size() || !groups_[g].inUse || groups_[g].channel != c) return false;
      ++listed;
    }
  return inUse == groupsInUse_ && listed == inUse &&
         std::all_of(seen.begin(), seen.end(), [](uint8_t n) { return n == 1; });
}

bool SynthEngine::StealNote() {
  const uint32_t g = QuietestNote(false);
  if (g == kNoVoice) return false;
  KillNote(g);
  return true;
}

void SynthEngine::ShedOneNote(bool soft) {
  const uint32_t g = QuietestNote(soft);
  if (g == kNoVoice) return;
  if (soft) {
    groups_[g].shutting = true;
    ShutdownNote(g);
  } else {
    KillNote(g);
  }
}

void SynthEngine::FreeDeadVoices() {
  const uint32_t count = deadCount_.load(std::memory_order_acquire);
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t v = dead_[i];
    const uint32_t last = voiceCount_.load(std::memory_order_relaxed) - 1;
    KillVoice(v);
    // The voice moved into v's place may itself be waiting further on.
    if (v != last)
      for (uint32_t j = i + 1; j < count; ++j)
        if (dead_[j] == last) dead_[j] = v;
  }
  deadCount_.store(0, std::memory_order_release);
}

// ---------------------------------------------------------------- dispatch

void SynthEngine::StartRamp(int channel, RampId id, float& value, float target, float rateFactor) {
  SynthChannel& ch = channels_[static_cast<std::size_t>(channel)];
  Ramp& r = ch.ramp[id];
  if (ch.notes.empty()) {
    // Nothing sounds: nothing to glide.
    if (r.steps) --ch.activeRamps;
    r.steps = 0;
    value = target;
    return;
  }
  const float steps = std::fabs(target - value) * static_cast<float>(ch.rampStepsFactor) * rateFactor;
  const uint32_t n = std::max<uint32_t>(1, steps < 4.0e9f ? static_cast<uint32_t>(steps) : 4000000000u);
  if (!r.steps) ++ch.activeRamps;
  r.steps = n;
  r.target = target;
  r.delta = (target - value) / static_cast<float>(n);
}

void SynthEngine::StepRamps(int channel) {
  SynthChannel& ch = channels_[static_cast<std::size_t>(channel)];
  if (ch.activeRamps == 0) return;
  for (int i = 0; i < kRampCount; ++i) {
    Ramp& r = ch.ramp[i];
    if (!r.steps) continue;
    float& value = RampValue(ch, i);
    value = --r.steps ? value + r.delta : r.target;
    if (!r.steps) --ch.activeRamps;
    if (i == kRampPortamento)
      for (uint32_t g : ch.notes)
        for (uint32_t v = groups_[g].firstVoice; v != kNoVoice; v = voices_[v].head.nextInGroup)
          voices_[v].head.pitchOffset = ch.portamentoKey - voices_[v].head.key + ch.fineTune;
  }
  for (uint32_t g : ch.notes)
    for (uint32_t v = groups_[g].firstVoice; v != kNoVoice; v = voices_[v].head.nextInGroup) {
      voices_[v].head.modulation = ch.modulation;
      voices_[v].head.bend = ch.bend;
      voices_[v].head.pressure = ch.pressure;
    }
}

void SynthEngine::Dispatch(MidiWord word) {
  const int channel = WordChannelIndex(word);
  if (channel >= static_cast<int>(channels_.size())) return;
  SynthChannel& ch = channels_[static_cast<std::size_t>(channel)];
  const int d1 = WordData1(word), d2 = WordData2(word);
  switch (WordStatus(word)) {
    case 0x80: NoteOff(channel, d1); break;
    case 0x90: d2 == 0 ? NoteOff(channel, d1) : NoteOn(channel, d1, d2); break;
    case 0xA0:
      for (uint32_t g : ch.notes)
        if (groups_[g].key == d1)
          for (uint32_t v = groups_[g].firstVoice; v != kNoVoice; v = voices_[v].head.nextInGroup)
            voices_[v].head.pressure = static_cast<float>(d2) / 127.0f;
      break;
    case 0xB0:
      if (d1 <= 128) ControlChange(channel, d1, d2);
      break;
    case 0xC0: ProgramChange(channel, d1); break;
    case 0xD0: StartRamp(channel, kRampPressure, ch.pressure, static_cast<float>(d1) / 127.0f, 1.0f); break;
    case 0xE0: {
      int v = (d2 - 64) * 128 + d1;
      if (v >= 1) ++v;
      StartRamp(channel, kRampBend, ch.bend, static_cast<float>(v) / 8192.0f, 0.5f);
      break;
    }
    default: break;
  }
}

void SynthEngine::ControlChange(int channel, int cc, int value) {
  SynthChannel& ch = channels_[static_cast<std::size_t>(channel)];
  MidiChannelState& st = states_[static_cast<std::size_t>(channel)];
  const auto v = static_cast<uint8_t>(value);
  auto volume = [&] {
    const float level = Level14(st.volume, st.volumeLsb) * Level14(st.expression, st.expressionLsb);
    StartRamp(channel, kRampVolume, ch.volume, level * level, 1.0f / 96.0f);
  };
  switch (cc) {
    case 0: st.key = (st.key & ~kKeyMsbMask) | (uint32_t{v} & 0x7F) << 14; break;
    case 32: st.key = (st.key & ~kKeyLsbMask) | (uint32_t{v} & 0x7F) << 7; break;
    case 1:
    case 33:
      (cc == 1 ? st.modulation : st.modulationLsb) = v;
      StartRamp(channel, kRampModulation, ch.modulation, Level14(st.modulation, st.modulationLsb), 1.0f);
      break;
    case 5:
    case 37: {
      (cc == 5 ? st.portaMsb : st.portaLsb) = v;
      const int lsb = st.portaLsb == 255 ? 0 : st.portaLsb;
      ch.portamentoTime = std::exp(static_cast<float>(st.portaMsb * 128 + lsb + 1) * 6.1035156e-5f * 6.4f * 0.6931472f) * 0.005f;
      break;
    }
    case 6: st.dataMsb = v; DataEntry(channel); break;
    case 38: st.dataLsb = v; DataEntry(channel); break;
    case 96:
    case 97: {
      const int n = st.rpnMsb * 128 + st.rpnLsb;
      int msb = st.dataMsb, lsb = st.dataLsb == 255 ? 0 : st.dataLsb;
      if (n >= 2 && n <= 4) {
        msb = cc == 96 ? std::min(msb + 1, 127) : std::max(msb - 1, 0);
      } else {
        int value14 = msb * 128 + lsb;
        value14 = cc == 96 ? std::min(value14 + 1, 16383) : std::max(value14 - 1, 0);
        msb = value14 >> 7;
        lsb = value14 & 0x7F;
      }
      st.dataMsb = static_cast<uint8_t>(msb);
      if (!(n >= 2 && n <= 4)) st.dataLsb = static_cast<uint8_t>(lsb);
      DataEntry(channel);
      break;
    }
    case 7: st.volume = v; volume(); break;
    case 39: st.volumeLsb = v; volume(); break;
    case 11: st.expression = v; volume(); break;
    case 43: st.expressionLsb = v; volume(); break;
    case 10:
    case 42: {
      (cc == 10 ? st.pan : st.panLsb) = v;
      float target;
      if (st.panLsb == 255) {
        int p = st.pan - 64;
        if (st.pan >= 64) ++p;
        target = static_cast<float>(p) / 63.0f;
      } else {
        int p = st.pan * 128 + st.panLsb - 8192;
        if (p >= 0) ++p;
        target = static_cast<float>(p) * 0.00012208521f;
      }
      StartRamp(channel, kRampPan, ch.pan, target, 0.5f);
      break;
    }
    case 64: {
      const bool on = v >= 64;
      if (on == ch.sustain) break;
      ch.sustain = on;
      if (!on) {
        scratch_.clear();
        for (uint32_t g : ch.notes)
          if (groups_[g].heldBySustain) scratch_.push_back(g);
        for (uint32_t g : scratch_)
          if (groups_[g].inUse && groups_[g].heldBySustain) {
            groups_[g].heldBySustain = false;
            FinishRelease(g, true);
          }
      }
      break;
    }
    case 65: ch.portamento = v >= 64; break;
    case 66: {
      const bool on = v >= 64;
      if (on == ch.sostenuto) break;
      ch.sostenuto = on;
      scratch_.assign(ch.notes.begin(), ch.notes.end());
      for (uint32_t g : scratch_) {
        NoteGroup& note = groups_[g];
        if (!note.inUse) continue;
        if (on) {
          // Notes already let go (release zones among them) are not held.
          if (!note.released) note.heldBySostenuto = true;
          continue;
        }
        if (!note.heldBySostenuto) continue;
        note.heldBySostenuto = false;
        if (!note.released) continue;
        if (ch.sustain) note.heldBySustain = true;
        else FinishRelease(g, true);
      }
      break;
    }
    case 67:
      ch.soft = v >= 64;
      if (ch.soft)
        for (uint32_t g : ch.notes)
          for (uint32_t vo = groups_[g].firstVoice; vo != kNoVoice; vo = voices_[vo].head.nextInGroup)
            voices_[vo].head.soft = true;
      break;
    // CC 92 and 94 are not taken: sends C and D stay 0.
    case 91: StartRamp(channel, kRampSendA, ch.send[0], static_cast<float>(v) / 127.0f, 1.0f); break;
    case 93: StartRamp(channel, kRampSendB, ch.send[1], static_cast<float>(v) / 127.0f, 1.0f); break;
    case 100: st.rpnLsb = v; break;
    case 101: st.rpnMsb = v; break;
    case 120:
      while (!ch.notes.empty()) KillNote(ch.notes.back());
      break;
    case 121: {
      st.volume = 100;
      st.expression = 127;
      st.modulation = 0;
      st.volumeLsb = st.expressionLsb = st.modulationLsb = 255;
      const int group = channel / 16, midi = channel % 16;
      for (auto [c, val] : {std::pair{7, 100}, {11, 127}, {1, 0}, {64, 0}, {69, 0}, {65, 0}, {66, 0}, {68, 0}})
        Dispatch(MakeMidiWord(0xB0, midi, c, val, group));
      Dispatch(MakeMidiWord(0xE0, midi, 0, 64, group));
      Dispatch(MakeMidiWord(0xD0, midi, 0, 0, group));
      break;
    }
    case 123:
      scratch_.assign(ch.notes.begin(), ch.notes.end());
      for (uint32_t g : scratch_)
        if (groups_[g].inUse && !groups_[g].released) ReleaseNote(g, false);
      break;
    case 126:
    case 127:
      ch.mono = cc == 126;
      while (ch.notes.size() > 1) KillNote(ch.notes.back());
      break;
    case 128:
      if (v >= 64) st.key |= kKeyDrum;
      else st.key &= ~kKeyDrum;
      break;
    default: break;
  }
}

void SynthEngine::DataEntry(int channel) {
  SynthChannel& ch = channels_[static_cast<std::size_t>(channel)];
  const MidiChannelState& st = states_[static_cast<std::size_t>(channel)];
  // The RPN bytes as stored: an LSB of 255 selects nothing.
  const int n = st.rpnMsb * 128 + st.rpnLsb;
  const int lsb = st.dataLsb == 255 ? 0 : st.dataLsb;
  switch (n) {
    case 0: ch.bendRange = static_cast<float>(st.dataMsb) + static_cast<float>(lsb) * 0.01f; break;
    case 1: ch.fineTune = static_cast<float>((st.dataMsb - 64) * 128 + lsb) * 0.00012207031f; break;
    case 2: ch.coarseTune = st.dataMsb - 64; break;
    case 16383:
      ch.bendRange = kBendRangeUnset;
      ch.fineTune = 0.0f;
      ch.coarseTune = 0;
      break;
    default: break;
  }
}

void SynthEngine::ProgramChange(int channel, int program) {
  MidiChannelState& st = states_[static_cast<std::size_t>(channel)];
  st.key = (st.key & ~kKeyProgramMask) | (static_cast<uint32_t>(program) & 0x7F);
  st.programReceived = 1;
  uint32_t key = st.key & kLocationMask;
  SynthInstrument* inst = Lookup(key);
  if (!inst && (key & kKeyLsbMask)) inst = Lookup(key &= ~kKeyLsbMask);
  if (!inst && (key & kKeyMsbMask)) inst = Lookup(key &= ~kKeyMsbMask);
  if (!inst && (key & kKeyDrum) && (key & kKeyProgramMask)) inst = Lookup(key & ~kKeyProgramMask);
  SynthChannel& ch = channels_[static_cast<std::size_t>(channel)];
  if (!inst || inst == ch.instrument) return;
  ch.instrument = inst;
  if (effects.load(std::memory_order_relaxed)) ReconfigureBus(channel);
}

void SynthEngine::NoteOn(int channel, int key, int velocity) {
  Trigger(channel, 0, key, velocity, channels_[static_cast<std::size_t>(channel)].sustain);
}

void SynthEngine::NoteOff(int channel, int key) {
  SynthChannel& ch = channels_[static_cast<std::size_t>(channel)];
  for (uint32_t g : ch.notes)
    if (groups_[g].key == key && !groups_[g].released) {
      ReleaseNote(g, true);
      return;
    }
  // No note holds the key: its release-trigger zones still play.
  Trigger(channel, 1, key, 64, ch.sustain);
}

void SynthEngine::ReleaseNote(uint32_t g, bool withReleaseZones) {
  NoteGroup& group = groups_[g];
  group.released = true;
  const SynthChannel& ch = channels_[group.channel];
  if (!ch.sustain && !group.heldBySostenuto) {
    FinishRelease(g, withReleaseZones);
    return;
  }
  if (!group.heldBySostenuto) group.heldBySustain = true;
  for (uint32_t v = group.firstVoice; v != kNoVoice; v = voices_[v].head.nextInGroup) voices_[v].head.held = true;
}

void SynthEngine::FinishRelease(uint32_t g, bool withReleaseZones) {
  NoteGroup& group = groups_[g];
  for (uint32_t v = group.firstVoice; v != kNoVoice; v = voices_[v].head.nextInGroup) {
    voices_[v].head.keyReleased = true;
    voices_[v].head.held = false;
  }
  if (withReleaseZones)
    Trigger(group.channel, 1, group.key, group.velocity, channels_[group.channel].sustain);
}

void SynthEngine::SelectZones(int channel, const SynthInstrument& inst, int key, int velocity, int trigger,
                              bool sustain) {
  SynthChannel& ch = channels_[static_cast<std::size_t>(channel)];
  selected_.clear();
  uint32_t settled = 0;  // alternate groups looked at for this note
  const std::size_t room = selected_.capacity();
  for (std::size_t z = 0; z < inst.zones.size(); ++z) {
    const SynthZone& zone = inst.zones[z];
    auto passes = [&](const SynthZone& o) {
      return o.Holds(key, velocity) && !(o.pedalSwitch == 1 && !sustain) && !(o.pedalSwitch == 2 && sustain);
    };
    if (!passes(zone)) continue;
    if (zone.trigger >= 2 && zone.trigger <= 17) {
      const int groupBit = zone.trigger - 2;
      if (trigger != 0 || (settled >> groupBit & 1u)) continue;
      uint32_t n = 0, before = 0;
      for (std::size_t o = 0; o < inst.zones.size(); ++o)
        if (inst.zones[o].trigger == zone.trigger && passes(inst.zones[o])) {
          ++n;
          if (o < z) ++before;
        }
      if (before != ch.roundRobin[groupBit] % n) continue;
      settled |= 1u << groupBit;
      ch.roundRobin[groupBit] = static_cast<uint8_t>((before + 1) % n);
    } else if (zone.trigger != trigger) {
      continue;
    }
    // A chord past the voice array is cut short rather than grown here.
    if (selected_.size() == room) break;
    selected_.push_back(&zone);
  }
}

namespace {

float CrossfadeGain(const SynthZone& z, int k, int v) {
  float g = 1.0f;
  if (k < z.loKey + z.keyFadeIn) g = static_cast<float>(k - z.loKey + 1) / static_cast<float>(z.keyFadeIn + 1);
  else if (k > z.hiKey - z.keyFadeOut) g = static_cast<float>(z.hiKey - k + 1) / static_cast<float>(z.keyFadeOut + 1);
  if (z.keyFadeCurve != 1) g = std::sqrt(g);
  auto side = [&](float h) { return z.velFadeCurve != 1 ? std::sqrt(h) : h; };
  if (v < z.loVel + z.velFadeIn) g *= side(static_cast<float>(v - z.loVel + 1) / static_cast<float>(z.velFadeIn + 1));
  if (v > z.hiVel - z.velFadeOut) g *= side(static_cast<float>(z.hiVel - v + 1) / static_cast<float>(z.velFadeOut + 1));
  return g;
}

}  // namespace

float SynthEngine::CrossfadeFor(const SynthZone& zone, int key, int velocity) { return CrossfadeGain(zone, key, velocity); }

void SynthEngine::Trigger(int channel, int trigger, int key, int velocity, bool sustain) {
  SynthChannel& ch = channels_[static_cast<std::size_t>(channel)];
  if (!ch.instrument) ch.instrument = Lookup(0);
  if (!ch.instrument) return;

  if (trigger == 0 && ch.portamento) {
    for (uint32_t g : ch.notes) {
      NoteGroup& note = groups_[g];
      if (note.released) continue;
      if (note.key == key) return;
      // Legato: the sounding note glides to the new key instead.
      if (!ch.ramp[kRampPortamento].steps) ch.portamentoKey = note.key;
      const float factor = static_cast<float>(sampleRate_) * ch.portamentoTime /
                           (static_cast<float>(std::max<uint32_t>(ch.rampStepsFactor, 1)) * kSynthBlock);
      StartRamp(channel, kRampPortamento, ch.portamentoKey, static_cast<float>(key), factor);
      note.key = static_cast<uint8_t>(key);
      return;
    }
  }
  if (ch.coarseTune) key = std::clamp(key - ch.coarseTune, 0, 127);

  SelectZones(channel, *ch.instrument, key, velocity, trigger, sustain);
  if (selected_.empty()) return;

  if (!(ch.mono && trigger == 0)) {
    for (uint32_t g : ch.notes) {
      const bool sameKey = groups_[g].key == key;
      for (uint32_t v = groups_[g].firstVoice; v != kNoVoice; v = voices_[v].head.nextInGroup) {
        SynthVoice& h = voices_[v].head;
        if (sameKey && h.exclusionMode == 0) h.shutdown = true;
        if (h.exclusionGroup)
          for (const SynthZone* z : selected_)
            if (z->exclusionGroup == h.exclusionGroup) h.shutdown = true;
      }
    }
  } else {
    for (uint32_t g : ch.notes) ShutdownNote(g);
  }

  if (freeGroups_.empty()) StealNote();
  for (std::size_t i = 0; i < selected_.size() && FreeVoices() < selected_.size(); ++i)
    if (!StealNote()) break;
  uint32_t g = AllocateGroup();
  if (g == kNoVoice && StealNote()) g = AllocateGroup();
  if (g == kNoVoice) return;

  NoteGroup& note = groups_[g];
  note.channel = static_cast<uint16_t>(channel);
  note.key = static_cast<uint8_t>(key);
  note.velocity = static_cast<uint8_t>(velocity);
  note.instrument = ch.instrument;
  note.released = trigger == 1;
  ch.notes.push_back(g);

  const ChannelBus& bus = buses_[static_cast<std::size_t>(channel)];
  for (const SynthZone* zone : selected_) {
    const VoiceKind& kind = GetVoiceKind(zone->kind);
    if (!kind.init) continue;
    const uint32_t v = voiceCount_.load(std::memory_order_relaxed);
    if (v >= voices_.size()) break;
    VoiceRecord& rec = voices_[v];
    std::memset(static_cast<void*>(&rec), 0, std::max<std::size_t>(kind.recordSize, sizeof(SynthVoice)));
    SynthVoice& h = rec.head;
    h = SynthVoice{};
    h.kind = zone->kind;
    h.recordSize = std::max<uint16_t>(kind.recordSize, static_cast<uint16_t>(sizeof(SynthVoice)));
    h.channel = static_cast<uint16_t>(channel);
    h.zoneId = zone->id;
    h.zone = zone;
    h.group = g;
    h.key = static_cast<float>(key);
    h.velocity = static_cast<float>(velocity) / 127.0f;
    h.bendRange = ch.bendRange;
    h.exclusionGroup = zone->exclusionGroup;
    h.exclusionMode = zone->exclusionMode;
    h.delay = zone->delay;
    h.pitchOffset = ch.fineTune;
    h.modulation = ch.modulation;
    h.bend = ch.bend;
    h.pressure = ch.pressure;
    h.soft = ch.soft;
    h.keyReleased = trigger == 1;
    h.pan = zone->pan;
    h.cc10ToPan = zone->cc10ToPan;
    std::copy(std::begin(zone->sendLevel), std::end(zone->sendLevel), h.sendLevel);
    std::copy(std::begin(zone->sendDepth), std::end(zone->sendDepth), h.sendDepth);
    h.stereo = zone->wave.stereo;
    h.amplitude = 1.0f;
    kind.init(rec, *zone, static_cast<float>(sampleRate_), false);
    h.crossfade = CrossfadeGain(*zone, key, velocity);
    float left, right;
    VoicePanGains(h, bus, left, right);
    h.gainLeft = left * h.crossfade * h.amplitude;
    h.gainRight = right * h.crossfade * h.amplitude;
    h.lastGain = h.crossfade * h.amplitude;
    h.started = true;
    h.nextInGroup = note.firstVoice;
    note.firstVoice = v;
    ++note.voiceCount;
    voiceCount_.store(v + 1, std::memory_order_release);
  }
  if (note.voiceCount == 0) FreeGroup(g);
}

// ---------------------------------------------------------------- rendering

// A stereo voice is a merged hard-left/hard-right pair, so its pan acts as a
// balance: centred it plays both sides at full gain, as the pair did. The
// plain constant-power law would leave every merged stereo sound 3 dB below
// the mono sounds around it.
void SynthEngine::VoicePanGains(const SynthVoice& h, const ChannelBus& bus, float& left, float& right) {
  kvPanGains(bus.pan * h.cc10ToPan + h.pan + h.livePan, left, right);
  if (h.stereo) {
    left = std::min(1.0f, left * 1.4142135f);
    right = std::min(1.0f, right * 1.4142135f);
  }
}

void SynthEngine::MixVoice(VoiceRecord& rec, const float* block) {
  SynthVoice& h = rec.head;
  ChannelBus& bus = buses_[h.channel];
  float left, right;
  VoicePanGains(h, bus, left, right);
  const float scale = h.crossfade * h.amplitude;
  left *= scale;
  right *= scale;
  const float fromLeft = h.started ? h.gainLeft : left, fromRight = h.started ? h.gainRight : right;
  const float stepLeft = (left - fromLeft) / kSynthBlock, stepRight = (right - fromRight) / kSynthBlock;
  alignas(16) float panned[2 * kSynthBlock];
  for (int i = 0; i < kSynthBlock; ++i) {
    const float gl = fromLeft + stepLeft * static_cast<float>(i + 1);
    const float gr = fromRight + stepRight * static_cast<float>(i + 1);
    panned[2 * i] = block[2 * i] * gl;
    panned[2 * i + 1] = block[2 * i + 1] * gr;
  }
  h.gainLeft = left;
  h.gainRight = right;
  h.started = true;
  float level[4];
  for (int s = 0; s < 4; ++s) level[s] = std::clamp(h.sendLevel[s] + h.sendDepth[s] * bus.send[s], 0.0f, 1.0f);

  while (bus.lock.exchange(1, std::memory_order_acquire)) std::this_thread::yield();
  auto add = [](float* to, const float* from, float gain, bool& empty) {
    if (empty) {
      for (int i = 0; i < 2 * kSynthBlock; ++i) to[i] = from[i] * gain;
      empty = false;
    } else {
      for (int i = 0; i < 2 * kSynthBlock; ++i) to[i] += from[i] * gain;
    }
  };
  add(bus.dry, panned, 1.0f, bus.empty);
  for (int s = 0; s < 4; ++s)
    if (level[s] > 0.0f) add(bus.sendBus[s], panned, level[s], bus.sendEmpty[s]);
  bus.lock.store(0, std::memory_order_release);
}

void SynthEngine::VoiceLoop() {
  alignas(16) thread_local float block[2 * kSynthBlock];
  const float rate = static_cast<float>(sampleRate_);
  for (;;) {
    const uint32_t v = claim_.fetch_add(1, std::memory_order_acq_rel);
    if (v >= renderCount_) return;
    VoiceRecord& rec = voices_[v];
    const VoiceKind& kind = GetVoiceKind(rec.head.kind);
    const bool alive = kind.render && kind.render(rec, block, rate);
    if (!alive) dead_[deadCount_.fetch_add(1, std::memory_order_acq_rel)] = v;
    rec.head.lastGain = rec.head.amplitude * rec.head.crossfade;
    if (rec.head.lastGain > 1e-6f) MixVoice(rec, block);
    finished_.fetch_add(1, std::memory_order_acq_rel);
  }
}

bool SynthEngine::RenderBlock(float* out) {
  const kvFlushToZeroScope ftz;
  blockCounter_.fetch_add(1, std::memory_order_acq_rel);
  const uint32_t now = blockCounter_.load(std::memory_order_relaxed);

  if (fxReset_.exchange(0, std::memory_order_acq_rel))
    for (std::size_t c = 0; c < channels_.size(); ++c)
      for (ChannelFxState& slot : buses_[c].fx) ResetChannelFx(slot);
  if (SynthInstrument* gone = pendingRemoval_.load(std::memory_order_acquire)) {
    RemoveNow(gone);
    pendingRemoval_.store(nullptr, std::memory_order_release);
  }
  SynthInstrument* old = pendingOld_.load(std::memory_order_acquire);
  SynthInstrument* fresh = pendingNew_.load(std::memory_order_acquire);
  if (old && fresh) {
    ReplaceNow(old, fresh);
    pendingNew_.store(nullptr, std::memory_order_release);
    pendingOld_.store(nullptr, std::memory_order_release);
  }

  for (;;) {
    RingEntry& e = ring_[readIndex_];
    const uint32_t word = e.word.load(std::memory_order_acquire);
    if (!word || e.stamp.load(std::memory_order_relaxed) > now) break;
    Dispatch(word);
    e.stamp.store(0, std::memory_order_relaxed);
    e.word.store(0, std::memory_order_release);
    readIndex_ = (readIndex_ + 1) % ringCapacity_;
    ++drained_;
  }

  for (std::size_t c = 0; c < channels_.size(); ++c) StepRamps(static_cast<int>(c));

  claim_.store(0, std::memory_order_relaxed);
  finished_.store(0, std::memory_order_relaxed);
  for (std::size_t c = 0; c < channels_.size(); ++c) {
    ChannelBus& bus = buses_[c];
    const SynthChannel& ch = channels_[c];
    bus.empty = true;
    for (bool& e : bus.sendEmpty) e = true;
    bus.pan = ch.pan;
    bus.gain = ch.volume * masterGain;
    for (int s = 0; s < 4; ++s) bus.send[s] = ch.send[s];
  }

  renderCount_ = VoiceCount();
  const int helpers = std::min<int>(static_cast<int>((renderCount_ + kSynthBlock - 1) / kSynthBlock), WorkerCount()) - 1;
  // A worker woken late must not wander into the next block's set-up: the
  // block ends only when every woken worker has left the voice loop.
  busyWorkers_.store(std::max(helpers, 0), std::memory_order_release);
  for (int w = 0; w < helpers; ++w) workers_[static_cast<std::size_t>(w)]->wake.release();
  VoiceLoop();
  while (finished_.load(std::memory_order_acquire) < renderCount_ || busyWorkers_.load(std::memory_order_acquire) > 0)
    std::this_thread::yield();

  if (effects.load(std::memory_order_relaxed))
    for (std::size_t c = 0; c < channels_.size(); ++c) {
      ChannelBus& bus = buses_[c];
      for (int s = 0; s < 4; ++s) {
        if (bus.fx[s].type == 0) continue;
        if (process(bus.fx[s], bus.dry, bus.sendBus[s], bus.empty, bus.sendEmpty[s])) bus.empty = false;
      }
    }

  bool wrote = false;
  for (std::size_t c = 0; c < channels_.size(); ++c) {
    const ChannelBus& bus = buses_[c];
    if (bus.empty) continue;
    if (!wrote)
      for (int i = 0; i < 2 * kSynthBlock; ++i) out[i] = bus.gain * bus.dry[i];
    else
      for (int i = 0; i < 2 * kSynthBlock; ++i) out[i] += bus.gain * bus.dry[i];
    wrote = true;
  }
  if (!wrote) {
    std::fill(out, out + 2 * kSynthBlock, 0.0f);
    lastPeak = 0.0f;
  } else {
    float peak = 0.0f;
    for (int i = 0; i < 2 * kSynthBlock; ++i) peak = std::max(peak, std::fabs(out[i]));
    lastPeak = peak;
    if (peak > 1.0f) {
      clipped.store(1, std::memory_order_relaxed);
      if (clipLimit.load(std::memory_order_relaxed))
        for (int i = 0; i < 2 * kSynthBlock; ++i) out[i] = std::clamp(out[i], -1.0f, 1.0f);
    }
  }
  FreeDeadVoices();
  return wrote;
}

}  // namespace kv
