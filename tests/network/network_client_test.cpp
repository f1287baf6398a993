// The retry policy of the client over a scripted session: no sockets.

#include "network/network_client.h"
#include "dispatch/thread_pool.h"

#include <gtest/gtest.h>

#include <cmath>
#include <deque>
#include <mutex>

#include "support/captured_output.h"
#include "network/network_response_handler.h"
#include "network/url_error.h"

namespace symlift::network {
namespace {

constexpr double kJitterLow = 0.8999999761581421;
constexpr double kJitterHigh = 1.100000023841858;

// Answers each transfer from a script, synchronously, and records what was sent.
class ScriptedSession : public URLSession {
 public:
  struct Answer {
    std::optional<HTTPURLResponse> response;
    support::ErrorPtr error;
  };
  std::deque<Answer> script;
  std::vector<URLRequest> sent;
  bool accepting = true;
  std::vector<DataTaskCompletion> held;  // when holding, completions wait here
  bool holding = false;

  bool startDataTask(const URLRequest& request, DataTaskCompletion completion) override {
    if (!accepting) return false;
    sent.push_back(request);
    if (holding) {
      held.push_back(std::move(completion));
      return true;
    }
    Answer answer = script.empty() ? Answer{status(200), nullptr} : script.front();
    if (!script.empty()) script.pop_front();
    if (answer.error)
      completion(std::nullopt, std::nullopt, answer.error);
    else
      completion(Data{'o', 'k'}, answer.response, nullptr);
    return true;
  }
  void finishTasksAndInvalidate() override { accepting = false; }
  void invalidateAndCancel() override { accepting = false; }

  static HTTPURLResponse status(long code, std::optional<std::string> retryAfter = std::nullopt) {
    HTTPURLResponse response;
    response.URL = "https://symbols.vantrel.example/v1/up";
    response.statusCode = code;
    if (retryAfter) response.allHeaderFields.setValue(*retryAfter, "Retry-After");
    return response;
  }
};

struct Result {
  int calls = 0;
  std::optional<Data> data;
  std::optional<HTTPURLResponse> response;
  support::ErrorPtr error;
};

struct Fixture {
  dispatch::ThreadPool pool;
  std::shared_ptr<ScriptedSession> session = std::make_shared<ScriptedSession>();
  std::shared_ptr<SUPKITNetworkClient> client = SUPKITNetworkClient::createWithSession(pool, session);
  std::vector<std::chrono::nanoseconds> delays;
  Result result;

