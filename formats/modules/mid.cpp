// Standard MIDI files and RIFF-MIDI.
#include "formats/modules/mid.h"

#include "formats/detect_bytes.h"

namespace kv {

using namespace detect;

int mid_Detect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  if (!FourCC(data, size, 0, "MThd") || !Has(size, 4, 4)) return 0;
  // The header chunk (6 bytes or more) must be in the file.
  const uint64_t length = U32be(data + 4);
  return length >= 6 && fileSize >= 8 + length ? 6 : 0;
}

int mid_RmiDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  return fileSize >= 12 && FourCC(data, size, 0, "RIFF") && FourCC(data, size, 8, "RMID") ? 6 : 0;
}

}  // namespace kv
