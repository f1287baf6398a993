// What an upload run prints, with the debug output on, when the upload
// succeeds and when it fails: never the request body (the gzip bytes or the
// cSYM inside them), never a request header, never the retired API key, and
// the app identifier only in the lines that are meant to show it (the debug
// block, the upload URL and an error's failing URL).

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "network/fake_service_process.h"
#include "operations/pipeline_test_support.h"
#include "support/test_support.h"

namespace symlift::testing::e2e {
namespace {

namespace fs = std::filesystem;
constexpr const char* kApp = "1:31337:ios:c0ffee5ecret";

std::string hex(const std::string& bytes) {
  static const char* digits = "0123456789abcdef";
  std::string text;
  for (unsigned char c : bytes) {
    text.push_back(digits[c >> 4]);
    text.push_back(digits[c & 15]);
  }
  return text;
}

class UploadSecretsTest : public ::testing::Test {
 protected:
  RunResult run(const std::string& endpoint, std::vector<std::string> extraArguments = {}) {
    std::vector<std::string> arguments{"-sdv", "-ai", kApp, "-p", "ios"};
    arguments.insert(arguments.end(), extraArguments.begin(), extraArguments.end());
    arguments.push_back("--");
    arguments.push_back((fixturesDir() / "FatApp.dSYM").string());
    RunOptions options;
    options.environment = std::map<std::string, std::string>{{"PATH", "/usr/bin:/bin"},
                                                             {"TMPDIR", tmp_.str()},
                                                             {"VantrelUploadEndpoint", endpoint},
                                                             {"SYMLIFT_TEST_MAX_RETRY_DELAY_MS", "10"}};
    options.timeoutSeconds = 90;
    return runSymlift(arguments, options);
  }

  // The app identifier appears only where a message is meant to show it:
  // the debug block's line, the upload URL's debug line, and the failing
  // URL of a printed error (once per failing-URL key).
  static void expectAppIdentifierOnlyWhereDefined(const std::string& out, const std::string& base) {
    const std::string urlStart = base + "/v1/project/-/app/" + kApp + "/upload/native/";
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
      const std::size_t count = countOccurrences(line, kApp);
      if (count == 0) continue;
      if (line == std::string("Omvara App ID: ") + kApp) continue;
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

  // Nothing of the request: no line of the cSYM, none of the gzip bytes
  // (raw or as hex), no request header.
  static void expectNoRequestContents(const RunResult& result, const std::map<std::string, std::string>& bodies) {
    for (const std::string* text : {&result.out, &result.err}) {
      for (const auto& [uuid, gzip] : bodies) {
        EXPECT_EQ(text->find(gzip.substr(0, 24)), std::string::npos) << "gzip bytes of " << uuid;
        EXPECT_EQ(text->find(hex(gzip.substr(0, 16))), std::string::npos) << "gzip bytes of " << uuid << " as hex";
        auto csym = gunzip(gzip);
        ASSERT_TRUE(csym);
        std::istringstream lines(*csym);
        for (std::string line; std::getline(lines, line);) {
          if (line.size() < 8) continue;
          EXPECT_EQ(text->find(line), std::string::npos) << "cSYM line: " << line;
        }
      }
      for (const char* header : {"X-Vantrel-Retries", "User-Agent", "Content-Length", "Content-Type",
                                 "Authorization", "Bearer", "Host: "})
        EXPECT_EQ(text->find(header), std::string::npos) << header << " in: " << *text;
      // The User-Agent's value, "symlift/<version>" (a checkout folder named
      // symlift puts "symlift/" into every printed path).
      EXPECT_FALSE(std::regex_search(*text, std::regex("symlift/[0-9]"))) << *text;
    }
  }

  // The gzip bodies a service stored, by file name.
  static std::map<std::string, std::string> storedBodies(const FakeServiceProcess& service) {
    std::map<std::string, std::string> bodies;
    for (const auto& entry : fs::directory_iterator(service.storePath()))
      if (entry.path().string().ends_with(".csym.gz"))
        bodies[entry.path().filename().string()] = readFile(entry.path());
    return bodies;
  }

  TempDir tmp_;
};

TEST_F(UploadSecretsTest, NeitherSuccessNorFailurePrintsTheRequest) {
  FakeServiceProcess service;
  ASSERT_TRUE(service.started());

  RunResult plain = run(service.baseURL());
  ASSERT_EQ(plain.status, 0) << plain.out;
  const auto bodies = storedBodies(service);
  ASSERT_EQ(bodies.size(), 2u);
  EXPECT_EQ(countOccurrences(plain.out, kApp), 0u) << "without -d nothing names the app: " << plain.out;
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
  EXPECT_EQ(refused.out.find("not found"), std::string::npos) << "the response body is not printed either";

  FakeServiceProcess failing({"--fail-first", "1000"});
  ASSERT_TRUE(failing.started());
  RunResult exhausted = run(failing.baseURL(), {"-d"});
  EXPECT_EQ(exhausted.status, 8) << exhausted.out;
  EXPECT_EQ(failing.loggedRequestCount(), 22u);  // two slices, eleven attempts each
  expectAppIdentifierOnlyWhereDefined(exhausted.out, failing.baseURL());
  expectNoRequestContents(exhausted, bodies);
  EXPECT_EQ(exhausted.out.find("injected failure"), std::string::npos);
}

TEST_F(UploadSecretsTest, RetiredAPIKeyIsNeverEchoed) {
  const std::string key = "AIzaSyD-not-a-real-key-31337";
  for (bool debug : {false, true}) {
    std::vector<std::string> arguments{"-a", key};
    if (debug) arguments.push_back("-d");
    RunResult result = run("http://127.0.0.1:9", arguments);
    EXPECT_EQ(result.status, 18) << result.out;
    EXPECT_EQ(result.out.find(key), std::string::npos) << result.out;
    EXPECT_EQ(result.err.find(key), std::string::npos) << result.err;
  }
}

}  // namespace
}  // namespace symlift::testing::e2e
