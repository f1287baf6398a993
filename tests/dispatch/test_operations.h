#pragma once
// Small operations for the queue and pipeline tests.

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include "dispatch/async_operation.h"
#include "dispatch/thread_pool.h"
#include "dispatch/dispatch_queue.h"
#include "dispatch/operation.h"

namespace symlift::dispatch::testing {

// A synchronous operation that runs a function.
class BlockOperation : public Operation {
 public:
  explicit BlockOperation(std::function<void()> body) : body_(std::move(body)) {}
  void main() override { body_(); }

 private:
  std::function<void()> body_;
};

// An asynchronous operation that finishes from another thread, after an
// optional delay, with the error it was given.
class DelayedAsyncOperation : public SUPKITAsyncOperation {
 public:
  explicit DelayedAsyncOperation(ThreadPool& pool, std::chrono::milliseconds delay = std::chrono::milliseconds(0),
                                 support::ErrorPtr error = nullptr)
      : SUPKITAsyncOperation("DelayedAsyncOperation"), pool_(pool), delay_(delay), error_(std::move(error)) {}
  void main() override {
    mainRuns++;
    auto self = std::static_pointer_cast<DelayedAsyncOperation>(shared_from_this());
    // Finishes later, on another thread, after main has returned.
    pool_.submitAfter(delay_, [self] { self->finishWithError(self->error_); });
  }
  std::atomic<int> mainRuns{0};

 private:
  ThreadPool& pool_;
  std::chrono::milliseconds delay_;
  support::ErrorPtr error_;
};

inline std::shared_ptr<std::promise<void>> makeSignal() { return std::make_shared<std::promise<void>>(); }

}  // namespace symlift::dispatch::testing
