#include "network/network_client.h"

#include <cmath>
#include <cstdlib>
#include <limits>

#include <fmt/format.h>

#include "console/console_log.h"
#include "network/curl_url_session.h"
#include "network/network_constants.h"
#include "network/network_response_handler.h"
#include "network/test_time_limits.h"
#include "network/url_error.h"

namespace symlift::network {

namespace {

support::ErrorPtr failedToStartError() {
  return SUPNetworkResponseHandler::errorForCode(SUPNetworkErrorFailedToStartOperation, {});
}

// The outcome of a transfer whose client has gone away: what needs no retry
// is delivered as it is; a retry cannot be started any more.
void deliverWithoutClient(const SUPKITNetworkClient::Response& response, std::optional<Data> data,
                          const support::ErrorPtr& taskError, const URLRequest& request,
                          const SUPKITNetworkClient::CompletionHandler& completion) {
  SUPNetworkResponseHandler::handleCompletedResponse(response, request, taskError,
                                                     [&](bool retry, support::ErrorPtr error) {
                                                       if (retry)
                                                         completion(std::nullopt, std::nullopt, failedToStartError());
                                                       else
                                                         completion(std::move(data), response, std::move(error));
                                                     });
}

}  // namespace

std::shared_ptr<SUPKITNetworkClient> SUPKITNetworkClient::create(dispatch::ThreadPool& pool) {
  return createWithQueue(pool, nullptr);
}

std::shared_ptr<SUPKITNetworkClient> SUPKITNetworkClient::createWithQueue(
    dispatch::ThreadPool& pool, std::shared_ptr<dispatch::DispatchQueue> queue) {
  return createWithSessionConfiguration(pool, URLSessionConfiguration::defaultSessionConfiguration(),
                                        std::move(queue));
}

std::shared_ptr<SUPKITNetworkClient> SUPKITNetworkClient::createWithSessionConfiguration(
    dispatch::ThreadPool& pool, const URLSessionConfiguration& configuration,
    std::shared_ptr<dispatch::DispatchQueue> queue) {
  auto session = CurlURLSession::create(pool, configuration, std::move(queue));
  if (!session) return nullptr;
  return createWithSession(pool, std::move(session));
}

std::shared_ptr<SUPKITNetworkClient> SUPKITNetworkClient::createWithSession(dispatch::ThreadPool& pool,
                                                                            std::shared_ptr<URLSession> session) {
  if (!session) return nullptr;
  return std::shared_ptr<SUPKITNetworkClient>(new SUPKITNetworkClient(pool, std::move(session)));
}

SUPKITNetworkClient::~SUPKITNetworkClient() {
  if (session_) session_->finishTasksAndInvalidate();
}

void SUPKITNetworkClient::startDataTaskWithRequest(const URLRequest& request, std::uint64_t retryLimit,
                                                   CompletionHandler completion) {
  startDataTaskWithRequest(request, retryLimit, 0, std::move(completion));
}

void SUPKITNetworkClient::startDataTaskWithRequest(const URLRequest& request, std::uint64_t retryLimit,
                                                   std::uint64_t tries, CompletionHandler completion) {
  URLRequest copy = request;
  copy.setValueForHTTPHeaderField(fmt::format("{}/{}", tries, retryLimit), kRetriesHeaderName);
  if (request.observer && request.observer->attemptStarted) request.observer->attemptStarted(tries + 1);

  // Held once for the transfer's completion rather than copied into it:
  // the body may be megabytes.
  auto sent = std::make_shared<const URLRequest>(std::move(copy));
  std::weak_ptr<SUPKITNetworkClient> weakSelf = weak_from_this();
  // The completion is shared: if the session refuses the task it never runs
  // the one it was given, and the caller's must still be called once.
  auto shared = std::make_shared<CompletionHandler>(std::move(completion));
  bool started = session_->startDataTask(
      *sent, [weakSelf, sent, tries, retryLimit, shared](std::optional<Data> data, Response response,
                                                         support::ErrorPtr error) {
        if (auto self = weakSelf.lock())
          self->handleResponse(std::move(response), std::move(data), std::move(error), *sent, tries, retryLimit,
                               std::move(*shared));
        else
          deliverWithoutClient(response, std::move(data), error, *sent, *shared);
      });
  if (!started) (*shared)(std::nullopt, std::nullopt, failedToStartError());
}

double SUPKITNetworkClient::randomDoubleWithMin(double min, double max) { return drand48() * (max - min) + min; }

double SUPKITNetworkClient::generateRandomJitter() {
  // Single-precision bounds, widened.
  return randomDoubleWithMin(0.9f, 1.1f);
}

double SUPKITNetworkClient::computeDelayForResponse(const Response& response, std::uint64_t retryCount) {
  double base = std::max(2.0, SUPNetworkResponseHandler::retryValueForResponse(response));
  double exponent = retryCount == 0 ? 1.0 : static_cast<double>(retryCount);
  return std::pow(base, exponent) * generateRandomJitter();
}

std::chrono::nanoseconds SUPKITNetworkClient::delayInNanoseconds(double seconds) {
  // The delay has no upper bound; only the clock's range limits it (a
  // deadline past the end of the clock would wrap around into the past).
  constexpr double limit = static_cast<double>(std::numeric_limits<std::int64_t>::max() / 4);
  double nanoseconds = seconds * 1000000000.0;
  if (!(nanoseconds > 0)) return std::chrono::nanoseconds(0);
  if (nanoseconds >= limit) return std::chrono::nanoseconds(static_cast<std::int64_t>(limit));
  return std::chrono::nanoseconds(static_cast<std::int64_t>(static_cast<std::uint64_t>(nanoseconds)));
}

void SUPKITNetworkClient::runAfterRetryValueFromResponse(const Response& response, std::uint64_t attempts,
                                                         dispatch::DispatchQueue& queue,
                                                         std::function<void()> block) {
  queue.asyncAfter(retryDelayWithTestCeiling(delayInNanoseconds(computeDelayForResponse(response, attempts))),
                   std::move(block));
}

void SUPKITNetworkClient::runAfterRetryValueFromResponse(const Response& response, std::uint64_t attempts,
                                                         std::function<void()> block) {
  runAfterDelay(retryDelayWithTestCeiling(delayInNanoseconds(computeDelayForResponse(response, attempts))),
                std::move(block));
}

void SUPKITNetworkClient::runAfterDelay(std::chrono::nanoseconds delay, std::function<void()> block) {
  if (delayScheduler_)
    delayScheduler_(delay, std::move(block));
  else
    pool_.concurrentQueue().asyncAfter(delay, std::move(block));
}

void SUPKITNetworkClient::handleResponse(Response response, std::optional<Data> data, support::ErrorPtr taskError,
                                         const URLRequest& request, std::uint64_t tries, std::uint64_t retryLimit,
                                         CompletionHandler completion) {
  if (request.observer && request.observer->attemptEnded)
    request.observer->attemptEnded(tries + 1, response ? response->statusCode : 0);
  SUPNetworkResponseHandler::handleCompletedResponse(
      response, request, taskError, [&](bool retry, support::ErrorPtr error) {
        handleCompletionWithResponse(std::move(response), std::move(data), request, tries, retryLimit,
                                     std::move(error), retry, std::move(completion));
      });
}

void SUPKITNetworkClient::handleCompletionWithResponse(Response response, std::optional<Data> data,
                                                       const URLRequest& request, std::uint64_t tries,
                                                       std::uint64_t retryLimit, support::ErrorPtr error, bool retry,
                                                       CompletionHandler completion) {
  if (!retry) {
    completion(std::move(data), std::move(response), std::move(error));
    return;
  }
  if (tries >= retryLimit) {
    // The last transport or response error is dropped, not chained.
    completion(std::nullopt, std::nullopt,
               SUPNetworkResponseHandler::errorForCode(SUPNetworkErrorMaximumAttemptsReached,
                                                       {
                                                           {"retryLimit", std::to_string(retryLimit)},
                                                           {kURLErrorFailingURLStringErrorKey, request.URL},
                                                       }));
    return;
  }
  console::SYLLogDebug("Retrying symbol upload with number of retries: {}/{}", tries + 1, retryLimit);
  std::weak_ptr<SUPKITNetworkClient> weakSelf = weak_from_this();
  // The delay is drawn once: the observer hears the one that is waited.
  const std::chrono::nanoseconds delay =
      retryDelayWithTestCeiling(delayInNanoseconds(computeDelayForResponse(response, tries)));
  if (request.observer && request.observer->retryScheduled) request.observer->retryScheduled(delay);
  runAfterDelay(delay, [weakSelf, request, retryLimit, tries, completion = std::move(completion)]() mutable {
    if (auto self = weakSelf.lock())
      self->startDataTaskWithRequest(request, retryLimit, tries + 1, std::move(completion));
    else
      completion(std::nullopt, std::nullopt, failedToStartError());
  });
}

void SUPKITNetworkClient::invalidateAndCancel() { session_->invalidateAndCancel(); }

}  // namespace symlift::network
