// The libcurl session and the client over it, against servers on loopback
// ports. What the retry policy makes of each outcome goes through the
// binary (NetworkFaultsTest).

#include <gtest/gtest.h>

#include <mutex>

#include "console/console_log.h"
#include "dispatch/thread_pool.h"
#include "network/curl_url_session.h"
#include "network/fake_service_process.h"
#include "network/network_test_support.h"
#include "network/network_client.h"
#include "network/network_constants.h"
#include "network/network_response_handler.h"
#include "network/url_error.h"
#include "support/captured_output.h"

namespace symlift::network {
namespace {

using namespace std::chrono_literals;
using symlift::testing::LoopbackHTTPServer;
using symlift::testing::Outcome;
using symlift::testing::RawLoopbackServer;

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
