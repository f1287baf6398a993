#pragma once
// Sends one HTTP request and delivers its outcome once, trying again after
// a randomised exponential delay while the response handler calls the
// outcome retryable and the caller's retry limit allows. Every transfer
// carries the attempt counter header "X-Vantrel-Retries: <tries>/<limit>".

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "network/url_request.h"
#include "network/url_session.h"
#include "dispatch/dispatch_queue.h"
#include "dispatch/thread_pool.h"
#include "support/error.h"

namespace symlift::network {

class SUPKITNetworkClient : public std::enable_shared_from_this<SUPKITNetworkClient> {
 public:
  using Response = std::optional<HTTPURLResponse>;
  // (body or none, response or none, error or none), called exactly once.
  using CompletionHandler = std::function<void(std::optional<Data>, Response, support::ErrorPtr)>;
  // Runs the block once after the delay.
  using DelayScheduler = std::function<void(std::chrono::nanoseconds delay, std::function<void()> block)>;

  // The session delivers completions on its own thread, or on the queue
  // when one is given; the session and the retries' delays work on the
  // pool, which outlives the client. Nothing when no session can be made.
  static std::shared_ptr<SUPKITNetworkClient> create(dispatch::ThreadPool& pool);
  static std::shared_ptr<SUPKITNetworkClient> createWithQueue(dispatch::ThreadPool& pool,
                                                              std::shared_ptr<dispatch::DispatchQueue> queue);
  static std::shared_ptr<SUPKITNetworkClient> createWithSessionConfiguration(
      dispatch::ThreadPool& pool, const URLSessionConfiguration& configuration,
      std::shared_ptr<dispatch::DispatchQueue> queue);
  // Over a session of the caller's making.
  static std::shared_ptr<SUPKITNetworkClient> createWithSession(dispatch::ThreadPool& pool,
                                                                std::shared_ptr<URLSession> session);

  // Lets outstanding transfers finish, then ends the session. A retry whose
  // delay runs out after this finds no session and ends with code -3.
  ~SUPKITNetworkClient();
  SUPKITNetworkClient(const SUPKITNetworkClient&) = delete;
  SUPKITNetworkClient& operator=(const SUPKITNetworkClient&) = delete;

  void startDataTaskWithRequest(const URLRequest& request, std::uint64_t retryLimit, CompletionHandler completion);
  void startDataTaskWithRequest(const URLRequest& request, std::uint64_t retryLimit, std::uint64_t tries,
                                CompletionHandler completion);

  // drand48 is never seeded: every run draws the same sequence, on purpose.
  static double randomDoubleWithMin(double min, double max);
  static double generateRandomJitter();
  // base^exponent × jitter: base is at least 2 s or the server's
  // Retry-After; the exponent is the retry count, but 1 for the first.
  static double computeDelayForResponse(const Response& response, std::uint64_t retryCount);
  // The delay as whole nanoseconds, truncated.
  static std::chrono::nanoseconds delayInNanoseconds(double seconds);

  void runAfterRetryValueFromResponse(const Response& response, std::uint64_t attempts,
                                      dispatch::DispatchQueue& queue, std::function<void()> block);
  // On the pool's background queue, or through the delay scheduler when one
  // has been set.
  void runAfterRetryValueFromResponse(const Response& response, std::uint64_t attempts, std::function<void()> block);

  // On the pool's background queue, or through the delay scheduler.
  void runAfterDelay(std::chrono::nanoseconds delay, std::function<void()> block);

  void handleResponse(Response response, std::optional<Data> data, support::ErrorPtr taskError,
                      const URLRequest& request, std::uint64_t tries, std::uint64_t retryLimit,
                      CompletionHandler completion);
  void handleCompletionWithResponse(Response response, std::optional<Data> data, const URLRequest& request,
                                    std::uint64_t tries, std::uint64_t retryLimit, support::ErrorPtr error,
                                    bool retry, CompletionHandler completion);

  // Ends every outstanding transfer with the cancelled error; the client
  // refuses new requests (code -3) afterwards.
  void invalidateAndCancel();

  // Replaces how retries wait (tests run the back-off ladder without
  // waiting). Set it before the first request.
  void setDelayScheduler(DelayScheduler scheduler) { delayScheduler_ = std::move(scheduler); }

  const std::shared_ptr<URLSession>& session() const { return session_; }

 private:
  SUPKITNetworkClient(dispatch::ThreadPool& pool, std::shared_ptr<URLSession> session)
      : pool_(pool), session_(std::move(session)) {}

  dispatch::ThreadPool& pool_;
  std::shared_ptr<URLSession> session_;
  DelayScheduler delayScheduler_;
};

}  // namespace symlift::network
