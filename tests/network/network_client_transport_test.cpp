// The client and its libcurl session against the stand-in service, run as a
// child process on a loopback port. Retries wait through an injected
// scheduler, so the back-off ladder costs no real time.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <future>
#include <mutex>

#include "fake_service_process.h"
#include "raw_loopback_server.h"
#include "console/console_log.h"
#include "network/loopback_http_server.h"
#include "support/scoped_environment.h"
#include "support/test_support.h"
#include "dispatch/thread_pool.h"
#include "network/curl_url_session.h"
#include "network/network_client.h"
#include "network/network_constants.h"
#include "network/network_response_handler.h"
#include "network/test_time_limits.h"
#include "network/url_error.h"

namespace symlift::network {
namespace {

using namespace std::chrono_literals;
using symlift::testing::FakeServiceProcess;
using symlift::testing::RawLoopbackServer;

constexpr const char* kApp = "1:1234567890:ios:abc123";
constexpr const char* kUUID = "00112233445566778899aabbccddeeff";

std::string csymBody(const std::string& uuid = kUUID) {
  return symlift::testing::gzipText("code_mapping\t1\tmacho\t" + uuid + "\tarm64\tApp\n16\t32\tmain\n");
}

URLRequest uploadRequest(const std::string& url, const std::string& body = csymBody()) {
  URLRequest request(url);
  request.HTTPMethod = "PUT";
  request.HTTPBody.assign(body.begin(), body.end());
  request.cachePolicy = URLRequestCachePolicy::ReloadIgnoringLocalCacheData;
  request.addValueForHTTPHeaderField(SUPNetworkConstants::symbolUploadUserAgent(), kUserAgentHeaderName);
  return request;
}

// Collects the one outcome of a request and counts the callbacks.
struct Outcome {
  std::mutex mutex;  // guards everything below
  std::condition_variable changed;
  int calls = 0;
  std::optional<Data> data;
  std::optional<HTTPURLResponse> response;
  support::ErrorPtr error;

  SUPKITNetworkClient::CompletionHandler handler() {
    return [this](std::optional<Data> d, std::optional<HTTPURLResponse> r, support::ErrorPtr e) {
      std::lock_guard<std::mutex> guard(mutex);
      ++calls;
      data = std::move(d);
      response = std::move(r);
      error = std::move(e);
      changed.notify_all();
    };
  }
  bool wait(std::chrono::seconds limit = 30s) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, limit, [&] { return calls > 0; });
  }
};

// A client whose retries start at once from the background queue, with the
// delays it was asked to wait recorded.
struct TestClient {
  dispatch::ThreadPool pool;
  std::shared_ptr<SUPKITNetworkClient> client;
  std::mutex mutex;  // guards delays
  std::vector<double> delays;

  explicit TestClient(URLSessionConfiguration configuration = {}) {
    client = SUPKITNetworkClient::createWithSessionConfiguration(pool, configuration, nullptr);
    if (!client) return;
    client->setDelayScheduler([this](std::chrono::nanoseconds delay, std::function<void()> block) {
      {
        std::lock_guard<std::mutex> guard(mutex);
        delays.push_back(static_cast<double>(delay.count()) / 1e9);
      }
      pool.submit(std::move(block));
    });
  }
  // The client goes before the pool it works on.
  ~TestClient() { client.reset(); }
  std::size_t retries() {
    std::lock_guard<std::mutex> guard(mutex);
    return delays.size();
  }
};

// The outcome of one transfer on a bare session: what the transport reports.
struct SessionOutcome {
  std::optional<HTTPURLResponse> response;
  support::ErrorPtr error;
};
SessionOutcome transferOnce(const URLRequest& request, URLSessionConfiguration configuration = {}) {
  dispatch::ThreadPool pool;
  auto session = CurlURLSession::create(pool, configuration, nullptr);
  std::promise<SessionOutcome> promise;
  EXPECT_TRUE(session->startDataTask(request, [&](auto, std::optional<HTTPURLResponse> r, support::ErrorPtr e) {
    promise.set_value({std::move(r), std::move(e)});
  }));
  auto future = promise.get_future();
  EXPECT_EQ(future.wait_for(30s), std::future_status::ready);
  return future.get();
}

