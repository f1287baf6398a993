#include "dispatch/operation.h"

namespace symlift::dispatch {

void Operation::start() {
  if (isCancelled()) {
    willChangeValueForKey(kIsFinishedKey);
    {
      std::lock_guard<std::mutex> guard(mutex_);
      finished_ = true;
    }
    didChangeValueForKey(kIsFinishedKey);
    return;
  }
  willChangeValueForKey(kIsExecutingKey);
  {
    std::lock_guard<std::mutex> guard(mutex_);
    executing_ = true;
  }
  didChangeValueForKey(kIsExecutingKey);
  main();
  willChangeValueForKey(kIsExecutingKey);
  {
    std::lock_guard<std::mutex> guard(mutex_);
    executing_ = false;
  }
  didChangeValueForKey(kIsExecutingKey);
  willChangeValueForKey(kIsFinishedKey);
  {
    std::lock_guard<std::mutex> guard(mutex_);
    finished_ = true;
  }
  didChangeValueForKey(kIsFinishedKey);
}

bool Operation::isExecuting() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return executing_;
}

bool Operation::isFinished() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return finished_;
}

void Operation::cancel() { cancelled_.store(true); }

bool Operation::isReady() const {
  if (isCancelled()) return true;
  std::vector<std::shared_ptr<Operation>> deps = dependencies();
  for (const auto& dependency : deps)
    if (!dependency->isFinished()) return false;
  return true;
}

void Operation::addDependency(const std::shared_ptr<Operation>& operation) {
  if (!operation || operation.get() == this) return;
  std::lock_guard<std::mutex> guard(mutex_);
  dependencies_.push_back(operation);
}

std::vector<std::shared_ptr<Operation>> Operation::dependencies() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return dependencies_;
}

void Operation::setCompletionBlock(std::function<void()> block) {
  std::lock_guard<std::mutex> guard(mutex_);
  completionBlock_ = std::move(block);
}

std::function<void()> Operation::completionBlock() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return completionBlock_;
}

void Operation::setName(std::string name) {
  std::lock_guard<std::mutex> guard(mutex_);
  name_ = std::move(name);
}

std::string Operation::name() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return name_;
}

void Operation::waitUntilFinished() {
  std::unique_lock<std::mutex> lock(mutex_);
  finishedChanged_.wait(lock, [this] { return finishSignalled_; });
}

void Operation::addObserver(Observer observer) {
  std::lock_guard<std::mutex> guard(mutex_);
  observers_.push_back(std::move(observer));
}

void Operation::whenFinished(std::function<void()> hook) {
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (!finishSignalled_) {
      finishHooks_.push_back(std::move(hook));
      return;
    }
  }
  hook();
}

void Operation::willChangeValueForKey(std::string_view key) {
  std::vector<Observer> observers;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    observers = observers_;
  }
  for (const auto& observer : observers) observer(key, true);
}

void Operation::didChangeValueForKey(std::string_view key) {
  std::vector<Observer> observers;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    observers = observers_;
  }
  for (const auto& observer : observers) observer(key, false);
  if (key == kIsFinishedKey) signalFinishedIfNeeded();
}

void Operation::signalFinishedIfNeeded() {
  // isFinished() is the subclass's own state, read under its own lock.
  if (!isFinished()) return;
  std::vector<std::function<void()>> hooks;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (finishSignalled_) return;
    finishSignalled_ = true;
    hooks.swap(finishHooks_);
  }
  finishedChanged_.notify_all();
  for (auto& hook : hooks) hook();
}

}  // namespace symlift::dispatch
