// The real symlift binary against a misbehaving network: nothing listening,
// connections reset half-way through a request, a service that never
// answers, one that asks the client to slow down, one that fails until the
// retries run out, a redirect loop and an untrusted certificate. Every run
// has its own TMPDIR, which must be empty afterwards.
//
// The back-off ladder of ten retries (2, 2, 4, ... 1024 s) and the one-minute
// idle time-out are shortened through the two test-only ceilings
// SYMLIFT_TEST_MAX_RETRY_DELAY_MS and SYMLIFT_TEST_IDLE_TIMEOUT_MS, except
// where the wait itself is what is being checked.

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "e2e/output_lines.h"
#include "network/fake_service_process.h"
#include "operations/pipeline_test_support.h"
#include "support/test_support.h"

namespace symlift::testing::e2e {
namespace {

namespace fs = std::filesystem;
const Lines kPlain{false};
constexpr const char* kApp = "1:77:ios:faults";
constexpr const char* kHelloUUID = "4c4c44c655553144a13083513346deda";
const std::map<std::string, std::string> kQuick{{"SYMLIFT_TEST_MAX_RETRY_DELAY_MS", "20"},
                                                {"SYMLIFT_TEST_IDLE_TIMEOUT_MS", "400"}};

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::vector<std::string> filesIn(const fs::path& dir) {
  std::vector<std::string> names;
  for (const auto& entry : fs::recursive_directory_iterator(dir))
    names.push_back(fs::relative(entry.path(), dir).string());
  return names;
}

// The submit error around a network error (or the start of one), as the
// run prints it.
std::string submitFailure(const std::string& dsym, const std::string& networkError) {
  const std::string reason = std::string("Failed to submit cSYM for architecture arm64 with uuid ") + kHelloUUID +
                             " in dSYM: " + dsym + "/Contents/Resources/DWARF/Hello";
  return "Error Domain=com.vantrel.mac.error-domain.submit-csym Code=0 \"The operation couldn\u2019t be completed. " +
         reason + "\" UserInfo={NSLocalizedFailureReason=" + reason + ", NSUnderlyingError=" + networkError;
}

// The start of a transport error: its code and description, the failing URL
// and the domain and code of libcurl's own error beneath it (whose wording
// is libcurl's).
std::string transportErrorStart(int code, const std::string& description, const std::string& url, int curlCode) {
  return "Error Domain=NSURLErrorDomain Code=" + std::to_string(code) + " \"" + description +
         "\" UserInfo={NSErrorFailingURLKey=" + url + ", NSErrorFailingURLStringKey=" + url +
         ", NSLocalizedDescription=" + description + ", NSUnderlyingError=Error Domain=libcurl Code=" +
         std::to_string(curlCode) + " \"";
}

std::string maximumAttemptsError(const std::string& url) {
  return "Error Domain=SUPNetworkError Code=-6 \"The operation couldn\u2019t be completed. (SUPNetworkError error "
         "-6.)\" UserInfo={NSErrorFailingURLStringKey=" +
         url + ", retryLimit=10}";
}

class NetworkFaultsTest : public ::testing::Test {
 protected:
  RunResult run(const std::string& endpoint, std::map<std::string, std::string> extra = {}, bool debug = true) {
    std::vector<std::string> arguments{"-sdv", "-ai", kApp, "-p", "ios"};
    if (debug) arguments.push_back("-d");
    arguments.push_back("--");
    arguments.push_back(dsym());
    RunOptions options;
    options.environment = std::map<std::string, std::string>{
        {"PATH", "/usr/bin:/bin"}, {"TMPDIR", tmp_.str()}, {"VantrelUploadEndpoint", endpoint}};
    for (auto& [key, value] : extra) (*options.environment)[key] = value;
    options.timeoutSeconds = 90;
    return runSymlift(arguments, options);
  }

  static std::string dsym() { return (fixturesDir() / "Hello.dSYM").string(); }
  static std::string uploadURL(const std::string& base) {
    return base + "/v1/project/-/app/" + kApp + "/upload/native/" + kHelloUUID;
  }