TEST(NetworkClientTransportTest, ServerErrorsUntilTheLimitThenMaximumAttempts) {
  FakeServiceProcess service({"--fail-first", "1000", "--fail-status", "503"});
  ASSERT_TRUE(service.started());
  TestClient test;
  ASSERT_TRUE(test.client);
  Outcome outcome;
  test.client->startDataTaskWithRequest(uploadRequest(service.uploadURL(kApp, kUUID)), 10, outcome.handler());
  ASSERT_TRUE(outcome.wait());
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, SUPNetworkErrorMaximumAttemptsReached);
  EXPECT_EQ(outcome.error->userInfo.at("retryLimit"), "10");
  EXPECT_EQ(outcome.error->userInfo.at(kURLErrorFailingURLStringErrorKey), service.uploadURL(kApp, kUUID));

  std::vector<std::string> expected;
  for (int i = 0; i <= 10; ++i) expected.push_back(std::to_string(i) + "/10");
  EXPECT_EQ(service.loggedHeaderValues("X-Vantrel-Retries"), expected);
  EXPECT_EQ(service.loggedRequestCount(), 11u);
  EXPECT_TRUE(outcome.error->underlyingErrors.empty());  // the last 503 is dropped, not chained
  EXPECT_FALSE(outcome.response);
  // One wait per retry, on the ladder 2, 2, 4, 8, ... seconds times the jitter.
  {
    std::lock_guard<std::mutex> guard(test.mutex);
    ASSERT_EQ(test.delays.size(), 10u);
    for (std::size_t n = 0; n < test.delays.size(); ++n) {
      double nominal = std::pow(2.0, n == 0 ? 1.0 : static_cast<double>(n));
      EXPECT_GE(test.delays[n], nominal * 0.8999999) << n;
      EXPECT_LT(test.delays[n], nominal * 1.1000001) << n;
    }
  }
  test.client.reset();
  EXPECT_EQ(outcome.calls, 1);
}

TEST(NetworkClientTransportTest, LimitZeroSendsOnce) {
  FakeServiceProcess service({"--fail-first", "1000", "--fail-status", "500"});
  ASSERT_TRUE(service.started());
  TestClient test;
  Outcome outcome;
  test.client->startDataTaskWithRequest(uploadRequest(service.uploadURL(kApp, kUUID)), 0, outcome.handler());
  ASSERT_TRUE(outcome.wait());
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, SUPNetworkErrorMaximumAttemptsReached);
  EXPECT_EQ(service.loggedHeaderValues("X-Vantrel-Retries"), std::vector<std::string>{"0/0"});
  EXPECT_EQ(test.retries(), 0u);
}

TEST(NetworkClientTransportTest, RecoversAfterTwoFailuresAndSendsTheBodyExactly) {
  FakeServiceProcess service({"--fail-first", "2", "--fail-status", "503"});
  ASSERT_TRUE(service.started());
  TestClient test;
  // A body of a few megabytes: sent from memory with its length, and never
  // held back for a "100 Continue".
  std::string text = std::string("code_mapping\t1\tmacho\t") + kUUID + "\tarm64\tApp\n";
  for (int i = 0; i < 150000; ++i) text += std::to_string(i * 2654435761u) + "\tf" + std::to_string(i) + "\n";
  std::string body = symlift::testing::gzipText(text);
  Outcome outcome;
  test.client->startDataTaskWithRequest(uploadRequest(service.uploadURL(kApp, kUUID), body), 10, outcome.handler());
  ASSERT_TRUE(outcome.wait());
  EXPECT_FALSE(outcome.error) << outcome.error->description();
  ASSERT_TRUE(outcome.response);
  EXPECT_EQ(outcome.response->statusCode, 200);
  EXPECT_EQ(outcome.response->valueForHTTPHeaderField("x-request-id"), "fake-2");
  EXPECT_EQ(outcome.data, (Data{'{', '}'}));

  EXPECT_EQ(service.loggedHeaderValues("X-Vantrel-Retries"), (std::vector<std::string>{"0/10", "1/10", "2/10"}));
  EXPECT_EQ(service.loggedHeaderValues("User-Agent").size(), 3u);
  EXPECT_EQ(service.loggedHeaderValues("User-Agent")[0], SUPNetworkConstants::symbolUploadUserAgent());
  EXPECT_TRUE(service.loggedHeaderValues("Content-Type").empty());
  EXPECT_TRUE(service.loggedHeaderValues("Expect").empty());
  EXPECT_EQ(symlift::testing::readFile(service.storePath() + "/" + kApp + "-" + kUUID + ".csym.gz"), body);
}

