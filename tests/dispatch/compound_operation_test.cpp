#include "dispatch/compound_operation.h"
#include "dispatch/thread_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <latch>
#include <mutex>

#include "dispatch/test_operations.h"
#include "support/test_support.h"

namespace symlift::dispatch {
namespace {

using namespace std::chrono_literals;
using testing::DelayedAsyncOperation;

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

TEST(SUPCompoundOperationTest, FinishesWithoutErrorAfterTheLastSuccess) {
  ThreadPool pool;
  auto compound = std::make_shared<SUPCompoundOperation>(pool);
  std::vector<std::shared_ptr<SUPKITAsyncOperation>> subs;
  for (int delay : {30, 5, 15}) subs.push_back(std::make_shared<DelayedAsyncOperation>(pool, std::chrono::milliseconds(delay)));
  compound->setOperations(subs);
  auto outcome = watch(compound);
  OperationQueue::create(pool)->addOperationAndWait(compound);
  EXPECT_EQ(outcome->calls.load(), 1);
  EXPECT_FALSE(outcome->error);
  for (const auto& sub : subs) EXPECT_TRUE(sub->isFinished());
  compound->countingQueue()->sync([&] { EXPECT_EQ(compound->completedOperations(), 3u); });
}

TEST(SUPCompoundOperationTest, CollectsEveryFailureAndFinishesOnce) {
  ThreadPool pool;
  auto compound = std::make_shared<SUPCompoundOperation>(pool);
  auto first = support::makeError("sub", 1);
  auto second = support::makeError("sub", 2);
  // Far enough apart that the order of the reports holds under the sanitizers.
  const auto later = std::chrono::milliseconds(static_cast<long>(20 * symlift::testing::timeScale()));
  compound->setOperations({std::make_shared<DelayedAsyncOperation>(pool, later, second),
                           std::make_shared<DelayedAsyncOperation>(pool, 1ms),
                           std::make_shared<DelayedAsyncOperation>(pool, 5ms, first)});
  auto outcome = watch(compound);
  OperationQueue::create(pool)->addOperationAndWait(compound);
  std::this_thread::sleep_for(20ms);  // any late second report would show up here
  EXPECT_EQ(outcome->calls.load(), 1);
  ASSERT_TRUE(outcome->error);
  EXPECT_EQ(outcome->error->domain, kSUPCompoundOperationErrorDomain);
  EXPECT_EQ(outcome->error->code, 4294967293LL);
  const auto& listed = outcome->error->errorLists.at(kSUPCompoundOperationUnderlyingErrorsKey);
  ASSERT_EQ(listed.size(), 2u);
  // In the order reported, not list order.
  EXPECT_EQ(listed[0], first);
  EXPECT_EQ(listed[1], second);
}

// An operation that only the test ends.
class HandFinishedOperation : public SUPKITAsyncOperation {
 public:
  HandFinishedOperation() : SUPKITAsyncOperation("HandFinishedOperation") {}
  void main() override { started.count_down(); }
  std::latch started{1};
};

// Each sub-operation's completion block checks whether all are done; when
// the last two end together, both checks find every count in and the
// compound must still report once.
TEST(SUPCompoundOperationTest, SubOperationsEndingTogetherReportOnce) {
  ThreadPool pool;
  constexpr int kRounds = 200;
  std::vector<std::shared_ptr<Outcome>> outcomes;
  std::vector<std::shared_ptr<SUPCompoundOperation>> compounds;
  auto queue = OperationQueue::create(pool);
  for (int round = 0; round < kRounds; ++round) {
    auto compound = std::make_shared<SUPCompoundOperation>(pool);
    auto a = std::make_shared<HandFinishedOperation>();
    auto b = std::make_shared<HandFinishedOperation>();
    compound->setOperations({a, b});
    compound->compoundQueue()->setMaxConcurrentOperationCount(2);
    outcomes.push_back(watch(compound));
    compounds.push_back(compound);
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

TEST(SUPCompoundOperationTest, EarlierCompletionsOfSubOperationsStillRunFirst) {
  ThreadPool pool;
  auto compound = std::make_shared<SUPCompoundOperation>(pool);
  auto sub = std::make_shared<DelayedAsyncOperation>(pool, 1ms);
  std::atomic<bool> earlierAsync{false};
  std::atomic<bool> earlierBlock{false};
  std::atomic<bool> compoundFinishedBeforeEarlierBlock{false};
  sub->setAsyncCompletion([&](const support::ErrorPtr&) { earlierAsync = true; });
  sub->setCompletionBlock([&, raw = compound.get()] {
    earlierBlock = true;
    compoundFinishedBeforeEarlierBlock = raw->isFinished();
  });
  compound->setOperations({sub});
  auto outcome = watch(compound);
  OperationQueue::create(pool)->addOperationAndWait(compound);
  EXPECT_TRUE(earlierAsync.load());
  EXPECT_TRUE(earlierBlock.load());
  EXPECT_FALSE(compoundFinishedBeforeEarlierBlock.load());
}

TEST(SUPCompoundOperationTest, EmptyListNeverFinishes) {
  ThreadPool pool;
  auto compound = std::make_shared<SUPCompoundOperation>(pool);
  auto outcome = watch(compound);
  OperationQueue::create(pool)->addOperation(compound);
  auto done = outcome->done.get_future();
  EXPECT_EQ(done.wait_for(100ms), std::future_status::timeout);
  EXPECT_TRUE(compound->isExecuting());
  EXPECT_FALSE(compound->isFinished());
  // Nothing else ever ends it: the test does, so that the queue and the
  // operation, which hold each other while it runs, are let go.
  compound->finishWithError(nullptr);
  EXPECT_EQ(done.wait_for(5s), std::future_status::ready);
}

TEST(SUPCompoundOperationTest, CancelBeforeMainFinishesEverythingSilently) {
  ThreadPool pool;
  auto compound = std::make_shared<SUPCompoundOperation>(pool);
  auto a = std::make_shared<DelayedAsyncOperation>(pool, 1ms);
  auto b = std::make_shared<DelayedAsyncOperation>(pool, 1ms);
  compound->setOperations({a, b});
  auto outcome = watch(compound);
  compound->cancel();
  OperationQueue::create(pool)->addOperationAndWait(compound);
  a->waitUntilFinished();
  b->waitUntilFinished();
  EXPECT_EQ(a->mainRuns.load() + b->mainRuns.load(), 0);
  EXPECT_EQ(outcome->calls.load(), 0);
  EXPECT_TRUE(compound->isFinished());
}

TEST(SUPCompoundOperationTest, CancelWhileRunningReportsCancelledOnce) {
  ThreadPool pool;
  auto compound = std::make_shared<SUPCompoundOperation>(pool);
  auto quick = std::make_shared<DelayedAsyncOperation>(pool, 1ms);
  auto slow = std::make_shared<DelayedAsyncOperation>(pool, 300ms);
  auto queue = OperationQueue::create(pool);
  queue->setMaxConcurrentOperationCount(1);
  compound->setOperations({quick, slow});
  compound->compoundQueue()->setMaxConcurrentOperationCount(1);  // slow waits behind quick
  auto outcome = watch(compound);
  queue->addOperation(compound);
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
