// The client's retry delays, and transfers that outlive it, over a scripted
// session: no sockets. Which answers are retried, how often and with which
// retry counter goes through the binary (NetworkFaultsTest).

#include "network/network_client.h"

#include <gtest/gtest.h>

#include <cmath>

#include "dispatch/thread_pool.h"
#include "network/network_response_handler.h"
#include "network/network_test_support.h"

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

// Records what was sent and keeps each completion in `held` for the test to call.
class HoldingSession : public URLSession {
 public:
  std::vector<URLRequest> sent;
  std::vector<DataTaskCompletion> held;

  bool startDataTask(const URLRequest& request, DataTaskCompletion completion) override {
    sent.push_back(request);
    held.push_back(std::move(completion));
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

// A transfer that ends after its client is gone is still completed once: as
// it is when it needs no retry, with "failed to start" when it would be
// retried, or when a retry was waiting.
TEST(NetworkClientTest, TransfersOutlivingTheClientCompleteOnce) {
  dispatch::ThreadPool pool;
  auto session = std::make_shared<HoldingSession>();
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
