// Runs every scorer of the registry, and the whole in-memory detection, on
// arbitrary bytes with an arbitrary claimed file size. Oracle: scores stay on
// the 0/2/4/6 scale, detection gives a row or -1 with confidence 0-100, and
// the sanitizers see no read past the buffer.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "formats/registry.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* input, size_t length) {
  // First 8 bytes: the claimed file size and the extension choice; the rest
  // is the buffer, copied so that its end is exactly where a read must stop.
  if (length < 9) return 0;
  uint64_t claimed = 0;
  std::memcpy(&claimed, input, 8);
  const uint8_t pick = input[8];
  input += 9;
  length -= 9;
  if (length > kv::kDetectBytes) length = kv::kDetectBytes;
  auto buffer = std::make_unique<uint8_t[]>(length ? length : 1);
  if (length) std::memcpy(buffer.get(), input, length);
  const uint32_t size = static_cast<uint32_t>(length);
  // A real file is never shorter than what was read from it.
  const uint64_t fileSize = claimed < size ? size : claimed;

  const kv::FormatEntry* table = kv::FormatTable();
  for (int i = 0; i < kv::kFormatCount; ++i) {
    if (!table[i].detect) continue;
    const int score = table[i].detect(buffer.get(), table[i].parameter, size, fileSize);
    if (score != 0 && score != 2 && score != 4 && score != 6) std::abort();
  }
  const char* extension = kv::FormatExtension(pick % kv::kFormatCount);
  int confidence = -1;
  const int row = kv::DetectFormatInMemory(extension, buffer.get(), size, fileSize, confidence);
  if (row < -1 || row >= kv::kFormatCount || confidence < 0 || confidence > 100) std::abort();
  return 0;
}
