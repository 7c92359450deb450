// SFZ text instruments.
#pragma once

#include <cstdint>

namespace kv {

int sfz_Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);

}  // namespace kv
