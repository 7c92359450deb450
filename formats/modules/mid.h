// Standard MIDI files and RIFF-MIDI.
#pragma once

#include <cstdint>

namespace kv {

int mid_Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int mid_RmiDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);

}  // namespace kv
