#include "network/web_client.h"
#include "dispatch/thread_pool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <mutex>

#include "network/loopback_servers.h"
#include "network/url_error.h"
#include "support/test_support.h"

namespace symlift::network {
namespace {

using ::testing::HasSubstr;
using symlift::testing::LoopbackHTTPServer;

std::string textOf(const Data& data) { return std::string(data.begin(), data.end()); }

// What the server saw of the last request.
struct Seen {
  std::mutex mutex;
  std::string target, method, accept, contentType, body, greeting, fileName, fileType, fileContent;
};

std::unique_ptr<httplib::Server> routes(std::unique_ptr<httplib::Server> server, Seen& seen) {
  auto record = [&seen](const httplib::Request& request) {
    std::lock_guard<std::mutex> guard(seen.mutex);
    seen.target = request.target;
    seen.method = request.method;
    seen.accept = request.get_header_value("Accept");
    seen.contentType = request.get_header_value("Content-Type");
    seen.body = request.body;
    if (request.is_multipart_form_data()) {
      seen.greeting = request.get_file_value("greeting").content;
      auto file = request.get_file_value("file");
      seen.fileName = file.filename;
      seen.fileType = file.content_type;
      seen.fileContent = file.content;
    }
  };
  server->Get("/search", [record](const httplib::Request& request, httplib::Response& response) {
    record(request);
    response.set_content(R"({"ok": true, "items": [1, 2]})", "application/json; charset=utf-8");
  });
  server->Post("/upload", [record](const httplib::Request& request, httplib::Response& response) {
    record(request);
    response.status = 201;
    response.set_content("stored", "text/plain");
  });
  server->Get("/plist", [](const httplib::Request&, httplib::Response& response) {
    response.set_content(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
        "<key>name</key><string>symbols</string></dict></plist>\n",
        "application/x-plist");
  });
  server->Get("/broken-plist", [](const httplib::Request&, httplib::Response& response) {
    response.set_content("this is not a property list", "application/x-plist");
  });
  server->Get("/moved", [](const httplib::Request&, httplib::Response& response) { response.set_redirect("/search"); });
  // Promises 100 bytes, sends 10, then drops the connection.
  server->Get("/cut", [](const httplib::Request&, httplib::Response& response) {
    response.set_content_provider(100, "application/octet-stream",
                                  [](std::size_t, std::size_t, httplib::DataSink& sink) {
                                    sink.write("0123456789", 10);
                                    return false;
                                  });
  });
  return server;
}

std::shared_ptr<SUPWebResponse> waitFor(std::future<std::shared_ptr<SUPWebResponse>>& future) {
  if (future.wait_for(std::chrono::seconds(30)) != std::future_status::ready) return nullptr;
  return future.get();
}

class WebClientTest : public ::testing::Test {
 protected:
  dispatch::ThreadPool pool_;
  Seen seen;
  LoopbackHTTPServer server{routes(std::make_unique<httplib::Server>(), seen)};
  std::shared_ptr<SUPWebClient> client = SUPWebClient::initWithURL(pool_, server.url() + "/");

