// The dSYM pipeline on the fixture dSYMs: generation, compression, upload to
// the local stand-in service and clean-up, run on real queues.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "support/captured_output.h"
#include "dispatch/thread_pool.h"
#include "console/console_log.h"
#include "network/fake_service_process.h"
#include "network/network_client.h"
#include "network/network_constants.h"
#include "operations/compress_csym_operation.h"
#include "operations/compressed_csym_cache.h"
#include "support/diagnostics.h"
#include "operations/delete_file_operation.h"
#include "dispatch/operation_queue.h"
#include "operations/pipeline_errors.h"
#include "operations/pipeline_test_support.h"
#include "operations/process_dsym_operation.h"
#include "operations/submit_csym_operation.h"
#include "operations/system_version.h"
#include "operations/upload_csym_operation.h"

namespace symlift::operations {
namespace {

using namespace symlift::testing;
namespace fs = std::filesystem;

std::vector<std::pair<std::string, std::string>> slicesOf(const dsym::SUPCodeMappingInfoContainer& container) {
  std::vector<std::pair<std::string, std::string>> slices;
  container.dSYMFile()->enumerateUUIDs(
      [&](const std::optional<std::string>& uuid, const std::string& arch) { slices.emplace_back(*uuid, arch); });
  return slices;
}

std::string failureReason(const support::ErrorPtr& error) {
  if (!error) return "(no error)";
  auto it = error->userInfo.find(support::kLocalizedFailureReasonKey);
  return it == error->userInfo.end() ? "(no reason)" : it->second;
}

// Each test gets its own temporary directory, debug lines on, and the upload
// endpoint pointed at a stand-in service when one is given.
class PipelineTest : public ::testing::Test {
 protected:
  void SetUp() override { console::SYLLogging::sharedInstance().setLogLevel(console::kLogLevelDebug); }
  void TearDown() override {
    console::SYLLogging::sharedInstance().setLogLevel(console::kLogLevelInfo);
    ::unsetenv("VantrelUploadEndpoint");
  }

  std::shared_ptr<network::SUPKITNetworkClient> clientFor(const FakeServiceProcess& service, bool immediateRetries) {
    ::setenv("VantrelUploadEndpoint", service.baseURL().c_str(), 1);
    auto client = network::SUPKITNetworkClient::create(pool_);
    if (client && immediateRetries)
      client->setDelayScheduler([this](std::chrono::nanoseconds, std::function<void()> block) {
        pool_.submit(std::move(block));
      });
    return client;
  }

  // Runs one dSYM operation as the driver does and returns its outcome.
  support::ErrorPtr process(const std::shared_ptr<SUPProcessDSYMOperation>& operation) {
    support::ErrorPtr outcome;
    bool reported = false;
    operation->setAsyncCompletion([&](const support::ErrorPtr& error) {
      outcome = error;
      reported = true;
    });
    dispatch::OperationQueue::create(pool_)->addOperationAndWait(operation);
    EXPECT_TRUE(reported);
    return outcome;
  }

