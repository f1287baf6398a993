// The retry policy of the client over a scripted session: no sockets.

#include "network/network_client.h"

#include <gtest/gtest.h>

#include <cmath>
#include <deque>

#include "dispatch/thread_pool.h"
#include "network/network_response_handler.h"
#include "network/network_test_support.h"
#include "network/url_error.h"

namespace symlift::network {
namespace {

using symlift::testing::Outcome;

constexpr double kJitterLow = 0.8999999761581421;  // 0.9f and 1.1f
constexpr double kJitterHigh = 1.100000023841858;

HTTPURLResponse status(long code, const char* retryAfter = nullptr) {
  HTTPURLResponse response;
  response.URL = "https://symbols.vantrel.example/v1/up";
  response.statusCode = code;
  if (retryAfter) response.allHeaderFields.setValue(retryAfter, "Retry-After");
  return response;
}

// A status (with its Retry-After), or a transport error when urlError is set.
struct Answer {
  long status = 200;
  const char* retryAfter = nullptr;
  std::int64_t urlError = 0;
};

// Answers each transfer synchronously from a script and records what was
// sent; while holding, completions wait in `held` instead.
class ScriptedSession : public URLSession {
 public:
  std::deque<Answer> script;
  std::vector<URLRequest> sent;
  std::vector<DataTaskCompletion> held;
  bool holding = false;

  bool startDataTask(const URLRequest& request, DataTaskCompletion completion) override {
    sent.push_back(request);
    if (holding) {
      held.push_back(std::move(completion));
      return true;
    }
    Answer answer = script.empty() ? Answer{} : script.front();
    if (!script.empty()) script.pop_front();
    if (answer.urlError)
      completion(std::nullopt, std::nullopt, support::makeError(kURLErrorDomain, answer.urlError));
    else
      completion(Data{'o', 'k'}, status(answer.status, answer.retryAfter), nullptr);
    return true;
  }
  void finishTasksAndInvalidate() override {}
  void invalidateAndCancel() override {}
};

// slack: a delay handed on in whole nanoseconds is truncated.
void expectNominal(double delay, double nominal, double slack = 0) {
  EXPECT_GE(delay, nominal * kJitterLow - slack) << nominal;
  EXPECT_LT(delay, nominal * kJitterHigh) << nominal;
}

TEST(NetworkClientTest, DelayIsTheRetryAfterValueAtLeastTwoRaisedToTheRetryCountWithJitter) {
  struct Case {
    const char* retryAfter;  // none: no response header
    std::uint64_t retryCount;
    double nominal;
  };
  const Case cases[] = {{nullptr, 0, 2}, {nullptr, 1, 2},  {nullptr, 2, 4},  {nullptr, 8, 256}, {"3", 0, 3},
                        {"3", 1, 3},     {"3", 3, 27},     {"1", 0, 2},      {"1", 3, 8},       {"0", 0, 2},
                        {"-4", 0, 2}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.retryAfter ? c.retryAfter : "-") + " " + std::to_string(c.retryCount));
    expectNominal(SUPKITNetworkClient::computeDelayForResponse(status(429, c.retryAfter), c.retryCount), c.nominal);
  }
  expectNominal(SUPKITNetworkClient::computeDelayForResponse(std::nullopt, 3), 8);
  // The jitter stays within its bounds and spreads across them.
  double low = 2, high = 0;
  for (int i = 0; i < 2000; ++i) {
    double jitter = SUPKITNetworkClient::generateRandomJitter();
    ASSERT_GE(jitter, kJitterLow);
    ASSERT_LT(jitter, kJitterHigh);
    low = std::min(low, jitter), high = std::max(high, jitter);
  }
  EXPECT_LT(low, 0.92);
  EXPECT_GT(high, 1.08);
  // Whole nanoseconds, truncated; an enormous delay stays in the future.
  for (const auto& [seconds, nanoseconds] : std::vector<std::pair<double, std::int64_t>>{
           {1.9999999999, 1999999999}, {2.5, 2500000000}, {0, 0}, {-1, 0}})
    EXPECT_EQ(SUPKITNetworkClient::delayInNanoseconds(seconds).count(), nanoseconds) << seconds;
  EXPECT_GT(SUPKITNetworkClient::delayInNanoseconds(std::pow(120.0, 10)).count(), 0);
}

