#include "dispatch/async_operation.h"

#include <fmt/format.h>

namespace symlift::dispatch {

SUPKITAsyncOperation::SUPKITAsyncOperation(std::string_view className)
    : lockName_(fmt::format("com.omvara.pelloran.vantrel.{}-lock", className)) {}

bool SUPKITAsyncOperation::isExecuting() const {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  return internalExecuting_;
}

bool SUPKITAsyncOperation::isFinished() const {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  return internalFinished_;
}

void SUPKITAsyncOperation::start() {
  if (checkForCancellation()) return;
  markStarted();
  main();
}

bool SUPKITAsyncOperation::checkForCancellation() {
  if (!isCancelled()) return false;
  markDone();
  return true;
}

void SUPKITAsyncOperation::markStarted() {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  unlockedMarkStarted();
}

void SUPKITAsyncOperation::markDone() {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  unlockedMarkComplete();
  unlockedMarkFinished();
}

void SUPKITAsyncOperation::unlockedMarkStarted() {
  changeValueForKey(kIsExecutingKey, [this] { internalExecuting_ = true; });
}

void SUPKITAsyncOperation::unlockedMarkComplete() {
  changeValueForKey(kIsExecutingKey, [this] { internalExecuting_ = false; });
}

void SUPKITAsyncOperation::unlockedMarkFinished() {
  changeValueForKey(kIsFinishedKey, [this] { internalFinished_ = true; });
}

void SUPKITAsyncOperation::changeValueForKey(std::string_view key, const std::function<void()>& block) {
  willChangeValueForKey(key);
  block();
  didChangeValueForKey(key);
}

void SUPKITAsyncOperation::lock(const std::function<void()>& block) {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  block();
}

void SUPKITAsyncOperation::finishWithError(const support::ErrorPtr& error) {
  AsyncCompletion completion;
  {
    std::lock_guard<std::mutex> guard(completionMutex_);
    if (finishing_) return;
    finishing_ = true;
    completion = asyncCompletion_;
  }
  if (completion) completion(error);
  markDone();
}

void SUPKITAsyncOperation::setAsyncCompletion(AsyncCompletion completion) {
  std::lock_guard<std::mutex> guard(completionMutex_);
  asyncCompletion_ = std::move(completion);
}

SUPKITAsyncOperation::AsyncCompletion SUPKITAsyncOperation::asyncCompletion() const {
  std::lock_guard<std::mutex> guard(completionMutex_);
  return asyncCompletion_;
}

}  // namespace symlift::dispatch
