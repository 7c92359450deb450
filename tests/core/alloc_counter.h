// Every allocation of the core test program is counted, so that a test can
// show that a stretch of code allocates nothing.
#pragma once

namespace kv::test {
// Allocations so far; -1 in sanitizer builds, which don't count.
long AllocationCount();
}  // namespace kv::test
