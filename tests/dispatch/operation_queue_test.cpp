#include "dispatch/operation_queue.h"
#include "dispatch/thread_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <vector>

#include "dispatch/test_operations.h"

namespace symlift::dispatch {
namespace {

using namespace std::chrono_literals;
using testing::BlockOperation;
using testing::DelayedAsyncOperation;

TEST(OperationQueueTest, WidthOneRunsInOrderWithoutOverlap) {
  ThreadPool pool;
  auto queue = OperationQueue::create(pool);
  queue->setMaxConcurrentOperationCount(1);
  std::mutex mutex;
  std::vector<int> order;
  std::atomic<int> running{0};
  std::atomic<int> maxRunning{0};
  std::vector<std::shared_ptr<Operation>> ops;
  for (int i = 0; i < 20; ++i) {
    ops.push_back(std::make_shared<BlockOperation>([&, i] {
      int now = ++running;
      maxRunning = std::max(maxRunning.load(), now);
      std::this_thread::sleep_for(1ms);
      {
        std::lock_guard<std::mutex> guard(mutex);
        order.push_back(i);
      }
      --running;
    }));
  }
  queue->addOperations(ops, true);
  queue->waitUntilAllOperationsAreFinished();
  ASSERT_EQ(order.size(), 20u);
  for (int i = 0; i < 20; ++i) EXPECT_EQ(order[i], i);
  EXPECT_EQ(maxRunning.load(), 1);
}

TEST(OperationQueueTest, WidthOneHoldsTheSlotUntilAnAsyncOperationFinishes) {
  ThreadPool pool;
  auto queue = OperationQueue::create(pool);
  queue->setMaxConcurrentOperationCount(1);
  auto slow = std::make_shared<DelayedAsyncOperation>(pool, 50ms);
  std::atomic<bool> slowFinishedFirst{false};
  auto next = std::make_shared<BlockOperation>([&] { slowFinishedFirst = slow->isFinished(); });
  queue->addOperation(slow);
  queue->addOperation(next);
  next->waitUntilFinished();
  EXPECT_TRUE(slowFinishedFirst.load());
}

TEST(OperationQueueTest, DefaultWidthIsAtLeastTwoAndRunsSideBySide) {
  ThreadPool pool;
  auto queue = OperationQueue::create(pool);
  EXPECT_GE(queue->effectiveMaxConcurrentOperationCount(), 2);
  // Two operations that each wait for the other can only finish side by side.
  std::promise<void> bStarted;
  std::atomic<bool> sawB{false};
  auto a = std::make_shared<BlockOperation>(
      [&] { sawB = bStarted.get_future().wait_for(5s) == std::future_status::ready; });
  auto b = std::make_shared<BlockOperation>([&] { bStarted.set_value(); });
  queue->addOperations({a, b}, true);
  EXPECT_TRUE(sawB.load());
}

TEST(OperationQueueTest, DependencyOnAnotherQueueDelaysStart) {
  ThreadPool pool;
  auto first = OperationQueue::create(pool);
  auto second = OperationQueue::create(pool);
  auto dependency = std::make_shared<DelayedAsyncOperation>(pool, 40ms);
  std::atomic<bool> sawDependencyFinished{false};
  auto dependent = std::make_shared<BlockOperation>([&] { sawDependencyFinished = dependency->isFinished(); });
  dependent->addDependency(dependency);
  second->addOperation(dependent);
  std::this_thread::sleep_for(10ms);
  EXPECT_FALSE(dependent->isFinished());
  first->addOperation(dependency);
  dependent->waitUntilFinished();
  EXPECT_TRUE(sawDependencyFinished.load());
}

TEST(OperationQueueTest, CompletionBlockRunsAfterFinishAndBeforeTheSlotIsReused) {
  ThreadPool pool;
  auto queue = OperationQueue::create(pool);
  queue->setMaxConcurrentOperationCount(1);
  std::vector<std::string> events;
  std::mutex mutex;
  auto record = [&](std::string event) {
    std::lock_guard<std::mutex> guard(mutex);
    events.push_back(std::move(event));
  };
  auto a = std::make_shared<BlockOperation>([&] { record("a main"); });
  a->setCompletionBlock([&, raw = a.get()] { record(raw->isFinished() ? "a completion after finish" : "early"); });
  auto b = std::make_shared<BlockOperation>([&] { record("b main"); });
  queue->addOperations({a, b}, false);
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_EQ(events, (std::vector<std::string>{"a main", "a completion after finish", "b main"}));
}

TEST(OperationQueueTest, CancelledOperationsSkipMainButStillComplete) {
  ThreadPool pool;
  auto queue = OperationQueue::create(pool);
  std::atomic<bool> ran{false};
  std::atomic<bool> completed{false};
  auto blocker = std::make_shared<DelayedAsyncOperation>(pool, 1000ms);
  auto op = std::make_shared<BlockOperation>([&] { ran = true; });
  op->addDependency(blocker);  // would wait a second if it were not cancelled
  op->setCompletionBlock([&] { completed = true; });
  queue->addOperation(op);
  queue->cancelAllOperations();
  op->waitUntilFinished();
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_FALSE(ran.load());
  EXPECT_TRUE(completed.load());
  EXPECT_TRUE(op->isFinished());
}

TEST(OperationQueueTest, AddAndWaitReturnsOnlyAfterAnAsyncFinish) {
  ThreadPool pool;
  auto queue = OperationQueue::create(pool);
  auto op = std::make_shared<DelayedAsyncOperation>(pool, 30ms);
  auto began = std::chrono::steady_clock::now();
  queue->addOperationAndWait(op);
  EXPECT_TRUE(op->isFinished());
  EXPECT_GE(std::chrono::steady_clock::now() - began, 30ms);
}

}  // namespace
}  // namespace symlift::dispatch
