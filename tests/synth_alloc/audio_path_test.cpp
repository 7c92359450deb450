// Nothing on the audio path allocates or takes a lock: a minute of the stress
// pattern rendered with malloc and pthread_mutex_lock counted while a block
// renders, on the audio thread and the workers alike. A program of its own,
// because it replaces the allocator; the sanitizer builds own theirs.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include "core/app.h"
#include "core/items.h"
#include "core/sanitizers.h"
#include "formats/import.h"
#include "support/testsupport.h"
#include "synth/compile.h"
#include "support/synth_stress.h"
#include "synth/engine.h"


#if !KV_SANITIZER_ALLOCATOR
namespace {
std::atomic<bool> g_counting{false};
std::atomic<long> g_allocations{0};
std::atomic<long> g_locks{0};
}  // namespace

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);

static void Count() {
  if (g_counting.load(std::memory_order_relaxed)) g_allocations.fetch_add(1, std::memory_order_relaxed);
}
void* malloc(size_t n) {
  Count();
  return __libc_malloc(n);
}
void* calloc(size_t n, size_t size) {
  Count();
  return __libc_calloc(n, size);
}
void* realloc(void* p, size_t n) {
  Count();
  return __libc_realloc(p, n);
}
void* aligned_alloc(size_t alignment, size_t n) {
  Count();
  return __libc_memalign(alignment, n);
}
int posix_memalign(void** out, size_t alignment, size_t n) {
  Count();
  *out = __libc_memalign(alignment, n);
  return *out ? 0 : 12;
}
void free(void* p) { __libc_free(p); }

using LockFn = int (*)(pthread_mutex_t*);
static LockFn RealLock() {
  static const LockFn real = reinterpret_cast<LockFn>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
  return real;
}
int pthread_mutex_lock(pthread_mutex_t* m) {
  if (g_counting.load(std::memory_order_relaxed)) g_locks.fetch_add(1, std::memory_order_relaxed);
  return RealLock()(m);
}
}
#endif

namespace kv {
namespace {

TEST(SynthAudioPath, AMinuteOfStressAllocatesNothingAndTakesNoLock) {
#if KV_SANITIZER_ALLOCATOR
  GTEST_SKIP() << "the sanitizers own the allocator";
#else
  RealLock();
  SetVoiceKind(VoiceKindId::Test, test::FadeKind());
  SynthEngine engine(16, 128, -1.0f, 44100, 0);
  test::AddStressInstruments(engine);
  const auto events = test::StressPattern(60);
  engine.ResizeRing(events.size() + 1);
  for (const auto& e : events) engine.QueueAtSeconds(e.word, e.seconds);
  alignas(16) float out[2 * kSynthBlock];
  engine.RenderBlock(out);  // the first block may fault in what it touches
  // The counters see what they are meant to.
  g_counting = true;
  void* probe = std::malloc(16);
  g_counting = false;
  std::free(probe);
  ASSERT_EQ(g_allocations.exchange(0), 1);

  uint32_t loudest = 0;
  g_counting = true;
  for (int b = 0; b < 60 * 44100 / kSynthBlock; ++b) {
    engine.RenderBlock(out);
    loudest = std::max(loudest, engine.VoiceCount());
  }
  g_counting = false;
  EXPECT_EQ(g_allocations.load(), 0);
  EXPECT_EQ(g_locks.load(), 0);
  EXPECT_EQ(engine.DrainedCount(), events.size());
  EXPECT_GT(loudest, 128u);
#endif
}

TEST(SynthAudioPath, SampleVoicesOfARealBankAllocateNothing) {
#if KV_SANITIZER_ALLOCATOR
  GTEST_SKIP() << "the sanitizers own the allocator";
#else
  const std::filesystem::path bank = "/usr/share/sounds/sf2/TimGM6mb.sf2";
  if (!test::Need(std::filesystem::exists(bank), "timgm6mb-soundfont")) return;
  MessageBoxesEnabled = 0;
  SetSkippedBoxesQuiet(true);
  ResetVoiceKinds();
  Collection c;
  ASSERT_TRUE(ImportFile(c, bank, false));
  SynthEngine engine(16, 128, -1.0f, 44100, 0);
  for (const Instrument* inst : c.All<Instrument>()) {
    auto compiled = std::make_unique<SynthInstrument>();
    ASSERT_TRUE(CompileInstrument(*inst, engine.Cache(), *compiled));
    engine.AddInstrument(std::move(compiled), false);
  }
  // Twenty seconds of the stress pattern on the bank's own programs, with
  // their envelopes, LFOs, filters and loops.
  const auto events = test::StressPattern(20);
  engine.ResizeRing(events.size() + 1);
  for (const auto& e : events) engine.QueueAtSeconds(e.word, e.seconds);
  alignas(16) float out[2 * kSynthBlock];
  engine.RenderBlock(out);
  g_allocations = 0;
  g_locks = 0;
  float peak = 0;
  g_counting = true;
  for (int b = 0; b < 20 * 44100 / kSynthBlock; ++b) {
    engine.RenderBlock(out);
    peak = std::max(peak, engine.lastPeak);
  }
  g_counting = false;
  EXPECT_EQ(g_allocations.load(), 0);
  EXPECT_EQ(g_locks.load(), 0);
  EXPECT_GT(peak, 0.01f);
#endif
}

}  // namespace
}  // namespace kv
