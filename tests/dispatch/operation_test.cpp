// Operations and their queues: dependencies, completion blocks and
// cancellation; asynchronous operations' one outcome; compound operations
// counting their sub-operations' ends.

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <latch>
#include <mutex>
#include <string>
#include <vector>

#include "dispatch/async_operation.h"
#include "dispatch/compound_operation.h"
#include "dispatch/operation_queue.h"
#include "dispatch/thread_pool.h"
#include "support/test_support.h"

namespace symlift::dispatch {
namespace {

using namespace std::chrono_literals;

// A synchronous operation that runs a function.
struct BlockOperation : Operation {
  explicit BlockOperation(std::function<void()> body) : body(std::move(body)) {}
  void main() override { body(); }
  std::function<void()> body;
};

// An asynchronous operation that ends on another thread, after main has
// returned and the delay has passed, with the error it was given.
struct DelayedAsyncOperation : SUPKITAsyncOperation {
  DelayedAsyncOperation(ThreadPool& pool, std::chrono::milliseconds delay, support::ErrorPtr error)
      : SUPKITAsyncOperation("DelayedAsyncOperation"), pool(pool), delay(delay), error(std::move(error)) {}
  void main() override {
    auto self = std::static_pointer_cast<DelayedAsyncOperation>(shared_from_this());
    pool.submitAfter(delay, [self] { self->finishWithError(self->error); });
  }
  ThreadPool& pool;
  std::chrono::milliseconds delay;
  support::ErrorPtr error;
};

std::shared_ptr<DelayedAsyncOperation> after(ThreadPool& pool, std::chrono::milliseconds delay,
                                             support::ErrorPtr error = nullptr) {
  return std::make_shared<DelayedAsyncOperation>(pool, delay, std::move(error));
}

TEST(OperationQueueTest, CancelledOperationsSkipMainButStillComplete) {
  ThreadPool pool;
  auto queue = OperationQueue::create(pool);
  std::atomic<bool> ran{false}, completed{false};
  auto blocker = after(pool, 1000ms);
  auto op = std::make_shared<BlockOperation>([&] { ran = true; });
  op->addDependency(blocker);  // would wait a second if it were not cancelled
  op->setCompletionBlock([&] { completed = true; });
  queue->addOperation(op);
  queue->cancelAllOperations();
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_FALSE(ran.load());
  EXPECT_TRUE(completed.load());
  EXPECT_TRUE(op->isFinished());
}

// The completion has returned before the operation reads as finished, and
// only the first end counts.
TEST(SUPKITAsyncOperationTest, CompletionRunsOnceAndBeforeFinishedReadsTrue) {
  ThreadPool pool;
  auto op = after(pool, 5ms, support::makeError("D", 7));
  std::atomic<int> calls{0};
  std::atomic<bool> finishedDuringCompletion{true}, executingDuringCompletion{false};
  support::ErrorPtr received;
  op->setAsyncCompletion([&, raw = op.get()](const support::ErrorPtr& error) {
    if (calls++ > 0) return;
    std::this_thread::sleep_for(20ms);  // the queue must not see the finish meanwhile
    finishedDuringCompletion = raw->isFinished();
    executingDuringCompletion = raw->isExecuting();
    received = error;
  });
  OperationQueue::create(pool)->addOperationAndWait(op);
  op->finishWithError(nullptr);
  EXPECT_EQ(calls.load(), 1);
  EXPECT_FALSE(finishedDuringCompletion.load());
  EXPECT_TRUE(executingDuringCompletion.load());
  ASSERT_TRUE(received);
  EXPECT_EQ(received->code, 7);
  EXPECT_TRUE(op->isFinished());
  EXPECT_FALSE(op->isExecuting());
}

struct Outcome {
  std::atomic<int> calls{0};
  support::ErrorPtr error;
  std::promise<void> done;
};

std::shared_ptr<Outcome> watch(const std::shared_ptr<SUPCompoundOperation>& compound) {
  auto outcome = std::make_shared<Outcome>();
  compound->setAsyncCompletion([outcome](const support::ErrorPtr& error) {
    if (outcome->calls++ == 0) {
      outcome->error = error;
      outcome->done.set_value();
    }
  });
  return outcome;
}

// An operation that only the test ends.
class HandFinishedOperation : public SUPKITAsyncOperation {
 public:
  HandFinishedOperation() : SUPKITAsyncOperation("HandFinishedOperation") {}
  void main() override { started.count_down(); }
  std::latch started{1};
};

// Each sub-operation's completion checks whether all are done; when the last
// two end together, both checks find every count in and the compound must
// still report once.
TEST(SUPCompoundOperationTest, SubOperationsEndingTogetherReportOnce) {
  ThreadPool pool;
  std::vector<std::shared_ptr<Outcome>> outcomes;
  auto queue = OperationQueue::create(pool);
  for (int round = 0; round < 200; ++round) {
    auto compound = std::make_shared<SUPCompoundOperation>(pool);
    auto a = std::make_shared<HandFinishedOperation>();
    auto b = std::make_shared<HandFinishedOperation>();
    compound->setOperations({a, b});
    compound->compoundQueue()->setMaxConcurrentOperationCount(2);
    outcomes.push_back(watch(compound));
    queue->addOperation(compound);
    a->started.wait();
    b->started.wait();
    a->finishWithError(nullptr);
    b->finishWithError(nullptr);
    compound->waitUntilFinished();
  }
  std::this_thread::sleep_for(50ms);  // late second reports show up here
  int extraReports = 0;
  for (const auto& outcome : outcomes) extraReports += outcome->calls.load() - 1;
  EXPECT_EQ(extraReports, 0);
}

TEST(SUPCompoundOperationTest, CancelWhileRunningReportsCancelledOnce) {
  ThreadPool pool;
  auto compound = std::make_shared<SUPCompoundOperation>(pool);
  auto quick = after(pool, 1ms);
  compound->setOperations({quick, after(pool, 300ms)});
  compound->compoundQueue()->setMaxConcurrentOperationCount(1);  // the slow one waits behind the quick one
  auto outcome = watch(compound);
  OperationQueue::create(pool)->addOperation(compound);
  quick->waitUntilFinished();
  compound->cancel();
  ASSERT_EQ(outcome->done.get_future().wait_for(5s), std::future_status::ready);
  compound->waitUntilFinished();
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(outcome->calls.load(), 1);
  ASSERT_TRUE(outcome->error);
  EXPECT_EQ(outcome->error->code, 4294967294LL);
  EXPECT_EQ(outcome->error->localizedDescription(), "(null) cancelled");
}

}  // namespace
}  // namespace symlift::dispatch
