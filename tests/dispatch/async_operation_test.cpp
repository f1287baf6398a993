#include "dispatch/async_operation.h"
#include "dispatch/thread_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "dispatch/operation_queue.h"
#include "dispatch/test_operations.h"

namespace symlift::dispatch {
namespace {

using namespace std::chrono_literals;
using testing::DelayedAsyncOperation;

struct RecordedNotice {
  std::string key;
  bool prior;
  bool executing;
  bool finished;
  bool operator==(const RecordedNotice&) const = default;
};

TEST(SUPKITAsyncOperationTest, NoticesComeInLifecycleOrder) {
  ThreadPool pool;
  auto op = std::make_shared<DelayedAsyncOperation>(pool, 5ms);
  std::mutex mutex;
  std::vector<RecordedNotice> notices;
  // The observer reads the state from inside the notice: the lock is recursive.
  op->addObserver([&, raw = op.get()](std::string_view key, bool prior) {
    std::lock_guard<std::mutex> guard(mutex);
    notices.push_back({std::string(key), prior, raw->isExecuting(), raw->isFinished()});
  });
  auto queue = OperationQueue::create(pool);
  queue->addOperationAndWait(op);
  std::lock_guard<std::mutex> guard(mutex);
  EXPECT_EQ(notices, (std::vector<RecordedNotice>{
                         {"isExecuting", true, false, false},
                         {"isExecuting", false, true, false},
                         {"isExecuting", true, true, false},
                         {"isExecuting", false, false, false},
                         {"isFinished", true, false, false},
                         {"isFinished", false, false, true},
                     }));
}

TEST(SUPKITAsyncOperationTest, CompletionHasReturnedBeforeFinishedReadsTrue) {
  ThreadPool pool;
  auto op = std::make_shared<DelayedAsyncOperation>(pool, 5ms, support::makeError("D", 7));
  std::atomic<bool> finishedDuringCompletion{true};
  std::atomic<bool> executingDuringCompletion{false};
  support::ErrorPtr received;
  op->setAsyncCompletion([&, raw = op.get()](const support::ErrorPtr& error) {
    std::this_thread::sleep_for(20ms);  // the queue must not see the finish meanwhile
    finishedDuringCompletion = raw->isFinished();
    executingDuringCompletion = raw->isExecuting();
    received = error;
  });
  OperationQueue::create(pool)->addOperationAndWait(op);
  EXPECT_FALSE(finishedDuringCompletion.load());
  EXPECT_TRUE(executingDuringCompletion.load());
  ASSERT_TRUE(received);
  EXPECT_EQ(received->code, 7);
}

TEST(SUPKITAsyncOperationTest, CancelledBeforeStartSkipsMainAndCompletion) {
  ThreadPool pool;
  auto op = std::make_shared<DelayedAsyncOperation>(pool);
  std::atomic<bool> completionCalled{false};
  op->setAsyncCompletion([&](const support::ErrorPtr&) { completionCalled = true; });
  op->cancel();
  OperationQueue::create(pool)->addOperationAndWait(op);
  EXPECT_EQ(op->mainRuns.load(), 0);
  EXPECT_FALSE(completionCalled.load());
  EXPECT_TRUE(op->isFinished());
  EXPECT_FALSE(op->isExecuting());
}

TEST(SUPKITAsyncOperationTest, FinishWithoutCompletionOnlyMarksDone) {
  ThreadPool pool;
  auto op = std::make_shared<DelayedAsyncOperation>(pool);
  OperationQueue::create(pool)->addOperationAndWait(op);
  EXPECT_TRUE(op->isFinished());
  EXPECT_FALSE(op->isExecuting());
}

TEST(SUPKITAsyncOperationTest, LockNameCarriesTheConcreteClassName) {
  ThreadPool pool;
  DelayedAsyncOperation op(pool);
  EXPECT_EQ(op.lockName(), "com.omvara.pelloran.vantrel.DelayedAsyncOperation-lock");
  EXPECT_TRUE(op.isAsynchronous());
  EXPECT_TRUE(op.isConcurrent());
}

}  // namespace
}  // namespace symlift::dispatch
