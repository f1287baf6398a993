// Serial dispatch queues, and the thread pool under them: its
// parallel loop and what its destruction runs, drops and joins.

#include "dispatch/dispatch_queue.h"
#include "dispatch/thread_pool.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <thread>
#include <vector>

namespace symlift::dispatch {
namespace {

using namespace std::chrono_literals;

// Asynchronous items run in order; synchronous ones from many threads run on
// their caller; nothing ever overlaps.
TEST(SerialDispatchQueueTest, ItemsRunOneAtATimeAsyncInOrderSyncOnTheCaller) {
  ThreadPool pool;
  auto queue = SerialDispatchQueue::create(pool, "test.serial");
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false}, wrongThread{false};
  std::vector<int> order;  // plain: the queue is the only guard
  auto item = [&](int value) {
    if (++inside > 1) overlapped = true;
    order.push_back(value);
    --inside;
  };
  for (int i = 0; i < 200; ++i) queue->async([&, i] { item(i); });
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        auto caller = std::this_thread::get_id();
        queue->sync([&] {
          if (std::this_thread::get_id() != caller) wrongThread = true;
          item(-1);
        });
        if (i % 50 == 0) queue->async([&] { item(-2); });
      }
    });
  for (auto& thread : threads) thread.join();
  std::vector<int> seen;
  queue->sync([&] { seen = order; });
  ASSERT_EQ(seen.size(), 200u + 4 * 500 + 4 * 10);
  for (int i = 0; i < 200; ++i) EXPECT_EQ(seen[i], i);
  EXPECT_FALSE(overlapped.load());
  EXPECT_FALSE(wrongThread.load());
}

// A synchronous caller waiting behind another is handed the queue by that
// caller directly, not through a worker of the pool: at the end of a run the
// pool runs nothing more, and a caller that waited for a worker would wait
// for ever. Here the pool's only worker is kept busy while the two meet.
TEST(SerialDispatchQueueTest, SyncCallerIsHandedTheQueueWithoutThePool) {
  ThreadPool pool(1);
  std::promise<void> workerBusy, release;
  pool.submit([&workerBusy, released = release.get_future().share()] {
    workerBusy.set_value();
    released.wait();
  });
  // However the test ends, the worker is let go before the pool is joined.
  std::once_flag once;
  auto letGo = [&] { std::call_once(once, [&] { release.set_value(); }); };
  struct AtTheEnd {
    std::function<void()> run;
    ~AtTheEnd() { run(); }
  } atTheEnd{letGo};
  workerBusy.get_future().wait();

  auto queue = SerialDispatchQueue::create(pool, "test.handover");
  std::promise<void> firstEntered, firstMayLeave, secondRan;
  std::thread first([&, mayLeave = firstMayLeave.get_future()] {
    queue->sync([&] {
      firstEntered.set_value();
      mayLeave.wait();
    });
  });
  firstEntered.get_future().wait();
  std::thread second([&] { queue->sync([&] { secondRan.set_value(); }); });
  std::this_thread::sleep_for(50ms);  // the second caller is now queued
  firstMayLeave.set_value();
  EXPECT_EQ(secondRan.get_future().wait_for(5s), std::future_status::ready)
      << "the second synchronous caller waited for a worker of the pool";
  letGo();
  first.join();
  second.join();
}

TEST(ThreadPoolTest, ParallelLoopCallsEveryIndexOnceOnAtMostMaxParallelThreads) {
  ThreadPool pool;
  constexpr std::size_t kCount = 500;
  std::vector<std::atomic<int>> calls(kCount);
  std::mutex mutex;
  std::condition_variable joined;
  std::set<std::thread::id> threads;
  pool.parallelFor(kCount, [&](std::size_t i) {
    ++calls[i];
    std::unique_lock<std::mutex> lock(mutex);
    threads.insert(std::this_thread::get_id());
    joined.notify_all();
    // The first call waits until a second thread has joined in.
    if (i == 0) joined.wait_for(lock, 5s, [&] { return threads.size() >= 2; });
  }, 3);
  for (std::size_t i = 0; i < kCount; ++i) ASSERT_EQ(calls[i].load(), 1) << i;
  EXPECT_GE(threads.size(), 2u);
  EXPECT_LE(threads.size(), 3u);

  // Inside the only worker of a pool of one, nobody can help: the caller
  // does it all, and helpers starting later find nothing left to do.
  ThreadPool one(1);
  std::promise<std::size_t> sum;
  one.submit([&] {
    std::atomic<std::size_t> total{0};
    one.parallelFor(100, [&](std::size_t i) { total += i; }, 4);
    sum.set_value(total);
  });
  auto result = sum.get_future();
  ASSERT_EQ(result.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(result.get(), 4950u);

  // A call that throws (memory running out) stops the loop: the exception
  // reaches the caller once no call is under way any more, long before every
  // index would have been called (however long the thrower was descheduled
  // before the loop heard of it).
  constexpr std::size_t kMany = 20000;
  std::atomic<std::size_t> underWay{0}, called{0};
  EXPECT_THROW(pool.parallelFor(kMany, [&](std::size_t i) {
    ++underWay, ++called;
    std::this_thread::sleep_for(100us);
    --underWay;
    if (i == 50) throw std::bad_alloc();
  }, 3), std::bad_alloc);
  EXPECT_EQ(underWay.load(), 0u);
  EXPECT_LT(called.load(), kMany / 2);
}

std::size_t threadsInProcess() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/task"), std::filesystem::directory_iterator());
}

TEST(ThreadPoolTest, DestructionRunsWhatWasHandedInDropsWhatIsNotDueAndJoins) {
  // A sanitizer's runtime starts a thread of its own with the first thread
  // created; one made and joined first puts it in the count before the pool.
  std::thread([] {}).join();
  const std::size_t before = threadsInProcess();
  std::atomic<int> ran{0};
  auto late = std::make_shared<std::atomic<bool>>(false);
  {
    ThreadPool pool(4);
    for (int i = 0; i < 50; ++i)
      pool.submit([&] {
        std::this_thread::sleep_for(1ms);
        ++ran;
      });
    pool.submitAfter(10s, [late] { late->store(true); });
    EXPECT_GT(threadsInProcess(), before);
  }
  EXPECT_EQ(ran.load(), 50);
  EXPECT_FALSE(late->load());
  EXPECT_EQ(threadsInProcess(), before);
}

}  // namespace
}  // namespace symlift::dispatch