  ScopedTemporaryDirectory tmp_;
  dispatch::ThreadPool pool_;
  support::CleanupRegistry cleanup_;
  CompressedCSYMCache compressed_{pool_};
  PipelineObserver observer_;
  support::DiscardingDiagnosticsSink diagnostics_;
  symbols::SymbolFileCache symbolFiles_{pool_, diagnostics_};
  PipelineContext context_{pool_, cleanup_, compressed_, observer_, symbolFiles_};
};

TEST(SystemVersionTest, TenTenOrLaterCanConvert) {
  EXPECT_FALSE(isSupportedSystemVersion({10, 9, 5}));
  EXPECT_TRUE(isSupportedSystemVersion({10, 10, 0}));
  EXPECT_TRUE(isSupportedSystemVersion({11, 0, 0}));
  EXPECT_FALSE(isSupportedSystemVersion({0, 0, 0}));
  EXPECT_FALSE(isSupportedSystemVersion({9, 99, 0}));
  // What this system reports must let the pipeline run.
  EXPECT_TRUE(isSupportedSystemVersion(operatingSystemVersion()));
}

TEST_F(PipelineTest, ConvertOnlyKeepsEveryFileAndSendsNothing) {
  FakeServiceProcess service;
  ASSERT_TRUE(service.started());
  auto client = clientFor(service, false);
  auto container = containerForBundle(fixturesDir() / "FatApp.dSYM", "FatApp", /*convertOnly=*/true);
  auto operation = std::make_shared<SUPProcessDSYMOperation>(context_);
  operation->setCodeMappingInfo(container);
  operation->setNetworkClient(client);

  CapturedOutput out(STDOUT_FILENO);
  EXPECT_EQ(process(operation), nullptr);
  const std::string log = out.take();

  std::vector<std::string> expectedFiles;
  for (const auto& [uuid, arch] : slicesOf(*container)) {
    const std::string csym = (tmp_.path() / (arch + "-" + uuid + ".csym")).string();
    EXPECT_NE(log.find("Skipping deletion of cSYM at path " + csym + "\n"), std::string::npos) << log;
    EXPECT_NE(log.find("Skipping upload of cSYM with uuid " + uuid + "\n"), std::string::npos) << log;
    expectedFiles.push_back(arch + "-" + uuid + ".csym");
  }
  EXPECT_EQ(log.find("Successfully submitted"), std::string::npos) << log;
  EXPECT_EQ(service.loggedRequestCount(), 0u);

  // Each cSYM stays, next to a gzip file (named .zip) holding exactly it.
  std::vector<std::string> names = tmp_.fileNames();
  ASSERT_EQ(names.size(), 4u) << ::testing::PrintToString(names);
  std::vector<std::string> csyms, decoded;
  for (const auto& name : names) {
    const std::string bytes = readFile(tmp_.path() / name);
    if (name.ends_with(".csym")) {
      csyms.push_back(bytes);
    } else {
      EXPECT_TRUE(name.ends_with(".zip")) << name;
      decoded.push_back(gunzip(bytes).value_or("(not gzip)"));
    }
  }
  std::sort(csyms.begin(), csyms.end());
  std::sort(decoded.begin(), decoded.end());
  EXPECT_EQ(decoded, csyms);
  for (const auto& file : expectedFiles) EXPECT_TRUE(fs::exists(tmp_.path() / file)) << file;

  auto attributes = operation->processDSYMAttributes();
  EXPECT_EQ(attributes.count(kProcessDSYMAttributeSubmissionTool), 0u);  // plain init
  EXPECT_EQ(attributes[kProcessDSYMAttributeParsed], "YES");
  EXPECT_EQ(attributes[kProcessDSYMAttributeCanGenerate], "YES");
  EXPECT_EQ(attributes[kProcessDSYMAttributeUploadedAll], "YES");
}

TEST_F(PipelineTest, UploadsEverySliceThenNothingIsLeftBehind) {
  FakeServiceProcess service;
  ASSERT_TRUE(service.started());
  auto client = clientFor(service, false);
  auto container = containerForBundle(fixturesDir() / "FatApp.dSYM", "FatApp", false, "1:7:ios:ab");
  auto operation = SUPProcessDSYMOperation::initWithCodeMappingInfo(context_, container, client);

  CapturedOutput out(STDOUT_FILENO);
  EXPECT_EQ(process(operation), nullptr);
  const std::string log = out.take();

  const std::string dwarf = container->URL()->string();
  for (const auto& [uuid, arch] : slicesOf(*container)) {
    EXPECT_NE(log.find("Successfully submitted symbols for architecture " + arch + " with UUID " + uuid +
                       " in dSYM: " + dwarf + "\n"),
              std::string::npos)
        << log;
    // The store keeps the body exactly as received: a gzip of the slice's cSYM.
    auto body = gunzip(readFile(fs::path(service.storePath()) / ("1:7:ios:ab-" + uuid + ".csym.gz")));
    ASSERT_TRUE(body) << uuid;
    EXPECT_NE(body->substr(0, body->find('\n')).find(uuid), std::string::npos) << *body;
  }
  EXPECT_EQ(service.loggedHeaderValues("X-Vantrel-Retries"), (std::vector<std::string>{"0/10", "0/10"}));
  EXPECT_EQ(service.loggedHeaderValues("User-Agent").at(0), network::SUPNetworkConstants::symbolUploadUserAgent());
  EXPECT_EQ(tmp_.fileNames(), std::vector<std::string>{});

  auto attributes = operation->processDSYMAttributes();
  EXPECT_EQ(attributes[kProcessDSYMAttributeSubmissionTool], "symlift");
  EXPECT_EQ(attributes[kProcessDSYMAttributeUploadedAll], "YES");
}

TEST_F(PipelineTest, SliceThatCannotBeConvertedFailsTheDSYMBeforeAnyUpload) {
  FakeServiceProcess service;
  ASSERT_TRUE(service.started());
  auto client = clientFor(service, false);
  auto container = containerForBundle(fixturesDir() / "FatApp.dSYM", "FatApp", false);
  auto slices = slicesOf(*container);
  ASSERT_EQ(slices.size(), 2u);
  // A folder where the x86_64 cSYM should go: that file cannot be written.
  std::string uuid, arch;
  for (const auto& slice : slices)
    if (slice.second == "x86_64") std::tie(uuid, arch) = slice;
  ASSERT_FALSE(uuid.empty());
  fs::create_directory(tmp_.path() / (arch + "-" + uuid + ".csym"));

  auto operation = SUPProcessDSYMOperation::initWithCodeMappingInfo(context_, container, client);
  CapturedOutput out(STDOUT_FILENO);
  support::ErrorPtr error = process(operation);
  const std::string log = out.take();
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain, kGenerateCSYMErrorDomain);
  EXPECT_EQ(error->code, 1);
  EXPECT_EQ(failureReason(error),
            "Failed to generate cSYMs for architectures: {\n    " + uuid + " = x86_64;\n}");
  EXPECT_NE(log.find("error: Failed uploading cSYMs due to error: "), std::string::npos) << log;
  EXPECT_EQ(service.loggedRequestCount(), 0u);
  EXPECT_EQ(operation->processDSYMAttributes()[kProcessDSYMAttributeUploadedAll], "NO");
}

TEST_F(PipelineTest, DSYMRemovedBeforeProcessingIsReportedAsGone) {
  TempDir copy;
  fs::copy(fixturesDir() / "Hello.dSYM", copy.path() / "Hello.dSYM", fs::copy_options::recursive);
  auto container = containerForBundle(copy.path() / "Hello.dSYM", "Hello", false);
  fs::remove_all(copy.path() / "Hello.dSYM");

  auto operation = std::make_shared<SUPProcessDSYMOperation>(context_);
  operation->setCodeMappingInfo(container);
  support::ErrorPtr error = process(operation);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain, kProcessDSYMErrorDomain);
  EXPECT_EQ(error->code, 2);
  EXPECT_EQ(failureReason(error), "File no longer exists at " + container->URL()->string());
  EXPECT_TRUE(operation->processDSYMAttributes().empty());
}

