// Track bytes through the player: flattened and merged into one timed list,
// the lead-in trimmed, the instruments it needs named, and 100 blocks
// rendered with the events queued as they fall due. Oracle: times never go
// backwards, nothing crashes, hangs or grows without bound.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "core/items.h"
#include "synth/engine.h"
#include "synth/player.h"

namespace {

using namespace kv;

VoiceKind QuietKind() {
  VoiceKind k;
  k.recordSize = VoiceRecordBytes(4);
  k.init = [](VoiceRecord& v, const SynthZone&, float, bool) { v.head.amplitude = v.head.velocity; };
  k.render = [](VoiceRecord& v, float* block, float) {
    for (int i = 0; i < 2 * kSynthBlock; ++i) block[i] = 0.1f;
    return !v.head.shutdown && !v.head.keyReleased;
  };
  return k;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size < 3) return 0;
  SetVoiceKind(VoiceKindId::Wave, QuietKind());
  Collection c;
  auto* song = Create<Song>(c, "Fuzz");
  song->format = 1;
  song->division = static_cast<uint16_t>(data[0] << 8 | data[1]);
  // Up to three tracks, split where the input says.
  const std::size_t tracks = 1 + data[2] % 3;
  std::size_t at = 3;
  for (std::size_t t = 0; t < tracks && at < size; ++t) {
    const std::size_t left = size - at;
    const std::size_t n = t + 1 == tracks ? left : left / (tracks - t);
    auto* track = Create<Track>(c, "T");
    track->parentId = song->id;
    track->channelGroup = static_cast<uint8_t>(t & 1);
    AddChild(*song, track->id);
    track->SetEvents(std::vector<uint8_t>(data + at, data + at + n));
    at += n;
  }
  FlatSong flat;
  if (!FlattenSong(*song, flat)) return 0;
  TrimLeadIn(flat);
  for (std::size_t i = 1; i < flat.events.size(); ++i)
    if (flat.events[i].seconds < flat.events[i - 1].seconds) __builtin_trap();
  const auto keys = NeededInstruments(flat);
  SynthEngine engine(16 * flat.channelGroups, 8, -1.0f, 22050, 1);
  for (uint32_t key : keys) {
    auto inst = std::make_unique<SynthInstrument>();
    inst->key = key;
    SynthZone zone;
    zone.kind = VoiceKindId::Wave;
    zone.exclusionMode = 1;
    inst->zones.push_back(zone);
    inst->maxZonesPerNote = 1;
    engine.AddInstrument(std::move(inst), false);
  }
  alignas(16) float out[2 * kSynthBlock];
  std::size_t next = 0;
  double t = 0;
  for (int b = 0; b < 100; ++b, t += kSynthBlock / 22050.0) {
    while (next < flat.events.size() && flat.events[next].seconds <= t) {
      if (flat.events[next].word) engine.QueueAtBlock(flat.events[next].word, 0);
      ++next;
    }
    engine.RenderBlock(out);
    if (!engine.BooksBalance()) __builtin_trap();
  }
  return 0;
}
