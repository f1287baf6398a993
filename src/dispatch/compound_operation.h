#pragma once
// Runs a list of asynchronous operations side by side on a queue of its own
// and finishes once every one has reported: with no error when all
// succeeded, else with one error listing every failure.

#include <cstdint>
#include <memory>
#include <vector>

#include "dispatch/async_operation.h"
#include "dispatch/dispatch_queue.h"
#include "dispatch/operation_queue.h"

namespace symlift::dispatch {

inline constexpr const char* kSUPCompoundOperationErrorDomain =
    "com.omvara.pelloran.vantrel.SUPCompoundOperation.error";
inline constexpr const char* kSUPCompoundOperationUnderlyingErrorsKey =
    "com.omvara.pelloran.vantrel.SUPCompoundOperation.error.user-info-key.underlying-errors";
// The 32-bit values UINT_MAX-1 and UINT_MAX-2 kept in a signed 64-bit code.
inline constexpr std::int64_t SUPCompoundOperationErrorCodeCancelled = 4294967294LL;
inline constexpr std::int64_t SUPCompoundOperationErrorCodeSubOperationFailed = 4294967293LL;

class SUPCompoundOperation : public SUPKITAsyncOperation {
 public:
  explicit SUPCompoundOperation(ThreadPool& pool);

  void setOperations(std::vector<std::shared_ptr<SUPKITAsyncOperation>> operations);
  std::vector<std::shared_ptr<SUPKITAsyncOperation>> operations() const;

  void main() override;
  void cancel() override;

  void injectCompoundAsyncCompletionInOperation(const std::shared_ptr<SUPKITAsyncOperation>& operation);
  void injectCompoundSyncCompletionInOperation(const std::shared_ptr<SUPKITAsyncOperation>& operation);
  void updateCompletionCountsWithError(const support::ErrorPtr& error);
  // The completion check; always called on the counting queue.
  void attemptCompoundCompletion();

  const std::shared_ptr<OperationQueue>& compoundQueue() const { return compoundQueue_; }
  const std::shared_ptr<SerialDispatchQueue>& countingQueue() const { return countingQueue_; }
  // Read these on the counting queue.
  std::uint64_t completedOperations() const { return completedOperations_; }
  const std::vector<support::ErrorPtr>& errors() const { return errors_; }

 private:
  std::shared_ptr<SUPCompoundOperation> self();

  std::vector<std::shared_ptr<SUPKITAsyncOperation>> operations_;  // set before the compound starts
  std::shared_ptr<OperationQueue> compoundQueue_;
  std::uint64_t completedOperations_ = 0;     // on the counting queue only
  std::vector<support::ErrorPtr> errors_;     // on the counting queue only
  std::shared_ptr<SerialDispatchQueue> countingQueue_;
};

}  // namespace symlift::dispatch
