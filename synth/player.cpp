#include "synth/player.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <span>

#include "core/app.h"
#include "core/error.h"
#include "core/midi_events.h"
#include "core/midi_merge.h"
#include "core/settings.h"
#include "core/wavestore.h"
#include "synth/compile.h"
#include "synth/engine.h"

namespace kv {

namespace {

constexpr const char* kRender = "Rendering MIDI to Waveform...";
constexpr uint32_t kTempoMark = 255;  // low byte of a tempo entry's word
constexpr uint32_t kDefaultTempo = 500000;

BankOpener g_bankOpener = nullptr;

struct TickWord {
  uint64_t tick;
  uint32_t word;
};

// GS "use for rhythm part": 41 dev 42 12 40 1p 15 mm; part p's channel
// counts the GS way, part 10 first.
int GsRhythmChannel(const uint8_t* d, uint32_t n, int& value) {
  if (n < 8 || d[0] != 0x41 || d[2] != 0x42 || d[3] != 0x12 || d[4] != 0x40 || (d[5] & 0xF0) != 0x10 || d[6] != 21)
    return -1;
  value = d[7] == 2 ? 127 : 0;
  const int part = d[5] & 0x0F;
  return part == 0 ? 9 : part <= 9 ? part - 1 : part;
}

}  // namespace

void SetBankOpener(BankOpener opener) { g_bankOpener = opener; }

bool FlattenSong(const Song& song, FlatSong& out) {
  out = FlatSong{};
  const Collection& c = *song.collection;
  std::vector<std::vector<TickWord>> lists(1);  // list 0: the tempo list
  bool tempoListMade = false;
  uint64_t lastTick = 0;
  int maxGroup = 0;
  // A format 2 song's patterns play as one: merged by time first, as the
  // conversion to format 0 does.
  struct Body {
    std::span<const uint8_t> bytes;
    int group;
  };
  std::vector<Body> bodies;
  std::vector<uint8_t> merged;
  for (ItemId id : song.children)
    if (const Track* track = c.FindAs<Track>(id); track && track->EventCount() > 0)
      bodies.push_back({track->Events(), track->channelGroup});
  if (song.format == 2 && bodies.size() > 1) {
    MergeSongTracks(song, merged);
    bodies = {{merged, bodies.front().group}};
  }
  for (const Body& body : bodies) {
    std::vector<TickWord> list;
    list.reserve(body.bytes.size() / 3);
    const bool makesTempo = !tempoListMade;
    tempoListMade = true;
    bool tempoAtZero = false;
    MidiEventCursor cursor(body.bytes);
    MidiEvent e;
    uint64_t tick = 0;
    while (cursor.Next(e)) {
      tick += e.delta;
      if (e.status < 0xF0) {
        list.push_back({tick, MakeMidiWord(e.status, e.channel, e.data1, e.data2, body.group)});
      } else if (e.status == 0xFF && e.metaType == 0x51 && e.length >= 3 && makesTempo) {
        const uint32_t us = uint32_t{e.payload[0]} << 16 | uint32_t{e.payload[1]} << 8 | e.payload[2];
        if (us) lists[0].push_back({tick, us * 256 + kTempoMark});
        if (tick == 0) tempoAtZero = true;
      } else if (e.status == 0xF0 && e.length >= 4 && e.payload[0] == 0x7E && e.payload[1] == 0x7F &&
                 e.payload[2] == 0x09 && e.payload[3] >= 1 && e.payload[3] <= 3) {
        static constexpr int kModes[] = {0, 1, 0, 2};
        out.gmMode = kModes[e.payload[3]];
      } else if (e.status == 0xF0) {
        int value = 0;
        const int channel = GsRhythmChannel(e.payload, e.length, value);
        if (channel >= 0) list.push_back({tick, MakeMidiWord(0xB0, channel, 128, value, body.group)});
      }
    }
    // Frame-based files keep time by their division; the tempo list counts
    // for quarter-note divisions only.
    if (makesTempo && !tempoAtZero) lists[0].insert(lists[0].begin(), {0, kDefaultTempo * 256 + kTempoMark});
    lastTick = std::max(lastTick, tick);
    maxGroup = std::max<int>(maxGroup, body.group);
    lists.push_back(std::move(list));
  }
  if (lists.size() == 1) return Fail(kRender, "Failed processing MIDI");
  out.channelGroups = maxGroup + 1;

  // Seconds a tick: from the tempo for quarter-note divisions, fixed for
  // frame-based ones.
  const bool smpte = song.division & 0x8000;
  double frameTick = 0;
  if (smpte) {
    const int framesPerSecond = 256 - (song.division >> 8);
    const double fps = framesPerSecond == 29 ? 29.97 : framesPerSecond;
    frameTick = 1.0 / (fps * std::max(1, song.division & 0xFF));
  }
  const double division = std::max<uint16_t>(song.division & 0x7FFF, 1);
  double secondsPerTick = smpte ? frameTick : kDefaultTempo * 1e-6 / division;

  std::size_t total = 0;
  for (const auto& l : lists) total += l.size();
  out.events.reserve(total + 1);
  std::vector<std::size_t> at(lists.size(), 0);
  double seconds = 0;
  uint64_t tick = 0;
  for (;;) {
    std::size_t best = lists.size();
    for (std::size_t l = 0; l < lists.size(); ++l)
      if (at[l] < lists[l].size() && (best == lists.size() || lists[l][at[l]].tick < lists[best][at[best]].tick)) best = l;
    if (best == lists.size()) break;
    const TickWord& tw = lists[best][at[best]++];
    seconds += static_cast<double>(tw.tick - tick) * secondsPerTick;
    tick = tw.tick;
    if (best == 0) {
      if (!smpte) secondsPerTick = static_cast<double>(tw.word / 256) * 1e-6 / division;
      continue;
    }
    if (tw.word) out.events.push_back({seconds, tw.word});
  }
  seconds += static_cast<double>(lastTick - tick) * secondsPerTick;
  out.events.push_back({seconds, 0});
  return true;
}

void TrimLeadIn(FlatSong& song) {
  auto& ev = song.events;
  const auto first = std::find_if(ev.begin(), ev.end(), [](const TimedWord& t) {
    return WordStatus(t.word) == 0x90 && WordData2(t.word) > 0;
  });
  if (first == ev.end()) return;
  const double start = first->seconds;
  for (auto it = ev.begin(); it != ev.end(); ++it) it->seconds = it < first ? 0.0 : it->seconds - start;
}

std::vector<InstrumentKey> NeededInstruments(const FlatSong& song) {
  struct ChannelKey {
    uint32_t key = 0;
    bool programReceived = false;
    bool counted = false;
  };
  std::vector<ChannelKey> channels(static_cast<std::size_t>(song.channelGroups) * 16);
  for (std::size_t c = 0; c < channels.size(); ++c)
    if (c % 16 == 9) channels[c].key = kKeyDrum;
  std::vector<InstrumentKey> keys;
  auto add = [&](uint32_t key) {
    if (std::find(keys.begin(), keys.end(), key) == keys.end()) keys.push_back(key);
  };
  for (const TimedWord& t : song.events) {
    const auto index = static_cast<std::size_t>(WordChannelIndex(t.word));
    if (!t.word || index >= channels.size()) continue;
    ChannelKey& ch = channels[index];
    const int d1 = WordData1(t.word), d2 = WordData2(t.word);
    switch (WordStatus(t.word)) {
      case 0xB0:
        if (d1 == 0) ch.key = (ch.key & ~kKeyMsbMask) | uint32_t(d2 & 0x7F) << 14;
        if (d1 == 32) ch.key = (ch.key & ~kKeyLsbMask) | uint32_t(d2 & 0x7F) << 7;
        if (d1 == 128) ch.key = d2 >= 64 ? ch.key | kKeyDrum : ch.key & ~kKeyDrum;
        break;
      case 0xC0:
        ch.key = (ch.key & ~kKeyProgramMask) | uint32_t(d1 & 0x7F);
        ch.programReceived = true;
        add(ch.key);
        break;
      case 0x90:
        if (d2 > 0 && !ch.programReceived && !ch.counted) {
          ch.counted = true;
          add(ch.key);
        }
        break;
      default: break;
    }
  }
  return keys;
}

namespace {

const Instrument* FindByKey(const Collection& c, uint32_t key) {
  for (const Instrument* inst : c.All<Instrument>())
    if ((inst->location & kLocationMask) == key) return inst;
  return nullptr;
}

// The key a program change would find in `c` for `key`.
const Instrument* FindWithFallbacks(const Collection& c, uint32_t key) {
  if (const Instrument* i = FindByKey(c, key)) return i;
  if (key & kKeyLsbMask)
    if (const Instrument* i = FindByKey(c, key &= ~kKeyLsbMask)) return i;
  if (key & kKeyMsbMask)
    if (const Instrument* i = FindByKey(c, key &= ~kKeyMsbMask)) return i;
  if ((key & kKeyDrum) && (key & kKeyProgramMask)) return FindByKey(c, key & ~kKeyProgramMask);
  return nullptr;
}

bool AddCompiled(SynthEngine& engine, const Instrument& inst, uint32_t key) {
  auto compiled = std::make_unique<SynthInstrument>();
  if (!CompileInstrument(inst, engine.Cache(), *compiled)) return false;
  compiled->key = key;
  return engine.AddInstrument(std::move(compiled), false);
}

}  // namespace

std::vector<InstrumentKey> LoadSongInstruments(SynthEngine& engine, const Collection& collection,
                                               const std::vector<InstrumentKey>& keys, bool& gmFailed) {
  gmFailed = false;
  std::vector<InstrumentKey> missing;
  for (uint32_t key : keys) {
    const Instrument* inst = FindByKey(collection, key);
    if (!inst || !AddCompiled(engine, *inst, key)) missing.push_back(key);
  }
  if (missing.empty()) return missing;
  Collection bank;
  const std::filesystem::path path = Settings().mid2wav.wszGMBank;
  if (!g_bankOpener || path.empty() || !g_bankOpener(path, bank)) {
    gmFailed = true;
    return missing;
  }
  std::vector<InstrumentKey> still;
  for (uint32_t key : missing) {
    const Instrument* inst = FindWithFallbacks(bank, key);
    if (!inst || !AddCompiled(engine, *inst, key)) still.push_back(key);
  }
  return still;
}

Waveform* RenderSongToWave(Collection& collection, const Song& song, const volatile bool* abort) {
  FlatSong flat;
  if (!FlattenSong(song, flat)) {
    StatusText("Failed processing MIDI");
    return nullptr;
  }
  TrimLeadIn(flat);
  const auto& mid2wav = Settings().mid2wav;
  const uint32_t rate = mid2wav.dwSampleRate ? mid2wav.dwSampleRate : 48000;
  const double end = flat.EndSeconds();
  if (end <= 0) {
    StatusText("Done: No notes to render!");
    Fail(kRender, "No notes to render!");
    return nullptr;
  }
  const double frames = (end + 0.5) * rate;
  if (frames >= 4294967295.0) return Fail(kRender, "Failed processing MIDI"), nullptr;

  const int polyphony = std::max(1, mid2wav.iMaxPolyphony);
  SynthEngine engine(16 * flat.channelGroups, polyphony, -1.0f, rate);
  if (mid2wav.bNormalizePeak) engine.clipLimit.store(0);
  engine.effects.store(mid2wav.bEffects ? 1 : 0);
  bool gmFailed = false;
  LoadSongInstruments(engine, collection, NeededInstruments(flat), gmFailed);
  if (gmFailed)
    MessageBox("Could not open the default GM/GS collection!\nInstruments will be missing from the song.", kProgramName);

  // Every event due in one block goes into the ring before that block: the
  // ring must hold the densest block, or later words would overwrite earlier.
  std::size_t densest = 0;
  for (std::size_t i = 0, j = 0; i < flat.events.size(); i = j) {
    const auto block = static_cast<uint64_t>(flat.events[i].seconds * rate / kSynthBlock);
    for (j = i; j < flat.events.size() && static_cast<uint64_t>(flat.events[j].seconds * rate / kSynthBlock) == block; ++j) {
    }
    densest = std::max(densest, j - i);
  }
  engine.ResizeRing(std::max<std::size_t>(1024, densest + 64));

  // The wave is made at its full length first and written in place: no
  // second copy of a long render is ever held.
  Waveform* wave = Create<Waveform>(collection, song.name);
  wave->sampleRate = rate;
  wave->channels = 2;
  wave->length = static_cast<uint32_t>(std::ceil(frames));
  wave->bits = 32;
  float* data = AllocSamplesFloat(*wave);
  if (!data) {
    DeleteItem(wave);
    return Fail(kRender, "Out of memory"), nullptr;
  }
  StatusText("Rendering %s to waveform...", song.name);
  const std::size_t capacity = wave->length;
  std::size_t written = 0;
  alignas(16) float block[2 * kSynthBlock];
  std::size_t next = 0;
  const double step = static_cast<double>(kSynthBlock) / rate;
  double t = 0;
  std::size_t progress = 0;
  // Events play against t, on the block after they are due; the loop ends
  // with the list or when the wave is full.
  while (next < flat.events.size() && written < capacity) {
    if (abort && *abort) {
      StatusText("Aborting, please wait...");
      DeleteItem(wave);
      return Fail(kRender, "Rendering aborted"), nullptr;
    }
    while (next < flat.events.size() && flat.events[next].seconds <= t) {
      if (flat.events[next].word) engine.QueueAtBlock(flat.events[next].word, 0);
      ++next;
    }
    engine.RenderBlock(block);
    const std::size_t n = std::min<std::size_t>(kSynthBlock, capacity - written);
    std::copy(block, block + 2 * n, data + 2 * written);
    written += n;
    t += step;
    if (written / 32768 > progress) {
      progress = written / 32768;
      StatusText("%d %%", static_cast<int>(100.0 * static_cast<double>(written) / frames));
    }
  }
  wave->length = static_cast<uint32_t>(written);
  return wave;
}

}  // namespace kv
