#include "cli/processing.h"
#include "dispatch/thread_pool.h"

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <mutex>
#include <utility>

#include "console/console_log.h"
#include "cli/exit_status.h"
#include "cli/path_expansion.h"
#include "network/network_client.h"
#include "dispatch/operation_queue.h"

namespace symlift::cli {

using namespace console;

namespace {

struct SharedObjects {
  std::mutex mutex;  // guards every field
  std::shared_ptr<dispatch::OperationQueue> queue;
  std::shared_ptr<network::SUPKITNetworkClient> client;
  // Every queue of the run: clean-up queued on an earlier one still counts.
  std::vector<std::shared_ptr<dispatch::OperationQueue>> queues;
  std::vector<std::string> temporaryFolders;
  int depth = 0;  // processPaths calls in progress
};

SharedObjects& shared() {
  static SharedObjects objects;
  return objects;
}

// Lets a client go from this thread. Its session thread may still be inside
// the completion that just woke us, holding the client for a moment; waiting
// for that thread to end first makes this the last reference, so the session
// is taken down here rather than on its own thread as the process exits.
void retireClient(std::shared_ptr<network::SUPKITNetworkClient> client) {
  if (client && client->session()) client->session()->finishTasksAndInvalidate();
  client.reset();
}

void replaceSharedObjects() {
  auto queue = dispatch::OperationQueue::create(dispatch::ThreadPool::shared(), "symlift.processing");
  auto client = network::SUPKITNetworkClient::create();
  std::shared_ptr<network::SUPKITNetworkClient> previous;
  {
    auto& s = shared();
    std::lock_guard<std::mutex> guard(s.mutex);
    s.queue = queue;
    s.queues.push_back(queue);
    previous = std::exchange(s.client, client);
  }
  // Every earlier dSYM was waited for, so the old client has no transfers.
  retireClient(std::move(previous));
}

// The outermost call: let queued clean-up finish, then let go of the queues
// and the client so nothing of the pipeline outlives the run's work.
void drainAndRelease() {
  std::vector<std::shared_ptr<dispatch::OperationQueue>> queues;
  {
    auto& s = shared();
    std::lock_guard<std::mutex> guard(s.mutex);
    queues = s.queues;
  }
  for (const auto& queue : queues) queue->waitUntilAllOperationsAreFinished();
  std::shared_ptr<network::SUPKITNetworkClient> client;
  {
    auto& s = shared();
    std::lock_guard<std::mutex> guard(s.mutex);
    s.queues.clear();
    s.queue.reset();
    client = std::exchange(s.client, nullptr);
    s.temporaryFolders.clear();
  }
  retireClient(std::move(client));
}

void processPath(const std::string& path, bool recursive, const SYLUploadSettings& settings) {
  SYLLogDebug("Inspecting next path: {}", path);
  if (path.find("__MACOSX") != std::string::npos) {
    SYLLogDebug("Skipping OS X archive metadata file: {}", path);
    return;
  }
  if (isPathOfType(path, PathType::DSYMBundle)) {
    SYLLogDebug("Found dSYM at path: {}", path);
    processDSYMBundle(path, settings);
  } else if (!recursive && isPathOfType(path, PathType::Folder)) {
    SYLLogDebug("Found directory at path: {}", path);
    if (!expandDirectory(path, settings)) SYLLogWarning("No dSYMs found in {}", path);
  } else if (isPathOfType(path, PathType::ZipArchive)) {
    SYLLogDebug("Found archive at path: {}", path);
    processArchive(path, settings);
  } else if (!recursive) {
    SYLLogWarning("Path is not a .dSYM, directory, or archive: {}", path);
  }
}

}  // namespace

int processPaths(const std::vector<std::string>& paths, bool recursive, const SYLUploadSettings& settings) {
  replaceSharedObjects();
  {
    auto& s = shared();
    std::lock_guard<std::mutex> guard(s.mutex);
    ++s.depth;
  }
  for (const auto& path : paths) processPath(path, recursive, settings);
  bool outermost = false;
  {
    auto& s = shared();
    std::lock_guard<std::mutex> guard(s.mutex);
    outermost = --s.depth == 0;
  }
  if (outermost) drainAndRelease();
  return kExitSuccess;
}

std::shared_ptr<dispatch::OperationQueue> sharedOperationQueue() {
  auto& s = shared();
  std::lock_guard<std::mutex> guard(s.mutex);
  return s.queue;
}

std::shared_ptr<network::SUPKITNetworkClient> sharedNetworkClient() {
  auto& s = shared();
  std::lock_guard<std::mutex> guard(s.mutex);
  return s.client;
}

void registerTemporaryFolder(const std::string& path) {
  auto& s = shared();
  std::lock_guard<std::mutex> guard(s.mutex);
  s.temporaryFolders.push_back(path);
}

void exitRun(int status) {
  // The failure may be reported from a pipeline thread while others hold
  // locks that destructors at a normal exit would wait for, so the process
  // ends here without them, after the unpacked archives are gone and every
  // line written has left the buffer.
  std::vector<std::string> folders;
  {
    auto& s = shared();
    std::lock_guard<std::mutex> guard(s.mutex);  // only ever held briefly
    folders = s.temporaryFolders;
  }
  for (const auto& folder : folders) {
    std::error_code error;
    std::filesystem::remove_all(folder, error);
  }
  std::fflush(stdout);
  std::fflush(stderr);
  ::_exit(status);
}

}  // namespace symlift::cli