TEST(NetworkClientTransportTest, ClientErrorIsDeliveredAtOnceWithResponseAndBody) {
  FakeServiceProcess service({"--fail-first", "1", "--fail-status", "404"});
  ASSERT_TRUE(service.started());
  TestClient test;
  Outcome outcome;
  test.client->startDataTaskWithRequest(uploadRequest(service.uploadURL(kApp, kUUID)), 10, outcome.handler());
  ASSERT_TRUE(outcome.wait());
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, SUPNetworkErrorRequestFailed);
  EXPECT_EQ(outcome.error->userInfo.at("request_id"), "fake-0");
  EXPECT_EQ(outcome.error->userInfo.at("content_type"), "text/plain");
  ASSERT_TRUE(outcome.response);
  EXPECT_EQ(outcome.response->statusCode, 404);
  ASSERT_TRUE(outcome.data);
  EXPECT_EQ(std::string(outcome.data->begin(), outcome.data->end()), "injected failure 404\n");
  EXPECT_EQ(service.loggedRequestCount(), 1u);
  EXPECT_EQ(test.retries(), 0u);
}

TEST(NetworkClientTransportTest, WrongUploadIsRefusedByTheService) {
  FakeServiceProcess service;
  ASSERT_TRUE(service.started());
  TestClient test;
  Outcome outcome;
  test.client->startDataTaskWithRequest(uploadRequest(service.uploadURL(kApp, kUUID), csymBody("ffff")), 10,
                                        outcome.handler());
  ASSERT_TRUE(outcome.wait());
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, SUPNetworkErrorRequestFailed);
  EXPECT_EQ(outcome.error->userInfo.at("status_code"), "400");
}

TEST(NetworkClientTransportTest, BackOffHonoursRetryAfterWithAFloorOfTwoSeconds) {
  FakeServiceProcess service({"--fail-first", "2", "--fail-status", "429", "--retry-after", "1"});
  ASSERT_TRUE(service.started());
  TestClient test;
  Outcome outcome;
  test.client->startDataTaskWithRequest(uploadRequest(service.uploadURL(kApp, kUUID)), 10, outcome.handler());
  ASSERT_TRUE(outcome.wait());
  EXPECT_FALSE(outcome.error);
  std::lock_guard<std::mutex> guard(test.mutex);
  ASSERT_EQ(test.delays.size(), 2u);
  for (double delay : test.delays) {
    EXPECT_GE(delay, 2.0 * 0.8999999);
    EXPECT_LT(delay, 2.0 * 1.1000001);
  }
}

TEST(NetworkClientTransportTest, ConnectionRefusedIsRetried) {
  int port = symlift::testing::unusedLoopbackPort();
  ASSERT_GT(port, 0);
  std::string url = "http://127.0.0.1:" + std::to_string(port) + "/v1/x";
  SessionOutcome once = transferOnce(uploadRequest(url));
  ASSERT_TRUE(once.error);
  EXPECT_EQ(once.error->domain, "NSURLErrorDomain");
  EXPECT_EQ(once.error->code, URLErrorCannotConnectToHost);
  EXPECT_FALSE(once.response);

  TestClient test;
  Outcome outcome;
  test.client->startDataTaskWithRequest(uploadRequest(url), 2, outcome.handler());
  ASSERT_TRUE(outcome.wait());
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, SUPNetworkErrorMaximumAttemptsReached);
  EXPECT_EQ(test.retries(), 2u);
}

TEST(NetworkClientTransportTest, DroppedConnectionIsLostAndRetried) {
  FakeServiceProcess service({"--drop-first", "1"});
  ASSERT_TRUE(service.started());
  SessionOutcome once = transferOnce(uploadRequest(service.uploadURL(kApp, kUUID)));
  ASSERT_TRUE(once.error);
  EXPECT_EQ(once.error->code, URLErrorNetworkConnectionLost) << once.error->description();

  // The next request is answered: a client recovers with one retry.
  FakeServiceProcess second({"--drop-first", "1"});
  ASSERT_TRUE(second.started());
  TestClient test;
  Outcome outcome;
  test.client->startDataTaskWithRequest(uploadRequest(second.uploadURL(kApp, kUUID)), 10, outcome.handler());
  ASSERT_TRUE(outcome.wait());
  EXPECT_FALSE(outcome.error) << outcome.error->description();
  EXPECT_EQ(test.retries(), 1u);
  EXPECT_EQ(second.loggedHeaderValues("X-Vantrel-Retries"), (std::vector<std::string>{"0/10", "1/10"}));
}

