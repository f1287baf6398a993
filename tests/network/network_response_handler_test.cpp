#include "network/network_response_handler.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "network/url_error.h"

namespace symlift::network {
namespace {

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
