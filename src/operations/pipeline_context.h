#pragma once
// What the steps of one run's dSYM pipeline share, handed down from the
// driver's run context: the pool every queue and parallel loop works on, the
// registry of temporary paths, the compressed cSYMs waiting for their upload,
// whoever listens to the slices' progress, and the run's symbol files. The run outlives every step
// that holds this.

#include "dispatch/thread_pool.h"
#include "operations/pipeline_observer.h"
#include "support/cleanup_registry.h"
#include "symbols/symbol_file_cache.h"

namespace symlift::operations {

class CompressedCSYMCache;

struct PipelineContext {
  dispatch::ThreadPool& pool;
  support::CleanupRegistry& cleanup;
  CompressedCSYMCache& compressedCSYMs;
  PipelineObserver& observer;
  // Every DWARF file of the run, mapped and decoded once.
  symbols::SymbolFileCache& symbolFiles;
};

}  // namespace symlift::operations
