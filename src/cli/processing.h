#pragma once
// The driver's handling of one DWARF file found by path expansion: one dSYM
// operation on the run's queue, waited for.

#include "cli/path_expansion.h"
#include "cli/upload_settings.h"

namespace symlift::cli {

class RunContext;

// Runs the dSYM operation for the input with the run's settings and waits
// for it. kExitSuccess, or kExitProcessingFailed once the failure is printed.
int processDWARFInput(RunContext& run, const SYLUploadSettings& settings, const DWARFInput& input);

// Path expansion of the paths, every DWARF file found processed in turn; the
// run's status. Queued clean-up has finished when it returns.
int processPaths(RunContext& run, const SYLUploadSettings& settings, const std::vector<std::string>& paths);

}  // namespace symlift::cli