// Another run may have put a file at the slice's predictable cSYM name: it
// is never read, and a slice this run did not convert fails before anything
// is sent.
TEST_F(PipelineTest, SliceThisRunDidNotConvertFailsAndSendsNothing) {
  auto container = containerForBundle(fixturesDir() / "Hello.dSYM", "Hello", false)->copyWithZone();
  container->setUUID("00000000000000000000000000000000");
  container->setArchitecture("arm64");
  std::ofstream(tmp_.path() / "arm64-00000000000000000000000000000000.csym") << "code_mapping\t1\tplanted\n";
  FakeServiceProcess service;
  ASSERT_TRUE(service.started());
  auto submit = SUPSubmitCSYMOperation::initWithCSYMInfo(context_, container, clientFor(service, false));
  support::ErrorPtr error;
  submit->setAsyncCompletion([&](const support::ErrorPtr& e) { error = e; });
  dispatch::OperationQueue::create(pool_)->addOperationAndWait(submit);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain, kCompressCSYMErrorDomain);
  EXPECT_EQ(failureReason(error),
            "Could not compress cSYM data for uuid 00000000000000000000000000000000, architecture: arm64");
  EXPECT_EQ(service.loggedRequestCount(), 0u);
}

TEST_F(PipelineTest, ServerFailureOutlastingTheRetriesFailsTheSliceWithItsFilesGone) {
  FakeServiceProcess service({"--fail-first", "100", "--fail-status", "503"});
  ASSERT_TRUE(service.started());
  auto client = clientFor(service, /*immediateRetries=*/true);
  auto container = containerForBundle(fixturesDir() / "Hello.dSYM", "Hello", false);
  auto operation = SUPProcessDSYMOperation::initWithCodeMappingInfo(context_, container, client);

  CapturedOutput out(STDOUT_FILENO);
  support::ErrorPtr error = process(operation);
  out.take();
  ASSERT_NE(error, nullptr);
  // The compound collects the slice's submit error.
  ASSERT_EQ(error->errorLists.size(), 1u);
  const auto& sliceErrors = error->errorLists.begin()->second;
  ASSERT_EQ(sliceErrors.size(), 1u);
  EXPECT_EQ(sliceErrors[0]->domain, kSubmitCSYMErrorDomain);
  ASSERT_EQ(sliceErrors[0]->underlyingErrors.size(), 1u);
  EXPECT_EQ(service.loggedRequestCount(), 11u);
  EXPECT_EQ(service.loggedHeaderValues("X-Vantrel-Retries").back(), "10/10");
  EXPECT_EQ(tmp_.fileNames(), std::vector<std::string>{});
}

