// The upload recorder against a real store folder (XDG_CACHE_HOME points into
// a temporary folder): where the store lives, which executables count as
// recorded, the 200-record limit, damaged stores, and the lock that keeps
// parallel recording from losing records.

#include "records/upload_recorder.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "macho/macho_binary.h"
#include "records/store_file.h"
#include "records/upload_record_archive.h"
#include "support/files.h"
#include "support/scoped_environment.h"
#include "support/test_support.h"

namespace symlift::records {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using macho::SUPMachOBinary;
using symlift::testing::ScopedEnvironment;
using symlift::testing::TempDir;

// FatApp: two slices (x86_64, arm64).
std::shared_ptr<SUPMachOBinary> fixture(const std::string& name) {
  return SUPMachOBinary::MachOBinaryWithPath(symlift::testing::fixturesDir() / name);
}

SUPUploadRecord record(int n, Date date) { return SUPUploadRecord({"uuid-" + std::to_string(n)}, date); }

class UploadRecorderTest : public ::testing::Test {
 protected:
  TempDir caches_;
  ScopedEnvironment cacheHome_{"XDG_CACHE_HOME", caches_.str()};
  ScopedEnvironment endpoint_{"VantrelAPIEndpoint", "https://records.example/api"};
  std::shared_ptr<SUPDSYMUploadRecorder> recorder_ = SUPDSYMUploadRecorder::init();
  // md5("https://records.example/api"), computed with Python's hashlib.
  fs::path storeFolder() const {
    return caches_.path() / "com.vantrel.mac/94a7e1a6bb36299fa0e7c8b884853075/uploaded";
  }
  void writeStore(const std::string& bytes) const {
    fs::create_directories(storeFolder());
    std::ofstream(storeFolder() / "records.dat", std::ios::binary) << bytes;
  }
};

// Per endpoint, beside an empty "builds" folder; no temporary file is left
// behind, and a crashed writer's is removed.
TEST_F(UploadRecorderTest, StoreLivesPerEndpoint) {
  EXPECT_EQ(recorder_->dataStoreFilePath(), (storeFolder() / "records.dat").string());
  fs::create_directories(storeFolder());
  std::ofstream(storeFolder() / ".records.dat.4242-0.tmp") << "half a store";
  std::ofstream(storeFolder() / "unrelated.tmp") << "not ours";
  ASSERT_TRUE(recorder_->recordSuccessfulUploadBinary(fixture("FatApp")));
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(storeFolder())) names.insert(entry.path().filename().string());
  EXPECT_EQ(names, (std::set<std::string>{"records.dat", "records.dat.lock", "unrelated.tmp"}));
  const fs::path builds = storeFolder().parent_path() / "builds";
  EXPECT_TRUE(fs::is_directory(builds) && fs::is_empty(builds));

  ScopedEnvironment other("VantrelAPIEndpoint", "https://elsewhere.example");
  EXPECT_NE(recorder_->dataStoreDirectory(), storeFolder().string());
  EXPECT_FALSE(recorder_->isAlreadyUploadedBinary(fixture("FatApp")));
}

TEST(UploadRecorderLocationTest, XDGCacheHomeWhenAbsoluteElseTheHomeCachesFolder) {
  TempDir home;
  ScopedEnvironment homeVariable("HOME", home.str());
  const std::pair<std::optional<std::string>, std::string> rows[] = {
      {std::nullopt, "/.cache"}, {"relative/cache", "/.cache"}, {"", "/.cache"}, {"~/elsewhere", "/elsewhere"}};
  for (const auto& [xdg, folder] : rows) {
    ScopedEnvironment cacheHome("XDG_CACHE_HOME", xdg);
    EXPECT_EQ(userCachesDirectory(), home.str() + folder) << xdg.value_or("unset");
  }
}

TEST_F(UploadRecorderTest, RecordingAgainKeepsTheFirstDate) {
  const Date first = std::chrono::system_clock::now() - 48h;
  ASSERT_TRUE(recorder_->recordSuccessfulUpload(record(1, first)));
  ASSERT_TRUE(recorder_->recordSuccessfulUpload(record(1, std::chrono::system_clock::now())));
  ASSERT_TRUE(recorder_->recordSuccessfulUpload(record(2, std::chrono::system_clock::now())));
  auto records = recorder_->uploadedBinaries();
  ASSERT_EQ(records->size(), 2u);
  EXPECT_LT(std::chrono::abs(records->find(record(1, Date()))->uploadDate() - first), 1ms);
}

// Dated in an order unrelated to their UUIDs: record 0 is the oldest.
TEST_F(UploadRecorderTest, The201stRecordPushesOutTheOldest) {
  const Date start = std::chrono::system_clock::now() - 1000h;
  UploadRecordSet full;
  for (int i = 0; i < 201; ++i) full.insert(record((i * 37) % 201, start + i * 1h));
  UploadRecordSet pruned = SUPDSYMUploadRecorder::pruneOldUploads(full);
  EXPECT_EQ(pruned.size(), 200u);
  EXPECT_FALSE(pruned.contains(record(0, Date())));
  full.erase(record(0, Date()));
  EXPECT_EQ(SUPDSYMUploadRecorder::pruneOldUploads(full), full);  // 200: all kept

  writeStore(archivedDataWithUploadRecords(full));
  ASSERT_TRUE(recorder_->recordSuccessfulUploadBinary(fixture("FatApp")));
  auto records = recorder_->uploadedBinaries();
  ASSERT_TRUE(records);
  EXPECT_EQ(records->size(), 200u);
  EXPECT_FALSE(records->contains(record(37, Date())));  // the oldest of the 200 (i = 1)
  EXPECT_TRUE(recorder_->isAlreadyUploadedBinary(fixture("FatApp")));
}

// A link planted at the lock file's name is never followed, dangling or not;
// a fresh lock file is private to the user.
TEST(StoreLockTest, NeverFollowsAPlantedLink) {
  TempDir dir;
  const fs::path target = dir.path() / "victim", lock = dir.path() / "records.dat.lock";
  fs::create_symlink(target, lock);
  std::string error;
  EXPECT_FALSE(StoreLock::acquire(lock.string(), &error));
  EXPECT_FALSE(error.empty());
  EXPECT_FALSE(fs::exists(fs::symlink_status(target)));
  dir.write("victim", "untouched");
  EXPECT_FALSE(StoreLock::acquire(lock.string(), &error));
  EXPECT_EQ(support::readWholeFile(target.string()), "untouched");

  const fs::path fresh = dir.path() / "fresh.lock";
  EXPECT_TRUE(StoreLock::acquire(fresh.string(), &error)) << error;
  EXPECT_EQ(fs::status(fresh).permissions() & fs::perms::all, fs::perms::owner_read | fs::perms::owner_write);
}

}  // namespace
}  // namespace symlift::records
