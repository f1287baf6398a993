#include "dispatch/dispatch_queue.h"


#include "dispatch/thread_pool.h"

namespace symlift::dispatch {

void DispatchQueue::asyncAfter(std::chrono::nanoseconds delay, std::function<void()> work) {
  // A serial queue is kept alive until its delayed work has been handed over.
  std::shared_ptr<void> keepAlive;
  if (auto* serial = dynamic_cast<SerialDispatchQueue*>(this)) keepAlive = serial->shared_from_this();
  pool_.submitAfter(delay, [this, keepAlive, work = std::move(work)]() mutable { async(std::move(work)); });
}

struct SerialDispatchQueue::SyncTurn {
  std::mutex mutex;  // guards granted
  std::condition_variable changed;
  bool granted = false;

  void grant() {
    std::lock_guard<std::mutex> guard(mutex);
    granted = true;
    changed.notify_all();
  }
  void waitUntilGranted() {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [&] { return granted; });
  }
};

std::shared_ptr<SerialDispatchQueue> SerialDispatchQueue::create(ThreadPool& pool, std::string label) {
  return std::shared_ptr<SerialDispatchQueue>(new SerialDispatchQueue(pool, std::move(label)));
}

void SerialDispatchQueue::async(std::function<void()> work) {
  std::lock_guard<std::mutex> guard(mutex_);
  items_.push_back(Item{std::move(work), nullptr});
  if (!busy_) {
    busy_ = true;
    pool().submit([self = shared_from_this()] { self->drain(); });
  }
}

void SerialDispatchQueue::sync(const std::function<void()>& work) {
  std::shared_ptr<SyncTurn> turn;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (!busy_ && items_.empty()) {
      busy_ = true;  // the queue is idle: run right here
    } else {
      turn = std::make_shared<SyncTurn>();
      items_.push_back(Item{nullptr, turn});
    }
  }
  // Whoever holds the queue when our turn comes hands it to us.
  if (turn) turn->waitUntilGranted();
  work();
  handOn();
}

void SerialDispatchQueue::handOn() {
  std::shared_ptr<SyncTurn> next;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (items_.empty()) {
      busy_ = false;
      return;
    }
    if (!items_.front().syncTurn) {
      // Asynchronous work needs a thread of its own; the queue stays busy
      // until the drainer has run it.
      pool().submit([self = shared_from_this()] { self->drain(); });
      return;
    }
    next = std::move(items_.front().syncTurn);
    items_.pop_front();
  }
  // The waiting caller now holds the queue (busy_ stays set) and hands it
  // on in turn. No worker of the pool is needed for this: at the end of a
  // run the pool takes no more work, and a caller waiting for one would
  // wait for ever.
  next->grant();
}

void SerialDispatchQueue::drain() {
  for (;;) {
    std::function<void()> work;
    {
      std::lock_guard<std::mutex> guard(mutex_);
      if (items_.empty()) {
        busy_ = false;
        return;
      }
      if (items_.front().syncTurn) break;  // handed to that caller below
      work = std::move(items_.front().work);
      items_.pop_front();
    }
    work();
    work = nullptr;  // release captures before taking the next item
  }
  handOn();
}

}  // namespace symlift::dispatch
