#include "core/parallel.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

namespace kv {

namespace {

struct Shared {
  std::size_t count;
  const std::function<void(std::size_t)>* work;
  std::atomic<std::size_t> next{0};

  void Run() {
    for (std::size_t i; (i = next.fetch_add(1, std::memory_order_relaxed)) < count;) (*work)(i);
  }
};

void* RunShared(void* shared) {
  static_cast<Shared*>(shared)->Run();
  return nullptr;
}

}  // namespace

unsigned ParallelThreads(std::size_t count, unsigned maxThreads) {
  unsigned threads = std::max(1u, std::thread::hardware_concurrency());
  if (maxThreads) threads = std::min(threads, maxThreads);
  return static_cast<unsigned>(std::min<std::size_t>(threads, std::max<std::size_t>(count, 1)));
}

void ParallelFor(std::size_t count, const std::function<void(std::size_t)>& work, unsigned maxThreads) {
  Shared shared{count, &work};
  // pthreads rather than std::thread: a refused thread is a return code here,
  // and the caller simply takes its share.
  std::vector<pthread_t> started;
  const unsigned threads = ParallelThreads(count, maxThreads);
  for (unsigned t = 1; t < threads; ++t) {
    pthread_t thread;
    if (pthread_create(&thread, nullptr, RunShared, &shared) != 0) break;
    started.push_back(thread);
  }
  shared.Run();
  for (pthread_t thread : started) pthread_join(thread, nullptr);
}

}  // namespace kv
