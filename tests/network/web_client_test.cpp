// The web client and its transactions against cpp-httplib servers on 127.0.0.1.

#include "network/web_client.h"

#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <tuple>

#include "dispatch/thread_pool.h"
#include "network/fake_service_process.h"
#include "network/network_test_support.h"
#include "network/url_error.h"

namespace symlift::network {
namespace {

using symlift::testing::LoopbackHTTPServer;

std::string textOf(const Data& data) { return std::string(data.begin(), data.end()); }

// A form of text, a file and a dictionary (whose numbers are not sent), and
// the body it makes with the fixed boundary.
void addForm(SUPWebRequest& request) {
  request.addValueForFormField("hello there", "greeting");
  request.addDataMIMETypeFileNameForFormField(Data{'<', 'a', '/', '>'}, "text/xml", "a.xml", "file");
  request.addValueForFormFromDict({{"k", std::string("v")}, {"n", std::int64_t{3}}});
}
constexpr const char* kFormBody =
    "MIME-Version: 1.0\r\n"
    "--AaB03x\r\nContent-Disposition: form-data; name=\"greeting\"\r\nContent-Type: text/plain\r\n\r\nhello there\r\n"
    "--AaB03x\r\nContent-Disposition: form-data; name=\"file\"; filename=\"a.xml\"\r\n"
    "Content-Type: text/xml\r\nContent-Transfer-Encoding: binary\r\n\r\n<a/>\r\n"
    "--AaB03x\r\nContent-Disposition: form-data; name=\"[k]\"\r\nContent-Type: text/plain\r\n\r\nv\r\n"
    "--AaB03x--\r\n";
constexpr const char* kJSON = R"({"ok": true, "items": [1, 2]})";

std::shared_ptr<SUPWebResponse> waitFor(std::future<std::shared_ptr<SUPWebResponse>> future) {
  if (future.wait_for(std::chrono::seconds(30)) != std::future_status::ready) return nullptr;
  return future.get();
}

class WebClientTest : public ::testing::Test {
 protected:
  // What the server saw of the last request: method, target, Accept,
  // X-Client, Content-Type, body (of a form, what its reader makes of it).
  std::mutex mutex;
  std::vector<std::string> seen;