TEST_F(PipelineTest, UploadRequest) {
  ::setenv("VantrelUploadEndpoint", "http://127.0.0.1:9/base/", 1);
  EXPECT_EQ(SUPUploadCSYMOperation::csymUploadUrlForRmpAppId("1:42:ios:9f", "abc"),
            "http://127.0.0.1:9/base/v1/project/-/app/1:42:ios:9f/upload/native/abc");
  // Only what a path cannot hold is escaped; nothing is added after it.
  EXPECT_EQ(SUPUploadCSYMOperation::csymUploadUrlForRmpAppId("a b?c#d%", "u"),
            "http://127.0.0.1:9/base/v1/project/-/app/a%20b%3Fc%23d%25/upload/native/u");

  auto container = std::make_shared<dsym::SUPCodeMappingInfoContainer>();
  container->setOmvaraAppId("app");
  container->setUUID("uuid");
  container->setData(std::vector<std::uint8_t>{0x1f, 0x8b, 0x00});
  SUPUploadCSYMOperation upload(context_, container, {});
  network::URLRequest request = upload.requestToUploadMappingsToOmvaraEndpoint();
  EXPECT_EQ(request.URL, "http://127.0.0.1:9/base/v1/project/-/app/app/upload/native/uuid");
  EXPECT_EQ(request.HTTPMethod, "PUT");
  EXPECT_EQ(request.timeoutInterval, 60.0);
  EXPECT_EQ(request.cachePolicy, network::URLRequestCachePolicy::ReloadIgnoringLocalCacheData);
  EXPECT_EQ(request.valueForHTTPHeaderField("User-Agent"), network::SUPNetworkConstants::symbolUploadUserAgent());
  EXPECT_FALSE(request.valueForHTTPHeaderField("Content-Type"));
  EXPECT_FALSE(request.valueForHTTPHeaderField("Content-Encoding"));
  EXPECT_EQ(request.HTTPBody, *container->data());
}

TEST_F(PipelineTest, DeletionRemovesFoldersAndOnlyWarnsAboutMissingOnes) {
  TempDir dir;
  dir.write("unpacked/a/b.txt", "x");
  CapturedOutput out(STDOUT_FILENO);
  SUPDeleteFileOperation((dir.path() / "unpacked").string(), cleanup_).deleteFile();
  SUPDeleteFileOperation((dir.path() / "gone").string(), cleanup_).deleteFile();
  const std::string log = out.take();
  EXPECT_FALSE(fs::exists(dir.path() / "unpacked"));
  EXPECT_NE(log.find("Deleted file at path " + (dir.path() / "unpacked").string() + "\n"), std::string::npos) << log;
  EXPECT_NE(log.find("warning: File to delete does not exist at path: " + (dir.path() / "gone").string()),
            std::string::npos)
      << log;
}

}  // namespace
}  // namespace symlift::operations
