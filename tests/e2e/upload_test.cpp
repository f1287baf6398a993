// The real symlift binary uploading to the local stand-in service: bundles,
// folders and zip archives, convert-only runs, retries, failures and HTTPS.
// Every run gets a fresh TMPDIR so that leftovers show.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <regex>

#include "e2e/output_lines.h"
#include "network/fake_service_process.h"
#include "operations/pipeline_test_support.h"
#include "support/test_support.h"

namespace symlift::testing::e2e {
namespace {

namespace fs = std::filesystem;
const Lines kPlain{false};
constexpr const char* kApp = "1:99:ios:e2e";

std::vector<std::string> filesIn(const fs::path& dir) {
  std::vector<std::string> names;
  for (const auto& entry : fs::recursive_directory_iterator(dir))
    names.push_back(fs::relative(entry.path(), dir).string());
  std::sort(names.begin(), names.end());
  return names;
}

class UploadTest : public ::testing::Test {
 protected:
  // symlift with only PATH, its own TMPDIR and the endpoint of the service.
  // The dSYM validator's warnings are not what these runs are about.
  RunResult run(std::vector<std::string> arguments, const std::string& endpoint,
                std::map<std::string, std::string> extra = {}) {
    arguments.insert(arguments.begin(), "-sdv");
    RunOptions options;
    options.environment = std::map<std::string, std::string>{
        {"PATH", "/usr/bin:/bin"}, {"TMPDIR", tmp_.str()}, {"VantrelUploadEndpoint", endpoint}};
    for (auto& [key, value] : extra) (*options.environment)[key] = value;
    options.workingDirectory = work_.str();
    options.timeoutSeconds = 90;
    return runSymlift(arguments, options);
  }

  fs::path copyFixture(const std::string& name, const fs::path& to) {
    fs::create_directories(to.parent_path());
    fs::copy(fixturesDir() / name, to, fs::copy_options::recursive);
    return to;
  }

  // The decoded bodies the service stored, by UUID.
  static std::map<std::string, std::string> storedCSYMs(const FakeServiceProcess& service) {
    std::map<std::string, std::string> bodies;
    if (!fs::exists(service.storePath())) return bodies;
    for (const auto& entry : fs::directory_iterator(service.storePath())) {
      const std::string name = entry.path().filename().string();
      if (!name.ends_with(".csym.gz")) continue;
      const std::string uuid = name.substr(name.size() - 8 - 32, 32);
      bodies[uuid] = gunzip(readFile(entry.path())).value_or("(not gzip)");
    }
    return bodies;
  }

