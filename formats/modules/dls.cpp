// DLS and GigaStudio module: DLS banks, MLS collections, GigaStudio files,
// split sets and compressed waves.
#include "formats/modules/dls.h"

#include "formats/detect_bytes.h"

namespace kv {

using namespace detect;

namespace {

bool IsRiffForm(const uint8_t* data, uint32_t size, uint64_t fileSize, const char (&form)[5]) {
  return fileSize >= 12 && FourCC(data, size, 0, "RIFF") && FourCC(data, size, 8, form);
}

// GigaStudio files share the DLS form; their own chunks (dimension regions,
// articulation, sample groups) tell them apart. Instruments come first in
// the file, so these turn up within the buffer.
bool HasGigaChunks(const uint8_t* data, uint32_t size) {
  static constexpr const char* kIds[] = {"3prg", "3ewa", "3lnk", "3ewg", "3gri"};
  for (int64_t hit = Find(data, size, 12, "3", 1); hit >= 0; hit = Find(data, size, static_cast<uint32_t>(hit) + 1, "3", 1)) {
    if (!Has(size, static_cast<uint64_t>(hit), 4)) return false;
    for (const char* id : kIds)
      if (Tag(data, size, static_cast<uint64_t>(hit), id, 4)) return true;
  }
  return false;
}

}  // namespace

int dls_Detect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  if (!IsRiffForm(data, size, fileSize, "DLS ")) return 0;
  return HasGigaChunks(data, size) ? 4 : 6;
}

int dls_MlsDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  return IsRiffForm(data, size, fileSize, "MLS ") ? 6 : 0;
}

int dls_GigDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  if (!IsRiffForm(data, size, fileSize, "DLS ")) return 0;
  return HasGigaChunks(data, size) ? 6 : 2;
}

// Pieces of an old split set are cut at arbitrary places; only the name of
// the set tells them, so the extension decides.
int dls_GigSplitDetect(const uint8_t*, uint32_t, uint32_t size, uint64_t) { return size > 0 ? 2 : 0; }

int dls_GigWaveDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t fileSize) {
  if (!IsRiffForm(data, size, fileSize, "WAVE")) return 0;
  // A compressed wave carries the GigaStudio wave extension chunk.
  uint64_t pos = 12;
  for (int chunk = 0; chunk < 16 && Has(size, pos, 8); ++chunk) {
    if (FourCC(data, size, pos, "ewav")) return 6;
    const uint64_t body = U32le(data + pos + 4);
    pos += 8 + body + (body & 1);
  }
  return 2;
}

}  // namespace kv
