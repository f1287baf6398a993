#pragma once
// The pool of worker threads of one run: every operation queue, dispatch
// queue, delayed dispatch and parallel loop of the run works on it. It grows
// when every worker is busy (work here may block: a conversion, a
// synchronous dispatch), up to a cap. Destroying it lets the workers finish
// every task already handed in, joins them, and drops delayed work that is
// not yet due; no thread outlives it.

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace symlift::dispatch {

class DispatchQueue;

class ThreadPool {
 public:
  static constexpr std::size_t kDefaultMaxThreads = 128;

  explicit ThreadPool(std::size_t maxThreads = kDefaultMaxThreads);
  ~ThreadPool();
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  void submit(std::function<void()> task);
  // Hands task to the pool once the delay has passed.
  void submitAfter(std::chrono::nanoseconds delay, std::function<void()> task);

  // Calls body(i) for every i in [0, count), on the calling thread and on
  // up to maxParallel - 1 workers (0: one per core), and returns when every
  // call has returned. The caller takes part, and a helper that starts only
  // after the work is gone does nothing, so this never waits for a free
  // worker: nested inside a task of a busy pool it simply runs on fewer
  // threads. The first exception a call throws stops the loop and is thrown
  // again here, once every call under way has returned.
  void parallelFor(std::size_t count, const std::function<void(std::size_t)>& body, unsigned maxParallel = 0);

  // The concurrent queue over this pool (the run's background queue).
  DispatchQueue& concurrentQueue();

  std::size_t threadCount() const;
  // The number of cores, at least 1.
  static unsigned hardwareConcurrency();

 private:
  void workerLoop();
  void timerLoop();

  mutable std::mutex mutex_;  // guards everything below
  std::condition_variable wake_;
  std::condition_variable timerWake_;
  std::deque<std::function<void()>> tasks_;
  std::multimap<std::chrono::steady_clock::time_point, std::function<void()>> delayed_;
  std::vector<std::thread> threads_;
  std::thread timerThread_;
  std::size_t idle_ = 0;
  std::size_t maxThreads_;
  bool stopping_ = false;
  std::unique_ptr<DispatchQueue> concurrentQueue_;
};

}  // namespace symlift::dispatch
