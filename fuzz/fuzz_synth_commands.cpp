// The engine under random command words, stamps, seeks, sheds and live
// instrument swaps. The first bytes shape the instrument's zones (windows,
// cross-fades, alternate groups, release zones, pedal switches, exclusion);
// the rest is a program of operations. Oracle: after every block the notes,
// voices and channel lists still agree, and the output is finite.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "synth/engine.h"

namespace {

using namespace kv;

struct Reader {
  const uint8_t* p;
  const uint8_t* end;
  bool More() const { return p < end; }
  uint8_t Byte() { return p < end ? *p++ : 0; }
};

VoiceKind FuzzKind() {
  VoiceKind k;
  k.recordSize = VoiceRecordBytes(sizeof(uint32_t));
  k.init = [](VoiceRecord& v, const SynthZone&, float, bool update) {
    if (!update) VoiceState<uint32_t>(v) = 0;
    v.head.amplitude = v.head.velocity;
  };
  k.render = [](VoiceRecord& v, float* block, float) {
    uint32_t& blocks = VoiceState<uint32_t>(v);
    for (int i = 0; i < 2 * kSynthBlock; ++i) block[i] = v.head.amplitude * (i & 1 ? -0.5f : 0.5f);
    v.head.amplitude *= 0.98f;
    return !v.head.shutdown && !(v.head.keyReleased && ++blocks > 8) && v.head.amplitude > 0.001f;
  };
  return k;
}

std::unique_ptr<SynthInstrument> MakeInstrument(Reader& in, InstrumentKey key, ItemId firstId) {
  auto inst = std::make_unique<SynthInstrument>();
  inst->key = key;
  const int zones = 1 + in.Byte() % 12;
  for (int z = 0; z < zones; ++z) {
    SynthZone zone;
    zone.kind = VoiceKindId::Test;
    zone.id = firstId + static_cast<ItemId>(z % 8);  // some ids repeat: a swap finds the first
    const uint8_t a = in.Byte() & 0x7F, b = in.Byte() & 0x7F;
    zone.loKey = std::min(a, b);
    zone.hiKey = std::max(a, b);
    zone.loVel = in.Byte() & 0x3F;
    zone.hiVel = 64 + (in.Byte() & 0x3F);
    zone.keyFadeIn = in.Byte() & 7;
    zone.keyFadeOut = in.Byte() & 7;
    zone.velFadeIn = in.Byte() & 7;
    zone.keyFadeCurve = in.Byte() & 1;
    zone.trigger = in.Byte() % 19;
    zone.pedalSwitch = in.Byte() % 3;
    zone.exclusionGroup = in.Byte() % 3;
    zone.exclusionMode = in.Byte() & 1;
    zone.pan = static_cast<float>(static_cast<int8_t>(in.Byte())) / 100.0f;
    zone.sendLevel[0] = static_cast<float>(in.Byte()) / 255.0f;
    inst->zones.push_back(zone);
  }
  inst->maxZonesPerNote = static_cast<uint32_t>(inst->zones.size());
  return inst;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  SetVoiceKind(VoiceKindId::Test, FuzzKind());
  Reader in{data, data + size};
  const int polyphony = 1 + in.Byte() % 24;
  SynthEngine engine(32, polyphony, -1.0f, 22050 + 1000 * (in.Byte() % 30), 1 + (in.Byte() & 1));
  engine.ResizeRing(64 + in.Byte());
  engine.AddInstrument(MakeInstrument(in, 0, 1), false);
  engine.AddInstrument(MakeInstrument(in, MakeLocation(1, 2, 3, true), 100), false);
  alignas(16) float out[2 * kSynthBlock];
  int blocks = 0;
  while (in.More() && blocks < 4000) {
    const uint8_t op = in.Byte();
    switch (op % 10) {
      case 0:
      case 1:
      case 2:
      case 3: {
        const MidiWord word = static_cast<uint32_t>(in.Byte()) | static_cast<uint32_t>(in.Byte()) << 8 |
                              static_cast<uint32_t>(in.Byte()) << 16 | static_cast<uint32_t>(in.Byte() & 1) << 24;
        engine.QueueAtBlock(word, engine.BlockCounter() + in.Byte() % 8);
        break;
      }
      case 4:
      case 5: {
        for (int n = 1 + in.Byte() % 8; n > 0; --n, ++blocks) {
          engine.RenderBlock(out);
          for (float s : out)
            if (!std::isfinite(s)) __builtin_trap();
          if (!engine.BooksBalance()) __builtin_trap();
        }
        break;
      }
      case 6: engine.Seek(static_cast<double>(in.Byte()) / 10.0, in.Byte() & 1); break;
      case 7: engine.ShedOneNote(in.Byte() & 1); break;
      case 8: engine.AddInstrument(MakeInstrument(in, (in.Byte() & 1) ? 0 : MakeLocation(1, 2, 3, true), 1), in.Byte() & 1); break;
      default: {
        const MidiWord word = MakeMidiWord(0x90 + 0x10 * (in.Byte() % 7), in.Byte(), in.Byte(), in.Byte());
        engine.Dispatch(word);
        if (!engine.BooksBalance()) __builtin_trap();
        break;
      }
    }
  }
  return 0;
}
