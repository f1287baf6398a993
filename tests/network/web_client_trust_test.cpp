// Server trust: an HTTPS server on 127.0.0.1 whose certificate is issued by
// a CA made for the test (not trusted by the system), so the usual checks
// fail and a request's own trust handler decides.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

#include "network/loopback_servers.h"
#include "network/url_error.h"
#include "network/web_client.h"
#include "dispatch/thread_pool.h"
#include "support/test_support.h"

namespace symlift::network {
namespace {

using symlift::testing::LoopbackHTTPServer;
using symlift::testing::TempDir;

class WebClientTrustTest : public ::testing::Test {
 protected:
  dispatch::ThreadPool pool_;
  void SetUp() override {
    if (!symlift::testing::haveProgram("openssl")) GTEST_SKIP() << "needs the openssl command";
    dir_.write("server.ext", "subjectAltName=IP:127.0.0.1,DNS:localhost\n");
    // Elliptic-curve keys: quick to make, and the test never keeps them.
    const char* script =
        "set -e\n"
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2"
        "  -subj '/CN=Web client test CA' -keyout ca.key -out ca.pem\n"
        "openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes"
        "  -subj '/CN=127.0.0.1' -keyout server.key -out server.csr\n"
        "openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2"
        "  -extfile server.ext -out server.pem\n"
        "openssl x509 -in server.pem -outform DER -out server.der\n";
    symlift::testing::RunOptions options;
    options.workingDirectory = dir_.str();
    options.timeoutSeconds = 60;
    auto made = symlift::testing::runProgram({"/bin/sh", "-c", script}, options);
    ASSERT_EQ(made.status, 0) << made.err;

    auto tls = std::make_unique<httplib::SSLServer>((dir_.path() / "server.pem").c_str(),
                                                    (dir_.path() / "server.key").c_str());
    ASSERT_TRUE(tls->is_valid());
    tls->Get("/hello", [](const httplib::Request&, httplib::Response& response) {
      response.set_content(R"({"hello": "world"})", "application/json");
    });
    server_ = std::make_unique<LoopbackHTTPServer>(std::move(tls), "https");
    ASSERT_TRUE(server_->bound());
  }

  std::shared_ptr<SUPWebResponse> get(SUPProtectionSpaceHandler handler) {
    auto client = SUPWebClient::initWithURL(pool_, server_->url());
    auto request = SUPWebRequest::requestWithMethod("GET", "/hello");
    request->protectionSpaceHandler = std::move(handler);
    std::promise<std::shared_ptr<SUPWebResponse>> promise;
    auto future = promise.get_future();
    client->startRequest(request, [&](const std::shared_ptr<SUPWebResponse>& response) { promise.set_value(response); });
    if (future.wait_for(std::chrono::seconds(30)) != std::future_status::ready) return nullptr;
    return future.get();
  }

  Data serverCertificate() {
    std::string der = symlift::testing::readFile(dir_.path() / "server.der");
    return Data(der.begin(), der.end());
  }

  TempDir dir_;
  std::unique_ptr<LoopbackHTTPServer> server_;
};

TEST_F(WebClientTrustTest, RefusingTheServersTrustCancelsTheRequest) {
  std::vector<SUPServerTrust> asked;
  auto response = get([&](const SUPServerTrust& trust) {
    asked.push_back(trust);
    return false;
  });
  ASSERT_TRUE(response);
  ASSERT_TRUE(response->error);
  EXPECT_EQ(response->error->domain, "SUPWebClientErrorDomain");
  EXPECT_EQ(response->error->code, -2);
  EXPECT_EQ(response->statusCode, 0u);

  ASSERT_EQ(asked.size(), 1u);
  EXPECT_EQ(asked[0].host, "127.0.0.1");
  ASSERT_FALSE(asked[0].certificateChain.empty());
  EXPECT_EQ(asked[0].certificateChain.front(), serverCertificate());
  // The test CA is unknown to the system, so the usual checks fail.
  EXPECT_FALSE(asked[0].defaultEvaluationSucceeded);
  EXPECT_FALSE(asked[0].defaultEvaluationError.empty());
}

TEST_F(WebClientTrustTest, AcceptingTheServersTrustLetsTheRequestThrough) {
  int askedCount = 0;
  auto response = get([&](const SUPServerTrust&) {
    ++askedCount;
    return true;
  });
  ASSERT_TRUE(response);
  EXPECT_TRUE(response->wasSuccessful()) << response->description();
  EXPECT_EQ(askedCount, 1);
  ASSERT_TRUE(std::holds_alternative<nlohmann::json>(response->body));
  EXPECT_EQ(std::get<nlohmann::json>(response->body)["hello"], "world");
}

TEST_F(WebClientTrustTest, WithoutAHandlerTheUsualVerificationRefusesAnUnknownCA) {
  auto response = get(nullptr);
  ASSERT_TRUE(response);
  ASSERT_TRUE(response->error);
  EXPECT_EQ(response->error->domain, kURLErrorDomain);
  EXPECT_LE(response->error->code, URLErrorSecureConnectionFailed);
  EXPECT_GE(response->error->code, URLErrorClientCertificateRequired);
}

}  // namespace
}  // namespace symlift::network
