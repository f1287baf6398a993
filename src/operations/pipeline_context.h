#pragma once
// What the steps of one run's dSYM pipeline share, handed down from the
// driver's run context: the pool every queue and parallel loop works on, the
// registry of temporary paths, the compressed cSYMs waiting for their upload
// and whoever listens to the slices' progress. The run outlives every step
// that holds this.

#include "dispatch/thread_pool.h"
#include "operations/pipeline_observer.h"
#include "support/cleanup_registry.h"

namespace symlift::operations {

class CompressedCSYMCache;

struct PipelineContext {
  dispatch::ThreadPool& pool;
  support::CleanupRegistry& cleanup;
  CompressedCSYMCache& compressedCSYMs;
  PipelineObserver& observer;
};

}  // namespace symlift::operations
