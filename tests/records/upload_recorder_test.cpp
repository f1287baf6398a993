// The upload recorder against a real store folder (XDG_CACHE_HOME points into
// a temporary folder): where the store lives, lookup and recording with real
// Mach-O files, pruning, damaged stores, and parallel recording processes.

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/captured_output.h"
#include "console/console_log.h"
#include "macho/macho_binary.h"
#include "support/scoped_environment.h"
#include "records/upload_record_archive.h"
#include "records/upload_recorder.h"
#include "support/test_support.h"

namespace symlift::records {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using macho::SUPMachOBinary;
using symlift::testing::consoleOutput;
using symlift::testing::fixturesDir;
using symlift::testing::ScopedEnvironment;
using symlift::testing::TempDir;

// md5("https://records.example/api"), computed with Python's hashlib.
constexpr const char* kEndpoint = "https://records.example/api";
constexpr const char* kEndpointDigest = "94a7e1a6bb36299fa0e7c8b884853075";

// FatApp: two slices (x86_64, arm64); their UUIDs as llvm-dwarfdump reports them are below.
std::shared_ptr<SUPMachOBinary> fatApp() { return SUPMachOBinary::MachOBinaryWithPath(fixturesDir() / "FatApp"); }
std::shared_ptr<SUPMachOBinary> edge(const char* name) {
  return SUPMachOBinary::MachOBinaryWithPath(fixturesDir() / "edge" / name);
}

SUPUploadRecord record(int n, Date date) { return SUPUploadRecord({"uuid-" + std::to_string(n)}, date); }

class UploadRecorderTest : public ::testing::Test {
 protected:
  TempDir caches_;
  ScopedEnvironment cacheHome_{"XDG_CACHE_HOME", caches_.str()};
  ScopedEnvironment endpoint_{"VantrelAPIEndpoint", kEndpoint};
  std::shared_ptr<SUPDSYMUploadRecorder> recorder_ = SUPDSYMUploadRecorder::init();

  fs::path storeFolder() const { return caches_.path() / "com.vantrel.mac" / kEndpointDigest / "uploaded"; }
  fs::path storeFile() const { return storeFolder() / "records.dat"; }
  void writeStore(const std::string& bytes) const {
    fs::create_directories(storeFolder());
    std::ofstream(storeFile(), std::ios::binary) << bytes;
  }
};

TEST_F(UploadRecorderTest, StoreLivesPerEndpointBesideAnEmptyBuildsFolder) {
  EXPECT_EQ(recorder_->dataStoreDirectory(), storeFolder().string());
  EXPECT_EQ(recorder_->dataStoreFilePath(), storeFile().string());
  fs::path builds = storeFolder().parent_path() / "builds";
  EXPECT_TRUE(fs::is_directory(builds));
  ASSERT_TRUE(recorder_->recordSuccessfulUploadBinary(fatApp()));
  EXPECT_TRUE(fs::is_regular_file(storeFile()));
  EXPECT_TRUE(fs::is_empty(builds));
  // Only the store and its lock file: no temporary file is left behind.
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(storeFolder())) names.insert(entry.path().filename().string());
  EXPECT_EQ(names, (std::set<std::string>{"records.dat", "records.dat.lock"}));

  // Another endpoint gets a store of its own.
  ScopedEnvironment other("VantrelAPIEndpoint", "https://elsewhere.example");
  EXPECT_NE(recorder_->dataStoreDirectory(), storeFolder().string());
  EXPECT_FALSE(recorder_->isAlreadyUploadedBinary(fatApp()));
}

TEST(UploadRecorderLocation, FallsBackToTheHomeCachesFolder) {
  TempDir home;
  ScopedEnvironment homeVariable("HOME", home.str());
  for (std::optional<std::string> xdg : {std::optional<std::string>(), std::optional<std::string>("relative/cache"),
                                         std::optional<std::string>("")}) {
    ScopedEnvironment cacheHome("XDG_CACHE_HOME", xdg);
    EXPECT_EQ(userCachesDirectory(), (home.path() / ".cache").string());
  }
  ScopedEnvironment tilde("XDG_CACHE_HOME", "~/elsewhere");
  EXPECT_EQ(userCachesDirectory(), (home.path() / "elsewhere").string());
}

