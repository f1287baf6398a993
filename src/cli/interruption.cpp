#include "cli/interruption.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "console/console_log.h"
#include "cli/run_report.h"
#include "support/cleanup_registry.h"

namespace symlift::cli {

using namespace console;

namespace {

const char* signalName(int signal) {
  switch (signal) {
    case SIGINT:
      return "SIGINT";
    case SIGTERM:
      return "SIGTERM";
    case SIGHUP:
      return "SIGHUP";
    case SIGPIPE:
      return "SIGPIPE";
  }
  return "a signal";
}

// The processes this one started (unzip, and whatever those started), found
// through the kernel's process table where it is a file system (/proc);
// elsewhere nothing is found and children end with the terminal's signal.
std::vector<pid_t> descendantsOf(pid_t pid) {
  std::vector<pid_t> found;
  std::error_code error;
  const std::filesystem::path tasks = std::filesystem::path("/proc") / std::to_string(pid) / "task";
  for (const auto& task : std::filesystem::directory_iterator(tasks, error)) {
    std::ifstream children(task.path() / "children");
    for (pid_t child; children >> child;) {
      found.push_back(child);
      for (pid_t grandchild : descendantsOf(child)) found.push_back(grandchild);
    }
  }
  return found;
}

// Whether the process has stopped running (gone, or a zombie not yet reaped).
bool hasEnded(pid_t pid) {
  std::ifstream stat(std::filesystem::path("/proc") / std::to_string(pid) / "stat");
  std::string text;
  if (!std::getline(stat, text)) return true;
  const auto close = text.rfind(')');
  return close == std::string::npos || close + 2 >= text.size() || text[close + 2] == 'Z' || text[close + 2] == 'X';
}

// A child still writing (unzip filling the unpack folder) would put back
// what the clean-up removes, so the children are stopped first, and waited
// for up to a second.
void stopChildProcesses() {
  const std::vector<pid_t> children = descendantsOf(::getpid());
  for (pid_t child : children) ::kill(child, SIGKILL);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  for (pid_t child : children)
    while (!hasEnded(child) && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

// Set while a run is under way. Taken under the lock by the waiting thread,
// so a run cannot end (and its registry go) while it is being cleaned up.
std::mutex cleanupMutex;  // guards both below
support::CleanupRegistry* currentCleanup = nullptr;
RunReport* currentReport = nullptr;
std::atomic<bool> stopWaiting{false};

// Signals are taken synchronously on this thread rather than in a handler,
// so the clean-up may lock, allocate and print like any other code.
void waitForInterruption(sigset_t signals) {
  int signal = 0;
  for (;;) {
    if (sigwait(&signals, &signal) != 0) continue;
    if (stopWaiting.load()) return;  // woken by the end of the process, not by the user
    break;
  }
  // The console closes first: a step failing because its files vanish below
  // it cannot report that, nor end the run with its own status, since both
  // go through the console.
  SYLLogging::logLastLineAndClose(
      kLogLevelError, fmt::format("Interrupted by {}: removing the temporary files of this run", signalName(signal)),
      kColorRed);
  stopChildProcesses();
  // From here on nothing new can be registered, so nothing is created behind
  // the clean-up's back; the threads still working never get further.
  cleanupMutex.lock();  // deliberately never released: the process ends here
  if (currentCleanup) currentCleanup->removeAllAndSeal();
  if (currentReport) currentReport->write(128 + signal, signal);
  std::fflush(stderr);
  ::_exit(128 + signal);
}

}  // namespace

InterruptionHandling::InterruptionHandling() {
  sigemptyset(&signals_);
  // SIGPIPE too: a write to a closed pipe gets EPIPE instead of ending the
  // process on the spot, and the console log then sends the signal to the
  // process, so that it ends here like the others.
  for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) sigaddset(&signals_, signal);
  if (pthread_sigmask(SIG_BLOCK, &signals_, nullptr) != 0) return;
  waiter_ = std::thread(waitForInterruption, signals_);
}

InterruptionHandling::~InterruptionHandling() {
  if (!waiter_.joinable()) return;
  stopWaiting.store(true);
  // A signal of the set, sent to the waiting thread alone, wakes it.
  pthread_kill(waiter_.native_handle(), SIGTERM);
  waiter_.join();
}

void setInterruptionCleanup(support::CleanupRegistry* cleanup) {
  std::lock_guard<std::mutex> guard(cleanupMutex);
  currentCleanup = cleanup;
}

void setInterruptionReport(RunReport* report) {
  std::lock_guard<std::mutex> guard(cleanupMutex);
  currentReport = report;
}

}  // namespace symlift::cli
