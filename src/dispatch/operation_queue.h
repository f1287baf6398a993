#pragma once
// A queue that runs operations on the shared worker pool: an operation
// starts once its dependencies have finished (or it was cancelled) and a
// slot is free under the queue's maximum concurrency; after it reports
// itself finished, the queue runs its completion block and frees its slot.

#include <condition_variable>
#include <cstddef>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "dispatch/operation.h"

namespace symlift::dispatch {

class ThreadPool;

class OperationQueue : public std::enable_shared_from_this<OperationQueue> {
 public:
  static constexpr int kDefaultMaxConcurrentOperationCount = -1;

  static std::shared_ptr<OperationQueue> create(ThreadPool& pool, std::string name = {});

  // -1 (the default) lets the queue decide: the number of cores, at least 2.
  void setMaxConcurrentOperationCount(int count);
  int maxConcurrentOperationCount() const;
  int effectiveMaxConcurrentOperationCount() const;

  void addOperation(const std::shared_ptr<Operation>& operation);
  void addOperations(const std::vector<std::shared_ptr<Operation>>& operations, bool waitUntilFinished);
  // Adds the operation and blocks until it has finished.
  void addOperationAndWait(const std::shared_ptr<Operation>& operation);

  // The operations not yet finished (waiting or executing), in order added.
  std::vector<std::shared_ptr<Operation>> operations() const;
  std::size_t operationCount() const;
  void cancelAllOperations();
  void waitUntilAllOperationsAreFinished();

  const std::string& name() const { return name_; }
  ThreadPool& pool() const { return pool_; }

 private:
  OperationQueue(ThreadPool& pool, std::string name) : pool_(pool), name_(std::move(name)) {}
  struct Entry {
    std::shared_ptr<Operation> operation;
    bool started = false;
  };
  void startReadyOperationsLocked();
  void scheduleReadyOperations();
  void operationDidFinish(const std::shared_ptr<Operation>& operation);

  ThreadPool& pool_;  // outlives the queue
  std::string name_;
  mutable std::mutex mutex_;  // guards entries_, running_ and maxConcurrent_
  std::condition_variable drained_;
  std::list<Entry> entries_;
  int running_ = 0;
  int maxConcurrent_ = kDefaultMaxConcurrentOperationCount;
};

}  // namespace symlift::dispatch
