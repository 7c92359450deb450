// Every allocation of the core test program is counted, so that a test can
// show that a stretch of code allocates nothing.
#pragma once

namespace kv::test {
long AllocationCount();
}  // namespace kv::test
