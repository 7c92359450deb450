#include <malloc.h>

#include <cstdio>
#include <cstdlib>

#include "core/sanitizers.h"
#include "ui/driver.h"


int main(int argc, char** argv) {
  // Conversions allocate and free one wave-sized buffer after another. Kept
  // on the heap instead of mapped and unmapped each time, those pages are
  // faulted in once rather than once per wave.
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  mallopt(M_TRIM_THRESHOLD, 256 << 20);
  mallopt(M_TOP_PAD, 16 << 20);
  const int code = kv::RunDriver(std::vector<std::string>(argv, argv + argc));
#if !KV_SANITIZED
  // Every file is written and closed by now. Taking a bank of thousands of
  // items apart one by one would only keep the shell waiting; sanitizer
  // builds still do it, so that leaks stay visible.
  std::fflush(nullptr);
  std::_Exit(code);
#endif
  return code;
}
