#include "cli/run_context.h"

#include "cli/interruption.h"

namespace symlift::cli {

RunContext::RunContext(bool keepTemporaryFiles, operations::PipelineObserver& observer)
    : keepTemporaryFiles_(keepTemporaryFiles),
      pool_(std::make_unique<dispatch::ThreadPool>()),
      symbolFiles_(std::make_unique<symbols::SymbolFileCache>(*pool_, diagnostics_)),
      compressedCSYMs_(std::make_unique<operations::CompressedCSYMCache>(*pool_)),
      queue_(dispatch::OperationQueue::create(*pool_, "symlift.processing")),
      networkClient_(network::SUPKITNetworkClient::create(*pool_)),
      pipeline_{*pool_, cleanup_, *compressedCSYMs_, observer, *symbolFiles_} {
  // From here on an interruption removes what this run registers.
  setInterruptionCleanup(&cleanup_);
}

RunContext::~RunContext() {
  // Queued clean-up (the removal of unpack folders) still runs; then the
  // session ends with no transfer left, on this thread.
  queue_->waitUntilAllOperationsAreFinished();
  if (networkClient_ && networkClient_->session()) networkClient_->session()->finishTasksAndInvalidate();
  networkClient_.reset();
  queue_.reset();
  compressedCSYMs_.reset();
  symbolFiles_.reset();
  diagnostics_.finish();
  if (!keepTemporaryFiles_) cleanup_.removeAll();
  setInterruptionCleanup(nullptr);
  pool_.reset();  // joins every thread of the run
}

}  // namespace symlift::cli
