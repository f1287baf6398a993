#include "cli/interruption.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <thread>

#include "cli/console_log.h"
#include "support/cleanup_registry.h"

namespace symlift::cli {

namespace {

const char* signalName(int signal) {
  switch (signal) {
    case SIGINT:
      return "SIGINT";
    case SIGTERM:
      return "SIGTERM";
  }
  return "a signal";
}

// Signals are taken synchronously on this thread rather than in a handler,
// so the clean-up may lock, allocate and print like any other code.
void waitForInterruption(sigset_t signals) {
  int signal = 0;
  while (sigwait(&signals, &signal) != 0) {
  }
  // The console closes first: a step failing because its files vanish below
  // it cannot report that, nor end the run with its own status, since both
  // go through the console.
  SYLLogging::logLastLineAndClose(
      kLogLevelError, fmt::format("Interrupted by {}: removing the temporary files of this run", signalName(signal)),
      kColorRed);
  // From here on nothing new can be registered, so nothing is created behind
  // the clean-up's back; the threads still working never get further.
  support::CleanupRegistry::removeAllAndSeal();
  std::fflush(stderr);
  ::_exit(128 + signal);
}

}  // namespace

void installInterruptionHandling() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  if (pthread_sigmask(SIG_BLOCK, &signals, nullptr) != 0) return;
  std::thread(waitForInterruption, signals).detach();
}

}  // namespace symlift::cli