  // A failed run: exit status 8, and its two error lines (the submission
  // error, then the dSYM's) carry the same error, which holds the submit
  // error around the given network error. Nothing is left in TMPDIR.
  void expectFailedRun(const RunResult& result, const std::string& networkError) {
    EXPECT_EQ(result.status, 8) << result.out;
    std::vector<std::string> errors;
    for (const auto& line : linesOf(result.out))
      if (line.find("error: ") != std::string::npos) errors.push_back(line);
    ASSERT_EQ(errors.size(), 2u) << result.out;
    const std::string first = "error: Failed uploading cSYMs due to error: ";
    ASSERT_TRUE(errors[0].starts_with(first)) << errors[0];
    const std::string error = errors[0].substr(first.size());
    EXPECT_EQ(errors[0] + "\n", kPlain.error("Failed uploading cSYMs due to error: " + error));
    EXPECT_EQ(errors[1] + "\n", kPlain.error("Could not complete submission of dSYM at " + dsym() + ": " + error));
    EXPECT_NE(error.find(submitFailure(dsym(), networkError)), std::string::npos)
        << "error: " << error << "\nexpected within it: " << submitFailure(dsym(), networkError);
    EXPECT_EQ(result.out.find("Successfully"), std::string::npos) << result.out;
    EXPECT_TRUE(result.out.ends_with(errors[1] + "\n")) << "the last line was cut: " << result.out;
    EXPECT_EQ(result.err, "");
    expectTemporaryDirectoryEmpty();
  }

  void expectUploaded(const RunResult& result) {
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_TRUE(result.out.ends_with(kPlain.uploaded())) << result.out;
    EXPECT_EQ(countOccurrences(result.out, "error: "), 0u) << result.out;
    expectTemporaryDirectoryEmpty();
  }

  void expectTemporaryDirectoryEmpty() {
    EXPECT_EQ(filesIn(tmp_.path()), std::vector<std::string>{}) << "left behind in TMPDIR";
  }

  // The debug lines announcing retries 1/10 .. n/10, in order.
  static std::vector<std::string> retryLines(const std::string& out) {
    std::vector<std::string> lines;
    for (const auto& line : linesOf(out))
      if (line.starts_with("Retrying symbol upload")) lines.push_back(line);
    return lines;
  }
  static std::vector<std::string> expectedRetryLines(int count) {
    std::vector<std::string> lines;
    for (int i = 1; i <= count; ++i)
      lines.push_back("Retrying symbol upload with number of retries: " + std::to_string(i) + "/10");
    return lines;
  }
  static std::vector<std::string> counterHeaders(int count) {
    std::vector<std::string> values;
    for (int i = 0; i < count; ++i) values.push_back(std::to_string(i) + "/10");
    return values;
  }

  // How many logged requests ended with the outcome line.
  static std::size_t outcomes(const FakeServiceProcess& service, const std::string& outcome) {
    return countOccurrences(service.requestLog(), "\n=> " + outcome + "\n");
  }

