#pragma once
// The hand-over from the driver to path expansion and the dSYM pipeline, and
// the objects every dSYM of a run shares.

#include <memory>
#include <string>
#include <vector>

#include "cli/upload_settings.h"

namespace symlift::network {
class SUPKITNetworkClient;
}
namespace symlift::dispatch {
class OperationQueue;
}

namespace symlift::cli {

// Processes every dSYM found under the paths (one at a time) with the run's
// settings and returns 0 once all of them went through; a failure ends the
// process with its own status. Each call (recursive ones included) makes a
// new shared queue and network client; the outermost call also waits for
// queued clean-up before it returns.
int processPaths(const std::vector<std::string>& paths, bool recursive, const SYLUploadSettings& settings);

// The queue and client of the latest processPaths call.
std::shared_ptr<dispatch::OperationQueue> sharedOperationQueue();
std::shared_ptr<network::SUPKITNetworkClient> sharedNetworkClient();

// An unpack folder to remove should the run end early.
void registerTemporaryFolder(const std::string& path);

// Ends the run at once with the status: removes the registered unpack
// folders, flushes standard output and leaves without running destructors
// (other threads of the pipeline may still hold locks then).
[[noreturn]] void exitRun(int status);

}  // namespace symlift::cli