TEST(NetworkClientTest, RetriesUntilAnAnswerNeedsNoneOrTheLimitIsReached) {
  struct Case {
    std::vector<Answer> script;
    std::uint64_t limit;
    std::vector<double> nominalDelays;  // one per retry
    std::int64_t error;                 // 0: none
    long delivered;                     // the status handed on with the body, 0: none
  };
  const Case cases[] = {
      {{{503}, {0, nullptr, URLErrorTimedOut}, {200}}, 10, {2, 2}, 0, 200},
      {{{500}, {502}, {408}, {500}}, 3, {2, 2, 4}, SUPNetworkErrorMaximumAttemptsReached, 0},
      {{{500}}, 0, {}, SUPNetworkErrorMaximumAttemptsReached, 0},
      {{{429, "3"}, {420, "1"}, {201}}, 10, {3, 2}, 0, 201},
      {{{404}}, 10, {}, SUPNetworkErrorRequestFailed, 404},
      {{{0, nullptr, URLErrorBadURL}}, 10, {}, URLErrorBadURL, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.nominalDelays) + " limit " + std::to_string(c.limit));
    dispatch::ThreadPool pool;
    auto session = std::make_shared<ScriptedSession>();
    session->script.assign(c.script.begin(), c.script.end());
    auto client = SUPKITNetworkClient::createWithSession(pool, session);
    std::vector<double> delays;
    client->setDelayScheduler([&](std::chrono::nanoseconds delay, std::function<void()> block) {
      delays.push_back(static_cast<double>(delay.count()) / 1e9);
      block();
    });
    URLRequest request("https://symbols.vantrel.example/v1/up");
    request.setValueForHTTPHeaderField("7/7", "x-vantrel-retries");  // replaced, whatever its spelling
    request.addValueForHTTPHeaderField("symlift/1", "User-Agent");
    Outcome result;
    client->startDataTaskWithRequest(request, c.limit, result.handler());

    EXPECT_EQ(result.calls, 1);
    ASSERT_EQ(session->sent.size(), c.nominalDelays.size() + 1);
    for (std::size_t i = 0; i < session->sent.size(); ++i) {
      const URLRequest& sent = session->sent[i];
      EXPECT_EQ(sent.valueForHTTPHeaderField("X-Vantrel-Retries"), std::to_string(i) + "/" + std::to_string(c.limit));
      EXPECT_EQ(sent.valueForHTTPHeaderField("User-Agent"), "symlift/1");
      EXPECT_EQ(sent.allHTTPHeaderFields.fields().size(), 2u);
    }
    ASSERT_EQ(delays.size(), c.nominalDelays.size());
    for (std::size_t i = 0; i < delays.size(); ++i) expectNominal(delays[i], c.nominalDelays[i], 1e-9);
    EXPECT_EQ(result.error ? result.error->code : 0, c.error);
    EXPECT_EQ(result.response ? result.response->statusCode : 0, c.delivered);
    EXPECT_EQ(result.data, c.delivered ? std::optional<Data>(Data{'o', 'k'}) : std::nullopt);
    if (c.error == SUPNetworkErrorMaximumAttemptsReached) {
      EXPECT_EQ(result.error->userInfo.at("retryLimit"), std::to_string(c.limit));
      EXPECT_EQ(result.error->userInfo.at(kURLErrorFailingURLStringErrorKey), request.URL);
    }
  }
}

// A transfer that ends after its client is gone is still completed once: as
// it is when it needs no retry, with "failed to start" when it would be
// retried, or when a retry was waiting.
TEST(NetworkClientTest, TransfersOutlivingTheClientCompleteOnce) {
  dispatch::ThreadPool pool;
  auto session = std::make_shared<ScriptedSession>();
  session->holding = true;
  auto client = SUPKITNetworkClient::createWithSession(pool, session);
  std::function<void()> pendingRetry;
  client->setDelayScheduler([&](std::chrono::nanoseconds, std::function<void()> block) { pendingRetry = block; });
  Outcome results[3];
  for (auto& result : results) client->startDataTaskWithRequest(URLRequest("https://x.example/"), 3, result.handler());
  session->held[0](std::nullopt, status(500), nullptr);
  ASSERT_TRUE(pendingRetry);
  EXPECT_EQ(results[0].calls, 0);
  client.reset();
  pendingRetry();
  session->held[1](Data{}, status(201), nullptr);
  session->held[2](Data{}, status(503), nullptr);
  for (const Outcome& result : results) EXPECT_EQ(result.calls, 1);
  ASSERT_TRUE(results[0].error && results[1].response && results[2].error);
  EXPECT_EQ(results[0].error->code, SUPNetworkErrorFailedToStartOperation);
  EXPECT_FALSE(results[1].error);
  EXPECT_EQ(results[1].response->statusCode, 201);
  EXPECT_EQ(results[2].error->code, SUPNetworkErrorFailedToStartOperation);
  EXPECT_EQ(session->sent.size(), 3u);
}

}  // namespace
}  // namespace symlift::network