  TempDir tmp_;
};

TEST_F(NetworkFaultsTest, ConnectionRefusedIsRetriedUntilTheLimitThenStatus8) {
  const std::string base = "http://127.0.0.1:" + std::to_string(unusedLoopbackPort());
  RunResult result = run(base, kQuick);
  EXPECT_EQ(retryLines(result.out), expectedRetryLines(10)) << result.out;
  expectFailedRun(result, maximumAttemptsError(uploadURL(base)));
}

// The service resets the connection once the request's head has arrived,
// with its body unread: the client sees the connection reset while it sends
// or waits for the answer.
TEST_F(NetworkFaultsTest, ConnectionResetMidRequestIsRetried) {
  // Reset twice, then accepted: the third attempt carries 2/10.
  {
    FakeServiceProcess service({"--reset-first", "2", "--reset-after-bytes", "0"});
    ASSERT_TRUE(service.started());
    RunResult result = run(service.baseURL(), kQuick);
    expectUploaded(result);
    EXPECT_EQ(retryLines(result.out), expectedRetryLines(2)) << result.out;
    EXPECT_EQ(service.loggedHeaderValues("X-Vantrel-Retries"), counterHeaders(3));
    EXPECT_EQ(outcomes(service, "reset after 0 bytes"), 2u) << service.requestLog();
    EXPECT_EQ(outcomes(service, "200"), 1u) << service.requestLog();
  }
  // Reset every time: eleven attempts, then the retry limit.
  {
    FakeServiceProcess service({"--reset-first", "1000", "--reset-after-bytes", "0"});
    ASSERT_TRUE(service.started());
    RunResult result = run(service.baseURL(), kQuick);
    EXPECT_EQ(service.loggedRequestCount(), 11u);
    EXPECT_EQ(outcomes(service, "reset after 0 bytes"), 11u) << service.requestLog();
    EXPECT_EQ(retryLines(result.out), expectedRetryLines(10)) << result.out;
    expectFailedRun(result, maximumAttemptsError(uploadURL(service.baseURL())));
  }
}

TEST_F(NetworkFaultsTest, SilentServiceTimesOutAndIsRetried) {
  // Once silent, then answered: the time-out counts as retryable.
  {
    FakeServiceProcess service({"--silent-first", "1"});
    ASSERT_TRUE(service.started());
    RunResult result = run(service.baseURL(), kQuick);
    expectUploaded(result);
    EXPECT_EQ(retryLines(result.out), expectedRetryLines(1)) << result.out;
    EXPECT_EQ(service.loggedHeaderValues("X-Vantrel-Retries"), counterHeaders(2));
  }
  // Never answering: eleven time-outs, then the retry limit. Each attempt
  // waits the shortened idle time-out, so the run takes a few seconds.
  {
    FakeServiceProcess service({"--silent-first", "1000"});
    ASSERT_TRUE(service.started());
    auto started = std::chrono::steady_clock::now();
    RunResult result = run(service.baseURL(), kQuick);
    auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    EXPECT_EQ(service.loggedRequestCount(), 11u);
    EXPECT_EQ(outcomes(service, "silent"), 11u) << service.requestLog();
    EXPECT_GE(seconds, 11 * 0.4) << "each attempt waits for the idle time-out";
    EXPECT_EQ(retryLines(result.out), expectedRetryLines(10)) << result.out;
    expectFailedRun(result, maximumAttemptsError(uploadURL(service.baseURL())));
  }
}

TEST_F(NetworkFaultsTest, TestTimeCeilingsCannotLengthenOrDisableTheWaits) {
  // A ceiling beyond the minute (or nonsense) is ignored, so against a
  // silent service the run still gives up; with the retry delay left alone
  // the first retry's wait of about 2 s is there too. The idle time-out is
  // shortened here only so that the run stays short.
  FakeServiceProcess service({"--silent-first", "1"});
  ASSERT_TRUE(service.started());
  auto started = std::chrono::steady_clock::now();
  RunResult result = run(service.baseURL(), {{"SYMLIFT_TEST_IDLE_TIMEOUT_MS", "300"},
                                             {"SYMLIFT_TEST_MAX_RETRY_DELAY_MS", "3600000"}});
  auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  expectUploaded(result);
  EXPECT_GE(seconds, 0.3 + 2 * 0.9) << "the back-off before the retry was cut";
  EXPECT_LT(seconds, 30);
  EXPECT_EQ(service.loggedRequestCount(), 2u);
}

TEST_F(NetworkFaultsTest, TooManyRequestsWaitsForRetryAfterButAtLeastTwoSeconds) {
  // The wait is the larger of 2 s and the service's "Retry-After", times a
  // jitter in [0.9, 1.1): about 3 s for 3, and 2 s (not 1) for 1.
  for (const auto& [retryAfter, least] : std::vector<std::pair<std::string, double>>{{"3", 2.7}, {"1", 1.8}}) {
    SCOPED_TRACE("Retry-After: " + retryAfter);
    FakeServiceProcess service({"--fail-first", "1", "--fail-status", "429", "--retry-after", retryAfter});
    ASSERT_TRUE(service.started());
    auto started = std::chrono::steady_clock::now();
    RunResult result = run(service.baseURL());  // no test ceilings: the real wait
    auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    expectUploaded(result);
    EXPECT_GE(seconds, least);
    EXPECT_LT(seconds, least + 15) << "loose: the machine may be busy";
    EXPECT_EQ(outcomes(service, "429"), 1u) << service.requestLog();
    EXPECT_EQ(service.loggedHeaderValues("X-Vantrel-Retries"), counterHeaders(2));
    EXPECT_EQ(retryLines(result.out), expectedRetryLines(1)) << result.out;
  }
}

TEST_F(NetworkFaultsTest, ServerErrorStormExhaustsTheRetries) {
  for (const char* status : {"500", "503"}) {
    SCOPED_TRACE(status);
    FakeServiceProcess service({"--fail-first", "1000", "--fail-status", status});
    ASSERT_TRUE(service.started());
    RunResult result = run(service.baseURL(), kQuick);
    EXPECT_EQ(service.loggedHeaderValues("X-Vantrel-Retries"), counterHeaders(11));
    EXPECT_EQ(outcomes(service, status), 11u) << service.requestLog();
    EXPECT_EQ(retryLines(result.out), expectedRetryLines(10)) << result.out;
    expectFailedRun(result, maximumAttemptsError(uploadURL(service.baseURL())));
  }
}

TEST_F(NetworkFaultsTest, RedirectLoopEndsWithTooManyRedirectsWithoutRetry) {
  FakeServiceProcess service({"--redirect-first", "1000"});
  ASSERT_TRUE(service.started());
  RunResult result = run(service.baseURL(), kQuick);
  // The first request and sixteen redirects, each the same PUT again.
  EXPECT_EQ(service.loggedRequestCount(), 17u) << service.requestLog();
  EXPECT_EQ(outcomes(service, "307"), 17u);
  EXPECT_EQ(countOccurrences(service.requestLog(), " PUT /v1/project/-/app/"), 17u);
  EXPECT_EQ(retryLines(result.out), std::vector<std::string>{}) << result.out;
  expectFailedRun(result, transportErrorStart(-1007, "too many HTTP redirects", uploadURL(service.baseURL()), 47));
}

// The certificate is checked whatever the environment says: variables that
// switch verification off in other tools change nothing here.
TEST_F(NetworkFaultsTest, UntrustedCertificateFailsOnceWhateverTheEnvironmentSays) {
  if (!haveProgram("openssl")) GTEST_SKIP() << "openssl is needed to make a test CA";
  TestCertificates certificates;
  ASSERT_TRUE(certificates.made);
  FakeServiceProcess service({"--tls-cert", certificates.serverCertificate, "--tls-key", certificates.serverKey}, true);
  ASSERT_TRUE(service.started());
  // A real trust store that does not hold the test CA.
  TempDir other;
  TestCertificates stranger;
  ASSERT_TRUE(stranger.made);

  std::map<std::string, std::string> environment = kQuick;
  environment["SSL_CERT_FILE"] = stranger.caCertificate;
  environment["SSL_CERT_DIR"] = other.str();
  for (const auto& [variable, value] : std::map<std::string, std::string>{
           {"CURL_INSECURE", "1"}, {"SSL_NO_VERIFY", "1"}, {"GIT_SSL_NO_VERIFY", "1"},
           {"CURLOPT_SSL_VERIFYPEER", "0"}, {"CURLOPT_SSL_VERIFYHOST", "0"}, {"PYTHONHTTPSVERIFY", "0"},
           {"NODE_TLS_REJECT_UNAUTHORIZED", "0"}, {"SYMLIFT_INSECURE", "1"}, {"SSL_VERIFY", "0"}})
    environment[variable] = value;
  RunResult result = run(service.baseURL(), environment);
  EXPECT_EQ(retryLines(result.out), std::vector<std::string>{}) << "a certificate failure is not retried";
  EXPECT_EQ(service.loggedRequestCount(), 0u) << "no request may pass an untrusted handshake";
  expectFailedRun(result, transportErrorStart(-1203,
                                               "The certificate for this server was signed by an unknown "
                                               "certifying authority.",
                                               uploadURL(service.baseURL()), 60));

  // The same service with its CA trusted takes the upload: the failure
  // above was the certificate's, not the service's.
  environment["SSL_CERT_FILE"] = certificates.caCertificate;
  RunResult trusted = run(service.baseURL(), environment);
  expectUploaded(trusted);
  EXPECT_EQ(service.loggedRequestCount(), 1u);
}

}  // namespace
}  // namespace symlift::testing::e2e
