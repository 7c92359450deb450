// SFZ text instruments.
#pragma once

#include <cstdint>

namespace kv {

int sfz_Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize);

class Collection;
class FileRef;
class Item;
struct ExportRequest;

// SFZ v1 and v2: one Instrument per file, samples read through their own
// format's reader and left on disk. A bank location in the file name
// ("d0-0-12 - Name", "07 - Name", "012_Name") becomes the instrument's.
// Context "sfz_Imp".
bool sfz_Imp(Collection& collection, FileRef& file, uint32_t parameter);
// One .sfz per instrument. parameter: 0 v1 with the waves beside the file,
// 1 v1 with the waves in a sub-folder named after the file, 2 and 3 the same
// for v2. Waves go through the WAV writer. Context "sfz_Exp".
bool sfz_Exp(Item& item, FileRef& file, ExportRequest& request);

}  // namespace kv
