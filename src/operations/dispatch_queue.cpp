#include "operations/dispatch_queue.h"

#include <algorithm>
#include <map>
#include <thread>

#include "operations/thread_pool.h"

namespace symlift::operations {

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
  std::mutex mutex;  // guards the two flags
  std::condition_variable changed;
  bool granted = false;
  bool done = false;
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
  if (!turn) {
    work();
    std::lock_guard<std::mutex> guard(mutex_);
    busy_ = false;
    if (!items_.empty()) {
      busy_ = true;
      ThreadPool::shared().submit([self = shared_from_this()] { self->drain(); });
    }
    return;
  }
  // Wait until the drainer reaches our turn, run, and hand the queue back.
  std::unique_lock<std::mutex> lock(turn->mutex);
  turn->changed.wait(lock, [&] { return turn->granted; });
  lock.unlock();
  work();
  lock.lock();
  turn->done = true;
  turn->changed.notify_all();
}

void SerialDispatchQueue::drain() {
  for (;;) {
    Item item;
    {
      std::lock_guard<std::mutex> guard(mutex_);
      if (items_.empty()) {
        busy_ = false;
        return;
      }
      item = std::move(items_.front());
      items_.pop_front();
    }
    if (item.work) {
      item.work();
      item.work = nullptr;
    } else {
      std::unique_lock<std::mutex> lock(item.syncTurn->mutex);
      item.syncTurn->granted = true;
      item.syncTurn->changed.notify_all();
      item.syncTurn->changed.wait(lock, [&] { return item.syncTurn->done; });
    }
  }
}

}  // namespace symlift::operations
