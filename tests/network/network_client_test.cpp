// The client's retry delays, and transfers that outlive it, over a scripted
// session; then the libcurl session and the client over it, against servers
// on loopback ports. Which answers are retried, how often and with which
// retry counter goes through the binary (NetworkFaultsTest).

#include <gtest/gtest.h>

#include <cmath>
#include <mutex>

#include "console/console_log.h"
#include "dispatch/thread_pool.h"
#include "network/curl_url_session.h"
#include "network/fake_service_process.h"
#include "network/network_client.h"
#include "network/network_constants.h"
#include "network/network_response_handler.h"
#include "network/network_test_support.h"
#include "network/url_error.h"
#include "support/captured_output.h"

namespace symlift::network {
namespace {

using symlift::testing::Outcome;
using namespace std::chrono_literals;
using symlift::testing::LoopbackHTTPServer;
using symlift::testing::RawLoopbackServer;

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

URLRequest makeRequest(const std::string& url, const std::string& method = "PUT", const std::string& body = "csym") {
  URLRequest request(url);
  request.HTTPMethod = method;
  request.HTTPBody.assign(body.begin(), body.end());
  request.addValueForHTTPHeaderField(SUPNetworkConstants::symbolUploadUserAgent(), kUserAgentHeaderName);
  return request;
}

// One transfer on a bare session: what the transport reports.
Outcome& transferOnce(Outcome& outcome, const URLRequest& request, URLSessionConfiguration configuration = {}) {
  dispatch::ThreadPool pool;
  auto session = CurlURLSession::create(pool, configuration, nullptr);
  EXPECT_TRUE(session->startDataTask(request, outcome.handler()));
  EXPECT_TRUE(outcome.wait());
  return outcome;
}

TEST(CurlURLSessionTest, TransportFailuresBecomeURLErrors) {
  auto readRequest = [](int socket, const std::atomic<bool>&) { RawLoopbackServer::readSome(socket); };
  // A peer that reads the ClientHello and resets: a load balancer dropping
  // the connection mid-handshake, a lost connection, not a certificate failure.
  auto resetHandshake = [](int socket, const std::atomic<bool>&) {
    RawLoopbackServer::readSome(socket);
    RawLoopbackServer::resetOnClose(socket);
  };
  struct Case {
    std::string url;  // or, with a peer, the scheme to reach it with
    RawLoopbackServer::Handler peer;
    std::int64_t code;
  };
  const Case cases[] = {
      {"http://127.0.0.1:" + std::to_string(symlift::testing::unusedLoopbackPort()), nullptr,
       URLErrorCannotConnectToHost},
      {"http", readRequest, URLErrorNetworkConnectionLost},  // closed without an answer
      {"https", resetHandshake, URLErrorNetworkConnectionLost},
      {"https", readRequest, URLErrorNetworkConnectionLost},  // closed mid-handshake
      {"http://127.0.0.1:99999/x", nullptr, URLErrorBadURL},
      {"127.0.0.1/no-scheme", nullptr, URLErrorBadURL},
      {"http://127.0.0.1/a b", nullptr, URLErrorBadURL},
      {"ftp://127.0.0.1/x", nullptr, URLErrorUnsupportedURL},
      {"file:///etc/hostname", nullptr, URLErrorUnsupportedURL},
  };
  for (const Case& c : cases) {
    std::optional<RawLoopbackServer> server;
    if (c.peer) server.emplace(c.peer);
    std::string url = c.peer ? server->url(c.url, "/v1/x") : c.url;
    Outcome outcome;
    transferOnce(outcome, makeRequest(url));
    ASSERT_TRUE(outcome.error) << url;
    EXPECT_EQ(outcome.error->domain, "NSURLErrorDomain") << url;
    EXPECT_EQ(outcome.error->code, c.code) << url << " " << outcome.error->description();
    EXPECT_FALSE(outcome.response) << url;
  }
}

// The method, the headers and the body go out as given: the body from
// memory with its length, never held back for a "100 Continue", and with no
// content type libcurl would add.
TEST(CurlURLSessionTest, MethodHeadersAndBodyGoOutAsGiven) {
  std::mutex mutex;
  std::vector<std::string> seen;  // method, body, Expect, Content-Type, User-Agent
  auto server = std::make_unique<httplib::Server>();
  auto record = [&](const httplib::Request& request, httplib::Response& response) {
    std::lock_guard<std::mutex> guard(mutex);
    seen = {request.method, request.body, request.get_header_value("Expect"), request.get_header_value("Content-Type"),
            request.get_header_value("User-Agent")};
    response.set_content("ok", "text/plain");
  };
  server->Put("/x", record).Post("/x", record).Delete("/x", record).Get("/x", record);
  LoopbackHTTPServer loopback(std::move(server));
  ASSERT_TRUE(loopback.bound());
  std::string large(3 << 20, '\0');
  for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>((i * 2654435761u) >> 24);
  for (const auto& [method, body] : std::vector<std::pair<std::string, std::string>>{
           {"PUT", large}, {"POST", "form=1"}, {"DELETE", ""}, {"GET", ""}}) {
    Outcome outcome;
    transferOnce(outcome, makeRequest(loopback.url() + "/x", method, body));
    ASSERT_FALSE(outcome.error) << method << " " << outcome.error->description();
    EXPECT_EQ(outcome.response->statusCode, 200);
    std::lock_guard<std::mutex> guard(mutex);
    EXPECT_EQ(seen, (std::vector<std::string>{method, body, "", "", SUPNetworkConstants::symbolUploadUserAgent()}))
        << method;
  }
}

// A redirect from HTTPS to plain HTTP is refused before anything goes there,
// whatever its status; other redirects are followed with the body sent again,
// and one to another host is told in the debug log, once.
TEST(CurlURLSessionTest, RedirectsAwayFromHTTPSAreRefusedOthersFollowed) {
  symlift::testing::TestCertificates certificates;
  if (!certificates.made) GTEST_SKIP() << "openssl could not make the test certificates";
  RawLoopbackServer plain([](int socket, const std::atomic<bool>&) { RawLoopbackServer::readSome(socket, 500ms); });
  // /redirect/<status>?to=<location>, and /there answers with the body it got.
  auto routes = [](httplib::Server& server) {
    server.Put(R"(/redirect/(\d+))", [](const httplib::Request& request, httplib::Response& response) {
      response.status = std::stoi(request.matches[1]);
      response.set_header("Location", request.get_param_value("to"));
    });
    server.Put("/there", [](const httplib::Request& request, httplib::Response& response) {
      response.set_content(request.body, "application/octet-stream");
    });
  };
  auto tls =
      std::make_unique<httplib::SSLServer>(certificates.serverCertificate.c_str(), certificates.serverKey.c_str());
  auto http = std::make_unique<httplib::Server>();
  routes(*tls), routes(*http);
  LoopbackHTTPServer secure(std::move(tls), "https"), insecure(std::move(http));
  ASSERT_TRUE(plain.bound() && secure.bound() && insecure.bound());
  const std::string elsewhere = "http://localhost:" + insecure.url().substr(insecure.url().rfind(':') + 1) + "/there";
  struct Case {
    std::string url, landing;  // no landing: refused
    bool told;
  };
  std::vector<Case> cases = {
      {secure.url() + "/redirect/307?to=/there", secure.url() + "/there", false},
      {insecure.url() + "/redirect/308?to=" + secure.url() + "/there", secure.url() + "/there", false},
      {insecure.url() + "/redirect/307?to=" + elsewhere, elsewhere, true},
  };
  for (int status : {301, 302, 303, 307, 308})
    cases.push_back({secure.url() + "/redirect/" + std::to_string(status) + "?to=" + plain.url("http"), "", false});
  URLSessionConfiguration trusting;
  trusting.caInfoPath = certificates.caCertificate;
  for (const Case& c : cases) {
    Outcome outcome;
    std::string printed = symlift::testing::consoleOutput(console::kLogLevelDebug, [&] {
      transferOnce(outcome, makeRequest(c.url, "PUT", "body"), trusting);
    });
    if (c.landing.empty()) {
      ASSERT_TRUE(outcome.error) << c.url;
      EXPECT_EQ(outcome.error->code, URLErrorAppTransportSecurityRequiresSecureConnection) << c.url;
      EXPECT_FALSE(outcome.response);
    } else {
      ASSERT_FALSE(outcome.error) << c.url << " " << outcome.error->description();
      EXPECT_EQ(outcome.response->statusCode, 200) << c.url;
      EXPECT_EQ(outcome.response->URL, c.landing);
      EXPECT_EQ(outcome.data, (Data{'b', 'o', 'd', 'y'}));
    }
    std::size_t told = c.told ? 1 : 0;
    EXPECT_EQ(symlift::testing::countOccurrences(printed, "Redirected from " + c.url + " to " + c.landing), told);
    EXPECT_EQ(symlift::testing::countOccurrences(printed, "Redirected"), told) << printed;
  }
  EXPECT_EQ(plain.connections(), 0);
}

// Cancelling ends a transfer at once; a client then completes it with
// "failed to start" (a cancel is retryable, but the session is gone), and
// completes any later request so at once.
TEST(NetworkClientTransportTest, InvalidateAndCancelEndsTransfersAndRefusesNewOnes) {
  RawLoopbackServer silent(RawLoopbackServer::holdSilently);
  dispatch::ThreadPool pool;
  auto session = CurlURLSession::create(pool, {}, nullptr);
  auto client = SUPKITNetworkClient::createWithSessionConfiguration(pool, {}, nullptr);
  client->setDelayScheduler([](std::chrono::nanoseconds, std::function<void()> block) { block(); });
  Outcome cancelled, failed, refused;
  session->startDataTask(makeRequest(silent.url("http")), cancelled.handler());
  client->startDataTaskWithRequest(makeRequest(silent.url("http")), 10, failed.handler());
  std::this_thread::sleep_for(200ms);  // let the transfers reach the peer
  session->invalidateAndCancel(), client->invalidateAndCancel();
  ASSERT_TRUE(cancelled.wait(5s) && failed.wait(5s));
  client->startDataTaskWithRequest(makeRequest(silent.url("http")), 10, refused.handler());
  EXPECT_EQ(refused.calls, 1);  // on this thread
  ASSERT_TRUE(cancelled.error && failed.error && refused.error);
  EXPECT_EQ(cancelled.error->code, URLErrorCancelled);
  EXPECT_EQ(failed.error->code, SUPNetworkErrorFailedToStartOperation) << failed.error->description();
  EXPECT_EQ(refused.error->code, SUPNetworkErrorFailedToStartOperation);
}

// Destroying a client waits for its transfers, each completed once; a
// session with a delegate queue completes through it.
TEST(NetworkClientTransportTest, DestructionWaitsAndCompletionsGoThroughTheDelegateQueue) {
  static thread_local bool onQueue = false;
  struct CountingQueue : dispatch::DispatchQueue {
    using dispatch::DispatchQueue::DispatchQueue;
    std::atomic<int> items{0};
    void async(std::function<void()> work) override {
      ++items, pool().submit([work = std::move(work)] { onQueue = true, work(), onQueue = false; });
    }
    void sync(const std::function<void()>& work) override { work(); }
  };
  auto server = std::make_unique<httplib::Server>();
  server->Put("/slow", [&](const httplib::Request&, httplib::Response&) { std::this_thread::sleep_for(300ms); });
  LoopbackHTTPServer loopback(std::move(server));
  ASSERT_TRUE(loopback.bound());
  dispatch::ThreadPool pool;
  auto client = SUPKITNetworkClient::createWithSessionConfiguration(pool, {}, nullptr);
  Outcome outcomes[3];
  for (auto& outcome : outcomes)
    client->startDataTaskWithRequest(makeRequest(loopback.url() + "/slow"), 10, outcome.handler());
  client.reset();
  for (auto& outcome : outcomes) EXPECT_TRUE(outcome.calls == 1 && !outcome.error) << outcome.calls;

  auto queue = std::make_shared<CountingQueue>(pool);
  Outcome queued;
  bool calledOnQueue = false;
  CurlURLSession::create(pool, {}, queue)
      ->startDataTask(makeRequest(loopback.url() + "/slow"), [&, inner = queued.handler()](auto d, auto r, auto e) {
        calledOnQueue = onQueue;
        inner(std::move(d), std::move(r), std::move(e));
      });
  ASSERT_TRUE(queued.wait());
  EXPECT_TRUE(calledOnQueue && !queued.error);
  EXPECT_EQ(queue->items.load(), 1);
}

}  // namespace
}  // namespace symlift::network
