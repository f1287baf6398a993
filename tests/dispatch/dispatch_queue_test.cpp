#include "dispatch/dispatch_queue.h"
#include "dispatch/thread_pool.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <memory>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

namespace symlift::dispatch {
namespace {

using namespace std::chrono_literals;

TEST(SerialDispatchQueueTest, AsyncItemsRunOneAtATimeInOrder) {
  ThreadPool pool;
  auto queue = SerialDispatchQueue::create(pool, "test.serial");
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
  ThreadPool pool;
  auto queue = SerialDispatchQueue::create(pool, "test.sync");
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

// A synchronous caller waiting behind another is handed the queue by that
// caller directly, not through a worker of the pool: at the end of a run
// the pool runs nothing more, and a caller that waited for a worker would
// wait for ever (and the pool, joining its threads at exit, with it). Here
// every worker of the pool is kept busy while the two callers meet.
TEST(SerialDispatchQueueTest, SyncCallerIsHandedTheQueueWithoutThePool) {
  ThreadPool pool;
  constexpr std::size_t kPoolCap = ThreadPool::kDefaultMaxThreads;
  // Shared with the workers, which may still be waking when the test ends:
  // they own it with the test, and whatever way the test ends they are let go.
  struct Workers {
    std::mutex mutex;
    std::condition_variable changed;
    std::size_t busy = 0;
    bool release = false;
    void letGo() {
      {
        std::lock_guard<std::mutex> guard(mutex);
        release = true;
      }
      changed.notify_all();
    }
  };
  auto workers = std::make_shared<Workers>();
  struct LetGoAtTheEnd {
    std::shared_ptr<Workers> workers;
    ~LetGoAtTheEnd() { workers->letGo(); }
  } letGoAtTheEnd{workers};
  for (std::size_t i = 0; i < kPoolCap; ++i)
    pool.submit([workers] {
      std::unique_lock<std::mutex> lock(workers->mutex);
      ++workers->busy;
      workers->changed.notify_all();
      workers->changed.wait(lock, [&] { return workers->release; });
      --workers->busy;
      workers->changed.notify_all();
    });
  const auto patience = std::chrono::milliseconds(static_cast<long>(20000 * symlift::testing::timeScale()));
  {
    std::unique_lock<std::mutex> lock(workers->mutex);
    ASSERT_TRUE(workers->changed.wait_for(lock, patience, [&] { return workers->busy == kPoolCap; }))
        << workers->busy << " workers busy";
  }
  ASSERT_EQ(pool.threadCount(), kPoolCap);

  auto queue = SerialDispatchQueue::create(pool, "test.handover");
  std::promise<void> firstEntered, firstMayLeave;
  std::shared_future<void> mayLeave = firstMayLeave.get_future().share();
  std::thread first([&] {
    queue->sync([&] {
      firstEntered.set_value();
      mayLeave.wait();
    });
  });
  firstEntered.get_future().wait();
  std::promise<void> secondRan;
  std::thread second([&] { queue->sync([&] { secondRan.set_value(); }); });
  std::this_thread::sleep_for(50ms);  // the second caller is now queued
  firstMayLeave.set_value();
  const bool handedOver = secondRan.get_future().wait_for(5s) == std::future_status::ready;
  EXPECT_TRUE(handedOver) << "the second synchronous caller waited for a worker of the pool";

  workers->letGo();
  first.join();
  second.join();
  // The pool is idle again for whatever runs next in this process.
  std::unique_lock<std::mutex> lock(workers->mutex);
  EXPECT_TRUE(workers->changed.wait_for(lock, patience, [&] { return workers->busy == 0; }));
}

TEST(DispatchQueueTest, AsyncAfterWaitsAtLeastTheDelay) {
  ThreadPool pool;
  auto queue = SerialDispatchQueue::create(pool, "test.after");
  std::promise<std::chrono::steady_clock::time_point> fired;
  auto began = std::chrono::steady_clock::now();
  queue->asyncAfter(40ms, [&] { fired.set_value(std::chrono::steady_clock::now()); });
  EXPECT_GE(fired.get_future().get() - began, 40ms);

  std::promise<void> background;
  began = std::chrono::steady_clock::now();
  pool.concurrentQueue().asyncAfter(20ms, [&] { background.set_value(); });
  background.get_future().wait();
  EXPECT_GE(std::chrono::steady_clock::now() - began, 20ms);
}

TEST(DispatchQueueTest, DelayedItemsFireInDueOrder) {
  ThreadPool pool;
  auto queue = SerialDispatchQueue::create(pool, "test.order");
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

// The retry ladder's shape: delayed work that, when it runs on the
// background queue, schedules the next delayed step. Many ladders at once,
// with delays of a millisecond or two, must all reach their end.
TEST(DispatchQueueTest, DelayedChainsScheduledFromFiredWorkAllFinish) {
  ThreadPool pool;
  constexpr int kChains = 48, kSteps = 25;
  struct Shared {
    std::mutex mutex;
    std::condition_variable finished;
    int chainsDone = 0;
    std::atomic<int> steps{0};
  };
  auto shared = std::make_shared<Shared>();
  auto queue = SerialDispatchQueue::create(pool, "test.chains");
  std::function<void(int, int)> step = [&](int chain, int remaining) {
    ++shared->steps;
    if (remaining == 0) {
      std::lock_guard<std::mutex> guard(shared->mutex);
      ++shared->chainsDone;
      shared->finished.notify_all();
      return;
    }
    auto delay = std::chrono::microseconds((chain * 7 + remaining * 13) % 2000);
    DispatchQueue& target = chain % 3 == 0 ? static_cast<DispatchQueue&>(*queue) : pool.concurrentQueue();
    target.asyncAfter(delay, [&step, chain, remaining] { step(chain, remaining - 1); });
  };
  std::vector<std::thread> starters;
  for (int t = 0; t < 4; ++t)
    starters.emplace_back([&, t] {
      for (int chain = t; chain < kChains; chain += 4) step(chain, kSteps);
    });
  for (auto& thread : starters) thread.join();

  std::unique_lock<std::mutex> lock(shared->mutex);
  bool all = shared->finished.wait_for(lock, 60s, [&] { return shared->chainsDone == kChains; });
  EXPECT_TRUE(all) << shared->chainsDone << " of " << kChains << " chains finished, "
                   << shared->steps.load() << " steps ran";
  if (!all) std::abort();  // the steps refer to this frame
}

// A short delay scheduled while the dispatcher sleeps towards a long one is
// not held back by it.
TEST(DispatchQueueTest, ShortDelayIsNotHeldBehindALongerOne) {
  ThreadPool pool;
  auto late = std::make_shared<std::atomic<bool>>(false);
  pool.concurrentQueue().asyncAfter(30s, [late] { late->store(true); });
  std::this_thread::sleep_for(20ms);  // the dispatcher is now asleep until then
  std::promise<void> fired;
  auto began = std::chrono::steady_clock::now();
  pool.concurrentQueue().asyncAfter(1ms, [&] { fired.set_value(); });
  ASSERT_EQ(fired.get_future().wait_for(10s), std::future_status::ready);
  EXPECT_LT(std::chrono::steady_clock::now() - began, 2s);
  EXPECT_FALSE(late->load());
}

}  // namespace
}  // namespace symlift::dispatch
