#include "cli/processing.h"

#include "cli/exit_status.h"
#include "cli/run_context.h"
#include "console/console_log.h"
#include "dsym/code_mapping_info_container.h"
#include "operations/process_dsym_operation.h"

namespace symlift::cli {

int processDWARFInput(RunContext& run, const SYLUploadSettings& settings, const DWARFInput& input) {
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
  if (!failure) return kExitSuccess;
  console::SYLLogError("Could not complete submission of dSYM at {}: {}", input.bundlePath, failure->description());
  return kExitProcessingFailed;
}

int processPaths(RunContext& run, const SYLUploadSettings& settings, const std::vector<std::string>& paths) {
  PathExpansion expansion(run, settings,
                          [&](const DWARFInput& input) { return processDWARFInput(run, settings, input); });
  const int status = expansion.processPaths(paths, /*recursive=*/false);
  // What the dSYMs queued (the removal of unpack folders) is done before
  // anything else is said.
  run.queue()->waitUntilAllOperationsAreFinished();
  return status;
}

}  // namespace symlift::cli
