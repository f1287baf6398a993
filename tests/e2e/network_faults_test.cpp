// The real symlift binary against a misbehaving network: nothing listening,
// a request the service refuses, connections reset half-way through a
// request, a service that never answers, one that asks the client to slow
// down, one that fails for a while or until the retries run out, a redirect
// loop and an untrusted certificate. Every run has its own TMPDIR, which
// must be empty afterwards.
//
// The back-off ladder of ten retries (2, 2, 4, ... 1024 s) and the one-minute
// idle time-out are shortened through the two test-only ceilings
// SYMLIFT_TEST_MAX_RETRY_DELAY_MS and SYMLIFT_TEST_IDLE_TIMEOUT_MS, except
// where the wait itself is what is being checked.

#include <gtest/gtest.h>

#include "e2e/output_lines.h"
#include "e2e/manual_run.h"

namespace symlift::testing::e2e {
namespace {

const Lines kPlain;
constexpr const char* kHelloUUID = "4c4c44c655553144a13083513346deda";
// The idle time-out is shortened only where it is bound to end an attempt:
// a loaded machine can keep a healthy exchange idle for a moment.
const std::map<std::string, std::string> kQuick{{"SYMLIFT_TEST_MAX_RETRY_DELAY_MS", "20"}};
const std::map<std::string, std::string> kQuickIdle{{"SYMLIFT_TEST_MAX_RETRY_DELAY_MS", "20"},
                                                    {"SYMLIFT_TEST_IDLE_TIMEOUT_MS", "400"}};

std::string uploadURL(const std::string& base) {
  return base + "/v1/project/-/app/" + kApp + "/upload/native/" + kHelloUUID;
}

// The start of a transport error: its code and description, the failing URL
// and the domain and code of libcurl's own error beneath it (whose wording
// is libcurl's).
std::string transportError(int code, const std::string& description, const std::string& url, int curlCode) {
  return "Error Domain=NSURLErrorDomain Code=" + std::to_string(code) + " \"" + description +
         "\" UserInfo={NSErrorFailingURLKey=" + url + ", NSErrorFailingURLStringKey=" + url +
         ", NSLocalizedDescription=" + description +
         ", NSUnderlyingError=Error Domain=libcurl Code=" + std::to_string(curlCode) + " \"";
}

std::string networkError(int code, const std::string& userInfo) {
  return "Error Domain=SUPNetworkError Code=" + std::to_string(code) +
         " \"The operation couldn\u2019t be completed. (SUPNetworkError error " + std::to_string(code) +
         ".)\" UserInfo={" + userInfo + "}";
}

// The debug lines announcing retries 1/10 .. n/10, in order.
std::vector<std::string> retryLines(const std::string& out) {
  std::vector<std::string> lines;
  for (const auto& line : linesOf(out))
    if (line.starts_with("Retrying symbol upload")) lines.push_back(line);
  return lines;
}

// A failed run: exit status 8, and its two error lines (the submission
// error, then the dSYM's) carry the same error, which holds the submit error
// around the given network error.
void expectFailedRun(const RunResult& result, const std::string& error) {
  EXPECT_EQ(result.status, 8) << result.out;
  std::vector<std::string> errors;
  for (const auto& line : linesOf(result.out))
    if (line.find("error: ") != std::string::npos) errors.push_back(line + "\n");
  ASSERT_EQ(errors.size(), 2u) << result.out;
  const std::string first = "error: Failed uploading cSYMs due to error: ";
  ASSERT_TRUE(errors[0].starts_with(first)) << errors[0];
  const std::string printed = errors[0].substr(first.size(), errors[0].size() - first.size() - 1);
  EXPECT_EQ(errors[0], kPlain.error("Failed uploading cSYMs due to error: " + printed));
  EXPECT_EQ(errors[1], kPlain.error("Could not complete submission of dSYM at " + helloDSYM() + ": " + printed));
  const std::string reason = std::string("Failed to submit cSYM for architecture arm64 with uuid ") + kHelloUUID +
                             " in dSYM: " + helloDSYM() + "/Contents/Resources/DWARF/Hello";
  const std::string submitFailure =
      "Error Domain=com.vantrel.mac.error-domain.submit-csym Code=0 \"The operation couldn\u2019t be completed. " +
      reason + "\" UserInfo={NSLocalizedFailureReason=" + reason + ", NSUnderlyingError=" + error;
  EXPECT_NE(printed.find(submitFailure), std::string::npos) << printed << "\nexpected within it: " << submitFailure;
  EXPECT_EQ(result.out.find("Successfully"), std::string::npos) << result.out;
  EXPECT_TRUE(result.out.ends_with(errors[1])) << "the last line was cut: " << result.out;
}

TEST(NetworkFaultsTest, EachFaultIsRetriedOrNotAndEndsAsItShould) {
  enum Listener { None, Plain, TLS };
  enum End { Uploaded, RetriesExhausted, NotFound, TooManyRedirects, UntrustedCertificate };
  struct Case {
    const char* name;
    Listener listener;
    std::vector<std::string> service;  // the stand-in's options
    std::map<std::string, std::string> environment;
    std::size_t requests;  // that reached the stand-in, each a PUT of the upload
    std::string outcome;   // of every request but an accepted one
    int retries;           // attempts after the first
    End end;
    double atLeast = 0, atMost = 90;  // seconds the run takes
  };
  // A TLS stand-in, the test CA that signed its certificate, and a real
  // trust store that does not hold it. Variables that switch verification
  // off in other tools change nothing here.
  const bool haveOpenSSL = haveProgram("openssl");
  std::optional<TestCertificates> certificates, stranger;
  TempDir otherCertificates;
  std::map<std::string, std::string> untrusted = kQuick, trusted;
  std::vector<std::string> tlsService;
  if (haveOpenSSL) {
    ASSERT_TRUE(certificates.emplace().made && stranger.emplace().made);
    tlsService = {"--tls-cert", certificates->serverCertificate, "--tls-key", certificates->serverKey};
    for (const char* variable : {"CURL_INSECURE", "SSL_NO_VERIFY", "GIT_SSL_NO_VERIFY", "SYMLIFT_INSECURE"})
      untrusted[variable] = "1";
    for (const char* variable : {"CURLOPT_SSL_VERIFYPEER", "CURLOPT_SSL_VERIFYHOST", "PYTHONHTTPSVERIFY",
                                 "NODE_TLS_REJECT_UNAUTHORIZED", "SSL_VERIFY"})
      untrusted[variable] = "0";
    trusted = untrusted;
    untrusted["SSL_CERT_FILE"] = stranger->caCertificate;
    untrusted["SSL_CERT_DIR"] = otherCertificates.str();
    trusted["SSL_CERT_FILE"] = certificates->caCertificate;
  } else {
    std::cout << "[ skipped  ] the TLS cases: openssl is needed to make a test CA\n";
  }
  const Case cases[] = {
      {"connection refused", None, {}, kQuick, 0, "", 10, RetriesExhausted},
      {"404, not worth another attempt", Plain, {}, kQuick, 1, "404", 0, NotFound},
      // Reset once the request's head has arrived, its body unread: the
      // client sees the reset while it sends or waits for the answer.
      {"reset twice", Plain, {"--reset-first", "2", "--reset-after-bytes", "0"}, kQuick, 3, "reset after 0 bytes", 2,
       Uploaded},
      {"reset always", Plain, {"--reset-first", "1000", "--reset-after-bytes", "0"}, kQuick, 11, "reset after 0 bytes",
       10, RetriesExhausted},
      {"silent once", Plain, {"--silent-first", "1"}, kQuickIdle, 2, "silent", 1, Uploaded},
      // Every attempt waits the (shortened) idle time-out.
      {"silent always", Plain, {"--silent-first", "1000"}, kQuickIdle, 11, "silent", 10, RetriesExhausted, 11 * 0.4},
      // A ceiling beyond the minute (or nonsense) is ignored, so the first
      // retry's wait of about 2 s is there; the idle time-out is shortened
      // only so that the run stays short.
      {"ceilings that would lengthen the waits", Plain, {"--silent-first", "1"},
       {{"SYMLIFT_TEST_IDLE_TIMEOUT_MS", "300"}, {"SYMLIFT_TEST_MAX_RETRY_DELAY_MS", "3600000"}}, 2, "silent", 1,
       Uploaded, 0.3 + 2 * 0.9, 30},
      // The wait is the larger of 2 s and "Retry-After", times a jitter in
      // [0.9, 1.1); no ceilings, so the real wait (the upper bound is loose:
      // the machine may be busy).
      {"429, Retry-After 3", Plain, {"--fail-first", "1", "--fail-status", "429", "--retry-after", "3"}, {}, 2, "429",
       1, Uploaded, 2.7, 17.7},
      {"429, Retry-After 1", Plain, {"--fail-first", "1", "--fail-status", "429", "--retry-after", "1"}, {}, 2, "429",
       1, Uploaded, 1.8, 16.8},
      {"503 twice", Plain, {"--fail-first", "2", "--fail-status", "503"}, kQuick, 3, "503", 2, Uploaded},
      {"500 always", Plain, {"--fail-first", "1000", "--fail-status", "500"}, kQuick, 11, "500", 10, RetriesExhausted},
      {"503 always", Plain, {"--fail-first", "1000", "--fail-status", "503"}, kQuick, 11, "503", 10, RetriesExhausted},
      // The first request and sixteen redirects, each the same PUT again.
      {"redirect loop", Plain, {"--redirect-first", "1000"}, kQuick, 17, "307", 0, TooManyRedirects},
      // No request passes the handshake, and the failure is not retried.
      {"untrusted certificate", TLS, tlsService, untrusted, 0, "", 0, UntrustedCertificate},
      {"trusted certificate", TLS, tlsService, trusted, 1, "", 0, Uploaded},
  };
  for (const Case& c : cases) {
    if (c.listener == TLS && !haveOpenSSL) continue;
    SCOPED_TRACE(c.name);
    TempDir tmp;
    std::optional<FakeServiceProcess> service;
    if (c.listener != None) {
      ASSERT_TRUE(service.emplace(c.service, c.listener == TLS).started());
    }
    const std::string base = service ? service->baseURL() + (c.end == NotFound ? "/elsewhere" : "")
                                     : "http://127.0.0.1:" + std::to_string(unusedLoopbackPort());
    // A failed dSYM ends the run: given twice, the second never starts.
    const auto started = std::chrono::steady_clock::now();
    const RunResult result = runClean(byHand({"-d"}, std::vector<std::string>(c.end == Uploaded ? 1 : 2, helloDSYM())),
                                      tmp.str(), base, c.environment);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    EXPECT_GE(seconds, c.atLeast);
    EXPECT_LT(seconds, c.atMost);
    std::vector<std::string> retries;
    for (int i = 1; i <= c.retries; ++i)
      retries.push_back("Retrying symbol upload with number of retries: " + std::to_string(i) + "/10");
    EXPECT_EQ(retryLines(result.out), retries) << result.out;
    if (service) {
      const std::string log = service->requestLog();
      auto outcomes = [&](const std::string& outcome) { return countOccurrences(log, "\n=> " + outcome + "\n"); };
      EXPECT_EQ(service->loggedRequestCount(), c.requests) << log;
      EXPECT_EQ(countOccurrences(log, " PUT " + uploadURL(c.end == NotFound ? "/elsewhere" : "") + "\n"), c.requests)
          << log;
      if (!c.outcome.empty()) {
        EXPECT_EQ(outcomes(c.outcome), c.requests - (c.end == Uploaded)) << log;
      }
      EXPECT_EQ(outcomes("200"), c.end == Uploaded ? 1u : 0u) << log;
      // Each attempt's requests carry its number.
      std::vector<std::string> counters;
      for (int attempt = 0; attempt <= c.retries; ++attempt)
        counters.insert(counters.end(), c.requests / (c.retries + 1), std::to_string(attempt) + "/10");
      EXPECT_EQ(service->loggedHeaderValues("X-Vantrel-Retries"), counters);
    }
    switch (c.end) {
      case Uploaded:
        EXPECT_EQ(result.status, 0) << result.out;
        EXPECT_TRUE(result.out.ends_with(kPlain.uploaded())) << result.out;
        EXPECT_EQ(countOccurrences(result.out, "error: "), 0u) << result.out;
        EXPECT_EQ(storedUploads(*service).size(), 1u);
        break;
      case RetriesExhausted:
        expectFailedRun(result, networkError(-6, "NSErrorFailingURLStringKey=" + uploadURL(base) + ", retryLimit=10"));
        break;
      case NotFound:
        expectFailedRun(result,
                        networkError(-5, "content_type=text/plain, request_id=fake-0, status_code=404, type=2"));
        break;
      case TooManyRedirects:
        expectFailedRun(result, transportError(-1007, "too many HTTP redirects", uploadURL(base), 47));
        break;
      case UntrustedCertificate:
        expectFailedRun(result, transportError(-1203,
                                               "The certificate for this server was signed by an unknown "
                                               "certifying authority.",
                                               uploadURL(base), 60));
        break;
    }
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(joined(entriesBelow(tmp.path())), "") << "left behind in TMPDIR";
  }
}

}  // namespace
}  // namespace symlift::testing::e2e
