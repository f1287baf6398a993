#include "dispatch/thread_pool.h"

namespace symlift::dispatch {

ThreadPool& ThreadPool::shared() {
  static ThreadPool pool(128);
  return pool;
}

ThreadPool::ThreadPool(std::size_t maxThreads) : maxThreads_(maxThreads == 0 ? 1 : maxThreads) {}

ThreadPool::~ThreadPool() {
  std::vector<std::thread> threads;
  std::deque<std::function<void()>> dropped;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    stopping_ = true;
    dropped.swap(tasks_);
    threads.swap(threads_);
  }
  wake_.notify_all();
  // Work that never ran is released outside the lock: releasing it may run
  // destructors that hand more work to the pool.
  dropped.clear();
  for (auto& thread : threads) {
    // A task that ends the process runs on a worker; that worker cannot join
    // itself and simply goes away with the process.
    if (thread.get_id() == std::this_thread::get_id()) {
      thread.detach();
      continue;
    }
    thread.join();
  }
}

void ThreadPool::submit(std::function<void()> task) {
  std::lock_guard<std::mutex> guard(mutex_);
  if (stopping_) return;
  tasks_.push_back(std::move(task));
  if (idle_ < tasks_.size() && threads_.size() < maxThreads_) {
    threads_.emplace_back([this] { workerLoop(); });
  } else {
    wake_.notify_one();
  }
}

std::size_t ThreadPool::threadCount() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return threads_.size();
}

void ThreadPool::workerLoop() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    ++idle_;
    wake_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
    --idle_;
    if (stopping_) return;
    std::function<void()> task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    task();
    task = nullptr;  // release captures outside the lock
    lock.lock();
  }
}

}  // namespace symlift::dispatch
