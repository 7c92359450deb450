#include "core/parallel.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace kv {
namespace {

TEST(ParallelFor, EveryIndexRunsOnceWhateverTheThreadCount) {
  for (std::size_t count : {0u, 1u, 2u, 3u, 1000u}) {
    for (unsigned threads : {0u, 1u, 2u, 7u}) {
      std::vector<std::atomic<int>> runs(count);
      ParallelFor(count, [&](std::size_t i) { runs[i].fetch_add(1); }, threads);
      for (std::size_t i = 0; i < count; ++i)
        ASSERT_EQ(runs[i].load(), 1) << "index " << i << " of " << count << ", threads " << threads;
    }
  }
}

TEST(ParallelFor, OneThreadMeansTheCallerInOrder) {
  const auto caller = std::this_thread::get_id();
  std::vector<std::size_t> order;
  ParallelFor(50, [&](std::size_t i) {
    EXPECT_EQ(std::this_thread::get_id(), caller);
    order.push_back(i);
  }, 1);
  ASSERT_EQ(order.size(), 50u);
  for (std::size_t i = 0; i < order.size(); ++i) EXPECT_EQ(order[i], i);
  EXPECT_EQ(ParallelThreads(0), 1u);
  EXPECT_EQ(ParallelThreads(3, 1), 1u);
  EXPECT_LE(ParallelThreads(2), 2u);
}

}  // namespace
}  // namespace kv
