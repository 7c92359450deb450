// SoundFont module: SoundFont 2 and 3 banks, SoundFont 1 (sbk), sfArk archives
// and MIDI Converter Studio packs.
#include "formats/modules/sf2.h"

#include "formats/detect_bytes.h"

namespace kv {

using namespace detect;

namespace {

// The ifil major of the INFO list, or -1 when it isn't in the buffer. Walks
// the top-level chunks after the RIFF head and the chunks of LIST INFO.
int IfilMajor(const uint8_t* data, uint32_t size) {
  uint64_t pos = 12;
  for (int chunk = 0; chunk < 8 && Has(size, pos, 12); ++chunk) {
    const uint64_t body = U32le(data + pos + 4);
    if (FourCC(data, size, pos, "LIST") && FourCC(data, size, pos + 8, "INFO")) {
      const uint64_t end = pos + 8 + body;
      uint64_t sub = pos + 12;
      for (int n = 0; n < 32 && sub + 8 <= end && Has(size, sub, 8); ++n) {
        const uint64_t subBody = U32le(data + sub + 4);
        if (FourCC(data, size, sub, "ifil")) return subBody >= 4 && Has(size, sub + 8, 2) ? U16le(data + sub + 8) : -1;
        sub += 8 + subBody + (subBody & 1);
      }
      return -1;
    }
    pos += 8 + body + (body & 1);
  }
  return -1;
}

}  // namespace

int sf2_Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize) {
  if (fileSize < 12 || !FourCC(data, size, 0, "RIFF") || !FourCC(data, size, 8, "sfbk")) return 0;
  const int wanted = parameter == 0 ? 2 : static_cast<int>(parameter);
  const int major = IfilMajor(data, size);
  if (major < 0) return 4;  // a bank, version unseen
  if (major == wanted) return 6;
  // The SoundFont 2 reader also takes compressed (major 3) banks and back.
  if ((wanted == 2 && major == 3) || (wanted == 3 && major == 2)) return 4;
  return 0;
}

int sf2_SfArkDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t) {
  // The marker sits at byte 26 of a 42-byte header; the reader searches the
  // first 128 KiB for it, of which the buffer shows the first 32 KiB.
  int64_t hit = Find(data, size, 26, "sfArk", 5);
  while (hit >= 0) {
    const uint64_t header = static_cast<uint64_t>(hit) - 26;
    if (Has(size, header, 42)) return header == 0 ? 6 : 4;
    hit = Find(data, size, static_cast<uint32_t>(hit) + 1, "sfArk", 5);
  }
  return 0;
}

// The pack layout is not known beyond its name: nothing to check, the
// extension decides.
int sf2_PackDetect(const uint8_t*, uint32_t, uint32_t size, uint64_t) { return size > 0 ? 2 : 0; }

}  // namespace kv
