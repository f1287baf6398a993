// Serial dispatch queues, and the thread pool under them: its
// parallel loop and what its destruction runs, drops and joins.
//
// Operations and their queues: dependencies, completion blocks and
// cancellation; asynchronous operations' one outcome; compound operations
// counting their sub-operations' ends.

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <future>
#include <latch>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "dispatch/async_operation.h"
#include "dispatch/compound_operation.h"
#include "dispatch/dispatch_queue.h"
#include "dispatch/operation_queue.h"
#include "dispatch/thread_pool.h"
#include "support/test_support.h"

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
