// AIFF family: AIFF, AIFC and MAUD through one IFF walker; the 8SVX scorer for
// the plain IFF rows lives here too since it reads the same FORM header.
#pragma once

#include <cstdint>

namespace kv {

// parameter: 0 AIFF, 1 AIFC, 2 MAUD (the FORM type wanted).
int aiff_Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
int aiff_IffDetect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);

}  // namespace kv
