#include "synth/channel_fx.h"

namespace kv {

void ChannelFxState::Configure(const ChannelFx& fx, float) { type = fx.type; }

bool ChannelFxState::Process(float*, const float*, bool) { return false; }

}  // namespace kv
