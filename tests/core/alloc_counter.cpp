#include "alloc_counter.h"

#include <atomic>
#include <cstdlib>
#include <new>

#include "core/sanitizers.h"


#if KV_SANITIZER_ALLOCATOR
// The sanitizers own operator new and check each pointer against the form
// that freed it; counting is left to the plain build.
long kv::test::AllocationCount() { return -1; }
#else
namespace {
std::atomic<long> g_allocations{0};
}  // namespace

long kv::test::AllocationCount() { return g_allocations.load(); }

// The program's replacement of the plain forms; the array and sized forms
// forward to these by default.
void* operator new(std::size_t size) {
  ++g_allocations;
  void* p = std::malloc(size ? size : 1);
  if (!p) std::abort();
  return p;
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
#endif
