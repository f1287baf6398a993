#pragma once
// Everything one run owns and hands down: the pool that every queue, delayed
// dispatch and parallel loop works on, the queue the dSYMs go through one at
// a time, the network client, the registry of temporary paths, the symbol
// files (each DWARF file mapped and decoded once) and the compressed cSYMs
// waiting for their upload. The driver makes one after
// reading the options; its end waits for queued clean-up, ends the network
// session and joins every thread, so nothing of the run outlives it.

#include <memory>

#include "dispatch/operation_queue.h"
#include "dispatch/thread_pool.h"
#include "network/network_client.h"
#include "operations/compressed_csym_cache.h"
#include "operations/pipeline_context.h"
#include "support/cleanup_registry.h"
#include "support/diagnostics.h"
#include "symbols/symbol_file_cache.h"

namespace symlift::cli {

class RunContext {
 public:
  // keepTemporaryFiles: a convert-only run leaves its cSYM, gzip and unpack
  // files to the user; any other run removes whatever it left behind. The
  // observer hears of every slice; it outlives the run.
  RunContext(bool keepTemporaryFiles, operations::PipelineObserver& observer);
  ~RunContext();
  RunContext(const RunContext&) = delete;
  RunContext& operator=(const RunContext&) = delete;

  dispatch::ThreadPool& pool() { return *pool_; }
  const std::shared_ptr<dispatch::OperationQueue>& queue() const { return queue_; }
  // Nothing when no HTTP session could be made (the upload step then fails).
  const std::shared_ptr<network::SUPKITNetworkClient>& networkClient() const { return networkClient_; }
  support::CleanupRegistry& cleanup() { return cleanup_; }
  symbols::SymbolFileCache& symbolFiles() { return *symbolFiles_; }
  const operations::PipelineContext& pipeline() const { return pipeline_; }

 private:
  bool keepTemporaryFiles_;
  // Declared first, destroyed last: every other member works on it.
  std::unique_ptr<dispatch::ThreadPool> pool_;
  support::CleanupRegistry cleanup_;
  // What the readers skip in damaged files; printed with -d.
  support::ConsoleDiagnosticsSink diagnostics_;
  std::unique_ptr<symbols::SymbolFileCache> symbolFiles_;
  std::unique_ptr<operations::CompressedCSYMCache> compressedCSYMs_;
  std::shared_ptr<dispatch::OperationQueue> queue_;
  std::shared_ptr<network::SUPKITNetworkClient> networkClient_;
  operations::PipelineContext pipeline_;
};

}  // namespace symlift::cli
