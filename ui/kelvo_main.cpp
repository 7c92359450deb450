#include <malloc.h>

#include "ui/driver.h"

int main(int argc, char** argv) {
  // Conversions allocate and free one wave-sized buffer after another. Kept
  // on the heap instead of mapped and unmapped each time, those pages are
  // faulted in once rather than once per wave.
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  mallopt(M_TRIM_THRESHOLD, 256 << 20);
  mallopt(M_TOP_PAD, 16 << 20);
  return kv::RunDriver(std::vector<std::string>(argv, argv + argc));
}
