#pragma once
// The hand-over from the driver to path expansion and the dSYM pipeline.

#include <string>
#include <vector>

#include "cli/upload_settings.h"

namespace symlift::cli {

// Processes every dSYM found under the paths (one at a time) with the run's
// settings and returns the run's exit status: 0 when every dSYM went through;
// a failure ends the process with its own status.
int processPaths(const std::vector<std::string>& paths, bool recursive, const SYLUploadSettings& settings);

}  // namespace symlift::cli
