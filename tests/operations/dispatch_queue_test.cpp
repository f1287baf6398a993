#include "operations/dispatch_queue.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

namespace symlift::operations {
namespace {

using namespace std::chrono_literals;

TEST(SerialDispatchQueueTest, AsyncItemsRunOneAtATimeInOrder) {
  auto queue = SerialDispatchQueue::create("test.serial");
  std::vector<int> order;  // touched only on the queue
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  for (int i = 0; i < 200; ++i)
    queue->async([&, i] {
      if (++inside > 1) overlapped = true;
      order.push_back(i);
      --inside;
    });
  std::vector<int> seen;
  queue->sync([&] { seen = order; });
  ASSERT_EQ(seen.size(), 200u);
  for (int i = 0; i < 200; ++i) EXPECT_EQ(seen[i], i);
  EXPECT_FALSE(overlapped.load());
}

TEST(SerialDispatchQueueTest, SyncFromManyThreadsIsExclusiveAndRunsOnTheCaller) {
  auto queue = SerialDispatchQueue::create("test.sync");
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  std::atomic<bool> wrongThread{false};
  long counter = 0;  // plain: the queue is the only guard
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        auto caller = std::this_thread::get_id();
        queue->sync([&] {
          if (++inside > 1) overlapped = true;
          if (std::this_thread::get_id() != caller) wrongThread = true;
          ++counter;
          --inside;
        });
        if (i % 50 == 0) queue->async([&] {
          if (++inside > 1) overlapped = true;
          ++counter;
          --inside;
        });
      }
    });
  for (auto& thread : threads) thread.join();
  long total = 0;
  queue->sync([&] { total = counter; });
  EXPECT_EQ(total, 4 * 500 + 4 * 10);
  EXPECT_FALSE(overlapped.load());
  EXPECT_FALSE(wrongThread.load());
}

TEST(DispatchQueueTest, AsyncAfterWaitsAtLeastTheDelay) {
  auto queue = SerialDispatchQueue::create("test.after");
  std::promise<std::chrono::steady_clock::time_point> fired;
  auto began = std::chrono::steady_clock::now();
  queue->asyncAfter(40ms, [&] { fired.set_value(std::chrono::steady_clock::now()); });
  EXPECT_GE(fired.get_future().get() - began, 40ms);

  std::promise<void> background;
  began = std::chrono::steady_clock::now();
  backgroundQueue().asyncAfter(20ms, [&] { background.set_value(); });
  background.get_future().wait();
  EXPECT_GE(std::chrono::steady_clock::now() - began, 20ms);
}

TEST(DispatchQueueTest, DelayedItemsFireInDueOrder) {
  auto queue = SerialDispatchQueue::create("test.order");
  std::vector<int> order;
  std::promise<void> done;
  // The items run on the serial queue; the last of the three, whichever it
  // is, lets the test look. The gaps widen under the sanitizers, where
  // scheduling the three can itself take longer than a short gap.
  const auto step = std::chrono::milliseconds(static_cast<long>(20 * symlift::testing::timeScale()));
  auto record = [&](int item) {
    order.push_back(item);
    if (order.size() == 3) done.set_value();
  };
  queue->asyncAfter(3 * step, [&] { record(3); });
  queue->asyncAfter(step, [&] { record(1); });
  queue->asyncAfter(2 * step, [&] { record(2); });
  done.get_future().wait();
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

}  // namespace
}  // namespace symlift::operations