// A peer that takes the connection, reads the ClientHello and then resets
// or closes the connection: a load balancer dropping it mid-handshake. That
// is a lost connection, retried, not a certificate failure.
TEST(NetworkClientTransportTest, HandshakeCutOffByThePeerIsALostConnectionAndRetried) {
  for (bool reset : {true, false}) {
    SCOPED_TRACE(reset ? "reset" : "closed");
    RawLoopbackServer server([reset](int socket, const std::atomic<bool>&) {
      RawLoopbackServer::readSome(socket);
      if (reset) RawLoopbackServer::resetOnClose(socket);
    });
    ASSERT_TRUE(server.bound());
    std::string url = server.url("https", "/v1/x");
    SessionOutcome once = transferOnce(uploadRequest(url));
    ASSERT_TRUE(once.error);
    EXPECT_EQ(once.error->domain, "NSURLErrorDomain");
    EXPECT_EQ(once.error->code, URLErrorNetworkConnectionLost) << once.error->description();
    EXPECT_TRUE(SUPNetworkResponseHandler::retryableURLError(once.error));
    EXPECT_EQ(server.connections(), 1);

    TestClient test;
    Outcome outcome;
    test.client->startDataTaskWithRequest(uploadRequest(url), 3, outcome.handler());
    ASSERT_TRUE(outcome.wait());
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->code, SUPNetworkErrorMaximumAttemptsReached) << outcome.error->description();
    EXPECT_EQ(test.retries(), 3u);
    EXPECT_EQ(server.connections(), 1 + 4);
  }
}

TEST(NetworkClientTransportTest, SilentServerTimesOut) {
  FakeServiceProcess service({"--delay-ms", "20000"});
  ASSERT_TRUE(service.started());
  URLSessionConfiguration configuration;
  configuration.timeoutIntervalOverride = 1000ms;
  auto start = std::chrono::steady_clock::now();
  SessionOutcome once = transferOnce(uploadRequest(service.uploadURL(kApp, kUUID)), configuration);
  auto elapsed = std::chrono::steady_clock::now() - start;
  ASSERT_TRUE(once.error);
  EXPECT_EQ(once.error->code, URLErrorTimedOut) << once.error->description();
  EXPECT_GE(elapsed, 900ms);
  EXPECT_LT(elapsed, 10s);
  EXPECT_TRUE(SUPNetworkResponseHandler::retryableURLError(once.error));
}

// A peer that answers a byte at a time, every 100 ms: never idle, but far
// below the low-speed limit, so the transfer times out (the test ceiling
// shortens the low-speed window as it does the idle time-out) and the client
// retries it as it does any time-out.
TEST(NetworkClientTransportTest, TricklingServerTimesOutAndIsRetried) {
  symlift::testing::ScopedEnvironment window(kTestIdleTimeoutVariable, "1500");
  const auto trickleFor = std::chrono::milliseconds(static_cast<long>(20000 * symlift::testing::timeScale()));
  RawLoopbackServer server([&](int socket, const std::atomic<bool>& stopping) {
    std::string request = RawLoopbackServer::readSome(socket);
    while (request.find("\r\n\r\n") == std::string::npos) {
      std::string more = RawLoopbackServer::readSome(socket);
      if (more.empty()) return;
      request += more;
    }
    std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n";
    if (::send(socket, head.data(), head.size(), MSG_NOSIGNAL) < 0) return;
    auto end = std::chrono::steady_clock::now() + trickleFor;
    while (!stopping && std::chrono::steady_clock::now() < end) {
      if (::send(socket, "x", 1, MSG_NOSIGNAL) != 1) return;  // the client hung up
      std::this_thread::sleep_for(100ms);
    }
  });
  ASSERT_TRUE(server.bound());
  std::string url = server.url("http", "/v1/x");
  SessionOutcome once = transferOnce(uploadRequest(url));
  ASSERT_TRUE(once.error);
  EXPECT_EQ(once.error->code, URLErrorTimedOut) << once.error->description();
  EXPECT_FALSE(once.response);

  TestClient test;
  Outcome outcome;
  test.client->startDataTaskWithRequest(uploadRequest(url), 1, outcome.handler());
  ASSERT_TRUE(outcome.wait(std::chrono::seconds(static_cast<long>(60 * symlift::testing::timeScale()))));
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, SUPNetworkErrorMaximumAttemptsReached) << outcome.error->description();
  EXPECT_EQ(test.retries(), 1u);
  EXPECT_EQ(server.connections(), 1 + 2);
}