TEST_F(UploadRecorderTest, FirstRunRecordsSecondRunFindsTheExecutable) {
  EXPECT_FALSE(recorder_->uploadedBinaries());
  EXPECT_FALSE(recorder_->isAlreadyUploadedBinary(fatApp()));
  ASSERT_TRUE(recorder_->recordSuccessfulUploadBinary(fatApp()));

  // A fresh recorder (the next build) reads the store again.
  auto next = SUPDSYMUploadRecorder::init();
  EXPECT_TRUE(next->isAlreadyUploadedBinary(fatApp()));
  auto records = next->uploadedBinaries();
  ASSERT_TRUE(records);
  ASSERT_EQ(records->size(), 1u);
  EXPECT_EQ(records->begin()->uuids(),
            (std::set<std::string>{"4c4c445a55553144a109bc8fefe46bdc", "4c4c449155553144a1021bea2e928b85"}));

  // Same slices in the other fat order: the same executable. One of its
  // slices alone, or a file with no UUID, is not.
  EXPECT_FALSE(next->isAlreadyUploadedBinary(edge("thin-arm64")));
  ASSERT_TRUE(next->recordSuccessfulUploadBinary(edge("fat-arm64-x86_64")));
  EXPECT_TRUE(next->isAlreadyUploadedBinary(edge("fat-x86_64-arm64")));
  EXPECT_FALSE(next->isAlreadyUploadedBinary(edge("no-uuid")));
  EXPECT_TRUE(next->isAlreadyUploadedBinary(fatApp()));
  EXPECT_EQ(next->uploadedBinaries()->size(), 2u);
}

TEST_F(UploadRecorderTest, UnreadableExecutablesShareOneEmptyIdentity) {
  auto missing = SUPMachOBinary::MachOBinaryWithPath(caches_.path() / "no-such-executable");
  ASSERT_FALSE(missing);
  EXPECT_FALSE(recorder_->isAlreadyUploadedBinary(nullptr));
  ASSERT_TRUE(recorder_->recordSuccessfulUploadBinary(nullptr));
  EXPECT_TRUE(recorder_->isAlreadyUploadedBinary(missing));
  EXPECT_TRUE(recorder_->isAlreadyUploadedBinary(edge("no-uuid")));
}

TEST_F(UploadRecorderTest, RecordingAgainKeepsTheFirstDate) {
  const Date first = std::chrono::system_clock::now() - 48h;
  ASSERT_TRUE(recorder_->recordSuccessfulUpload(record(1, first)));
  ASSERT_TRUE(recorder_->recordSuccessfulUpload(record(1, std::chrono::system_clock::now())));
  ASSERT_TRUE(recorder_->recordSuccessfulUpload(record(2, std::chrono::system_clock::now())));
  auto records = recorder_->uploadedBinaries();
  ASSERT_TRUE(records);
  ASSERT_EQ(records->size(), 2u);
  auto kept = records->find(record(1, Date()));
  ASSERT_NE(kept, records->end());
  EXPECT_LT(std::chrono::abs(kept->uploadDate() - first), 1ms);
}

TEST_F(UploadRecorderTest, The201stRecordPushesOutTheOldest) {
  const Date start = std::chrono::system_clock::now() - 1000h;
  // Dated in an order unrelated to their UUIDs: record 0 is the oldest.
  UploadRecordSet full;
  for (int i = 0; i < 200; ++i) full.insert(record((i * 37) % 200, start + i * 1h));
  writeStore(archivedDataWithUploadRecords(full));
  EXPECT_EQ(SUPDSYMUploadRecorder::pruneOldUploads(full).size(), 200u);

  ASSERT_TRUE(recorder_->recordSuccessfulUploadBinary(fatApp()));
  auto records = recorder_->uploadedBinaries();
  ASSERT_TRUE(records);
  EXPECT_EQ(records->size(), 200u);
  EXPECT_FALSE(records->contains(record(0, Date())));
  for (int i = 1; i < 200; ++i) EXPECT_TRUE(records->contains(record(i, Date()))) << i;
  EXPECT_TRUE(recorder_->isAlreadyUploadedBinary(fatApp()));
}

