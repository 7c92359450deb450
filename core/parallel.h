// Spreading independent pieces of work over the machine's cores.
#pragma once

#include <cstddef>
#include <functional>

namespace kv {

// Runs work(i) for every i in [0, count) on up to `maxThreads` threads, the
// caller's among them, and returns when all are done. Indices are handed out
// one at a time, so pieces of uneven size even out. work(i) must touch
// nothing that another index touches. Where threads can't be started the
// caller does the rest alone, so the result never depends on them.
void ParallelFor(std::size_t count, const std::function<void(std::size_t)>& work, unsigned maxThreads = 0);

// Threads ParallelFor would use for `count` pieces: the hardware's, at most
// `maxThreads` when given, never more than the pieces.
unsigned ParallelThreads(std::size_t count, unsigned maxThreads = 0);

}  // namespace kv
