#include "network/network_response_handler.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "network/url_error.h"

namespace symlift::network {
namespace {

using Handler = SUPNetworkResponseHandler;

HTTPURLResponse responseWith(long status, std::vector<std::pair<std::string, std::string>> headers = {}) {
  HTTPURLResponse response;
  response.URL = "https://symbols.vantrel.example/v1/x";
  response.statusCode = status;
  for (auto& [name, value] : headers) response.allHeaderFields.setValue(value, name);
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
    ++outcome.calls;
    outcome.retry = retry;
    outcome.error = std::move(error);
  });
  return outcome;
}

std::int64_t typeOf(long status) {
  std::int64_t seen = -100;
  Handler::clientResponseType(responseWith(status), [&](std::int64_t type, long reported) {
    seen = type;
    EXPECT_EQ(reported, status);
  });
  return seen;
}

TEST(NetworkResponseHandlerTest, ClassifiesEveryStatusClass) {
  for (long status : {200, 201, 202, 204, 304}) EXPECT_EQ(typeOf(status), SUPNetworkClientResponseSuccess) << status;
  for (long status : {400, 401, 403, 404, 406, 410, 411, 413, 419, 422, 431})
    EXPECT_EQ(typeOf(status), SUPNetworkClientResponseFailure) << status;
  for (long status : {420, 429}) EXPECT_EQ(typeOf(status), SUPNetworkClientResponseBackOff) << status;
  for (long status : {408, 500, 502, 503, 504, 599}) EXPECT_EQ(typeOf(status), SUPNetworkClientResponseRetry) << status;
  // Everything no rule accepts, including the near misses of the success list.
  for (long status : {100, 101, 203, 205, 206, 301, 302, 307, 402, 405, 407, 409, 412, 414, 418, 421, 423, 428, 430,
                      499, 600, 999})
    EXPECT_EQ(typeOf(status), SUPNetworkClientResponseInvalid) << status;
}

TEST(NetworkResponseHandlerTest, NoResponseIsInvalidWithStatusZero) {
  long reported = -1;
  std::int64_t type = -1;
  Handler::clientResponseType(std::nullopt, [&](std::int64_t t, long s) { type = t, reported = s; });
  EXPECT_EQ(type, SUPNetworkClientResponseInvalid);
  EXPECT_EQ(reported, 0);

  Outcome outcome = decide(std::nullopt);
  EXPECT_FALSE(outcome.retry);
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, SUPNetworkErrorResponseInvalid);
  EXPECT_EQ(outcome.error->userInfo.at("status_code"), "0");
}

TEST(NetworkResponseHandlerTest, DecisionsAndErrorCodesPerStatus) {
  struct Case {
    long status;
    bool retry;
    std::int64_t code;  // 0: no error
    std::string type;
  };
  const std::vector<Case> cases = {
      {200, false, 0, ""},  {304, false, 0, ""},  {203, false, -4, "1"}, {205, false, -4, "1"},
      {301, false, -4, "1"}, {600, false, -4, "1"}, {404, false, -5, "2"}, {413, false, -5, "2"},
      {408, true, -1, "3"},  {599, true, -1, "3"},  {503, true, -1, "3"},  {429, true, -1, "4"},
      {420, true, -1, "4"},
  };
  for (const auto& c : cases) {
    Outcome outcome = decide(responseWith(c.status));
    EXPECT_EQ(outcome.calls, 1);
    EXPECT_EQ(outcome.retry, c.retry) << c.status;
    if (c.code == 0) {
      EXPECT_FALSE(outcome.error) << c.status;
      continue;
    }
    ASSERT_TRUE(outcome.error) << c.status;
    EXPECT_EQ(outcome.error->domain, "SUPNetworkError");
    EXPECT_EQ(outcome.error->code, c.code) << c.status;
    EXPECT_EQ(outcome.error->userInfo.at("type"), c.type) << c.status;
    EXPECT_EQ(outcome.error->userInfo.at("status_code"), std::to_string(c.status));
  }
}

TEST(NetworkResponseHandlerTest, ErrorCarriesExactlyTheFourUserInfoEntries) {
  Outcome withHeaders = decide(responseWith(503, {{"x-request-id", "req-77"}, {"content-type", "text/html"}}));
  ASSERT_TRUE(withHeaders.error);
  const std::map<std::string, std::string> expected{
      {"type", "3"}, {"status_code", "503"}, {"request_id", "req-77"}, {"content_type", "text/html"}};
  EXPECT_EQ(withHeaders.error->userInfo, expected);

  Outcome bare = decide(responseWith(404));
  ASSERT_TRUE(bare.error);
  EXPECT_EQ(bare.error->userInfo.size(), 4u);
  EXPECT_EQ(bare.error->userInfo.at("request_id"), "");
  EXPECT_EQ(bare.error->userInfo.at("content_type"), "");
  EXPECT_FALSE(Handler::errorForResponse(responseWith(200), SUPNetworkClientResponseSuccess, 200));
}

