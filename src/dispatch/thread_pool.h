#pragma once
// The process-wide pool of worker threads behind every operation queue and
// dispatch queue. It grows when every worker is busy (work here may block:
// a conversion, a synchronous dispatch), up to a cap, and joins its threads
// when the process ends normally.

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace symlift::dispatch {

class ThreadPool {
 public:
  static ThreadPool& shared();

  explicit ThreadPool(std::size_t maxThreads);
  ~ThreadPool();
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  void submit(std::function<void()> task);
  std::size_t threadCount() const;

 private:
  void workerLoop();

  mutable std::mutex mutex_;  // guards everything below
  std::condition_variable wake_;
  std::deque<std::function<void()>> tasks_;
  std::vector<std::thread> threads_;
  std::size_t idle_ = 0;
  std::size_t maxThreads_;
  bool stopping_ = false;
};

}  // namespace symlift::dispatch
