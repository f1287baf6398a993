// The dSYM pipeline on real queues: a whole upload of a fat dSYM to the local
// stand-in service (which the ThreadSanitizer run watches), and what only a
// unit can set up: a planted cSYM this run did not write, and the upload
// request itself.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "dispatch/operation_queue.h"
#include "network/fake_service_process.h"
#include "operations/compressed_csym_cache.h"
#include "network/network_client.h"
#include "network/network_constants.h"
#include "support/diagnostics.h"
#include "operations/pipeline_errors.h"
#include "operations/pipeline_test_support.h"
#include "operations/process_dsym_operation.h"
#include "operations/submit_csym_operation.h"
#include "operations/upload_csym_operation.h"
#include "support/captured_output.h"
#include "support/files.h"

namespace symlift::operations {
namespace {

using namespace symlift::testing;
namespace fs = std::filesystem;

std::string failureReason(const support::ErrorPtr& error) {
  auto it = error->userInfo.find(support::kLocalizedFailureReasonKey);
  return it == error->userInfo.end() ? "(no reason)" : it->second;
}

// Each test gets its own temporary directory and the upload endpoint pointed
// at the stand-in service.
class PipelineTest : public ::testing::Test {
 protected:
  void TearDown() override { ::unsetenv("VantrelUploadEndpoint"); }

  std::shared_ptr<network::SUPKITNetworkClient> clientFor(const FakeServiceProcess& service) {
    ::setenv("VantrelUploadEndpoint", service.baseURL().c_str(), 1);
    return network::SUPKITNetworkClient::create(pool_);
  }

  // Runs an operation as the driver does and returns its outcome.
  support::ErrorPtr run(const std::shared_ptr<dispatch::SUPKITAsyncOperation>& operation) {
    support::ErrorPtr outcome = support::makeError("not reported", 0);
    operation->setAsyncCompletion([&](const support::ErrorPtr& error) { outcome = error; });
    dispatch::OperationQueue::create(pool_)->addOperationAndWait(operation);
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

TEST_F(PipelineTest, UploadsEverySliceThenNothingIsLeftBehind) {
  FakeServiceProcess service;
  ASSERT_TRUE(service.started());
  auto container = containerForBundle(fixturesDir() / "FatApp.dSYM", "FatApp", false, "1:7:ios:ab");
  CapturedOutput out(STDOUT_FILENO);
  EXPECT_EQ(run(SUPProcessDSYMOperation::initWithCodeMappingInfo(context_, container, clientFor(service))), nullptr);
  const std::string log = out.take();
  std::size_t slices = 0;
  container->dSYMFile()->enumerateUUIDs([&](const std::optional<std::string>& uuid, const std::string& arch) {
    ++slices;
    EXPECT_NE(log.find("Successfully submitted symbols for architecture " + arch + " with UUID " + *uuid), std::string::npos) << log;
    // The store keeps the body as received: a gzip of the slice's cSYM.
    auto body = gunzip(readFile(fs::path(service.storePath()) / ("1:7:ios:ab-" + *uuid + ".csym.gz")));
    ASSERT_TRUE(body) << *uuid;
    EXPECT_NE(body->substr(0, body->find('\n')).find(*uuid), std::string::npos) << *body;
  });
  EXPECT_EQ(slices, 2u);
  EXPECT_EQ(tmp_.fileNames(), std::vector<std::string>{});
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
  support::ErrorPtr error = run(SUPSubmitCSYMOperation::initWithCSYMInfo(context_, container, clientFor(service)));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain, kCompressCSYMErrorDomain);
  EXPECT_EQ(failureReason(error),
            "Could not compress cSYM data for uuid 00000000000000000000000000000000, architecture: arm64");
  EXPECT_EQ(service.loggedRequestCount(), 0u);
}

// A PUT of the gzip bytes as they are (the very bytes, not a copy), to a URL in which only what a path
// cannot hold is escaped.
TEST_F(PipelineTest, UploadRequest) {
  ::setenv("VantrelUploadEndpoint", "http://127.0.0.1:9/base/", 1);
  EXPECT_EQ(SUPUploadCSYMOperation::csymUploadUrlForRmpAppId("a b?c#d%", "u"),
            "http://127.0.0.1:9/base/v1/project/-/app/a%20b%3Fc%23d%25/upload/native/u");
  auto container = std::make_shared<dsym::SUPCodeMappingInfoContainer>();
  container->setOmvaraAppId("1:42:ios:9f");
  container->setUUID("uuid");
  container->setData(std::vector<std::uint8_t>{0x1f, 0x8b, 0x00});
  network::URLRequest request = SUPUploadCSYMOperation(context_, container, {}).requestToUploadMappingsToOmvaraEndpoint();
  EXPECT_EQ(request.URL, "http://127.0.0.1:9/base/v1/project/-/app/1:42:ios:9f/upload/native/uuid");
  EXPECT_EQ(request.HTTPMethod, "PUT");
  EXPECT_EQ(request.timeoutInterval, 60.0);
  EXPECT_EQ(request.cachePolicy, network::URLRequestCachePolicy::ReloadIgnoringLocalCacheData);
  EXPECT_EQ(request.valueForHTTPHeaderField("User-Agent"), network::SUPNetworkConstants::symbolUploadUserAgent());
  EXPECT_FALSE(request.valueForHTTPHeaderField("Content-Type"));
  EXPECT_FALSE(request.valueForHTTPHeaderField("Content-Encoding"));
  EXPECT_EQ(request.HTTPBody, *container->data());
  EXPECT_EQ(request.HTTPBody.data(), container->data()->data()) << "the body is shared, not copied";
}

// Files are written a piece at a time: every byte arrives, in order,
// whatever the size against the piece.
TEST(WriteAllTest, EveryByteArrivesInOrder) {
  const fs::path folder = fs::temp_directory_path() / ("symlift-write-all-" + std::to_string(::getpid()));
  fs::create_directories(folder);
  constexpr std::size_t kPiece = std::size_t{256} << 10;
  for (std::size_t size : {std::size_t{0}, std::size_t{1}, kPiece - 1, kPiece, kPiece + 1, 3 * kPiece * 4 + 17}) {
    SCOPED_TRACE(size);
    std::vector<std::uint8_t> bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::uint8_t>(i * 2654435761u >> 13);
    const fs::path path = folder / std::to_string(size);
    const int fd = support::createPrivateFile(path.string());
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(support::writeAll(fd, std::span<const std::uint8_t>(bytes)));
    ::close(fd);
    std::ifstream in(path, std::ios::binary);
    const std::vector<std::uint8_t> back((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_TRUE(back == bytes);
  }
  fs::remove_all(folder);
}

}  // namespace
}  // namespace symlift::operations
