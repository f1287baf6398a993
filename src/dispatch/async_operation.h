#pragma once
// Base of every pipeline step whose work ends after main() returns. It keeps
// its executing and finished states under its own recursive lock, announces
// every change, and hands the outcome to the completion its owner installed.
// Subclasses override main() and end, on any thread, with finishWithError().

#include <functional>
#include <mutex>
#include <string>
#include <string_view>

#include "dispatch/operation.h"
#include "support/error.h"

namespace symlift::dispatch {

class SUPKITAsyncOperation : public Operation {
 public:
  using AsyncCompletion = std::function<void(const support::ErrorPtr& error)>;

  // className names the concrete class, for the lock's diagnostic name.
  explicit SUPKITAsyncOperation(std::string_view className = "SUPKITAsyncOperation");

  bool isConcurrent() const override { return true; }
  bool isAsynchronous() const override { return true; }
  bool isExecuting() const override;
  bool isFinished() const override;
  void start() override;

  // Calls the completion (outside the lock) with the outcome, then marks
  // the operation no longer executing and finished, in that order. Only the
  // first call counts: an operation reports one outcome, so a second end
  // racing in from another thread (two sub-operations of a compound ending
  // together) changes nothing.
  void finishWithError(const support::ErrorPtr& error);

  void setAsyncCompletion(AsyncCompletion completion);
  AsyncCompletion asyncCompletion() const;

  const std::string& lockName() const { return lockName_; }
  void lock(const std::function<void()>& block);

 protected:
  // When cancelled, marks the operation done and answers true.
  bool checkForCancellation();
  void markStarted();
  void markDone();
  void unlockedMarkStarted();
  void unlockedMarkComplete();
  void unlockedMarkFinished();
  void changeValueForKey(std::string_view key, const std::function<void()>& block);

 private:
  bool internalExecuting_ = false;
  bool internalFinished_ = false;
  mutable std::mutex completionMutex_;  // guards asyncCompletion_ and finishing_
  AsyncCompletion asyncCompletion_;
  bool finishing_ = false;
  // Guards both booleans and the notices around their changes; recursive so
  // that an observer may read the state from inside a notice.
  mutable std::recursive_mutex lock_;
  std::string lockName_;
};

}  // namespace symlift::dispatch
