// What an upload run prints, with the debug output on, when the upload
// succeeds and when it fails: never the request body (the gzip bytes or the
// cSYM inside them), never a request header or response body, and the app
// identifier only in the lines that are meant to show it (the debug block,
// the upload URL and an error's failing URL). That the retired API key is
// never echoed is pinned by the exact output of the mode tables.

#include <gtest/gtest.h>

#include <regex>

#include "e2e/manual_run.h"
#include "operations/pipeline_test_support.h"

namespace symlift::testing::e2e {
namespace {

constexpr const char* kSecretApp = "1:31337:ios:c0ffee5ecret";

std::string hex(const std::string& bytes) {
  std::string text;
  for (unsigned char c : bytes) text += std::string{"0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 15]};
  return text;
}

class UploadSecretsTest : public ::testing::Test {
 protected:
  RunResult run(const std::string& endpoint, const std::vector<std::string>& options) {
    return runClean(byHand(options, {fatAppDSYM()}, kSecretApp), tmp_.str(), endpoint,
                    {{"SYMLIFT_TEST_MAX_RETRY_DELAY_MS", "10"}});
  }

  // The app identifier appears only where a message is meant to show it:
  // the debug block's line, the upload URL's debug line, and the failing
  // URL of a printed error (once per failing-URL key).
  static void expectAppIdentifierOnlyWhereDefined(const std::string& out, const std::string& base) {
    const std::string urlStart = base + "/v1/project/-/app/" + kSecretApp + "/upload/native/";
    for (const std::string& line : linesOf(out)) {
      const std::size_t count = countOccurrences(line, kSecretApp);
      if (count == 0 || line == std::string("Omvara App ID: ") + kSecretApp) continue;
      if (line.starts_with("Uploading cSYM to " + urlStart) && count == 1) continue;
      if (line.find("error: ") != std::string::npos) {
        EXPECT_EQ(count, countOccurrences(line, "NSErrorFailingURLStringKey=" + urlStart) +
                             countOccurrences(line, "NSErrorFailingURLKey=" + urlStart))
            << line;
        continue;
      }
      ADD_FAILURE() << "the app identifier in an unexpected line: " << line;
    }
  }

  // Nothing of the request or the answer: no line of the cSYM, none of the
  // gzip bytes (raw or as hex), no request header, no response body.
  static void expectNoRequestContents(const RunResult& result, const std::map<std::string, std::string>& bodies) {
    for (const std::string* text : {&result.out, &result.err}) {
      for (const auto& [name, gzip] : bodies) {
        EXPECT_EQ(text->find(gzip.substr(0, 24)), std::string::npos) << "gzip bytes of " << name;
        EXPECT_EQ(text->find(hex(gzip.substr(0, 16))), std::string::npos) << "gzip bytes of " << name << " as hex";
        auto csym = gunzip(gzip);
        ASSERT_TRUE(csym);
        for (const std::string& line : linesOf(*csym)) {
          if (line.size() >= 8) {
            EXPECT_EQ(text->find(line), std::string::npos) << "cSYM line: " << line;
          }
        }
      }
      for (const char* header : {"X-Vantrel-Retries", "User-Agent", "Content-Length", "Content-Type", "Authorization",
                                 "Bearer", "Host: ", "not found", "injected failure"})
        EXPECT_EQ(text->find(header), std::string::npos) << header << " in: " << *text;
      // The User-Agent's value, "symlift/<version>" (a checkout folder named
      // symlift puts "symlift/" into every printed path).
      EXPECT_FALSE(std::regex_search(*text, std::regex("symlift/[0-9]"))) << *text;
    }
  }

  TempDir tmp_;
};

TEST_F(UploadSecretsTest, NeitherSuccessNorFailurePrintsTheRequest) {
  FakeServiceProcess service;
  ASSERT_TRUE(service.started());
  RunResult plain = run(service.baseURL(), {});
  ASSERT_EQ(plain.status, 0) << plain.out;
  const auto bodies = storedUploads(service);
  ASSERT_EQ(bodies.size(), 2u);
  EXPECT_EQ(countOccurrences(plain.out, kSecretApp), 0u) << "without -d nothing names the app: " << plain.out;
  expectNoRequestContents(plain, bodies);

  RunResult debug = run(service.baseURL(), {"-d"});
  ASSERT_EQ(debug.status, 0) << debug.out;
  EXPECT_EQ(countOccurrences(debug.out, "Uploading cSYM to "), 2u) << debug.out;
  expectAppIdentifierOnlyWhereDefined(debug.out, service.baseURL());
  expectNoRequestContents(debug, bodies);

  // Refused (404 for another path), then failing until the retries run out:
  // the same bodies are sent and still not printed.
  RunResult refused = run(service.baseURL() + "/elsewhere", {"-d"});
  EXPECT_EQ(refused.status, 8) << refused.out;
  expectAppIdentifierOnlyWhereDefined(refused.out, service.baseURL() + "/elsewhere");
  expectNoRequestContents(refused, bodies);

  FakeServiceProcess failing({"--fail-first", "1000"});
  ASSERT_TRUE(failing.started());
  RunResult exhausted = run(failing.baseURL(), {"-d"});
  EXPECT_EQ(exhausted.status, 8) << exhausted.out;
  EXPECT_EQ(failing.loggedRequestCount(), 22u);  // two slices, eleven attempts each
  expectAppIdentifierOnlyWhereDefined(exhausted.out, failing.baseURL());
  expectNoRequestContents(exhausted, bodies);
}

}  // namespace
}  // namespace symlift::testing::e2e