  TempDir work_;  // working directory of the runs
  TempDir tmp_;   // their TMPDIR
};

TEST_F(UploadTest, FatDSYMUploadsExactlyWhatAConvertOnlyRunWrites) {
  FakeServiceProcess service;
  ASSERT_TRUE(service.started());
  const std::string dsym = (fixturesDir() / "FatApp.dSYM").string();

  // Convert only: the cSYM and gzip files stay, nothing is sent.
  RunResult convert = run({"-ai", kApp, "-p", "ios", "-c", "--", dsym}, service.baseURL());
  EXPECT_EQ(convert.status, 0) << convert.out;
  EXPECT_EQ(convert.out, kPlain.uploaded());
  EXPECT_EQ(service.loggedRequestCount(), 0u);
  std::map<std::string, std::string> converted;
  std::size_t gzipFiles = 0;
  for (const auto& name : filesIn(tmp_.path())) {
    const std::smatch match = [&] {
      std::smatch m;
      std::regex_match(name, m, std::regex("(arm64|x86_64)-([0-9a-f]{32})\\.csym"));
      return m;
    }();
    if (!match.empty())
      converted[match[2]] = readFile(tmp_.path() / name);
    else if (name.ends_with(".zip"))
      ++gzipFiles;
  }
  ASSERT_EQ(converted.size(), 2u) << ::testing::PrintToString(filesIn(tmp_.path()));
  EXPECT_EQ(gzipFiles, 2u);
  for (const auto& name : filesIn(tmp_.path())) fs::remove_all(tmp_.path() / name);

  // Upload: one PUT per slice, the bodies are the same cSYMs gzipped, and
  // the temporary directory is left as it was found.
  RunResult upload = run({"-ai", kApp, "-p", "ios", dsym}, service.baseURL());
  EXPECT_EQ(upload.status, 0) << upload.out;
  EXPECT_EQ(storedCSYMs(service), converted);
  for (const auto& [uuid, text] : converted)
    EXPECT_NE(upload.out.find(" with UUID " + uuid + " in dSYM: " + dsym + "/Contents/Resources/DWARF/FatApp\n"),
              std::string::npos)
        << upload.out;
  EXPECT_EQ(countOccurrences(upload.out, "Successfully submitted symbols for architecture "), 2u) << upload.out;
  EXPECT_TRUE(upload.out.ends_with(kPlain.uploaded())) << upload.out;
  EXPECT_EQ(service.loggedHeaderValues("X-Vantrel-Retries"), (std::vector<std::string>{"0/10", "0/10"}));
  EXPECT_EQ(filesIn(tmp_.path()), std::vector<std::string>{});
  EXPECT_EQ(upload.err, "");
}

TEST_F(UploadTest, FoldersAreSearchedDeeply) {
  FakeServiceProcess service;
  ASSERT_TRUE(service.started());
  copyFixture("Hello.dSYM", work_.path() / "products/HELLO.DSYM");  // any case
  copyFixture("FatApp.dSYM", work_.path() / "products/nested/deeper/FatApp.dSYM");
  work_.write("products/README.txt", "not a dSYM");
  work_.write("readme-only/README.txt", "not a dSYM");
  fs::create_directories(work_.path() / "empty");

  RunResult result = run({"-ai", kApp, "-p", "ios", "products", "readme-only", "empty"}, service.baseURL());
  EXPECT_EQ(result.status, 0) << result.out;
  EXPECT_EQ(storedCSYMs(service).size(), 3u);  // one thin and one fat dSYM
  EXPECT_EQ(countOccurrences(result.out, "Successfully submitted symbols"), 3u) << result.out;
  // Neither readme is mentioned; only the empty folder is reported.
  EXPECT_EQ(countOccurrences(result.out, "warning: "), 1u) << result.out;
  EXPECT_NE(result.out.find(kPlain.warning("No dSYMs found in empty")), std::string::npos) << result.out;
}

TEST_F(UploadTest, ZipArchivesAreUnpackedSearchedAndRemoved) {
  if (!haveProgram("zip") || !haveProgram("unzip")) GTEST_SKIP() << "zip and unzip are needed";
  FakeServiceProcess service;
  ASSERT_TRUE(service.started());
  // The archive-metadata copy would be a second upload if it were not skipped.
  copyFixture("Hello.dSYM", work_.path() / "pack/Hello.dSYM");
  copyFixture("Hello.dSYM", work_.path() / "pack/__MACOSX/Hello.dSYM");
  RunOptions inPack;
  inPack.workingDirectory = (work_.path() / "pack").string();
  RunResult zip = runProgram({"/usr/bin/zip", "-qr", "../Symbols.zip", "."}, inPack);
  ASSERT_EQ(zip.status, 0) << zip.err;

  RunResult result = run({"-ai", kApp, "-p", "ios", "-d", "--", "Symbols.zip"}, service.baseURL());
  EXPECT_EQ(result.status, 0) << result.out;
  EXPECT_EQ(service.loggedRequestCount(), 1u);
  EXPECT_NE(result.out.find("Found archive at path: Symbols.zip\n"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("Skipping OS X archive metadata file: " + tmp_.str() + "/Symbols.zip.unzipped/__MACOSX\n"),
            std::string::npos)
      << result.out;
  EXPECT_EQ(filesIn(tmp_.path()), std::vector<std::string>{});

  // Convert-only keeps the unpacked files for the user.
  RunResult kept = run({"-ai", kApp, "-p", "ios", "-c", "--", "Symbols.zip"}, service.baseURL());
  EXPECT_EQ(kept.status, 0) << kept.out;
  EXPECT_TRUE(fs::is_directory(tmp_.path() / "Symbols.zip.unzipped/Hello.dSYM/Contents/Resources/DWARF"));
  EXPECT_EQ(service.loggedRequestCount(), 1u);

  // A file that unzip cannot read ends the run.
  work_.write("Broken.zip", "PK\x03\x04 this is not really an archive");
  RunResult broken = run({"-ai", kApp, "-p", "ios", "--", "Broken.zip"}, service.baseURL());
  EXPECT_EQ(broken.status, 11) << broken.out;
  EXPECT_TRUE(broken.out.starts_with("error: Failed to unzip archive at Broken.zip")) << broken.out;
  EXPECT_EQ(countOccurrences(broken.out, "error: "), 1u) << broken.out;

  // Without unzip on the PATH nothing can be unpacked.
  RunResult noUnzip = run({"-ai", kApp, "-p", "ios", "--", "Symbols.zip"}, service.baseURL(), {{"PATH", "/nonexistent"}});
  EXPECT_EQ(noUnzip.status, 10) << noUnzip.out;
  EXPECT_EQ(noUnzip.out, kPlain.error("Could not find \u2018unzip\u2018 command"));
}

TEST_F(UploadTest, ServiceUnavailableTwiceThenAccepted) {
  FakeServiceProcess service({"--fail-first", "2", "--fail-status", "503"});
  ASSERT_TRUE(service.started());
  const std::string dsym = (fixturesDir() / "Hello.dSYM").string();
  // Takes a few seconds: the back-off between attempts is real.
  RunResult result = run({"-ai", kApp, "-p", "ios", dsym}, service.baseURL());
  EXPECT_EQ(result.status, 0) << result.out;
  EXPECT_EQ(service.loggedHeaderValues("X-Vantrel-Retries"), (std::vector<std::string>{"0/10", "1/10", "2/10"}));
  EXPECT_EQ(storedCSYMs(service).size(), 1u);
  EXPECT_EQ(filesIn(tmp_.path()), std::vector<std::string>{});
}

TEST_F(UploadTest, RefusedUploadEndsTheRunWithStatus8) {
  FakeServiceProcess service;
  ASSERT_TRUE(service.started());
  copyFixture("Hello.dSYM", work_.path() / "Hello.dSYM");
  // The service answers 404 to any other path.
  RunResult result = run({"-ai", kApp, "-p", "ios", "--", "Hello.dSYM", "Hello.dSYM"}, service.baseURL() + "/elsewhere");
  EXPECT_EQ(result.status, 8) << result.out;
  EXPECT_EQ(service.loggedRequestCount(), 1u);  // not retried, and the second dSYM never started
  EXPECT_NE(result.out.find("error: Failed uploading cSYMs due to error: Error Domain="), std::string::npos)
      << result.out;
  EXPECT_NE(result.out.find("error: Could not complete submission of dSYM at Hello.dSYM: Error Domain="),
            std::string::npos)
      << result.out;
  EXPECT_EQ(result.out.find("Successfully uploaded"), std::string::npos) << result.out;
  const std::size_t lastLine = result.out.rfind('\n', result.out.size() - 2) + 1;
  EXPECT_TRUE(result.out.substr(lastLine).starts_with("error: Could not complete submission of dSYM at Hello.dSYM: "))
      << "the last line was cut: " << result.out;
}

TEST_F(UploadTest, HTTPSWithTheServiceCertificateAuthorityOnly) {
  if (!haveProgram("openssl")) GTEST_SKIP() << "openssl is needed to make a test CA";
  TestCertificates certificates;
  ASSERT_TRUE(certificates.made);
  FakeServiceProcess service({"--tls-cert", certificates.serverCertificate, "--tls-key", certificates.serverKey}, true);
  ASSERT_TRUE(service.started());
  const std::string dsym = (fixturesDir() / "Hello.dSYM").string();

  RunResult trusted = run({"-ai", kApp, "-p", "ios", dsym}, service.baseURL(),
                          {{"SSL_CERT_FILE", certificates.caCertificate}});
  EXPECT_EQ(trusted.status, 0) << trusted.out;
  EXPECT_EQ(storedCSYMs(service).size(), 1u);

  // An unknown issuer is not worth another attempt.
  RunResult untrusted = run({"-ai", kApp, "-p", "ios", "-d", "--", dsym}, service.baseURL(),
                            {{"SSL_CERT_FILE", "/dev/null"}, {"SSL_CERT_DIR", "/nonexistent"}});
  EXPECT_EQ(untrusted.status, 8) << untrusted.out;
  EXPECT_EQ(untrusted.out.find("Retrying symbol upload"), std::string::npos) << untrusted.out;
  EXPECT_EQ(service.loggedRequestCount(), 1u);
}

TEST_F(UploadTest, DWARFFileWithoutSlicesIsLeftOut) {
  FakeServiceProcess service;
  ASSERT_TRUE(service.started());
  const fs::path bundle = work_.path() / "Empty.dSYM";
  fs::create_directories(bundle / "Contents/Resources/DWARF");
  fs::copy_file(fixturesDir() / "edge/fat-empty", bundle / "Contents/Resources/DWARF/Empty");
  RunResult result = run({"-ai", kApp, "-p", "ios", "--", "Empty.dSYM"}, service.baseURL());
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, kPlain.warning("No architecture slices in dSYM at Empty.dSYM/Contents/Resources/DWARF/Empty") +
                            kPlain.uploaded());
  EXPECT_EQ(service.loggedRequestCount(), 0u);
}

}  // namespace
}  // namespace symlift::testing::e2e