TEST(NetworkClientTransportTest, HTTPSWithTheTestCAAndWithoutIt) {
  symlift::testing::TestCertificates certificates;
  if (!certificates.made) GTEST_SKIP() << "openssl could not make the test certificates";
  FakeServiceProcess service({"--tls-cert", certificates.serverCertificate, "--tls-key", certificates.serverKey}, true);
  ASSERT_TRUE(service.started());

  URLSessionConfiguration trusting;
  trusting.caInfoPath = certificates.caCertificate;
  TestClient trusted(trusting);
  Outcome good;
  trusted.client->startDataTaskWithRequest(uploadRequest(service.uploadURL(kApp, kUUID)), 10, good.handler());
  ASSERT_TRUE(good.wait());
  EXPECT_FALSE(good.error) << good.error->description();
  ASSERT_TRUE(good.response);
  EXPECT_EQ(good.response->statusCode, 200);

  // Trusting only the system's authorities: the certificate is refused and
  // the failure is final.
  URLSessionConfiguration system;
  system.caInfoPath = "/etc/ssl/certs/ca-certificates.crt";
  TestClient untrusted(system);
  Outcome bad;
  untrusted.client->startDataTaskWithRequest(uploadRequest(service.uploadURL(kApp, kUUID)), 10, bad.handler());
  ASSERT_TRUE(bad.wait());
  ASSERT_TRUE(bad.error);
  EXPECT_EQ(bad.error->domain, "NSURLErrorDomain");
  EXPECT_TRUE(bad.error->code == URLErrorServerCertificateHasUnknownRoot ||
              bad.error->code == URLErrorServerCertificateUntrusted)
      << bad.error->description();
  EXPECT_EQ(untrusted.retries(), 0u);
  EXPECT_EQ(service.loggedRequestCount(), 1u);  // only the trusted upload got through
}

// An HTTPS service redirecting to plain HTTP is refused before anything goes
// there, whatever the redirect status, and the refusal is final.
TEST(NetworkClientTransportTest, RedirectFromHTTPSToPlainHTTPIsRefused) {
  symlift::testing::TestCertificates certificates;
  if (!certificates.made) GTEST_SKIP() << "openssl could not make the test certificates";
  RawLoopbackServer plain([](int socket, const std::atomic<bool>&) { RawLoopbackServer::readSome(socket, 500ms); });
  ASSERT_TRUE(plain.bound());
  auto tls = std::make_unique<httplib::SSLServer>(certificates.serverCertificate.c_str(),
                                                  certificates.serverKey.c_str());
  tls->Put(R"(/away/(\d+))", [&](const httplib::Request& request, httplib::Response& response) {
    response.status = std::stoi(request.matches[1]);
    response.set_header("Location", plain.url("http", "/v1/x"));
  });
  symlift::testing::LoopbackHTTPServer secure(std::move(tls), "https");
  ASSERT_TRUE(secure.bound());
  URLSessionConfiguration trusting;
  trusting.caInfoPath = certificates.caCertificate;

  for (int status : {301, 302, 303, 307, 308}) {
    SessionOutcome once = transferOnce(uploadRequest(secure.url() + "/away/" + std::to_string(status)), trusting);
    ASSERT_TRUE(once.error) << status;
    EXPECT_EQ(once.error->domain, "NSURLErrorDomain");
    EXPECT_EQ(once.error->code, URLErrorAppTransportSecurityRequiresSecureConnection)
        << status << " " << once.error->description();
    EXPECT_FALSE(once.response);
  }
  TestClient test(trusting);
  Outcome outcome;
  test.client->startDataTaskWithRequest(uploadRequest(secure.url() + "/away/307"), 10, outcome.handler());
  ASSERT_TRUE(outcome.wait());
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, URLErrorAppTransportSecurityRequiresSecureConnection);
  EXPECT_EQ(test.retries(), 0u);
  EXPECT_EQ(plain.connections(), 0);
}

