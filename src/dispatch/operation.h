#pragma once
// An operation run by an OperationQueue: dependencies, a cancellation flag,
// a completion block that the queue runs after the operation has finished,
// and change notices for "isExecuting" and "isFinished" through which the
// queue (and anyone else observing) learns of state changes.
//
// The base class is a synchronous operation: start() runs main() and the
// operation is finished when main() returns. Asynchronous operations
// override start(), isExecuting() and isFinished() and send the notices
// themselves (see SUPKITAsyncOperation).

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace symlift::dispatch {

inline constexpr std::string_view kIsExecutingKey = "isExecuting";
inline constexpr std::string_view kIsFinishedKey = "isFinished";

class Operation : public std::enable_shared_from_this<Operation> {
 public:
  // Called with (key, isPrior): before a change (true) and after it (false).
  using Observer = std::function<void(std::string_view key, bool isPrior)>;

  Operation() = default;
  virtual ~Operation() = default;
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;

  virtual void start();
  virtual void main() {}
  virtual bool isExecuting() const;
  virtual bool isFinished() const;
  virtual bool isConcurrent() const { return false; }
  virtual bool isAsynchronous() const { return false; }

  bool isCancelled() const { return cancelled_.load(); }
  virtual void cancel();
  // All dependencies finished (a cancelled operation is ready at once).
  bool isReady() const;

  void addDependency(const std::shared_ptr<Operation>& operation);
  std::vector<std::shared_ptr<Operation>> dependencies() const;

  void setCompletionBlock(std::function<void()> block);
  std::function<void()> completionBlock() const;

  void setName(std::string name);
  std::string name() const;

  // Blocks until the operation reports itself finished.
  void waitUntilFinished();

  // Observation of the change notices, for queues and tests.
  void addObserver(Observer observer);
  // Runs hook once when the operation has finished (at once if it already
  // has). Hooks run on the finishing thread and must not block.
  void whenFinished(std::function<void()> hook);

 protected:
  void willChangeValueForKey(std::string_view key);
  void didChangeValueForKey(std::string_view key);

 private:
  void signalFinishedIfNeeded();

  mutable std::mutex mutex_;  // guards every field below except cancelled_
  std::condition_variable finishedChanged_;
  bool executing_ = false;
  bool finished_ = false;
  bool finishSignalled_ = false;
  std::vector<std::shared_ptr<Operation>> dependencies_;
  std::function<void()> completionBlock_;
  std::string name_;
  std::vector<Observer> observers_;
  std::vector<std::function<void()>> finishHooks_;
  std::atomic<bool> cancelled_{false};
};

}  // namespace symlift::dispatch
