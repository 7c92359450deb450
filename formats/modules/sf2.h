// SoundFont module: SoundFont 2 and 3 banks, SoundFont 1 (sbk), sfArk archives
// and MIDI Converter Studio packs.
#pragma once

#include <cstdint>

namespace kv {

// parameter: 0 SoundFont 2, 1 SoundFont 1, 3 SoundFont 3 (the ifil major wanted).
int sf2_Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int sf2_SfArkDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int sf2_PackDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);

}  // namespace kv