// Redirects that stay secure, or start from plain HTTP, are followed with the
// body sent again; one to another host is told in the debug log, once.
TEST(NetworkClientTransportTest, OtherRedirectsAreFollowed) {
  symlift::testing::TestCertificates certificates;
  if (!certificates.made) GTEST_SKIP() << "openssl could not make the test certificates";
  auto answer = [](const httplib::Request& request, httplib::Response& response) {
    response.set_content(request.body, "application/octet-stream");
  };
  auto tls = std::make_unique<httplib::SSLServer>(certificates.serverCertificate.c_str(),
                                                  certificates.serverKey.c_str());
  tls->Put("/here", [](const httplib::Request&, httplib::Response& response) {
    response.status = 307;
    response.set_header("Location", "/there");
  });
  tls->Put("/there", answer);
  symlift::testing::LoopbackHTTPServer secure(std::move(tls), "https");
  ASSERT_TRUE(secure.bound());
  auto http = std::make_unique<httplib::Server>();
  int port = 0;
  http->Put("/up", [&](const httplib::Request&, httplib::Response& response) {
    response.status = 308;
    response.set_header("Location", secure.url() + "/there");
  });
  http->Put("/elsewhere", [&](const httplib::Request&, httplib::Response& response) {
    response.status = 307;
    response.set_header("Location", "http://localhost:" + std::to_string(port) + "/there");
  });
  http->Put("/there", answer);
  symlift::testing::LoopbackHTTPServer insecure(std::move(http));
  ASSERT_TRUE(insecure.bound());
  port = std::stoi(insecure.url().substr(insecure.url().rfind(':') + 1));
  URLSessionConfiguration trusting;
  trusting.caInfoPath = certificates.caCertificate;

  struct Case {
    std::string url;
    std::string landing;
    bool told;  // another host: one debug line
  };
  const Case cases[] = {
      {secure.url() + "/here", secure.url() + "/there", false},
      {insecure.url() + "/up", secure.url() + "/there", false},
      {insecure.url() + "/elsewhere", "http://localhost:" + std::to_string(port) + "/there", true},
  };
  auto& log = console::SYLLogging::sharedInstance();
  auto level = log.logLevel();
  for (const Case& c : cases) {
    std::string body = csymBody();
    log.setLogLevel(console::kLogLevelDebug);
    ::testing::internal::CaptureStdout();
    SessionOutcome once = transferOnce(uploadRequest(c.url, body), trusting);
    std::string printed = ::testing::internal::GetCapturedStdout();
    log.setLogLevel(level);
    EXPECT_FALSE(once.error) << c.url << " " << once.error->description();
    ASSERT_TRUE(once.response) << c.url;
    EXPECT_EQ(once.response->statusCode, 200) << c.url;
    EXPECT_EQ(once.response->URL, c.landing);
    std::string line = "Redirected from " + c.url + " to " + c.landing;
    EXPECT_EQ(symlift::testing::countOccurrences(printed, line), c.told ? 1u : 0u) << printed;
    EXPECT_EQ(symlift::testing::countOccurrences(printed, "Redirected"), c.told ? 1u : 0u) << printed;
  }
}

TEST(NetworkClientTransportTest, MalformedAndUnsupportedURLsAreFinal) {
  TestClient test;
  struct Case {
    std::string url;
    std::int64_t code;
  };
  for (const Case& c : {Case{"http://127.0.0.1:99999/x", URLErrorBadURL}, Case{"127.0.0.1/no-scheme", URLErrorBadURL},
                        Case{"http://127.0.0.1/a b", URLErrorBadURL}, Case{"ftp://127.0.0.1/x", URLErrorUnsupportedURL},
                        Case{"file:///etc/hostname", URLErrorUnsupportedURL}}) {
    Outcome outcome;
    test.client->startDataTaskWithRequest(uploadRequest(c.url), 10, outcome.handler());
    ASSERT_TRUE(outcome.wait()) << c.url;
    ASSERT_TRUE(outcome.error) << c.url;
    EXPECT_EQ(outcome.error->domain, "NSURLErrorDomain") << c.url;
    EXPECT_EQ(outcome.error->code, c.code) << c.url;
  }
  EXPECT_EQ(test.retries(), 0u);
}

