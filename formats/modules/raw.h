// Raw fallback of row 0: any non-empty file can be read as raw samples.
#pragma once

#include <cstdint>

namespace kv {

int raw_Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);

}  // namespace kv
