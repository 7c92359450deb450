#include "core/item_arena.h"

#include "core/sanitizers.h"

#include <sys/mman.h>

#include <array>
#include <cstdint>
#include <mutex>
#include <new>


namespace kv {

#if !KV_SANITIZED

namespace {

constexpr std::size_t kGrain = 64;           // a cache line: items don't share one
constexpr std::size_t kLargest = 4096;       // bigger ones (a heap Collection) go to the heap
constexpr std::size_t kBlock = std::size_t{2} << 20;
constexpr std::size_t kClasses = kLargest / kGrain;

struct FreeBlock {
  FreeBlock* next;
};

class Arena {
 public:
  void* Allocate(std::size_t size) {
    const std::size_t cls = (size + kGrain - 1) / kGrain - 1;
    std::lock_guard lock(mutex_);
    if (FreeBlock* b = free_[cls]) {
      free_[cls] = b->next;
      return b;
    }
    const std::size_t bytes = (cls + 1) * kGrain;
    if (static_cast<std::size_t>(end_ - next_) < bytes && !NewBlock()) return nullptr;
    void* out = next_;
    next_ += bytes;
    return out;
  }

  void Free(void* p, std::size_t size) {
    const std::size_t cls = (size + kGrain - 1) / kGrain - 1;
    std::lock_guard lock(mutex_);
    auto* b = static_cast<FreeBlock*>(p);
    b->next = free_[cls];
    free_[cls] = b;
  }

 private:
  bool NewBlock() {
    // Twice the size, trimmed to a 2 MB boundary, so the block can be one
    // huge page. The tail of the old block is left: at most one item's worth.
    void* raw = ::mmap(nullptr, 2 * kBlock, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (raw == MAP_FAILED) return false;
    const auto base = reinterpret_cast<std::uintptr_t>(raw);
    const std::uintptr_t start = (base + kBlock - 1) & ~(kBlock - 1);
    if (start > base) ::munmap(raw, start - base);
    if (start + kBlock < base + 2 * kBlock) ::munmap(reinterpret_cast<void*>(start + kBlock), base + kBlock - start);
    ::madvise(reinterpret_cast<void*>(start), kBlock, MADV_HUGEPAGE);
    next_ = reinterpret_cast<char*>(start);
    end_ = next_ + kBlock;
    return true;
  }

  std::mutex mutex_;
  std::array<FreeBlock*, kClasses> free_{};
  char* next_ = nullptr;
  char* end_ = nullptr;
};

Arena& TheArena() {
  static Arena* arena = new Arena;  // outlives every static Collection
  return *arena;
}

}  // namespace

void* AllocateItemMemory(std::size_t size) {
  if (size == 0 || size > kLargest) return ::operator new(size);
  if (void* p = TheArena().Allocate(size)) return p;
  throw std::bad_alloc();
}

void FreeItemMemory(void* block, std::size_t size) noexcept {
  if (!block) return;
  if (size == 0 || size > kLargest) {
    ::operator delete(block);
    return;
  }
  TheArena().Free(block, size);
}

#else  // sanitizer builds: the heap, so that use-after-free stays visible

void* AllocateItemMemory(std::size_t size) { return ::operator new(size); }
void FreeItemMemory(void* block, std::size_t) noexcept { ::operator delete(block); }

#endif

}  // namespace kv
