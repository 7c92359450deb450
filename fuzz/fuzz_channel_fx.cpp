// One effect slot under random settings and blocks: every type change, NaN,
// infinities and values far out of range go through the instrument's slot
// (as a reader leaves it) into configure, and random blocks, flags and rates
// through process. Oracle: the output stays finite, the pool never gives
// out more than it holds, and a slot set to none has given every line back.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "synth/channel_fx.h"

namespace {

using namespace kv;

struct Reader {
  const uint8_t* p;
  const uint8_t* end;
  bool More() const { return p < end; }
  uint8_t Byte() { return p < end ? *p++ : 0; }
  float Value() {
    switch (Byte() & 7) {
      case 0: return std::nanf("");
      case 1: return INFINITY;
      case 2: return -INFINITY;
      case 3: return static_cast<float>(static_cast<int8_t>(Byte())) * 1000.0f;
      default: {
        uint32_t bits = 0;
        for (int i = 0; i < 4; ++i) bits = bits << 8 | Byte();
        float f;
        std::memcpy(&f, &bits, 4);
        return f;
      }
    }
  }
};

constexpr float kRates[] = {8000.0f, 22050.0f, 44100.0f, 48000.0f, 96000.0f, 192000.0f};

void Check(bool ok) {
  if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  static FxLinePool pool;
  if (!pool.Capacity()) pool.Reserve(FxPoolFloats(2, 48000.0f));
  Reader in{data, data + size};
  ChannelFxState slots[2];
  float rate = kRates[in.Byte() % 6];
  alignas(16) float dry[128], send[128];
  int steps = 0;
  while (in.More() && steps++ < 400) {
    const uint8_t op = in.Byte();
    ChannelFxState& slot = slots[op & 1];
    switch ((op >> 1) % 4) {
      case 0: {  // new settings, as an instrument's slot holds them
        ChannelFx fx;
        fx.type = in.Byte() % 10;
        for (float& v : fx.param) v = (in.Byte() & 3) ? in.Value() : static_cast<float>(in.Byte() % 9);
        configure(slot, MakeChannelFxConfig(fx), rate, pool);
        break;
      }
      case 1:  // the engine's rate changes: every line is given back first
        for (ChannelFxState& s : slots) configure(s, ChannelFxConfig{}, rate, pool);
        Check(pool.InUse() == 0);
        rate = kRates[in.Byte() % 6];
        break;
      case 2:
        ResetChannelFx(slot);
        break;
      default: {
        const uint8_t flags = in.Byte();
        const uint8_t blocks = 1 + in.Byte() % 32;
        for (int b = 0; b < blocks; ++b) {
          const float level = (flags & 4) ? 4.0f : 1.0f;
          for (int i = 0; i < 128; ++i) {
            send[i] = in.More() ? (static_cast<float>(in.Byte()) - 128.0f) / 128.0f * level : 0.0f;
            dry[i] = send[i];
          }
          const bool busEmpty = flags & 1, sendEmpty = flags & 2;
          const bool wrote = process(slot, dry, send, busEmpty, sendEmpty);
          if (wrote || !busEmpty)
            for (float x : dry) Check(std::isfinite(x));
        }
        break;
      }
    }
    Check(pool.InUse() <= pool.Capacity());
  }
  for (ChannelFxState& s : slots) configure(s, ChannelFxConfig{}, rate, pool);
  Check(pool.InUse() == 0);
  return 0;
}
