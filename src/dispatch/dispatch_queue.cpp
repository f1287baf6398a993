#include "dispatch/dispatch_queue.h"

#include <algorithm>
#include <map>
#include <thread>

#include "dispatch/thread_pool.h"

namespace symlift::dispatch {

namespace {

class BackgroundQueue : public DispatchQueue {
 public:
  void async(std::function<void()> work) override { ThreadPool::shared().submit(std::move(work)); }
  void sync(const std::function<void()>& work) override { work(); }
};

// One thread that holds delayed work until it is due and then hands it to
// the queue it was meant for.
//
// The thread never sleeps longer than kLongestSleep before it looks at the
// clock and its list again. Every change of the list notifies it, so this
// costs nothing when all goes well; it bounds the damage of a wake-up that
// never arrives (the C library's condition variables have had rare lost
// wake-ups under heavy load) to a short delay instead of work that waits
// forever.
class DelayedDispatcher {
 public:
  static DelayedDispatcher& shared() {
    static DelayedDispatcher dispatcher;
    return dispatcher;
  }
  ~DelayedDispatcher() {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      stopping_ = true;
      pending_.clear();
    }
    wake_.notify_all();
    if (thread_.joinable()) {
      if (thread_.get_id() == std::this_thread::get_id())
        thread_.detach();
      else
        thread_.join();
    }
  }
  void schedule(std::chrono::steady_clock::time_point due, std::function<void()> fire) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (stopping_) return;
    pending_.emplace(due, std::move(fire));
    if (!thread_.joinable()) thread_ = std::thread([this] { loop(); });
    wake_.notify_all();
  }

 private:
  static constexpr std::chrono::milliseconds kLongestSleep{250};

  void loop() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopping_) {
      const auto now = std::chrono::steady_clock::now();
      if (pending_.empty()) {
        wake_.wait_until(lock, now + kLongestSleep);
        continue;
      }
      auto next = pending_.begin();
      if (now < next->first) {
        wake_.wait_until(lock, std::min(next->first, now + kLongestSleep));
        continue;
      }
      std::function<void()> fire = std::move(next->second);
      pending_.erase(next);
      lock.unlock();
      fire();
      lock.lock();
    }
  }

  std::mutex mutex_;  // guards pending_ and stopping_
  std::condition_variable wake_;
  std::multimap<std::chrono::steady_clock::time_point, std::function<void()>> pending_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace

void DispatchQueue::asyncAfter(std::chrono::nanoseconds delay, std::function<void()> work) {
  auto due = std::chrono::steady_clock::now() + delay;
  // A serial queue is kept alive until its delayed work has been handed over.
  std::shared_ptr<void> keepAlive;
  if (auto* serial = dynamic_cast<SerialDispatchQueue*>(this)) keepAlive = serial->shared_from_this();
  DelayedDispatcher::shared().schedule(due, [this, keepAlive, work = std::move(work)]() mutable {
    async(std::move(work));
  });
}

DispatchQueue& backgroundQueue() {
  static BackgroundQueue queue;
  return queue;
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

std::shared_ptr<SerialDispatchQueue> SerialDispatchQueue::create(std::string label) {
  return std::shared_ptr<SerialDispatchQueue>(new SerialDispatchQueue(std::move(label)));
}

void SerialDispatchQueue::async(std::function<void()> work) {
  std::lock_guard<std::mutex> guard(mutex_);
  items_.push_back(Item{std::move(work), nullptr});
  if (!busy_) {
    busy_ = true;
    ThreadPool::shared().submit([self = shared_from_this()] { self->drain(); });
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
      ThreadPool::shared().submit([self = shared_from_this()] { self->drain(); });
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
