#include "cli/processing.h"

#include <cstring>

#include "cli/exit_status.h"
#include "cli/progress_line.h"
#include "cli/run_context.h"
#include "cli/run_report.h"
#include "console/console_log.h"
#include "dsym/code_mapping.h"
#include "dsym/code_mapping_info_container.h"
#include "operations/pipeline_errors.h"
#include "operations/process_dsym_operation.h"

namespace symlift::cli {

namespace {

int reportFailure(const DWARFInput& input, const support::ErrorPtr& error) {
  // A description keeps the line breaks of its own layout; the paths in it
  // were made printable where it was made.
  console::SYLLogError("Could not complete submission of dSYM at {}: {}", console::printable(input.bundlePath),
                       error->description());
  return kExitProcessingFailed;
}

// The dSYM through the pipeline; its error, if any.
support::ErrorPtr runPipeline(RunContext& run, const SYLUploadSettings& settings, const DWARFInput& input) {
  if (input.readError != 0)
    return support::makeError(operations::kProcessDSYMErrorDomain, operations::kProcessDSYMErrorCodeProcessingFailed,
                              {{support::kLocalizedFailureReasonKey,
                                fmt::format("Could not read DWARF file at {}: {}", console::printable(input.dwarfPath.string()),
                                            std::strerror(input.readError))}});
  auto container = std::make_shared<dsym::SUPCodeMappingInfoContainer>();
  container->setDSYMFile(input.file);
  container->setMaxCoreSymbolicationVersion(settings.maxSymbolicationVersion);
  container->setPlatform(settings.platform);
  container->setOmvaraAppId(settings.appID);
  container->setConvertOnly(settings.convertOnly);

  auto operation = std::make_shared<operations::SUPProcessDSYMOperation>(run.pipeline());
  operation->setNetworkClient(run.networkClient());
  operation->setCodeMappingInfo(container);
  // Set on a worker before the operation counts as finished, read here after.
  support::ErrorPtr failure;
  operation->setAsyncCompletion([&failure](const support::ErrorPtr& error) { failure = error; });
  // container and client stay alive here for the whole wait.
  run.queue()->addOperationAndWait(operation);
  return failure;
}

}  // namespace

int processDWARFInput(RunContext& run, const SYLUploadSettings& settings, const DWARFInput& input,
                      const RunListeners& listeners) {
  if (listeners.report) listeners.report->beginDSYM(input);
  if (listeners.progress) {
    std::vector<std::string> architectures;
    if (input.file)
      input.file->enumerateUUIDs([&](const std::optional<std::string>&, const std::string& architecture) {
        architectures.push_back(architecture);
      });
    listeners.progress->dsymStarted(input.bundlePath, architectures);
  }
  const support::ErrorPtr failure = runPipeline(run, settings, input);
  if (listeners.report) listeners.report->endDSYM(failure);
  return failure ? reportFailure(input, failure) : kExitSuccess;
}

int processPaths(RunContext& run, const SYLUploadSettings& settings, const std::vector<std::string>& paths,
                 const RunListeners& listeners) {
  PathExpansion expansion(run, settings, [&](const DWARFInput& input) {
    return processDWARFInput(run, settings, input, listeners);
  });
  if (listeners.report) expansion.setSkippedHandler([&](const DWARFInput& input) { listeners.report->skippedDSYM(input); });
  int status = kExitSuccess;
  for (const std::string& path : paths) {
    if (listeners.report) listeners.report->beginInput(path);
    status = expansion.processPaths({path}, /*recursive=*/false);
    if (status != kExitSuccess) break;
  }
  // What the dSYMs queued (the removal of unpack folders) is done before
  // anything else is said.
  run.queue()->waitUntilAllOperationsAreFinished();
  return status;
}

}  // namespace symlift::cli
