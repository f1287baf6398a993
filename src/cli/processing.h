#pragma once
// The driver's handling of the DWARF files path expansion finds: one dSYM
// operation each on the run's queue, waited for, with the run's report and
// progress line told of every dSYM.

#include <string>
#include <vector>

#include "cli/path_expansion.h"
#include "cli/upload_settings.h"

namespace symlift::cli {

class ProgressLine;
class RunContext;
class RunReport;

// Who hears of the run's dSYMs besides the pipeline's observer; either may
// be absent.
struct RunListeners {
  RunReport* report = nullptr;
  ProgressLine* progress = nullptr;
};

// Runs the dSYM operation for the input with the run's settings and waits
// for it. kExitSuccess, or kExitProcessingFailed once the failure is printed.
int processDWARFInput(RunContext& run, const SYLUploadSettings& settings, const DWARFInput& input,
                      const RunListeners& listeners = {});

// Path expansion of the paths, one after another, every DWARF file found
// processed in turn; the run's status. Queued clean-up has finished when it
// returns.
int processPaths(RunContext& run, const SYLUploadSettings& settings, const std::vector<std::string>& paths,
                 const RunListeners& listeners = {});

}  // namespace symlift::cli