TEST(NetworkClientTransportTest, InvalidateAndCancelEndsTransfersAndRefusesNewOnes) {
  FakeServiceProcess service({"--delay-ms", "20000"});
  ASSERT_TRUE(service.started());
  TestClient test;
  Outcome outcome;
  test.client->startDataTaskWithRequest(uploadRequest(service.uploadURL(kApp, kUUID)), 10, outcome.handler());
  std::this_thread::sleep_for(200ms);  // let the transfer reach the service
  auto start = std::chrono::steady_clock::now();
  test.client->invalidateAndCancel();
  ASSERT_TRUE(outcome.wait(10s));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  ASSERT_TRUE(outcome.error);
  // Cancelled counts as retryable, but the retry finds the session gone.
  EXPECT_EQ(outcome.error->code, SUPNetworkErrorFailedToStartOperation) << outcome.error->description();

  Outcome refused;
  test.client->startDataTaskWithRequest(uploadRequest(service.uploadURL(kApp, kUUID)), 10, refused.handler());
  EXPECT_EQ(refused.calls, 1);  // at once, on this thread
  ASSERT_TRUE(refused.error);
  EXPECT_EQ(refused.error->code, SUPNetworkErrorFailedToStartOperation);

  dispatch::ThreadPool pool;
  auto session = CurlURLSession::create(pool, {}, nullptr);
  std::promise<support::ErrorPtr> cancelled;
  session->startDataTask(uploadRequest(service.uploadURL(kApp, kUUID)),
                         [&](auto, auto, support::ErrorPtr e) { cancelled.set_value(e); });
  std::this_thread::sleep_for(200ms);
  session->invalidateAndCancel();
  auto future = cancelled.get_future();
  ASSERT_EQ(future.wait_for(10s), std::future_status::ready);
  auto error = future.get();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, URLErrorCancelled);
}

TEST(NetworkClientTransportTest, DestructionWaitsForOutstandingTransfers) {
  FakeServiceProcess service({"--delay-ms", "300"});
  ASSERT_TRUE(service.started());
  dispatch::ThreadPool pool;
  auto client = SUPKITNetworkClient::createWithSessionConfiguration(pool, {}, nullptr);
  std::vector<std::unique_ptr<Outcome>> outcomes;
  for (int i = 0; i < 3; ++i) {
    outcomes.push_back(std::make_unique<Outcome>());
    client->startDataTaskWithRequest(uploadRequest(service.uploadURL(kApp, kUUID)), 10, outcomes.back()->handler());
  }
  client.reset();
  for (auto& outcome : outcomes) {
    EXPECT_EQ(outcome->calls, 1);
    EXPECT_FALSE(outcome->error);
  }
}

TEST(NetworkClientTransportTest, CompletionsGoToTheDelegateQueue) {
  // A queue that counts what it is given and runs it on the pool.
  class CountingQueue : public dispatch::DispatchQueue {
   public:
    explicit CountingQueue(dispatch::ThreadPool& pool) : dispatch::DispatchQueue(pool) {}
    std::atomic<int> items{0};
    std::thread::id lastThread;
    void async(std::function<void()> work) override {
      ++items;
      pool().submit([this, work = std::move(work)] {
        lastThread = std::this_thread::get_id();
        work();
      });
    }
    void sync(const std::function<void()>& work) override { work(); }
  };
  FakeServiceProcess service({"--fail-first", "1", "--fail-status", "502"});
  ASSERT_TRUE(service.started());
  dispatch::ThreadPool pool;
  auto queue = std::make_shared<CountingQueue>(pool);
  auto client = SUPKITNetworkClient::createWithSessionConfiguration(pool, {}, queue);
  client->setDelayScheduler([](std::chrono::nanoseconds, std::function<void()> block) { block(); });
  Outcome outcome;
  std::thread::id callbackThread;
  client->startDataTaskWithRequest(uploadRequest(service.uploadURL(kApp, kUUID)), 10,
                                   [&, inner = outcome.handler()](auto d, auto r, auto e) {
                                     callbackThread = std::this_thread::get_id();
                                     inner(d, r, e);
                                   });
  ASSERT_TRUE(outcome.wait());
  EXPECT_FALSE(outcome.error);
  EXPECT_EQ(queue->items.load(), 2);  // one per transfer
  EXPECT_EQ(callbackThread, queue->lastThread);
}

}  // namespace
}  // namespace symlift::network
