// AIFF family: AIFF, AIFC and MAUD through one IFF walker (big-endian).
#include "formats/modules/aiff.h"

#include "formats/detect_bytes.h"

namespace kv {

using namespace detect;

int aiff_Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize) {
  static constexpr const char* kForm[] = {"AIFF", "AIFC", "MAUD"};
  if (parameter > 2 || fileSize < 12 || !FourCC(data, size, 0, "FORM")) return 0;
  return Tag(data, size, 8, kForm[parameter], 4) ? 6 : 0;
}

// 8SVX and 16SV forms belong to the plain IFF rows; scored here because the
// FORM head is the same.
int aiff_IffDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  if (fileSize < 12 || !FourCC(data, size, 0, "FORM")) return 0;
  return FourCC(data, size, 8, "8SVX") || FourCC(data, size, 8, "16SV") ? 6 : 0;
}

}  // namespace kv
