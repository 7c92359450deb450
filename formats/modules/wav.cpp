// RIFF WAVE family: Microsoft wave, Broadcast wave, Rockwell ADPCM, SmartSound
// SDS and Wave-64.
#include "formats/modules/wav.h"

#include "formats/detect_bytes.h"

namespace kv {

using namespace detect;

namespace {

// The 12-byte RIFF head with form WAVE. A truncated body is still readable
// (the reader warns and reads what is there), so only the head must fit.
bool IsRiffWave(const uint8_t* data, uint32_t size, uint64_t fileSize) {
  return fileSize >= 12 && FourCC(data, size, 0, "RIFF") && FourCC(data, size, 8, "WAVE");
}

constexpr uint8_t kW64Riff[16] = {0x72, 0x69, 0x66, 0x66, 0x2E, 0x91, 0xCF, 0x11,
                                  0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00};
constexpr uint8_t kW64Wave[16] = {0x77, 0x61, 0x76, 0x65, 0xF3, 0xAC, 0xD3, 0x11,
                                  0x8C, 0xD1, 0x00, 0xC0, 0x4F, 0x8E, 0xDB, 0x8A};

}  // namespace

int wav_Detect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  return IsRiffWave(data, size, fileSize) ? 6 : 0;
}

int wav_BwfDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  if (!IsRiffWave(data, size, fileSize)) return 0;
  // Only the first four chunks count, and only before the sample data.
  uint64_t pos = 12;
  for (int chunk = 0; chunk < 4 && Has(size, pos, 8); ++chunk) {
    if (FourCC(data, size, pos, "bext")) return 6;
    if (FourCC(data, size, pos, "data")) break;
    const uint64_t body = U32le(data + pos + 4);
    pos += 8 + body + (body & 1);  // odd sizes are padded to even
  }
  return 2;
}

int wav_RockwellDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  // Format tag 0x0300 at its usual place behind the first `fmt ` head.
  if (!IsRiffWave(data, size, fileSize) || !Has(size, 20, 2)) return 0;
  return data[20] == 0x00 && data[21] == 0x03 ? 6 : 0;
}

int wav_SdsDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  return fileSize >= 12 && FourCC(data, size, 0, "SDSS") && FourCC(data, size, 8, "WAVE") ? 4 : 0;
}

int wav_W64Detect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  // The reader needs the 40-byte head: riff GUID, u64 size, wave GUID.
  if (fileSize < 40 || !Has(size, 0, 40)) return 0;
  return Tag(data, size, 0, reinterpret_cast<const char*>(kW64Riff), 16) &&
                 Tag(data, size, 24, reinterpret_cast<const char*>(kW64Wave), 16)
             ? 6
             : 0;
}

}  // namespace kv
