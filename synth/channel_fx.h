// An effect slot of a channel's mix bus. Slots are configured from an
// instrument's effect settings when a channel takes it, and run once a block
// over the slot's send bus. No effect type is built yet: every slot leaves
// the bus dry.
#pragma once

#include "core/items.h"

namespace kv {

struct ChannelFxState {
  uint8_t type = 0;
  void Configure(const ChannelFx& fx, float sampleRate);
  // Adds the slot's output for the block to `dry` (128 floats); true if it wrote.
  bool Process(float* dry, const float* send, bool sendEmpty);
};

}  // namespace kv