  std::unique_ptr<httplib::Server> routes() {
    auto server = std::make_unique<httplib::Server>();
    auto echo = [this](const httplib::Request& request, httplib::Response& response) {
      std::lock_guard<std::mutex> guard(mutex);
      auto file = request.get_file_value("file");
      std::string form = request.get_file_value("greeting").content + "|" + file.filename + "|" +
                         file.content_type + "|" + file.content;
      seen = {request.method,
              request.target,
              request.get_header_value("Accept"),
              request.get_header_value("X-Client"),
              request.get_header_value("Content-Type"),
              request.is_multipart_form_data() ? form : request.body};
      response.set_content(kJSON, "application/json; charset=utf-8");
    };
    server->Get("/echo", echo).Post("/echo", echo).Put("/echo", echo).Delete("/echo", echo);
    // Fixed answers, by path: their bodies and content types.
    for (const auto& [path, body, type] : std::vector<std::tuple<std::string, std::string, std::string>>{
             {"/plist",
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
              "<key>name</key><string>symbols</string></dict></plist>\n",
              "application/x-plist"},
             {"/broken-plist", "this is not a property list", "application/x-plist"},
             {"/text", "stored", "text/plain"}})
      server->Get(path, [body, type](const httplib::Request&, httplib::Response& response) {
        response.set_content(body, type);
      });
    server->Get("/moved", [](const httplib::Request&, httplib::Response& response) { response.set_redirect("/echo"); });
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

  dispatch::ThreadPool pool_;
  LoopbackHTTPServer server{routes()};
  std::shared_ptr<SUPWebClient> client = SUPWebClient::initWithURL(pool_, server.url() + "/");

  std::shared_ptr<SUPWebResponse> send(std::shared_ptr<SUPWebRequest> request,
                                       std::optional<unsigned long> expected = std::nullopt, bool sync = false) {
    auto promise = std::make_shared<std::promise<std::shared_ptr<SUPWebResponse>>>();
    auto completion = [promise](const std::shared_ptr<SUPWebResponse>& response) { promise->set_value(response); };
    if (sync)
      expected ? client->syncStartRequestExpectingResponse(request, *expected, completion)
               : client->syncStartRequest(request, completion);
    else
      expected ? client->startRequestExpectingResponse(request, *expected, completion)
               : client->startRequest(request, completion);
    return waitFor(promise->get_future());
  }
};

// Each method goes out as named, a form as the multipart body with the fixed
// boundary (which an ordinary reader understands), and nothing else gets a
// content type.
TEST_F(WebClientTest, MethodsAndFormsGoOutAsGiven) {
  ASSERT_TRUE(server.bound());
  for (const auto& [method, form] : std::vector<std::pair<std::string, bool>>{
           {"GET", false}, {"HEAD", false}, {"POST", true}, {"POST", false}, {"PUT", true}, {"DELETE", false}}) {
    SCOPED_TRACE(method + (form ? " with a form" : ""));
    auto request = SUPWebRequest::requestWithMethod(method, "echo");
    if (form) addForm(*request);
    EXPECT_EQ(textOf(request->URLRequest().HTTPBody), form ? kFormBody : "");
    auto response = send(request);
    ASSERT_TRUE(response);
    EXPECT_TRUE(response->wasSuccessful()) << response->description();
    std::lock_guard<std::mutex> guard(mutex);
    EXPECT_EQ(seen, (std::vector<std::string>{method, "/echo", "application/json, application/x-plist", "",
                                              form ? "multipart/form-data; boundary=AaB03x" : "",
                                              form ? "hello there|a.xml|text/xml|<a/>" : ""}));
  }
}

// The body is decoded by content type; only the final response is reported,
// and a failure keeps what arrived. Another status than an expected one is
// an error, in either mode; no transaction is left once the completion ran.
TEST_F(WebClientTest, ResponsesReportStatusBodyAndError) {
  enum Kind { None, JSON, PropertyList, Bytes };  // the alternatives of the body, in order
  struct Case {
    const char* path;
    bool sync;
    std::optional<unsigned long> expected;
    unsigned long status;
    Kind kind;
    std::string errorDomain;  // empty: no error
    std::int64_t errorCode;
    std::string data;
  };
  const Case cases[] = {
      {"echo", false, std::nullopt, 200, JSON, "", 0, kJSON},
      {"echo", true, 200, 200, JSON, "", 0, kJSON},
      {"moved", false, std::nullopt, 200, JSON, "", 0, kJSON},
      {"plist", false, std::nullopt, 200, PropertyList, "", 0, ""},
      {"broken-plist", false, std::nullopt, 200, None, "NSCocoaErrorDomain", 3840, "this is not a property list"},
      {"text", false, std::nullopt, 200, Bytes, "", 0, "stored"},
      {"cut", false, std::nullopt, 200, Bytes, kURLErrorDomain, URLErrorNetworkConnectionLost, "0123456789"},
      {"missing", false, std::nullopt, 404, None, "", 0, ""},
      {"missing", true, std::nullopt, 404, None, "", 0, ""},
      {"missing", false, 200, 404, None, "SUPWebClientErrorDomain", -1, ""},
      {"missing", true, 200, 404, None, "SUPWebClientErrorDomain", -1, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.sync ? "blocking " : "") + c.path + (c.expected ? " expecting 200" : ""));
    auto response = send(SUPWebRequest::requestWithMethod("GET", c.path), c.expected, c.sync);
    ASSERT_TRUE(response);
    EXPECT_EQ(response->statusCode, c.status);
    ASSERT_EQ(response->body.index(), static_cast<std::size_t>(c.kind)) << response->description();
    EXPECT_EQ(response->error ? response->error->domain : "", c.errorDomain);
    EXPECT_EQ(response->error ? response->error->code : 0, c.errorCode);
    EXPECT_EQ(response->responseHeaders.valueForField("Location"), std::nullopt);
    EXPECT_EQ(response->description().find("Unexpected status 404 (expected 200)") != std::string::npos,
              c.errorCode == -1);
    if (c.kind != PropertyList) {
      EXPECT_EQ(textOf(response->responseData), c.data);
    }
    switch (c.kind) {
      case JSON:
        EXPECT_EQ(std::get<nlohmann::json>(response->body), nlohmann::json::parse(kJSON));
        break;
      case PropertyList:
        EXPECT_EQ(std::get<support::PropertyList>(response->body).stringForKey("name"), "symbols");
        break;
      case Bytes:
        EXPECT_EQ(std::get<Data>(response->body), response->responseData);
        break;
      case None:
        break;
    }
    if (c.errorCode == URLErrorNetworkConnectionLost) {
      EXPECT_EQ(response->responseHeaders.valueForField("Content-Length"), "100");
    }
    if (c.sync) {
      EXPECT_EQ(client->connectionCount(), 0u);
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (client->connectionCount() != 0 && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(client->connectionCount(), 0u);
  }
}

// A server whose certificate comes from a CA unknown to the system: the
// usual checks fail, and a request's own trust handler decides.
TEST(WebClientTrustTest, TheTrustHandlerDecides) {
  symlift::testing::TestCertificates certificates;
  if (!certificates.made) GTEST_SKIP() << "openssl could not make the test certificates";
  // The server presents its certificate and the CA's; the handler gets both, once each.
  std::vector<Data> chain;
  for (const std::string& pem : {certificates.serverCertificate, certificates.caCertificate}) {
    auto der = symlift::testing::runProgram({"/usr/bin/openssl", "x509", "-in", pem, "-outform", "DER"});
    ASSERT_EQ(der.status, 0) << der.err;
    chain.emplace_back(der.out.begin(), der.out.end());
  }
  std::string presented = certificates.directory
                              .write("chain.pem", symlift::testing::readFile(certificates.serverCertificate) +
                                                      symlift::testing::readFile(certificates.caCertificate))
                              .string();
  auto tls = std::make_unique<httplib::SSLServer>(presented.c_str(), certificates.serverKey.c_str());
  tls->Get("/hello", [](const httplib::Request&, httplib::Response& response) {
    response.set_content(R"({"hello": "world"})", "application/json");
  });
  LoopbackHTTPServer server(std::move(tls), "https");
  ASSERT_TRUE(server.bound());
  dispatch::ThreadPool pool;

  enum Handler { Refusing, Accepting, Absent };
  for (Handler handler : {Refusing, Accepting, Absent}) {
    SCOPED_TRACE(handler);
    std::vector<SUPServerTrust> asked;
    auto request = SUPWebRequest::requestWithMethod("GET", "/hello");
    if (handler != Absent) request->protectionSpaceHandler = [&](const SUPServerTrust& trust) {
      asked.push_back(trust);
      return handler == Accepting;
    };
    std::promise<std::shared_ptr<SUPWebResponse>> promise;
    SUPWebClient::initWithURL(pool, server.url())->startRequest(request, [&](const std::shared_ptr<SUPWebResponse>& r) {
      promise.set_value(r);
    });
    auto response = waitFor(promise.get_future());
    ASSERT_TRUE(response);
    EXPECT_EQ(asked.size(), handler == Absent ? 0u : 1u);
    for (const SUPServerTrust& trust : asked) {
      EXPECT_EQ(trust.host, "127.0.0.1");
      EXPECT_EQ(trust.certificateChain, chain);
      EXPECT_FALSE(trust.defaultEvaluationSucceeded);
      EXPECT_FALSE(trust.defaultEvaluationError.empty());
    }
    if (handler == Accepting) {
      EXPECT_TRUE(response->wasSuccessful()) << response->description();
      EXPECT_EQ(std::get<nlohmann::json>(response->body)["hello"], "world");
      continue;
    }
    ASSERT_TRUE(response->error);
    EXPECT_EQ(response->statusCode, 0u);
    if (handler == Refusing) {
      EXPECT_EQ(response->error->domain, "SUPWebClientErrorDomain");
      EXPECT_EQ(response->error->code, -2);
    } else {
      EXPECT_EQ(response->error->domain, kURLErrorDomain);
      EXPECT_LE(response->error->code, URLErrorSecureConnectionFailed);
      EXPECT_GE(response->error->code, URLErrorClientCertificateRequired);
    }
  }
}

}  // namespace
}  // namespace symlift::network
