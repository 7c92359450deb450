// Raw fallback of row 0: any non-empty file can be read as raw samples.
#pragma once

#include <cstdint>

namespace kv {

class Collection;
class FileRef;

int raw_Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);
// Any file as raw 8-bit signed mono at 44100 Hz, after asking whether to (with
// boxes off the answer is "Allways OK").
bool raw_Imp(Collection& collection, FileRef& file, uint32_t parameter);
// The raw row's two process-wide answers, back to their start (asking on).
void ResetRawImportQuestion();

}  // namespace kv