TEST(NetworkResponseHandlerTest, ContentTypeRule) {
  URLRequest json("https://x.example/");
  json.setValueForHTTPHeaderField("application/json", "Accept");
  json.setValueForHTTPHeaderField("UTF-8", "Accept-Charset");
  URLRequest acceptOnly("https://x.example/");
  acceptOnly.setValueForHTTPHeaderField("application/json", "Accept");
  URLRequest list("https://x.example/");
  list.setValueForHTTPHeaderField("application/json, application/x-plist", "Accept");
  URLRequest plain("https://x.example/");

  auto matches = [](const URLRequest& request, std::optional<std::string> contentType) {
    HTTPURLResponse response = responseWith(200);
    if (contentType) response.allHeaderFields.setValue(*contentType, "Content-Type");
    return Handler::contentTypeForResponseMatchesRequest(response, request);
  };
  EXPECT_TRUE(matches(json, "application/json; charset=utf-8"));
  EXPECT_TRUE(matches(json, "Application/JSON"));               // no charset piece
  EXPECT_FALSE(matches(json, "application/json; charset=latin1"));
  EXPECT_FALSE(matches(json, "application/json;charset=utf-8"));  // not the exact separator
  EXPECT_TRUE(matches(acceptOnly, "application/json; charset=anything"));
  EXPECT_FALSE(matches(list, "application/json"));
  EXPECT_FALSE(matches(acceptOnly, std::nullopt));
  EXPECT_TRUE(matches(plain, std::nullopt));
  EXPECT_TRUE(matches(plain, "text/html"));

  // A mismatch turns a success status into an invalid response.
  HTTPURLResponse html = responseWith(200, {{"Content-Type", "text/html"}});
  Outcome outcome = decide(html, acceptOnly);
  EXPECT_FALSE(outcome.retry);
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, SUPNetworkErrorResponseInvalid);
  EXPECT_EQ(outcome.error->userInfo.at("type"), "1");
  EXPECT_EQ(outcome.error->userInfo.at("status_code"), "200");
}

TEST(NetworkResponseHandlerTest, RetryAfterForms) {
  auto retryAfter = [](std::optional<std::string> value) {
    HTTPURLResponse response = responseWith(429);
    if (value) response.allHeaderFields.setValue(*value, "retry-after");
    return Handler::retryValueForResponse(response);
  };
  EXPECT_EQ(Handler::retryValueForResponse(std::nullopt), 2.0);
  EXPECT_EQ(retryAfter(std::nullopt), 2.0);
  EXPECT_EQ(retryAfter("-5"), 2.0);
  EXPECT_EQ(retryAfter("0"), 0.0);
  EXPECT_EQ(retryAfter("120"), 120.0);
  EXPECT_EQ(retryAfter("  7"), 7.0);
  EXPECT_EQ(retryAfter("1.5 seconds"), 1.5);
  EXPECT_EQ(retryAfter("1e2"), 100.0);
  EXPECT_EQ(retryAfter("3e"), 3.0);
  EXPECT_EQ(retryAfter("Wed, 21 Oct 2015 07:28:00 GMT"), 0.0);
  EXPECT_EQ(retryAfter("0x10"), 0.0);
  EXPECT_EQ(retryAfter(""), 0.0);
}

TEST(NetworkResponseHandlerTest, RetryableURLErrors) {
  for (std::int64_t code : {-1000, -1002, -1007, -1010, -1012, -1013, -1022, -995, -1200, -1201, -1202, -1203, -1204,
                            -1205, -1206, -1100, -1101, -1103})
    EXPECT_FALSE(Handler::retryableURLError(support::makeError(kURLErrorDomain, code))) << code;
  for (std::int64_t code : {-1, -999, -1001, -1003, -1004, -1005, -1009, -1011, -1102, -1199, -1207, -2000})
    EXPECT_TRUE(Handler::retryableURLError(support::makeError(kURLErrorDomain, code))) << code;
  EXPECT_FALSE(Handler::retryableURLError(support::makeError("NSPOSIXErrorDomain", -1001)));
  EXPECT_FALSE(Handler::retryableURLError(support::makeError("SUPNetworkError", -1)));
  EXPECT_FALSE(Handler::retryableURLError(nullptr));
}

TEST(NetworkResponseHandlerTest, TransportErrorIsPassedOnWithoutLookingAtTheResponse) {
  auto timedOut = support::makeError(kURLErrorDomain, URLErrorTimedOut);
  Outcome retried = decide(responseWith(404), URLRequest("https://x.example/"), timedOut);
  EXPECT_TRUE(retried.retry);
  EXPECT_EQ(retried.error, timedOut);

  auto foreign = support::makeError("SomeOtherDomain", URLErrorTimedOut);
  Outcome notRetried = decide(responseWith(503), URLRequest("https://x.example/"), foreign);
  EXPECT_FALSE(notRetried.retry);
  EXPECT_EQ(notRetried.error, foreign);
}

TEST(NetworkResponseHandlerTest, CancelReason) {
  auto cancelled = support::makeError(kURLErrorDomain, URLErrorCancelled,
                                      {{kURLErrorBackgroundTaskCancelledReasonKey, "2"}});
  EXPECT_EQ(Handler::cancelReasonFromURLError(cancelled), 2);
  EXPECT_EQ(Handler::cancelReasonFromURLError(support::makeError(kURLErrorDomain, URLErrorCancelled)), -1);
  EXPECT_EQ(Handler::cancelReasonFromURLError(
                support::makeError(kURLErrorDomain, URLErrorTimedOut, {{kURLErrorBackgroundTaskCancelledReasonKey, "2"}})),
            -1);
}

}  // namespace
}  // namespace symlift::network