  std::shared_ptr<SUPWebResponse> send(std::shared_ptr<SUPWebRequest> request,
                                       std::optional<unsigned long> expected = std::nullopt) {
    auto promise = std::make_shared<std::promise<std::shared_ptr<SUPWebResponse>>>();
    auto future = promise->get_future();
    auto completion = [promise](const std::shared_ptr<SUPWebResponse>& response) { promise->set_value(response); };
    if (expected)
      client->startRequestExpectingResponse(std::move(request), *expected, completion);
    else
      client->startRequest(std::move(request), completion);
    return waitFor(future);
  }
};

TEST_F(WebClientTest, GetEscapesParametersByThePathRuleAndDecodesJSON) {
  ASSERT_TRUE(server.bound());
  auto request = SUPWebRequest::requestWithMethod("GET", "search");
  request->parameters = {{"q", "a b;c?d"}, {"range", "1/2+3@x~"}, {"é", "100%"}};
  auto response = send(request);
  ASSERT_TRUE(response);
  EXPECT_EQ(response->error, nullptr) << response->description();
  EXPECT_EQ(response->statusCode, 200u);
  EXPECT_TRUE(response->wasSuccessful());
  {
    std::lock_guard<std::mutex> guard(seen.mutex);
    EXPECT_EQ(seen.target, "/search?q=a%20b%3Bc%3Fd&range=1/2+3@x~&%C3%A9=100%25");
    EXPECT_EQ(seen.accept, "application/json, application/x-plist");
  }
  EXPECT_EQ(response->requestURL, server.url() + "/search?q=a%20b%3Bc%3Fd&range=1/2+3@x~&%C3%A9=100%25");
  ASSERT_TRUE(std::holds_alternative<nlohmann::json>(response->body));
  const auto& json = std::get<nlohmann::json>(response->body);
  EXPECT_EQ(json["ok"], true);
  EXPECT_EQ(json["items"].size(), 2u);
}

TEST_F(WebClientTest, RequestHeadersWinOverClientHeaders) {
  client->addValueForHeader("text/plain", "Accept");
  client->addValueForHeader("yes", "X-Client");
  auto request = SUPWebRequest::requestWithMethod("GET", "/search");
  request->addValueForHTTPHeaderField("application/x-plist", "Accept");
  auto response = send(request);
  ASSERT_TRUE(response);
  EXPECT_EQ(request->customHeaders.valueForField("X-Client"), "yes");
  std::lock_guard<std::mutex> guard(seen.mutex);
  EXPECT_EQ(seen.accept, "application/x-plist");
}

TEST_F(WebClientTest, FormPostSendsTheFixedBoundaryBody) {
  auto request = SUPWebRequest::requestWithMethod("POST", "upload");
  request->addValueForFormField("hello there", "greeting");
  Data xml = {'<', 'a', '/', '>'};
  request->addDataMIMETypeFileNameForFormField(xml, "text/xml", "a.xml", "file");
  request->addValueForFormFromDict({{"k", std::string("v")}, {"n", std::int64_t{3}}});  // numbers are not sent
  auto response = send(request, 201);
  ASSERT_TRUE(response);
  EXPECT_TRUE(response->wasSuccessful()) << response->description();
  ASSERT_TRUE(std::holds_alternative<Data>(response->body));
  EXPECT_EQ(textOf(std::get<Data>(response->body)), "stored");

  // The body as it went out (the server's reader keeps only the parts).
  EXPECT_EQ(textOf(request->URLRequest().HTTPBody),
            "MIME-Version: 1.0\r\n"
            "--AaB03x\r\nContent-Disposition: form-data; name=\"greeting\"\r\nContent-Type: text/plain\r\n\r\n"
            "hello there\r\n"
            "--AaB03x\r\nContent-Disposition: form-data; name=\"file\"; filename=\"a.xml\"\r\n"
            "Content-Type: text/xml\r\nContent-Transfer-Encoding: binary\r\n\r\n<a/>\r\n"
            "--AaB03x\r\nContent-Disposition: form-data; name=\"[k]\"\r\nContent-Type: text/plain\r\n\r\nv\r\n"
            "--AaB03x--\r\n");
  std::lock_guard<std::mutex> guard(seen.mutex);
  EXPECT_EQ(seen.method, "POST");
  EXPECT_EQ(seen.contentType, "multipart/form-data; boundary=AaB03x");
  // An ordinary multipart reader understands it.
  EXPECT_EQ(seen.greeting, "hello there");
  EXPECT_EQ(seen.fileName, "a.xml");
  EXPECT_EQ(seen.fileType, "text/xml");
  EXPECT_EQ(seen.fileContent, "<a/>");
}

TEST_F(WebClientTest, PropertyListRepliesDecodeOrRecordTheParseError) {
  auto good = send(SUPWebRequest::requestWithMethod("GET", "plist"));
  ASSERT_TRUE(good);
  EXPECT_TRUE(good->wasSuccessful()) << good->description();
  ASSERT_TRUE(std::holds_alternative<support::PropertyList>(good->body));
  EXPECT_EQ(std::get<support::PropertyList>(good->body).stringForKey("name"), "symbols");

  auto broken = send(SUPWebRequest::requestWithMethod("GET", "broken-plist"));
  ASSERT_TRUE(broken);
  EXPECT_EQ(broken->statusCode, 200u);
  ASSERT_TRUE(broken->error);
  EXPECT_EQ(broken->error->domain, "NSCocoaErrorDomain");
  EXPECT_EQ(broken->error->code, 3840);
  EXPECT_FALSE(broken->wasSuccessful());
  EXPECT_TRUE(std::holds_alternative<std::monostate>(broken->body));
  EXPECT_EQ(textOf(broken->responseData), "this is not a property list");
}

TEST_F(WebClientTest, UnexpectedStatusBecomesAnErrorOnlyWhenAStatusIsExpected) {
  auto plain = send(SUPWebRequest::requestWithMethod("GET", "missing"));
  ASSERT_TRUE(plain);
  EXPECT_EQ(plain->statusCode, 404u);
  EXPECT_EQ(plain->error, nullptr);
  EXPECT_FALSE(plain->wasSuccessful());

  auto expecting = send(SUPWebRequest::requestWithMethod("GET", "missing"), 200);
  ASSERT_TRUE(expecting);
  ASSERT_TRUE(expecting->error);
  EXPECT_EQ(expecting->error->domain, "SUPWebClientErrorDomain");
  EXPECT_EQ(expecting->error->code, -1);
  EXPECT_THAT(expecting->description(), HasSubstr("status: 404"));
}

TEST_F(WebClientTest, OnlyTheFinalResponseIsReportedAndAFailureKeepsWhatArrived) {
  auto moved = send(SUPWebRequest::requestWithMethod("GET", "moved"));
  ASSERT_TRUE(moved);
  EXPECT_EQ(moved->statusCode, 200u);
  EXPECT_TRUE(std::holds_alternative<nlohmann::json>(moved->body)) << moved->description();
  EXPECT_EQ(moved->responseHeaders.valueForField("Location"), std::nullopt);

  auto cut = send(SUPWebRequest::requestWithMethod("GET", "cut"));
  ASSERT_TRUE(cut);
  EXPECT_EQ(cut->statusCode, 200u);
  EXPECT_EQ(cut->responseHeaders.valueForField("Content-Length"), "100");
  EXPECT_EQ(textOf(cut->responseData), "0123456789");
  ASSERT_TRUE(cut->error);
  EXPECT_EQ(cut->error->domain, kURLErrorDomain);
  EXPECT_EQ(cut->error->code, URLErrorNetworkConnectionLost);
}

TEST_F(WebClientTest, BlockingRequestCompletesBeforeReturningAndLeavesNoTransaction) {
  std::shared_ptr<SUPWebResponse> seenResponse;
  client->syncStartRequestExpectingResponse(SUPWebRequest::requestWithMethod("GET", "search"), 200,
                                            [&](const std::shared_ptr<SUPWebResponse>& response) {
                                              seenResponse = response;
                                            });
  ASSERT_TRUE(seenResponse);
  EXPECT_TRUE(seenResponse->wasSuccessful()) << seenResponse->description();
  EXPECT_TRUE(std::holds_alternative<nlohmann::json>(seenResponse->body));
  EXPECT_EQ(client->connectionCount(), 0u);

  // The asynchronous path removes its transaction after the completion.
  ASSERT_TRUE(send(SUPWebRequest::requestWithMethod("GET", "search")));
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (client->connectionCount() != 0 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_EQ(client->connectionCount(), 0u);
}

TEST(WebClientTransportTest, RefusedConnectionReportsTheURLLoadingError) {
  // Bind a port and close it again: nothing listens there afterwards.
  int port = 0;
  {
    int probe = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(probe, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length), 0);
    port = ntohs(address.sin_port);
    ::close(probe);
  }
  dispatch::ThreadPool pool;
  auto client = SUPWebClient::initWithURL(pool, "http://127.0.0.1:" + std::to_string(port));
  std::promise<std::shared_ptr<SUPWebResponse>> promise;
  auto future = promise.get_future();
  client->getPath("/anything", [&](const std::shared_ptr<SUPWebResponse>& response) { promise.set_value(response); });
  auto response = waitFor(future);
  ASSERT_TRUE(response);
  ASSERT_TRUE(response->error);
  EXPECT_EQ(response->error->domain, kURLErrorDomain);
  EXPECT_EQ(response->error->code, URLErrorCannotConnectToHost);
  EXPECT_EQ(response->statusCode, 0u);
}

TEST(WebClientURLTest, PathsResolveAgainstTheBaseAndEscapeByThePathRule) {
  EXPECT_EQ(SUPWebClient::resolveURL("https://example.test/api/", "v1/items"), "https://example.test/api/v1/items");
  EXPECT_EQ(SUPWebClient::resolveURL("https://example.test/api/", "/root"), "https://example.test/root");
  EXPECT_EQ(SUPWebClient::escapeURLString("a;b?c d/e:f=g&h"), "a%3Bb%3Fc%20d/e:f=g&h");
  EXPECT_EQ(SUPWebClient::decodeJSON(Data{'[', '1', ']'}), nlohmann::json::array({1}));
  EXPECT_EQ(SUPWebClient::decodeJSON(Data{'[', '1'}), std::nullopt);
}

}  // namespace
}  // namespace symlift::network
