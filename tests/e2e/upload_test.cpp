// The real symlift binary uploading to the local stand-in service: bundles,
// folders and zip archives, and convert-only runs. Every run gets a fresh
// TMPDIR so that leftovers show. (Failing uploads: network_faults_test.)
//
// What an upload run prints, with the debug output on, when the upload
// succeeds and when it fails: never the request body (the gzip bytes or the
// cSYM inside them), never a request header or response body, and the app
// identifier only in the lines that are meant to show it (the debug block,
// the upload URL and an error's failing URL). That the retired API key is
// never echoed is pinned by the exact output of the mode tables.

#include <gtest/gtest.h>

#include <regex>

#include "e2e/manual_run.h"
#include "e2e/output_lines.h"
#include "operations/pipeline_test_support.h"

namespace symlift::testing::e2e {
namespace {

namespace fs = std::filesystem;

const Lines kPlain;

class UploadTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(service_.started()); }
  RunResult run(const std::vector<std::string>& options, const std::vector<std::string>& paths,
                const std::map<std::string, std::string>& extra = {}) {
    return runClean(byHand(options, paths), tmp_.str(), service_.baseURL(), extra, work_.str());
  }
  // The decoded cSYMs the service stored, by UUID.
  std::map<std::string, std::string> storedCSYMs() const {
    std::map<std::string, std::string> csyms;
    for (const auto& [name, gzip] : storedUploads(service_))
      csyms[name.substr(name.size() - 8 - 32, 32)] = gunzip(gzip).value_or("(not gzip)");
    return csyms;
  }

  FakeServiceProcess service_;
  TempDir work_;  // working directory of the runs
  TempDir tmp_;   // their TMPDIR
};

TEST_F(UploadTest, FatDSYMUploadsExactlyWhatAConvertOnlyRunWrites) {
  // Convert only: the cSYM and gzip files stay, nothing is sent.
  RunResult convert = run({"-c"}, {fatAppDSYM()});
  EXPECT_EQ(convert.status, 0) << convert.out;
  EXPECT_EQ(convert.out, kPlain.uploaded());
  EXPECT_EQ(service_.loggedRequestCount(), 0u);
  std::map<std::string, std::string> converted;
  std::size_t gzipFiles = 0;
  for (const auto& name : entriesBelow(tmp_.path())) {
    std::smatch match;
    if (std::regex_match(name, match, std::regex("(arm64|x86_64)-([0-9a-f]{32})\\.csym")))
      converted[match[2]] = readFile(tmp_.path() / name);
    else if (name.ends_with(".zip"))
      ++gzipFiles;
    fs::remove(tmp_.path() / name);
  }
  ASSERT_EQ(converted.size(), 2u);
  EXPECT_EQ(gzipFiles, 2u);

  // Upload: one PUT per slice, the bodies are the same cSYMs gzipped, and
  // the temporary directory is left as it was found.
  RunResult upload = run({}, {fatAppDSYM()});
  EXPECT_EQ(upload.status, 0) << upload.out;
  EXPECT_EQ(storedCSYMs(), converted);
  for (const auto& [uuid, text] : converted)
    EXPECT_NE(
        upload.out.find(" with UUID " + uuid + " in dSYM: " + fatAppDSYM() + "/Contents/Resources/DWARF/FatApp\n"),
        std::string::npos)
        << upload.out;
  EXPECT_EQ(countOccurrences(upload.out, "Successfully submitted symbols for architecture "), 2u) << upload.out;
  EXPECT_TRUE(upload.out.ends_with(kPlain.uploaded())) << upload.out;
  EXPECT_EQ(service_.loggedHeaderValues("X-Vantrel-Retries"), (std::vector<std::string>{"0/10", "0/10"}));
  EXPECT_EQ(entriesBelow(tmp_.path()), std::vector<std::string>{});
  EXPECT_EQ(upload.err, "");
}

TEST_F(UploadTest, FoldersAreSearchedDeeply) {
  copyFixture("Hello.dSYM", work_.path() / "products/HELLO.DSYM");  // any case
  copyFixture("FatApp.dSYM", work_.path() / "products/nested/deeper/FatApp.dSYM");
  work_.write("products/README.txt", "not a dSYM");
  work_.write("readme-only/README.txt", "not a dSYM");
  fs::create_directories(work_.path() / "empty");

  RunResult result = run({}, {"products", "readme-only", "empty"});
  EXPECT_EQ(result.status, 0) << result.out;
  EXPECT_EQ(storedCSYMs().size(), 3u);  // one thin and one fat dSYM
  EXPECT_EQ(countOccurrences(result.out, "Successfully submitted symbols"), 3u) << result.out;
  // Neither readme is mentioned; only the empty folder is reported.
  EXPECT_EQ(countOccurrences(result.out, "warning: "), 1u) << result.out;
  EXPECT_NE(result.out.find(kPlain.warning("No dSYMs found in empty")), std::string::npos) << result.out;
}

TEST_F(UploadTest, ZipArchivesAreUnpackedSearchedAndRemoved) {
  if (!haveProgram("zip") || !haveProgram("unzip")) GTEST_SKIP() << "zip and unzip are needed";
  // The archive-metadata copy would be a second upload if it were not skipped.
  copyFixture("Hello.dSYM", work_.path() / "pack/Hello.dSYM");
  copyFixture("Hello.dSYM", work_.path() / "pack/__MACOSX/Hello.dSYM");
  ASSERT_TRUE(zipFolder(work_.path() / "pack", work_.path() / "Symbols.zip"));

  RunResult result = run({"-d"}, {"Symbols.zip"});
  EXPECT_EQ(result.status, 0) << result.out;
  EXPECT_EQ(service_.loggedRequestCount(), 1u);
  EXPECT_NE(result.out.find("Found archive at path: Symbols.zip\n"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("Skipping OS X archive metadata file: " + tmp_.str() + "/Symbols.zip.unzipped/__MACOSX\n"),
            std::string::npos)
      << result.out;
  EXPECT_EQ(entriesBelow(tmp_.path()), std::vector<std::string>{});

  // Convert-only keeps the unpacked files for the user.
  RunResult kept = run({"-c"}, {"Symbols.zip"});
  EXPECT_EQ(kept.status, 0) << kept.out;
  EXPECT_TRUE(fs::is_directory(tmp_.path() / "Symbols.zip.unzipped/Hello.dSYM/Contents/Resources/DWARF"));
  EXPECT_EQ(service_.loggedRequestCount(), 1u);

  // A file that unzip cannot read ends the run.
  work_.write("Broken.zip", "PK\x03\x04 this is not really an archive");
  RunResult broken = run({}, {"Broken.zip"});
  EXPECT_EQ(broken.status, 11) << broken.out;
  EXPECT_TRUE(broken.out.starts_with("error: Failed to unzip archive at Broken.zip")) << broken.out;
  EXPECT_EQ(countOccurrences(broken.out, "error: "), 1u) << broken.out;

  // Without unzip on the PATH nothing can be unpacked.
  RunResult noUnzip = run({}, {"Symbols.zip"}, {{"PATH", "/nonexistent"}});
  EXPECT_EQ(noUnzip.status, 10) << noUnzip.out;
  EXPECT_EQ(noUnzip.out, kPlain.error("Could not find \u2018unzip\u2018 command"));
}

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
