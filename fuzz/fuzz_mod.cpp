// The MOD reader on arbitrary bytes, both header forms and every signature:
// the patterns become a song and the samples waves. Oracle: the song written
// as a Standard MIDI file reads back with the same track bytes, and every
// wave's lazy read stays inside what the reader promised.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/midi_events.h"
#include "core/wavestore.h"
#include "formats/modules/mid.h"
#include "formats/modules/mod.h"
#include "fuzz/fuzz_support.h"

namespace {

std::vector<std::vector<uint8_t>> TrackBytes(const kv::Song& song) {
  std::vector<std::vector<uint8_t>> out;
  for (kv::ItemId id : song.children)
    if (auto* t = song.collection->FindAs<kv::Track>(id)) out.push_back(t->Events());
  return out;
}

void Check(kv::Collection& c) {
  for (kv::Track* t : c.All<kv::Track>())
    if (kv::CountTrackEvents(t->Events()) != t->EventCount()) __builtin_trap();
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
  for (kv::Waveform* w : c.All<kv::Waveform>()) {
    if (w->length > 131070) __builtin_trap();
    if (w->length && !kv::Samples16(*w)) __builtin_trap();
  }
}

// The first input byte picks a signature (or none, the 15-sample form) so
// that every channel layout is reached without guessing four letters.
constexpr const char* kTags[] = {"M.K.", "M!K!", "4CHN", "FLT4", "6CHN", "8CHN", "FLT8", "CD81", "EX08",
                                 "OCTA", "10CH", "12CH", "14CH", "16CH", "24CH", "32CH"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  kv::fuzz::QuietBoxes();
  std::vector<uint8_t> bytes(data, data + size);
  if (size > 1 && data[0] < 2 * std::size(kTags)) {
    bytes.erase(bytes.begin());
    if (bytes.size() < 1084) bytes.resize(1084, 0);
    if (data[0] < std::size(kTags)) std::memcpy(bytes.data() + 1080, kTags[data[0]], 4);
  }
  const kv::fuzz::InputFile input(bytes.data(), bytes.size(), "fuzz.mod");
  kv::Collection c;
  kv::FileRef file;
  if (input.Open(file) && kv::mod_Imp(c, file, 0)) Check(c);
  return 0;
}