  Fixture() {
    // Retries run at once, on the calling thread.
    client->setDelayScheduler([this](std::chrono::nanoseconds delay, std::function<void()> block) {
      delays.push_back(delay);
      block();
    });
  }
  void send(std::uint64_t limit, URLRequest request = URLRequest("https://symbols.vantrel.example/v1/up")) {
    client->startDataTaskWithRequest(request, limit, [this](std::optional<Data> d, auto r, support::ErrorPtr e) {
      ++result.calls;
      result.data = std::move(d);
      result.response = std::move(r);
      result.error = std::move(e);
    });
  }
  std::vector<std::string> retryHeaders() const {
    std::vector<std::string> values;
    for (const auto& request : session->sent) values.push_back(request.valueForHTTPHeaderField("X-Vantrel-Retries").value_or("-"));
    return values;
  }
};

TEST(NetworkClientTest, BackOffFormula) {
  // Without Retry-After: 2, 2, 4, 8, 16 ... times the jitter.
  for (std::uint64_t n = 0; n <= 8; ++n) {
    double nominal = std::pow(2.0, n == 0 ? 1.0 : static_cast<double>(n));
    double delay = SUPKITNetworkClient::computeDelayForResponse(std::nullopt, n);
    EXPECT_GE(delay, nominal * kJitterLow) << n;
    EXPECT_LT(delay, nominal * kJitterHigh) << n;
  }
  // The server's value is raised to the power of the retry count; below 2 it is 2.
  auto response = ScriptedSession::status(429, "3");
  for (std::uint64_t n : {0u, 1u, 2u, 3u}) {
    double nominal = std::pow(3.0, n == 0 ? 1.0 : static_cast<double>(n));
    double delay = SUPKITNetworkClient::computeDelayForResponse(response, n);
    EXPECT_GE(delay, nominal * kJitterLow) << n;
    EXPECT_LT(delay, nominal * kJitterHigh) << n;
  }
  for (const char* small : {"1", "0", "-4"}) {
    double delay = SUPKITNetworkClient::computeDelayForResponse(ScriptedSession::status(429, small), 0);
    EXPECT_GE(delay, 2.0 * kJitterLow) << small;
    EXPECT_LT(delay, 2.0 * kJitterHigh) << small;
  }
}

TEST(NetworkClientTest, JitterStaysInTheSinglePrecisionBoundsAndSpreads) {
  double low = 2, high = 0;
  for (int i = 0; i < 2000; ++i) {
    double jitter = SUPKITNetworkClient::generateRandomJitter();
    ASSERT_GE(jitter, kJitterLow);
    ASSERT_LT(jitter, kJitterHigh);
    low = std::min(low, jitter);
    high = std::max(high, jitter);
  }
  EXPECT_LT(low, 0.92);
  EXPECT_GT(high, 1.08);
  EXPECT_EQ(SUPKITNetworkClient::randomDoubleWithMin(5.0, 5.0), 5.0);
}

TEST(NetworkClientTest, DelayIsTruncatedToWholeNanoseconds) {
  EXPECT_EQ(SUPKITNetworkClient::delayInNanoseconds(1.9999999999).count(), 1999999999);
  EXPECT_EQ(SUPKITNetworkClient::delayInNanoseconds(2.5).count(), 2500000000);
  EXPECT_EQ(SUPKITNetworkClient::delayInNanoseconds(0).count(), 0);
  // An enormous delay (Retry-After raised to a high power) stays a delay in the future.
  EXPECT_GT(SUPKITNetworkClient::delayInNanoseconds(std::pow(120.0, 10)).count(), 0);
}

TEST(NetworkClientTest, RecoversAfterRetryableFailures) {
  Fixture f;
  f.session->script.push_back({ScriptedSession::status(503), nullptr});
  f.session->script.push_back({std::nullopt, support::makeError(kURLErrorDomain, URLErrorTimedOut)});
  f.session->script.push_back({ScriptedSession::status(200), nullptr});
  URLRequest request("https://symbols.vantrel.example/v1/up");
  request.setValueForHTTPHeaderField("7/7", "x-vantrel-retries");  // replaced, whatever its spelling
  request.addValueForHTTPHeaderField("symlift/1", "User-Agent");
  std::string output = symlift::testing::consoleOutput(console::kLogLevelDebug, [&] { f.send(10, request); });
  EXPECT_NE(output.find("Retrying symbol upload with number of retries: 1/10\n"), std::string::npos) << output;
  EXPECT_NE(output.find("Retrying symbol upload with number of retries: 2/10\n"), std::string::npos) << output;
  EXPECT_EQ(output.find("3/10"), std::string::npos) << output;
  EXPECT_EQ(f.result.calls, 1);
  EXPECT_FALSE(f.result.error);
  EXPECT_EQ(f.retryHeaders(), (std::vector<std::string>{"0/10", "1/10", "2/10"}));
  for (const auto& sent : f.session->sent) {
    EXPECT_EQ(sent.allHTTPHeaderFields.fields().size(), 2u);
    EXPECT_EQ(sent.valueForHTTPHeaderField("User-Agent"), "symlift/1");
  }
}

TEST(NetworkClientTest, RetryAfterTheClientIsGoneEndsWithFailedToStart) {
  dispatch::ThreadPool pool;
  auto session = std::make_shared<ScriptedSession>();
  session->holding = true;
  auto client = SUPKITNetworkClient::createWithSession(pool, session);
  std::function<void()> pendingRetry;
  client->setDelayScheduler([&](std::chrono::nanoseconds, std::function<void()> block) { pendingRetry = block; });
  Result result;
  client->startDataTaskWithRequest(URLRequest("https://x.example/"), 3, [&](auto, auto, support::ErrorPtr e) {
    ++result.calls;
    result.error = e;
  });
  ASSERT_EQ(session->held.size(), 1u);
  session->held[0](std::nullopt, ScriptedSession::status(500), nullptr);
  ASSERT_TRUE(pendingRetry);
  EXPECT_EQ(result.calls, 0);
  client.reset();
  pendingRetry();
  EXPECT_EQ(result.calls, 1);
  ASSERT_TRUE(result.error);
  EXPECT_EQ(result.error->code, SUPNetworkErrorFailedToStartOperation);
}

TEST(NetworkClientTest, TransferThatEndsAfterTheClientIsGoneIsStillDeliveredOnce) {
  dispatch::ThreadPool pool;
  auto session = std::make_shared<ScriptedSession>();
  session->holding = true;
  auto client = SUPKITNetworkClient::createWithSession(pool, session);
  std::vector<Result> results(2);
  for (int i = 0; i < 2; ++i)
    client->startDataTaskWithRequest(URLRequest("https://x.example/"), 3, [&, i](auto, auto r, support::ErrorPtr e) {
      ++results[i].calls;
      results[i].response = r;
      results[i].error = e;
    });
  client.reset();
  session->held[0](Data{}, ScriptedSession::status(201), nullptr);  // nothing to retry: delivered as it is
  session->held[1](Data{}, ScriptedSession::status(503), nullptr);  // a retry cannot start any more
  EXPECT_EQ(results[0].calls, 1);
  EXPECT_FALSE(results[0].error);
  ASSERT_TRUE(results[0].response);
  EXPECT_EQ(results[0].response->statusCode, 201);
  EXPECT_EQ(results[1].calls, 1);
  ASSERT_TRUE(results[1].error);
  EXPECT_EQ(results[1].error->code, SUPNetworkErrorFailedToStartOperation);
}

}  // namespace
}  // namespace symlift::network
