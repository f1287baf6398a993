#include "cli/processing.h"

#include "cli/console_log.h"
#include "cli/exit_status.h"

namespace symlift::cli {

// Path expansion and the pipeline are not part of this build yet, so a run
// that gets this far stops here with a clear message rather than pretending
// to upload.
int processPaths(const std::vector<std::string>&, bool, const SYLUploadSettings&) {
  SYLLogError("processing is not available in this build");
  return kExitProcessingFailed;
}

}  // namespace symlift::cli
