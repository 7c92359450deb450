// RIFF WAVE family: Microsoft wave, Broadcast wave, Rockwell ADPCM, SmartSound
// SDS and Wave-64. Detect functions score the first bytes of a file on the
// registry's 0/2/4/6 scale.
#pragma once

#include <cstdint>

namespace kv {

int wav_Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
// Broadcast wave: 6 with a bext chunk early in the file, 2 for any RIFF WAVE.
int wav_BwfDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int wav_RockwellDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int wav_SdsDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int wav_W64Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);

}  // namespace kv
