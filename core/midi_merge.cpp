#include "core/midi_merge.h"

#include <algorithm>

#include "core/midi_events.h"

namespace kv {

namespace {

struct Source {
  MidiEventCursor cursor;
  MidiEvent event;  // the next event to place
  uint64_t tick = 0;
};

// Steps a source to its next event other than End of Track; false at its end.
bool Advance(Source& s, uint64_t& endTick) {
  while (s.cursor.Next(s.event)) {
    s.tick += s.event.delta;
    endTick = std::max(endTick, s.tick);
    if (!s.event.IsEndOfTrack()) return true;
  }
  return false;
}

}  // namespace

void MergeTrackBodies(std::span<const std::span<const uint8_t>> tracks, std::vector<uint8_t>& out) {
  out.clear();
  std::size_t total = 4;
  for (const auto& t : tracks) total += t.size() + t.size() / 2;  // running status may be spelled out
  out.reserve(total);

  std::vector<Source> sources;
  sources.reserve(tracks.size());
  // A min-heap of source indexes by (tick, index): the index breaks ties, so
  // earlier tracks go first and each track's own order is kept.
  std::vector<uint32_t> heap;
  heap.reserve(tracks.size());
  auto later = [&](uint32_t a, uint32_t b) {
    return sources[a].tick != sources[b].tick ? sources[a].tick > sources[b].tick : a > b;
  };
  uint64_t endTick = 0;
  for (const auto& t : tracks) {
    sources.push_back(Source{MidiEventCursor(t), {}, 0});
    if (Advance(sources.back(), endTick)) heap.push_back(static_cast<uint32_t>(sources.size() - 1));
  }
  std::make_heap(heap.begin(), heap.end(), later);

  MidiEventWriter writer(out);
  uint64_t tick = 0;
  while (!heap.empty()) {
    std::pop_heap(heap.begin(), heap.end(), later);
    const uint32_t i = heap.back();
    Source& s = sources[i];
    // Never above one of the sources' own deltas, so it always fits.
    MidiEvent e = s.event;
    e.delta = static_cast<uint32_t>(s.tick - tick);
    tick = s.tick;
    writer.Write(e);
    if (Advance(s, endTick)) std::push_heap(heap.begin(), heap.end(), later);
    else heap.pop_back();
  }
  writer.EndOfTrack(static_cast<uint32_t>(std::min<uint64_t>(endTick - tick, 0x0FFFFFFF)));
}

void MergeSongTracks(const Song& song, std::vector<uint8_t>& out) {
  std::vector<std::span<const uint8_t>> tracks;
  tracks.reserve(song.children.size());
  for (ItemId id : song.children)
    if (const Track* t = song.collection ? song.collection->FindAs<Track>(id) : nullptr) tracks.emplace_back(t->Events());
  MergeTrackBodies(tracks, out);
}

}  // namespace kv
