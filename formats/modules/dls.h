// DLS and GigaStudio module: DLS banks, MLS collections, GigaStudio files,
// split sets and compressed waves.
#pragma once

#include <cstdint>

namespace kv {

int dls_Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int dls_MlsDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int dls_GigDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int dls_GigSplitDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int dls_GigWaveDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);

}  // namespace kv
