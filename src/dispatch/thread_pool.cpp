#include "dispatch/thread_pool.h"

#include <algorithm>
#include <atomic>
#include <exception>

#include "dispatch/dispatch_queue.h"

namespace symlift::dispatch {

namespace {

// The timer never sleeps longer than this before it looks at the clock and
// its list again. Every change of the list notifies it, so this costs
// nothing when all goes well; it bounds the damage of a wake-up that never
// arrives (the C library's condition variables have had rare lost wake-ups
// under heavy load) to a short delay instead of work that waits forever.
constexpr std::chrono::milliseconds kLongestTimerSleep{250};

class ConcurrentQueue : public DispatchQueue {
 public:
  explicit ConcurrentQueue(ThreadPool& pool) : DispatchQueue(pool) {}
  void async(std::function<void()> work) override { pool().submit(std::move(work)); }
  void sync(const std::function<void()>& work) override { work(); }
};

// What the caller of parallelFor and its helpers share. A helper that
// arrives after the caller has stopped waiting finds `closed` and leaves
// without touching the body.
struct ParallelLoop {
  std::atomic<std::size_t> next{0};
  std::size_t count = 0;
  const std::function<void(std::size_t)>* body = nullptr;  // valid until closed
  std::mutex mutex;                                         // guards active, closed and failure
  std::condition_variable idle;
  std::size_t active = 0;
  bool closed = false;
  std::exception_ptr failure;  // the first exception a call of body threw

  // Calls body for indices left; an exception (memory running out, say)
  // ends the loop for everybody and is kept for the caller.
  void work() {
    try {
      for (std::size_t i; (i = next.fetch_add(1, std::memory_order_relaxed)) < count;) (*body)(i);
    } catch (...) {
      next.store(count, std::memory_order_relaxed);
      std::lock_guard<std::mutex> guard(mutex);
      if (!failure) failure = std::current_exception();
    }
  }
};

}  // namespace

ThreadPool::ThreadPool(std::size_t maxThreads)
    : maxThreads_(maxThreads == 0 ? 1 : maxThreads), concurrentQueue_(std::make_unique<ConcurrentQueue>(*this)) {}

ThreadPool::~ThreadPool() {
  std::vector<std::thread> threads;
  std::thread timer;
  std::multimap<std::chrono::steady_clock::time_point, std::function<void()>> dropped;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    stopping_ = true;
    dropped.swap(delayed_);
    timer = std::move(timerThread_);
  }
  wake_.notify_all();
  timerWake_.notify_all();
  if (timer.joinable()) timer.join();
  // Workers finish what was handed in (tasks may hand in more) and leave
  // once nothing is left. Work that is released here may run destructors
  // that hand more work in: it is released outside the lock.
  dropped.clear();
  {
    std::lock_guard<std::mutex> guard(mutex_);
    threads.swap(threads_);
  }
  for (auto& thread : threads) thread.join();
  std::deque<std::function<void()>> late;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    late.swap(tasks_);  // handed in by another thread after the last worker left
  }
}

void ThreadPool::submit(std::function<void()> task) {
  std::lock_guard<std::mutex> guard(mutex_);
  tasks_.push_back(std::move(task));
  if (idle_ < tasks_.size() && threads_.size() < maxThreads_ && !(stopping_ && threads_.empty())) {
    threads_.emplace_back([this] { workerLoop(); });
  } else {
    wake_.notify_one();
  }
}

void ThreadPool::submitAfter(std::chrono::nanoseconds delay, std::function<void()> task) {
  const auto due = std::chrono::steady_clock::now() + delay;
  std::lock_guard<std::mutex> guard(mutex_);
  if (stopping_) return;
  delayed_.emplace(due, std::move(task));
  if (!timerThread_.joinable()) timerThread_ = std::thread([this] { timerLoop(); });
  timerWake_.notify_all();
}

void ThreadPool::parallelFor(std::size_t count, const std::function<void(std::size_t)>& body, unsigned maxParallel) {
  if (count == 0) return;
  const unsigned parallel = maxParallel ? maxParallel : hardwareConcurrency();
  const std::size_t helpers = std::min<std::size_t>(parallel, count) - 1;
  if (helpers == 0) {
    for (std::size_t i = 0; i < count; ++i) body(i);
    return;
  }
  auto loop = std::make_shared<ParallelLoop>();
  loop->count = count;
  loop->body = &body;
  for (std::size_t h = 0; h < helpers; ++h) {
    submit([loop] {
      {
        std::lock_guard<std::mutex> guard(loop->mutex);
        if (loop->closed) return;
        ++loop->active;
      }
      loop->work();
      std::lock_guard<std::mutex> guard(loop->mutex);
      if (--loop->active == 0) loop->idle.notify_all();
    });
  }
  loop->work();
  std::unique_lock<std::mutex> lock(loop->mutex);
  loop->idle.wait(lock, [&] { return loop->active == 0; });
  loop->closed = true;
  if (loop->failure) std::rethrow_exception(loop->failure);
}

DispatchQueue& ThreadPool::concurrentQueue() { return *concurrentQueue_; }

std::size_t ThreadPool::threadCount() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return threads_.size();
}

unsigned ThreadPool::hardwareConcurrency() { return std::max(1u, std::thread::hardware_concurrency()); }

void ThreadPool::workerLoop() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    ++idle_;
    wake_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
    --idle_;
    if (tasks_.empty()) return;  // stopping, and nothing left to do
    std::function<void()> task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    task();
    task = nullptr;  // release captures outside the lock
    lock.lock();
  }
}

void ThreadPool::timerLoop() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stopping_) {
    const auto now = std::chrono::steady_clock::now();
    auto next = delayed_.begin();
    if (next == delayed_.end() || now < next->first) {
      const auto until = next == delayed_.end() ? now + kLongestTimerSleep
                                                : std::min(next->first, now + kLongestTimerSleep);
      timerWake_.wait_until(lock, until);
      continue;
    }
    std::function<void()> task = std::move(next->second);
    delayed_.erase(next);
    lock.unlock();
    submit(std::move(task));
    lock.lock();
  }
}

}  // namespace symlift::dispatch
