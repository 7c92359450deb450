// Zone selection on real banks: for every instrument of a General MIDI bank
// and of the corpus, the zones a note starts at keys 0-127 and velocities 1,
// 64 and 127 are exactly those a plain filter over the compiled zones names.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <vector>

#include "core/app.h"
#include "core/error.h"
#include "formats/import.h"
#include "support/testsupport.h"
#include "synth/compile.h"
#include "synth/engine.h"

namespace kv {
namespace {

namespace fs = std::filesystem;

VoiceKind QuietKind() {
  VoiceKind k;
  k.recordSize = VoiceRecordBytes(4);
  k.init = [](VoiceRecord& v, const SynthZone&, float, bool) { v.head.amplitude = 1.0f; };
  k.render = [](VoiceRecord&, float* block, float) {
    std::fill(block, block + 2 * kSynthBlock, 0.0f);
    return true;
  };
  return k;
}

// Zones a note-on hears with the pedal up, in list order; none of these banks
// uses alternate groups.
std::vector<const SynthZone*> Filter(const SynthInstrument& inst, int key, int velocity) {
  std::vector<const SynthZone*> out;
  for (const SynthZone& z : inst.zones)
    if (z.Holds(key, velocity) && z.pedalSwitch != 1 && z.trigger == 0) out.push_back(&z);
  return out;
}

// Checks every instrument of `path`; returns how many notes were compared.
int CheckBank(const fs::path& path) {
  Collection c;
  if (!ImportFile(c, path, false)) {
    ADD_FAILURE() << path << ": " << ErrorMessage;
    return 0;
  }
  SynthEngine engine(1, 512, 1.0f, 44100, 1);
  int notes = 0;
  for (const Instrument* item : c.All<Instrument>()) {
    auto inst = std::make_unique<SynthInstrument>();
    if (!CompileInstrument(*item, engine.Cache(), *inst)) {
      ADD_FAILURE() << path << ": " << item->name;
      continue;
    }
    inst->key = 0;  // every instrument in turn at the key a fresh channel plays
    const SynthInstrument* compiled = inst.get();
    engine.AddInstrument(std::move(inst), false);
    for (int key = 0; key < 128; ++key)
      for (int velocity : {1, 64, 127}) {
        engine.Dispatch(MakeMidiWord(0x90, 0, key, velocity));
        std::vector<const SynthZone*> started;
        for (uint32_t v = 0; v < engine.VoiceCount(); ++v) started.push_back(engine.Voice(v).zone);
        engine.Dispatch(MakeMidiWord(0xB0, 0, 120, 0));
        std::vector<const SynthZone*> want = Filter(*compiled, key, velocity);
        std::sort(started.begin(), started.end());
        std::sort(want.begin(), want.end());
        if (started != want) {
          ADD_FAILURE() << path.filename() << " \"" << item->name << "\" key " << key << " velocity " << velocity
                        << ": " << started.size() << " zones started, " << want.size() << " expected";
          return notes;
        }
        ++notes;
      }
  }
  return notes;
}

TEST(SynthSelection, NotesStartTheZonesAPlainFilterNames) {
  MessageBoxesEnabled = 0;
  SetSkippedBoxesQuiet(true);
  SetVoiceKind(VoiceKindId::Wave, QuietKind());
  const fs::path timgm = "/usr/share/sounds/sf2/TimGM6mb.sf2";
  int notes = 0;
  if (test::Need(fs::exists(timgm), "timgm6mb-soundfont")) notes += CheckBank(timgm);
  if (test::NeedCorpus())
    for (const auto& e : fs::recursive_directory_iterator(test::CorpusDir()))
      if (e.path().extension() == ".sf2" || e.path().extension() == ".sfz") notes += CheckBank(e.path());
  EXPECT_GT(notes, 100000);
  ResetVoiceKinds();
}

}  // namespace
}  // namespace kv
