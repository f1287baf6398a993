#pragma once
// Ending a run on SIGINT, SIGTERM, SIGHUP or SIGPIPE: the temporary files
// and folders the run made are removed and the process exits with 128 + the
// signal's number.

#include <thread>

#include <signal.h>

namespace symlift::support {
class CleanupRegistry;
}

namespace symlift::cli {

// Blocks those signals in the calling thread (every thread started
// afterwards inherits that) and starts the one thread that waits for them;
// the destructor stops that thread and joins it. Make one first thing in
// main, before any other thread exists.
class InterruptionHandling {
 public:
  InterruptionHandling();
  ~InterruptionHandling();
  InterruptionHandling(const InterruptionHandling&) = delete;
  InterruptionHandling& operator=(const InterruptionHandling&) = delete;

 private:
  sigset_t signals_{};
  std::thread waiter_;
};

class RunReport;

// The registry whose paths an interruption removes (the running run's), or
// none. Waits while an interruption is cleaning up.
void setInterruptionCleanup(support::CleanupRegistry* cleanup);
// The report an interruption writes (marked interrupted) before the process
// ends, or none.
void setInterruptionReport(RunReport* report);

}  // namespace symlift::cli
