// AKAI S-series module: S900/S950, S1000 and S3000 samples and programs, floppy
// images and S5000 programs.
#pragma once

#include <cstdint>

namespace kv {

// parameter: 1 S1000, 3 S3000, 9 S900/S950.
int akai_SampleDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int akai_ProgramDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
// parameter: 0 plain image, 1 ChkSys image with its 24576-byte header.
int akai_DiskDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int akai_AkpDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);

}  // namespace kv