TEST_F(UploadRecorderTest, DamagedStoreCountsAsNoneAndIsReplaced) {
  std::string good = archivedDataWithUploadRecords({record(7, std::chrono::system_clock::now())});
  UploadRecordSet foreignSet = {SUPUploadRecord({"x"}, Date())};
  std::string foreign = archivedDataWithUploadRecords(foreignSet);
  // The same archive with its record class renamed to one nobody reads.
  std::string wrongClass = foreign;
  wrongClass.replace(wrongClass.find("SUPUploadRecord"), 15, "XYZUploadRecord");
  ASSERT_TRUE(unarchiveUploadRecords(foreign));

  for (const std::string& bytes : {std::string("garbage \x01\x02 bytes"), good.substr(0, good.size() - 9),
                                   std::string(), wrongClass}) {
    writeStore(bytes);
    EXPECT_FALSE(recorder_->uploadedBinaries());
    EXPECT_FALSE(recorder_->isAlreadyUploadedBinary(fatApp()));
    ASSERT_TRUE(recorder_->recordSuccessfulUploadBinary(fatApp()));
    auto records = recorder_->uploadedBinaries();
    ASSERT_TRUE(records);
    EXPECT_EQ(records->size(), 1u);
    EXPECT_TRUE(recorder_->isAlreadyUploadedBinary(fatApp()));
  }
}

TEST_F(UploadRecorderTest, StaleTemporaryFilesOfACrashedWriterAreRemoved) {
  fs::create_directories(storeFolder());
  std::ofstream(storeFolder() / ".records.dat.4242-0.tmp") << "half a store";
  std::ofstream(storeFolder() / "unrelated.tmp") << "not ours";
  ASSERT_TRUE(recorder_->recordSuccessfulUploadBinary(fatApp()));
  EXPECT_FALSE(fs::exists(storeFolder() / ".records.dat.4242-0.tmp"));
  EXPECT_TRUE(fs::exists(storeFolder() / "unrelated.tmp"));
}

TEST_F(UploadRecorderTest, UnwritableCachesFolderIsReportedAndNothingIsRecorded) {
  std::ofstream(caches_.path() / "file") << "a file where a folder should be";
  ScopedEnvironment blocked("XDG_CACHE_HOME", (caches_.path() / "file").string());
  std::string text = consoleOutput(console::kLogLevelDebug, [&] {
    EXPECT_FALSE(recorder_->recordSuccessfulUploadBinary(fatApp()));
    EXPECT_FALSE(recorder_->isAlreadyUploadedBinary(fatApp()));
  });
  EXPECT_NE(text.find("error: Unable to write directory for cache: "), std::string::npos) << text;
  EXPECT_NE(text.find("Create directory error: "), std::string::npos) << text;
}

// Two processes record 50 different executables each at the same time; the
// lock around read-modify-write means neither loses the other's records.
TEST_F(UploadRecorderTest, ParallelProcessesLoseNoRecords) {
  constexpr int kPerProcess = 50;
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  pid_t children[2];
  for (int c = 0; c < 2; ++c) {
    children[c] = ::fork();
    ASSERT_GE(children[c], 0);
    if (children[c] == 0) {
      // Start together, so the writes really interleave.
      char go;
      ::close(ready[1]);
      bool ok = ::read(ready[0], &go, 1) == 0;
      auto recorder = SUPDSYMUploadRecorder::init();
      for (int i = 0; i < kPerProcess; ++i)
        ok = recorder->recordSuccessfulUpload(record(c * 1000 + i, std::chrono::system_clock::now())) && ok;
      ::_exit(ok ? 0 : 1);
    }
  }
  ::close(ready[0]);
  ::close(ready[1]);
  for (pid_t child : children) {
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  auto records = recorder_->uploadedBinaries();
  ASSERT_TRUE(records);
  EXPECT_EQ(records->size(), 2u * kPerProcess);
}

}  // namespace
}  // namespace symlift::records
