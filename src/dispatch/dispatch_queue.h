#pragma once
// Dispatch queues on a run's thread pool: serial queues (asynchronous,
// synchronous and delayed work, one item at a time in submission order);
// the pool itself offers the concurrent background queue.

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace symlift::dispatch {

class ThreadPool;

class DispatchQueue {
 public:
  explicit DispatchQueue(ThreadPool& pool) : pool_(pool) {}
  virtual ~DispatchQueue() = default;
  virtual void async(std::function<void()> work) = 0;
  // Runs work on the calling thread once every earlier item has run, with
  // the queue's exclusion; returns when it is done. Calling it from work
  // already running on the same serial queue deadlocks, as on any platform.
  virtual void sync(const std::function<void()>& work) = 0;
  // Runs work asynchronously on this queue after the delay.
  void asyncAfter(std::chrono::nanoseconds delay, std::function<void()> work);

  ThreadPool& pool() const { return pool_; }

 private:
  ThreadPool& pool_;  // outlives every queue on it
};

class SerialDispatchQueue : public DispatchQueue, public std::enable_shared_from_this<SerialDispatchQueue> {
 public:
  static std::shared_ptr<SerialDispatchQueue> create(ThreadPool& pool, std::string label);
  const std::string& label() const { return label_; }

  void async(std::function<void()> work) override;
  void sync(const std::function<void()>& work) override;

 private:
  SerialDispatchQueue(ThreadPool& pool, std::string label) : DispatchQueue(pool), label_(std::move(label)) {}
  struct SyncTurn;
  struct Item {
    std::function<void()> work;          // an asynchronous item
    std::shared_ptr<SyncTurn> syncTurn;  // or a synchronous caller's turn
  };
  // Runs asynchronous items on a worker of the pool until the queue is
  // empty or a synchronous caller's turn comes.
  void drain();
  // Called by whoever holds the queue when it is done with it: gives the
  // queue to the next synchronous caller directly, or to a new drainer.
  void handOn();

  std::string label_;
  std::mutex mutex_;  // guards items_ and busy_
  std::deque<Item> items_;
  bool busy_ = false;  // held by a drainer or a synchronous caller
};

}  // namespace symlift::dispatch
