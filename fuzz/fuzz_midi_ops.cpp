// The song operations on arbitrary bytes: a song that loads goes through all
// eight rows with fixed settings. Oracle: every track's stored event count is
// what a fresh walk counts, in every body a row wrote no event runs on the
// status of a meta or SysEx event (mido's rule; a body left as the file had
// it may), and the bytes stay within a bound of the input.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <vector>

#include "core/items.h"
#include "core/midi_events.h"
#include "formats/modules/mid.h"
#include "fuzz/fuzz_support.h"
#include "processing/wizard.h"
#include "ui/processing_cli.h"

namespace {

using Bodies = std::map<kv::ItemId, std::vector<uint8_t>>;

Bodies Snapshot(const kv::Collection& c) {
  Bodies out;
  for (kv::Track* t : c.All<kv::Track>()) out[t->id] = t->Events();
  return out;
}

void CheckTracks(const kv::Collection& c, const Bodies& before, std::size_t inputSize) {
  for (kv::Track* t : c.All<kv::Track>()) {
    const auto& bytes = t->Events();
    if (kv::CountTrackEvents(bytes) != t->EventCount()) __builtin_trap();
    const auto old = before.find(t->id);
    if (old != before.end() && old->second == bytes) continue;
    // Each row may at most triple a body (Fix adds two events a message).
    if (bytes.size() > 64 * (inputSize + 16)) __builtin_trap();
    kv::MidiEventCursor cursor(bytes);
    kv::MidiEvent e;
    bool afterSystem = false;
    while (cursor.Next(e)) {
      if (e.runningStatus && (afterSystem || e.status >= 0xF0)) __builtin_trap();
      afterSystem = e.status >= 0xF0;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  kv::fuzz::QuietBoxes();
  const kv::fuzz::InputFile input(data, size, "fuzz.mid");
  kv::Collection c;
  kv::FileRef file;
  if (!input.Open(file) || !kv::mid_Read(c, file, 0)) return 0;
  const std::vector<kv::OperationRequest> rows = {
      {"tick-rate", {"to=1000"}},
      {"compact", {"duplicates=on", "noteon=on", "merge=on"}},
      {"midi-format", {"format=1"}},
      {"filter", {"sysex=on", "meta=on", "aftertouch=on", "from=2", "to=15"}},
      {"fix-compatibility", {"banklsb=on", "program=on", "nosysex=off", "noteoff=on"}},
      {"note-off", {}},
      {"transpose", {"semitones=-7", "nodrums=on"}},
      {"trim-song", {"first-note=on", "length=on", "length-seconds=30"}},
  };
  for (const auto& row : rows) {
    const Bodies before = Snapshot(c);
    kv::RunOperationRequests(c, {}, {row}, stdout);
    CheckTracks(c, before, size);
  }
  kv::ResetOperationSettings();
  return 0;
}
