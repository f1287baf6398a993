#include "dispatch/compound_operation.h"

#include <fmt/format.h>

namespace symlift::dispatch {

SUPCompoundOperation::SUPCompoundOperation(ThreadPool& pool)
    : SUPKITAsyncOperation("SUPCompoundOperation"),
      compoundQueue_(OperationQueue::create(pool)),
      countingQueue_(SerialDispatchQueue::create(pool,
          "com.omvara.pelloran.vantrel.SUPCompoundOperation.dispatch-queue.counting-queue")) {}

std::shared_ptr<SUPCompoundOperation> SUPCompoundOperation::self() {
  return std::static_pointer_cast<SUPCompoundOperation>(shared_from_this());
}

void SUPCompoundOperation::setOperations(std::vector<std::shared_ptr<SUPKITAsyncOperation>> operations) {
  operations_ = std::move(operations);
}

std::vector<std::shared_ptr<SUPKITAsyncOperation>> SUPCompoundOperation::operations() const {
  return operations_;
}

void SUPCompoundOperation::main() {
  for (const auto& operation : operations_) {
    injectCompoundAsyncCompletionInOperation(operation);
    injectCompoundSyncCompletionInOperation(operation);
    compoundQueue_->addOperation(operation);
  }
}

void SUPCompoundOperation::injectCompoundAsyncCompletionInOperation(
    const std::shared_ptr<SUPKITAsyncOperation>& operation) {
  AsyncCompletion earlier = operation->asyncCompletion();
  std::weak_ptr<SUPCompoundOperation> weakSelf = self();
  operation->setAsyncCompletion([weakSelf, earlier](const support::ErrorPtr& error) {
    auto compound = weakSelf.lock();
    if (!compound) return;
    if (earlier) compound->countingQueue_->sync([&] { earlier(error); });
    compound->updateCompletionCountsWithError(error);
  });
}

void SUPCompoundOperation::injectCompoundSyncCompletionInOperation(
    const std::shared_ptr<SUPKITAsyncOperation>& operation) {
  std::function<void()> earlier = operation->completionBlock();
  std::weak_ptr<SUPCompoundOperation> weakSelf = self();
  operation->setCompletionBlock([weakSelf, earlier] {
    auto compound = weakSelf.lock();
    if (!compound) return;
    if (earlier) compound->countingQueue_->sync(earlier);
    compound->countingQueue_->sync([&] { compound->attemptCompoundCompletion(); });
  });
}

void SUPCompoundOperation::updateCompletionCountsWithError(const support::ErrorPtr& error) {
  countingQueue_->sync([&] {
    if (error)
      errors_.push_back(error);
    else
      ++completedOperations_;
  });
}

void SUPCompoundOperation::attemptCompoundCompletion() {
  if (isCancelled()) {
    finishWithError(support::makeError(kSUPCompoundOperationErrorDomain, SUPCompoundOperationErrorCodeCancelled,
                                       {{support::kLocalizedDescriptionKey,
                                         fmt::format("{} cancelled", name().empty() ? "(null)" : name())}}));
    setAsyncCompletion(nullptr);  // a later check cannot report again
    return;
  }
  if (completedOperations_ + errors_.size() != operations_.size()) return;
  if (errors_.empty()) {
    finishWithError(nullptr);
    return;
  }
  auto error = std::make_shared<support::Error>(kSUPCompoundOperationErrorDomain,
                                                SUPCompoundOperationErrorCodeSubOperationFailed);
  error->errorLists[kSUPCompoundOperationUnderlyingErrorsKey] = errors_;
  finishWithError(error);
}

void SUPCompoundOperation::cancel() {
  if (compoundQueue_->operationCount() == 0) {
    std::vector<std::shared_ptr<Operation>> operations;
    for (const auto& operation : operations_) {
      operation->cancel();
      operations.push_back(operation);
    }
    compoundQueue_->addOperations(operations, false);
    Operation::cancel();
    return;
  }
  compoundQueue_->cancelAllOperations();
  countingQueue_->sync([this] { attemptCompoundCompletion(); });
  Operation::cancel();
  // A cancelled sub-operation that had not started finishes at once, and its
  // check may run before the flag above was set; if that was the last one,
  // no later check would ever come, so look once more.
  countingQueue_->sync([this] {
    if (isFinished()) return;
    for (const auto& operation : operations_)
      if (!operation->isFinished()) return;
    attemptCompoundCompletion();
  });
}

}  // namespace symlift::dispatch
