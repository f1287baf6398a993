#include "dispatch/operation_queue.h"

#include <algorithm>

#include "dispatch/thread_pool.h"

namespace symlift::dispatch {

std::shared_ptr<OperationQueue> OperationQueue::create(ThreadPool& pool, std::string name) {
  return std::shared_ptr<OperationQueue>(new OperationQueue(pool, std::move(name)));
}

void OperationQueue::setMaxConcurrentOperationCount(int count) {
  {
    std::lock_guard<std::mutex> guard(mutex_);
    maxConcurrent_ = count;
  }
  scheduleReadyOperations();
}

int OperationQueue::maxConcurrentOperationCount() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return maxConcurrent_;
}

int OperationQueue::effectiveMaxConcurrentOperationCount() const {
  std::lock_guard<std::mutex> guard(mutex_);
  if (maxConcurrent_ > 0) return maxConcurrent_;
  return std::max(2, static_cast<int>(ThreadPool::hardwareConcurrency()));
}

void OperationQueue::addOperation(const std::shared_ptr<Operation>& operation) {
  addOperations({operation}, false);
}

void OperationQueue::addOperations(const std::vector<std::shared_ptr<Operation>>& operations,
                                   bool waitUntilFinished) {
  auto self = shared_from_this();
  for (const auto& operation : operations) {
    if (!operation) continue;
    {
      std::lock_guard<std::mutex> guard(mutex_);
      entries_.push_back(Entry{operation, false});
    }
    // The queue learns of the finish through the operation's notice; the
    // hook holds the queue until then.
    operation->whenFinished([self, operation] { self->operationDidFinish(operation); });
    // Hooks run while the finishing operation holds its own lock, so they
    // only hand work to the pool and never take the queue's lock themselves.
    for (const auto& dependency : operation->dependencies())
      dependency->whenFinished([self] { self->pool_.submit([self] { self->scheduleReadyOperations(); }); });
  }
  scheduleReadyOperations();
  if (waitUntilFinished)
    for (const auto& operation : operations)
      if (operation) operation->waitUntilFinished();
}

void OperationQueue::addOperationAndWait(const std::shared_ptr<Operation>& operation) {
  addOperations({operation}, true);
}

std::vector<std::shared_ptr<Operation>> OperationQueue::operations() const {
  std::lock_guard<std::mutex> guard(mutex_);
  std::vector<std::shared_ptr<Operation>> result;
  for (const auto& entry : entries_) result.push_back(entry.operation);
  return result;
}

std::size_t OperationQueue::operationCount() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return entries_.size();
}

void OperationQueue::cancelAllOperations() {
  for (const auto& operation : operations()) operation->cancel();
  scheduleReadyOperations();
}

void OperationQueue::waitUntilAllOperationsAreFinished() {
  std::unique_lock<std::mutex> lock(mutex_);
  drained_.wait(lock, [this] { return entries_.empty(); });
}

void OperationQueue::scheduleReadyOperations() {
  std::lock_guard<std::mutex> guard(mutex_);
  startReadyOperationsLocked();
}

void OperationQueue::startReadyOperationsLocked() {
  int limit = maxConcurrent_ > 0 ? maxConcurrent_
                                 : std::max(2, static_cast<int>(ThreadPool::hardwareConcurrency()));
  for (auto& entry : entries_) {
    if (running_ >= limit) break;
    if (entry.started || !entry.operation->isReady()) continue;
    entry.started = true;
    ++running_;
    pool_.submit([self = shared_from_this(), operation = entry.operation] { operation->start(); });
  }
}

void OperationQueue::operationDidFinish(const std::shared_ptr<Operation>& operation) {
  // The completion block runs after the finish, off the finishing thread,
  // and only then is the slot given to the next operation.
  pool_.submit([self = shared_from_this(), operation] {
    if (auto block = operation->completionBlock()) block();
    std::lock_guard<std::mutex> guard(self->mutex_);
    auto it = std::find_if(self->entries_.begin(), self->entries_.end(),
                           [&](const Entry& entry) { return entry.operation == operation; });
    if (it != self->entries_.end()) {
      if (it->started) --self->running_;
      self->entries_.erase(it);
    }
    self->startReadyOperationsLocked();
    if (self->entries_.empty()) self->drained_.notify_all();
  });
}

}  // namespace symlift::dispatch
