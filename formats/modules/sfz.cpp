// SFZ text instruments: headers in angle brackets, opcode=value pairs and
// sample paths relative to the file.
#include "formats/modules/sfz.h"

#include <cstring>

#include "formats/detect_bytes.h"

namespace kv {

using namespace detect;

int sfz_Detect(const uint8_t* data, uint32_t, uint32_t size, uint64_t) {
  // Text only: a nul byte means binary data.
  if (size == 0 || std::memchr(data, 0, size)) return 0;
  static constexpr const char* kHeaders[] = {"<region>", "<group>",  "<global>", "<master>", "<control>",
                                             "<curve>",  "<effect>", "<midi>",   "<sample>"};
  for (int64_t hit = Find(data, size, 0, "<", 1); hit >= 0; hit = Find(data, size, static_cast<uint32_t>(hit) + 1, "<", 1)) {
    for (const char* header : kHeaders)
      if (Tag(data, size, static_cast<uint64_t>(hit), header, std::strlen(header))) return 4;
  }
  // Text without headers reads as an empty instrument: no objection.
  return 2;
}

}  // namespace kv
