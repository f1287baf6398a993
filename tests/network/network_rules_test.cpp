// The network layer's rules, each a table: the endpoints and user agents,
// the upload URL's query, the test-only ceilings, what a libcurl failure
// becomes, and what a response or a transport error means for a retry.

#include <gtest/gtest.h>
#include <openssl/x509_vfy.h>

#include <cerrno>
#include <functional>
#include <utility>
#include <vector>

#include "network/curl_error_mapping.h"
#include "network/network_constants.h"
#include "network/network_response_handler.h"
#include "network/test_time_limits.h"
#include "network/url_builder.h"
#include "network/url_error.h"
#include "network/web_api_client_endpoints.h"
#include "support/info_dictionary.h"
#include "support/scoped_environment.h"
#include "support/test_support.h"

namespace symlift::network {
namespace {

using namespace std::chrono_literals;
using symlift::testing::ScopedEnvironment;

TEST(EndpointsTest, TheEnvironmentAsItStandsElseTheDefault) {
  // The tool's info dictionary names no endpoint, so the environment decides.
  ASSERT_FALSE(support::infoDictionaryString(kUploadEndpointKey));
  struct Case {
    const char* variable;
    std::optional<std::string> value;
    std::string (*endpoint)();
    std::string expected;
  };
  const Case cases[] = {
      {kUploadEndpointKey, std::nullopt, &SUPWebAPIClientEndpoints::UploadEndpoint, "https://symbols.vantrel.example"},
      {kAPIEndpointKey, std::nullopt, &SUPWebAPIClientEndpoints::APIEndpoint, "https://api.vantrel.example"},
      {kCMEndpointKey, std::nullopt, &SUPWebAPIClientEndpoints::CMEndpoint, "https://cm.vantrel.example"},
      {kUploadEndpointKey, "http://127.0.0.1:8080 ", &SUPWebAPIClientEndpoints::UploadEndpoint,
       "http://127.0.0.1:8080 "},  // as it stands
      {kAPIEndpointKey, "", &SUPWebAPIClientEndpoints::APIEndpoint, ""},
  };
  for (const Case& c : cases) {
    ScopedEnvironment set(c.variable, c.value);
    EXPECT_EQ(c.endpoint(), c.expected) << c.variable;
  }
  auto version = support::infoDictionaryString("CFBundleShortVersionString");
  ASSERT_TRUE(version);
  EXPECT_EQ(SUPNetworkConstants::userAgentMacApp(), "Vantrel for Mac/" + *version);
  EXPECT_EQ(SUPNetworkConstants::symbolUploadUserAgent(), "symlift/" + *version);
}

// Values are escaped, names are not; the first parameter comes after "?",
// every later one after "&"; an empty component is refused with one error
// line each, and no value at all adds nothing.
TEST(URLBuilderTest, QueryParametersAreNumberedAndEscaped) {
  struct Case {
    const char* base;
    std::function<void(SUPURLBuilder&)> append;
    std::string expected;
    std::uint64_t count;
    std::size_t errorLines;
    bool parses;
  };
  const Case cases[] = {
      {"https://api.vantrel.example/v1/apps",
       [](SUPURLBuilder& b) {
         b.appendValueForQueryParam(42, "build");
         b.appendValueForQueryParam(std::optional<std::string>("a b"), "label");
         b.appendValueForQueryParam(1.5, "ratio");
       },
       "https://api.vantrel.example/v1/apps?build=42&label=a%20b&ratio=1.5", 3, 0, true},
      {"https://x.example/p",
       [](SUPURLBuilder& b) {
         b.appendValueForQueryParam(std::optional<std::string>(), "skipped");
         b.appendValueForQueryParam(static_cast<const char*>(nullptr), "skipped");
         b.appendValueForQueryParam("v", "first");
       },
       "https://x.example/p?first=v", 1, 0, true},
      {"https://x.example/p?fixed=1", [](SUPURLBuilder& b) { b.appendValueForQueryParam("2", "n"); },
       "https://x.example/p?fixed=1?n=2", 1, 0, true},
      {"", [](SUPURLBuilder&) {}, "", 0, 1, false},
      {"https://x.example/",
       [](SUPURLBuilder& b) {
         b.appendValueForQueryParam("", "empty");
         b.appendValueForQueryParam("v", "");
       },
       "https://x.example/?empty=&=v", 2, 2, true},
      {"http://exa mple.com/", [](SUPURLBuilder&) {}, "http://exa mple.com/", 0, 0, false},
  };
  for (const Case& c : cases) {
    ::testing::internal::CaptureStdout();
    SUPURLBuilder builder = SUPURLBuilder::URLWithBase(c.base);
    c.append(builder);
    std::string output = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(builder.URLString(), c.expected);
    EXPECT_EQ(builder.queryParams(), c.count) << c.expected;
    EXPECT_EQ(symlift::testing::countOccurrences(output, "URLBuilder parameter component must not be empty"),
              c.errorLines)
        << output;
    EXPECT_EQ(symlift::testing::countOccurrences(output, "error: "), c.errorLines) << output;
    EXPECT_EQ(builder.URL(), c.parses ? std::optional<std::string>(c.expected) : std::nullopt) << c.expected;
  }
}

// The test-only ceilings on the idle time-out and the retry delay: anything
// but a plain number of milliseconds from 1 to 60000 is no ceiling. That a
// ceiling lowers a wait and never raises it shows through the binary
// (NetworkFaultsTest).
TEST(TestTimeLimitsTest, OnlyPlainMillisecondsUpToAMinuteCount) {
  using Case = std::pair<std::optional<std::string>, std::optional<std::chrono::milliseconds>>;
  for (const auto& [text, expected] : std::vector<Case>{
           {std::nullopt, std::nullopt}, {"", std::nullopt}, {"0", std::nullopt}, {"-5", std::nullopt},
           {"abc", std::nullopt}, {"400ms", std::nullopt}, {" 400", std::nullopt}, {"60001", std::nullopt},
           {"99999999999999999999999", std::nullopt}, {"1", 1ms}, {"400", 400ms}, {"60000", 60000ms}}) {
    ScopedEnvironment set(kTestIdleTimeoutVariable, text);
    EXPECT_EQ(testTimeCeiling(kTestIdleTimeoutVariable), expected) << (text ? *text : "(unset)");
  }
}

// The codes that need more than the curl code to map: the certificate
// checks, errno and the handshake's own words. Which are retried:
// NetworkResponseHandlerTest; the plain ones show through the transport
// (CurlURLSessionTest) and the binary (NetworkFaultsTest).
TEST(CurlErrorMappingTest, CurlCodesBecomeURLLoadingErrors) {
  struct Case {
    CURLcode curl;
    long osErrno;
    long verify;
    const char* detail;
    std::int64_t code;
  };
  const Case cases[] = {
      // A refused connection and an unreachable network differ only by errno.
      {CURLE_COULDNT_CONNECT, ECONNREFUSED, 0, "", URLErrorCannotConnectToHost},
      {CURLE_COULDNT_CONNECT, ENETUNREACH, 0, "", URLErrorNotConnectedToInternet},
      {CURLE_PEER_FAILED_VERIFICATION, 0, X509_V_ERR_CERT_HAS_EXPIRED, "", URLErrorServerCertificateHasBadDate},
      {CURLE_PEER_FAILED_VERIFICATION, 0, X509_V_ERR_CERT_NOT_YET_VALID, "", URLErrorServerCertificateNotYetValid},
      {CURLE_PEER_FAILED_VERIFICATION, 0, X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, "",
       URLErrorServerCertificateHasUnknownRoot},
      {CURLE_PEER_FAILED_VERIFICATION, 0, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, "",
       URLErrorServerCertificateHasUnknownRoot},
      {CURLE_PEER_FAILED_VERIFICATION, 0, X509_V_ERR_HOSTNAME_MISMATCH, "", URLErrorServerCertificateUntrusted},
      // A refused certificate stays a certificate failure whatever the transport says.
      {CURLE_PEER_FAILED_VERIFICATION, ECONNRESET, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, "connection reset",
       URLErrorServerCertificateHasUnknownRoot},
      {CURLE_SSL_CERTPROBLEM, 0, 0, "", URLErrorClientCertificateRequired},
      {CURLE_OUT_OF_MEMORY, 0, 0, "", URLErrorUnknown},
      // A handshake that fails on its merits is final; one the peer cut off is
      // a lost connection, whether libcurl saw the reset's errno or only wrote it.
      {CURLE_SSL_CONNECT_ERROR, ECONNRESET, 0, "", URLErrorNetworkConnectionLost},
      {CURLE_SSL_CONNECT_ERROR, EPIPE, 0, "", URLErrorNetworkConnectionLost},
      {CURLE_SSL_CONNECT_ERROR, 0, 0, "OpenSSL SSL_connect: Connection reset by peer in connection to 127.0.0.1:4433 ",
       URLErrorNetworkConnectionLost},
      {CURLE_SSL_CONNECT_ERROR, 0, 0, "OpenSSL SSL_connect: SSL_ERROR_SYSCALL in connection to 127.0.0.1:4433 ",
       URLErrorNetworkConnectionLost},
      {CURLE_SSL_CONNECT_ERROR, 0, 0, "error:0A000126:SSL routines::unexpected eof while reading",
       URLErrorNetworkConnectionLost},
      {CURLE_SSL_CONNECT_ERROR, 0, 0, "", URLErrorSecureConnectionFailed},
      {CURLE_SSL_CONNECT_ERROR, 0, 0, "error:0A00010B:SSL routines::wrong version number",
       URLErrorSecureConnectionFailed},
      {CURLE_SSL_CONNECT_ERROR, 0, 0, "error:0A000410:SSL routines::sslv3 alert handshake failure",
       URLErrorSecureConnectionFailed},
  };
  for (const auto& c : cases)
    EXPECT_EQ(urlErrorCodeForCurlCode(c.curl, c.osErrno, c.verify, c.detail), c.code)
        << curl_easy_strerror(c.curl) << " " << c.osErrno << " " << c.detail;
}

using Handler = SUPNetworkResponseHandler;
using Headers = std::vector<std::pair<std::string, std::string>>;

HTTPURLResponse responseWith(long status, const Headers& headers = {}) {
  HTTPURLResponse response;
  response.URL = "https://symbols.vantrel.example/v1/x";
  response.statusCode = status;
  for (const auto& [name, value] : headers) response.allHeaderFields.setValue(value, name);
  return response;
}

struct Outcome {
  int calls = 0;
  bool retry = false;
  support::ErrorPtr error;
};

Outcome decide(const Handler::Response& response, const URLRequest& request = URLRequest("https://x.example/"),
               support::ErrorPtr transportError = nullptr) {
  Outcome outcome;
  Handler::handleCompletedResponse(response, request, transportError, [&](bool retry, support::ErrorPtr error) {
    ++outcome.calls, outcome.retry = retry, outcome.error = std::move(error);
  });
  return outcome;
}

TEST(NetworkResponseHandlerTest, StatusDecidesRetryAndError) {
  struct Case {
    std::vector<long> statuses;  // -1: no response at all
    bool retry;
    std::int64_t code;  // 0: no error
    const char* type;
  };
  const Case cases[] = {
      {{200, 201, 202, 204, 304}, false, 0, ""},
      {{400, 401, 403, 404, 406, 410, 411, 413, 419, 422, 431}, false, SUPNetworkErrorRequestFailed, "2"},
      {{420, 429}, true, SUPNetworkErrorRetryable, "4"},
      {{408, 500, 502, 503, 504, 599}, true, SUPNetworkErrorRetryable, "3"},
      // Everything no rule accepts, including the near misses of the success list.
      {{-1, 100, 101, 203, 205, 206, 301, 302, 307, 402, 405, 407, 409, 412, 414, 418, 421, 423, 428, 430, 499, 600,
        999},
       false, SUPNetworkErrorResponseInvalid, "1"},
  };
  for (const Case& c : cases) {
    for (long status : c.statuses) {
      Outcome outcome = decide(status < 0 ? Handler::Response() : responseWith(status));
      EXPECT_EQ(outcome.calls, 1);
      EXPECT_EQ(outcome.retry, c.retry) << status;
      ASSERT_EQ(outcome.error != nullptr, c.code != 0) << status;
      if (!c.code) continue;
      EXPECT_EQ(outcome.error->domain, "SUPNetworkError");
      EXPECT_EQ(outcome.error->code, c.code) << status;
      const std::map<std::string, std::string> userInfo{{"type", c.type},
                                                        {"status_code", std::to_string(std::max(status, 0L))},
                                                        {"request_id", ""},
                                                        {"content_type", ""}};
      EXPECT_EQ(outcome.error->userInfo, userInfo) << status;
    }
  }
  Outcome withHeaders = decide(responseWith(503, {{"x-request-id", "req-77"}, {"content-type", "text/html"}}));
  ASSERT_TRUE(withHeaders.error);
  EXPECT_EQ(withHeaders.error->userInfo.at("request_id"), "req-77");
  EXPECT_EQ(withHeaders.error->userInfo.at("content_type"), "text/html");
}

// A success whose content type the request did not accept is an invalid response.
TEST(NetworkResponseHandlerTest, ContentTypeMustMatchTheAcceptedOne) {
  struct Case {
    const char* accept;  // nothing: no such header
    const char* acceptCharset;
    const char* contentType;
    bool matches;
  };
  const Case cases[] = {
      {"application/json", "UTF-8", "application/json; charset=utf-8", true},
      {"application/json", "UTF-8", "Application/JSON", true},  // no charset piece
      {"application/json", "UTF-8", "application/json; charset=latin1", false},
      {"application/json", "UTF-8", "application/json;charset=utf-8", false},  // not the exact separator
      {"application/json", nullptr, "application/json; charset=anything", true},
      {"application/json, application/x-plist", nullptr, "application/json", false},
      {"application/json", nullptr, nullptr, false},
      {nullptr, nullptr, nullptr, true},
      {nullptr, nullptr, "text/html", true},
  };
  for (const Case& c : cases) {
    URLRequest request("https://x.example/");
    if (c.accept) request.setValueForHTTPHeaderField(c.accept, "Accept");
    if (c.acceptCharset) request.setValueForHTTPHeaderField(c.acceptCharset, "Accept-Charset");
    Headers headers;
    if (c.contentType) headers.emplace_back("Content-Type", c.contentType);
    Outcome outcome = decide(responseWith(200, headers), request);
    EXPECT_FALSE(outcome.retry);
    ASSERT_EQ(outcome.error == nullptr, c.matches)
        << (c.accept ? c.accept : "-") << " / " << (c.contentType ? c.contentType : "-");
    if (c.matches) continue;
    EXPECT_EQ(outcome.error->code, SUPNetworkErrorResponseInvalid);
    EXPECT_EQ(outcome.error->userInfo.at("type"), "1");
    EXPECT_EQ(outcome.error->userInfo.at("status_code"), "200");
  }
}

// Which transport errors are retried (NetworkClientTest: that they decide).
TEST(NetworkResponseHandlerTest, TransportErrorsRetriedByCodeAndDomain) {
  for (std::int64_t code : {-1000, -1002, -1007, -1010, -1012, -1013, -1022, -995, -1200, -1201, -1202, -1203, -1204,
                            -1205, -1206, -1100, -1101, -1103})
    EXPECT_FALSE(Handler::retryableURLError(support::makeError(kURLErrorDomain, code))) << code;
  for (std::int64_t code : {-1, -999, -1001, -1003, -1004, -1005, -1009, -1011, -1102, -1199, -1207, -2000})
    EXPECT_TRUE(Handler::retryableURLError(support::makeError(kURLErrorDomain, code))) << code;
  EXPECT_FALSE(Handler::retryableURLError(support::makeError("NSPOSIXErrorDomain", -1001)));
  EXPECT_FALSE(Handler::retryableURLError(nullptr));

}

}  // namespace
}  // namespace symlift::network
