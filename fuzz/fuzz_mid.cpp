// Standard MIDI and RIFF-MIDI readers on arbitrary bytes. Every track that
// loads is walked, counted and listed; oracle: a song that loads is written as
// a Standard MIDI file and read back with the same track bytes.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/midi_events.h"
#include "core/midi_text.h"
#include "formats/modules/mid.h"
#include "fuzz/fuzz_support.h"

namespace {

std::vector<std::vector<uint8_t>> TrackBytes(const kv::Song& song) {
  std::vector<std::vector<uint8_t>> out;
  for (kv::ItemId id : song.children)
    if (auto* t = song.collection->FindAs<kv::Track>(id)) out.push_back(t->Events());
  return out;
}

void Check(kv::Collection& c) {
  for (kv::Track* t : c.All<kv::Track>()) {
    if (kv::CountTrackEvents(t->Events()) != t->EventCount()) __builtin_trap();
    std::size_t rows = 0;
    kv::ListMidiTrack(t->Events(), kv::ParamDisplay{}, true, [&](const kv::MidiEventRow&) { ++rows; });
    if (rows > t->Events().size() + 1) __builtin_trap();
  }
  for (kv::Song* song : c.All<kv::Song>()) {
    kv::FileRef out;
    if (!kv::fuzz::OutputFile(out)) return;
    kv::ExportRequest request;
    if (!kv::mid_Exp(*song, out, request)) {
      std::fprintf(stderr, "export failed: %s: %s\n", kv::ErrorContext, kv::ErrorMessage);
      __builtin_trap();
    }
    kv::FileRef back;
    kv::Collection again;
    if (!back.OpenRead(out.Path()) || !kv::mid_Read(again, back, 0)) __builtin_trap();
    const auto songs = again.All<kv::Song>();
    if (songs.size() != 1 || TrackBytes(*songs[0]) != TrackBytes(*song)) __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  kv::fuzz::QuietBoxes();
  const kv::fuzz::InputFile input(data, size, "fuzz.mid");
  for (auto read : {kv::mid_Read, kv::rmid_Imp}) {
    kv::Collection c;
    kv::FileRef file;
    if (input.Open(file) && read(c, file, 0)) Check(c);
  }
  return 0;
}
