// The upload-record store's bytes: the keyed-archive object graph we write,
// archives laid out by hand as the platform's archiver writes them (with
// either record class name), bytes that are no such archive, and the limits
// on what is read: the bounded file reader and the nesting pre-scan in front
// of the property-list and JSON parsers.
//
// The upload recorder against a real store folder (XDG_CACHE_HOME points into
// a temporary folder): where the store lives, the first upload date kept, the
// 200-record limit, and the lock file, which never follows a planted link.
// Parallel builds sharing one store: BuildPhaseUploadTest.

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <plist/plist.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>

#include "macho/macho_binary.h"
#include "records/store_file.h"
#include "records/upload_record_archive.h"
#include "records/upload_recorder.h"
#include "support/files.h"
#include "support/property_list.h"
#include "support/scoped_environment.h"
#include "support/test_support.h"

namespace symlift::records {
namespace {

using namespace std::chrono_literals;
using support::kMaxNestingDepth;
using symlift::testing::TempDir;
namespace fs = std::filesystem;
using macho::SUPMachOBinary;
using symlift::testing::ScopedEnvironment;

const std::string kUUID1 = "0123456789abcdef0123456789abcdef";
const std::string kUUID2 = "fedcba9876543210fedcba9876543210";
const std::string kUUID3 = "5e1f7000000040008000000000000003";
const Date kNewYear2021 = Date(1609459200s);  // 631152000 seconds after 2001-01-01

// "$objects" built with libplist, independently of our own archiver.
struct HandArchive {
  plist_t objects = plist_new_array();
  HandArchive() { add(plist_new_string("$null")); }
  ~HandArchive() { plist_free(objects); }
  std::uint64_t add(plist_t object) {
    plist_array_append_item(objects, object);
    return plist_array_get_size(objects) - 1;
  }
  std::uint64_t classes(const std::vector<std::string>& chain) {
    plist_t names = plist_new_array();
    for (const std::string& name : chain) plist_array_append_item(names, plist_new_string(name.c_str()));
    return keyed(std::nullopt, {{"$classname", plist_new_string(chain.front().c_str())}, {"$classes", names}});
  }
  // A dictionary of the fields (with "$class" when a class is given), added.
  std::uint64_t keyed(std::optional<std::uint64_t> classUID, std::vector<std::pair<const char*, plist_t>> fields) {
    plist_t object = plist_new_dict();
    if (classUID) plist_dict_set_item(object, "$class", plist_new_uid(*classUID));
    for (auto& [key, value] : fields) plist_dict_set_item(object, key, value);
    return add(object);
  }
  static plist_t uids(const std::vector<std::uint64_t>& members) {
    plist_t array = plist_new_array();
    for (std::uint64_t member : members) plist_array_append_item(array, plist_new_uid(member));
    return array;
  }
  std::string binary(std::uint64_t root, const char* archiver = "NSKeyedArchiver") const {
    plist_t archive = plist_new_dict(), top = plist_new_dict();
    plist_dict_set_item(archive, "$version", plist_new_uint(100000));
    plist_dict_set_item(archive, "$archiver", plist_new_string(archiver));
    plist_dict_set_item(top, "root", plist_new_uid(root));
    plist_dict_set_item(archive, "$top", top);
    plist_dict_set_item(archive, "$objects", plist_copy(objects));
    return symlift::testing::binaryPlistOf(archive);
  }
};

// A platform store: a set of two records, the first one's UUIDs including a
// mutable string and its date whole seconds (an integer), as some writers do.
std::string platformStore(const char* recordClass = "SYLUploadRecord", double secondDate = 631152000.5) {
  HandArchive a;
  const auto set = a.classes({"NSSet", "NSObject"}), date = a.classes({"NSDate", "NSObject"});
  const auto record = a.classes({recordClass, "NSObject"});
  const auto mutableUUID = a.keyed(a.classes({"NSMutableString", "NSString", "NSObject"}),
                                   {{"NS.string", plist_new_string(kUUID1.c_str())}});
  const auto uuids1 = a.keyed(set, {{"NS.objects", a.uids({mutableUUID, a.add(plist_new_string(kUUID2.c_str()))})}});
  const auto date1 = a.keyed(date, {{"NS.time", plist_new_uint(631152000)}});
  const auto record1 = a.keyed(record, {{"uuids", plist_new_uid(uuids1)}, {"uploadDate", plist_new_uid(date1)}});
  const auto uuids2 = a.keyed(set, {{"NS.objects", a.uids({a.add(plist_new_string(kUUID3.c_str()))})}});
  const auto date2 = a.keyed(date, {{"NS.time", plist_new_real(secondDate)}});
  const auto record2 = a.keyed(record, {{"uuids", plist_new_uid(uuids2)}, {"uploadDate", plist_new_uid(date2)}});
  return a.binary(a.keyed(set, {{"NS.objects", a.uids({record1, record2})}}));
}

const SUPUploadRecord* find(const UploadRecordSet& records, const std::set<std::string>& uuids) {
  auto found = records.find(SUPUploadRecord(uuids, Date()));
  return found == records.end() ? nullptr : &*found;
}

// A store read from damaged bytes can hold text that is not UTF-8 (or holds
// a NUL byte); writing it back must still give a store that reads, with the
// good records intact and the damaged text replaced, not dropped.
TEST(UploadRecordArchiveTest, DamagedTextStillWritesAReadableStore) {
  const std::string damaged = std::string("4c4c\xff") + "445a" + std::string("\xe2\x82") + "\xed\xa0\x80";
  auto decoded = unarchiveUploadRecords(archivedDataWithUploadRecords({
      SUPUploadRecord({kUUID1}, kNewYear2021),
      SUPUploadRecord({damaged, kUUID2}, kNewYear2021),
      SUPUploadRecord({std::string("ab\0cd", 5)}, kNewYear2021),
  }));
  ASSERT_TRUE(decoded);
  ASSERT_EQ(decoded->size(), 3u);
  EXPECT_NE(find(*decoded, {kUUID1}), nullptr);
  // One replacement per byte that starts no well-formed sequence: the cut
  // three-byte sequence gives two, the encoded surrogate three.
  std::string repaired = "4c4c\xef\xbf\xbd" "445a";
  for (int i = 0; i < 5; ++i) repaired += "\xef\xbf\xbd";
  EXPECT_NE(find(*decoded, {repaired, kUUID2}), nullptr);
}

// An archive's node with references followed: a keyed object as
// "{key=value,...}" (keys sorted), an array as "[...]", a string as itself,
// a real as "real:<value>"; what else there is shows as "?".
std::string describe(plist_t objects, plist_t node) {
  std::uint64_t uid = 0;
  double real = 0;
  char* key = nullptr;
  plist_t value = nullptr;
  std::vector<std::string> parts;
  switch (node ? plist_get_node_type(node) : PLIST_NONE) {
    case PLIST_UID:
      plist_get_uid_val(node, &uid);
      return uid < plist_array_get_size(objects) ? describe(objects, plist_array_get_item(objects, uid)) : "?";
    case PLIST_STRING:
      return plist_get_string_ptr(node, nullptr);
    case PLIST_REAL:
      plist_get_real_val(node, &real);
      return fmt::format("real:{}", real);
    case PLIST_ARRAY:
      for (std::uint32_t i = 0; i < plist_array_get_size(node); ++i)
        parts.push_back(describe(objects, plist_array_get_item(node, i)));
      return "[" + fmt::format("{}", fmt::join(parts, ",")) + "]";
    case PLIST_DICT: {
      plist_dict_iter it = nullptr;
      plist_dict_new_iter(node, &it);
      for (plist_dict_next_item(node, it, &key, &value); key; plist_dict_next_item(node, it, &key, &value)) {
        parts.push_back(std::string(key) + "=" + describe(objects, value));
        std::free(key);
      }
      std::free(it);
      std::sort(parts.begin(), parts.end());
      return "{" + fmt::format("{}", fmt::join(parts, ",")) + "}";
    }
    default:
      return "?";
  }
}

// As the platform's archiver writes it (checked by hand on a store with
// plistutil and Python's plistlib): a binary plist of "$archiver",
// "$version", "$top" whose root is object 1, and "$objects" starting with
// "$null"; an NSMutableSet of records, each with an NSSet of plain strings and
// an NSDate whose NS.time is a real.
TEST(UploadRecordArchiveTest, WritesThePlatformsKeyedArchiveLayout) {
  std::string bytes = archivedDataWithUploadRecords({SUPUploadRecord({kUUID1, kUUID2}, kNewYear2021)});
  ASSERT_TRUE(bytes.starts_with("bplist00"));
  support::PropertyList archive = support::PropertyList::fromBytes(bytes);
  ASSERT_TRUE(archive.isDictionary());
  EXPECT_EQ(archive.dictionarySize(), 4u);
  EXPECT_EQ(archive.stringForKey("$archiver"), "NSKeyedArchiver");
  EXPECT_EQ(archive.stringForKey("$version"), "100000");
  plist_t objects = archive.itemForKey("$objects");
  EXPECT_EQ(describe(objects, plist_array_get_item(objects, 0)), "$null");
  plist_t root = plist_dict_get_item(archive.itemForKey("$top"), "root");
  std::uint64_t rootUID = 0;
  plist_get_uid_val(root, &rootUID);
  EXPECT_EQ(rootUID, 1u);
  EXPECT_EQ(describe(objects, root),
            "{$class={$classes=[NSMutableSet,NSSet,NSObject],$classname=NSMutableSet},NS.objects=["
            "{$class={$classes=[SUPUploadRecord,NSObject],$classname=SUPUploadRecord},"
            "uploadDate={$class={$classes=[NSDate,NSObject],$classname=NSDate},NS.time=real:631152000},"
            "uuids={$class={$classes=[NSSet,NSObject],$classname=NSSet},NS.objects=[" + kUUID1 + "," + kUUID2 + "]}}]}");
}

TEST(UploadRecordArchiveTest, ReadsPlatformStoresUnderEitherRecordClassName) {
  for (const char* recordClass : {"SYLUploadRecord", "SUPUploadRecord"}) {
    auto decoded = unarchiveUploadRecords(platformStore(recordClass));
    ASSERT_TRUE(decoded) << recordClass;
    ASSERT_EQ(decoded->size(), 2u);
    const SUPUploadRecord* first = find(*decoded, {kUUID1, kUUID2});
    const SUPUploadRecord* second = find(*decoded, {kUUID3});
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->uploadDate(), kNewYear2021);
    EXPECT_EQ(second->uploadDate(), kNewYear2021 + 500ms);
  }
}

// Records of a class nobody registered, and dates no clock can hold, make no store.
TEST(UploadRecordArchiveTest, UnknownRecordsAndImpossibleDatesAreNoStore) {
  EXPECT_FALSE(unarchiveUploadRecords(platformStore("SomeOtherRecord")));
  for (double date : {double(INFINITY), -double(INFINITY), double(NAN), 1e300, -1e300})
    EXPECT_FALSE(unarchiveUploadRecords(platformStore("SYLUploadRecord", date))) << date;
}

TEST(StoreInputLimitsTest, BoundedReaderReadsOnlyRegularFilesWithinTheCap) {
  TempDir dir;
  const std::string fifo = (dir.path() / "fifo").string();
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const std::string small = dir.write("small", "twelve bytes").string();
  const std::tuple<std::string, std::size_t, std::optional<std::string>> rows[] = {
      {small, 12, "twelve bytes"},
      {dir.write("empty", "").string(), 0, ""},
      {small, 11, std::nullopt},   // one byte over
      {fifo, 1024, std::nullopt},  // nobody writes: must not block
      {"/dev/zero", 1024, std::nullopt},
      {dir.str(), 1024, std::nullopt},
      {dir.str() + "/missing", 1024, std::nullopt},
  };
  for (const auto& [path, cap, contents] : rows) EXPECT_EQ(support::readRegularFile(path, cap), contents) << path;
}

std::string nested(std::size_t depth, const std::string& open, const std::string& close, const std::string& inner) {
  std::string text;
  for (std::size_t i = 0; i < depth; ++i) text += open;
  text += inner;
  for (std::size_t i = 0; i < depth; ++i) text += close;
  return text;
}

std::string xmlList(const std::string& body) { return "<?xml version=\"1.0\"?>\n<plist version=\"1.0\">" + body + "</plist>\n"; }

// Arrays nested depth deep around a string, as a binary plist.
std::string binaryNested(std::size_t depth) {
  plist_t node = plist_new_string("leaf");
  for (std::size_t i = 0; i < depth; ++i) {
    plist_t array = plist_new_array();
    plist_array_append_item(array, node);
    node = array;
  }
  char* bytes = nullptr;
  std::uint32_t length = 0;
  plist_to_bin(node, &bytes, &length);
  plist_free(node);
  std::string result(bytes, length);
  plist_to_bin_free(bytes);
  return result;
}

TEST(StoreInputLimitsTest, PropertyListsDeeperThanTheCapAreRefused) {
  // One array at offset 8 holding a reference to itself.
  const std::string cycle = std::string("bplist00\xA1\0\x08", 11) + std::string(6, '\0') + "\x01\x01" +
                            std::string(7, '\0') + "\x01" + std::string(15, '\0') + "\x0A";
  const std::string deepInComment = "<!--" + nested(1000, "<array>", "", "") + "-->";
  const std::tuple<const char*, std::string, bool> rows[] = {
      {"XML at the cap", xmlList(nested(kMaxNestingDepth, "<array>", "</array>", "<string>a</string>")), true},
      {"XML one past", xmlList(nested(kMaxNestingDepth + 1, "<array>", "</array>", "")), false},
      {"XML dict one past", xmlList(nested(kMaxNestingDepth + 1, "<dict><key>k</key>", "</dict>", "<true/>")), false},
      {"XML 200000 deep", xmlList(nested(200000, "<array>", "", "")), false},
      {"XML empty forms and comments", xmlList("<array>" + nested(1000, "<array/><dict />", "", deepInComment) +
                                               "<![CDATA[" + nested(1000, "<dict>", "", "") + "]]></array>"),
       true},
      {"binary at the cap", binaryNested(kMaxNestingDepth), true},
      {"binary one past", binaryNested(kMaxNestingDepth + 1), false},
      {"binary cycle", cycle, false},
      {"binary truncated", binaryNested(3).substr(0, 30), false},
  };
  for (const auto& [name, bytes, accepted] : rows) {
    EXPECT_EQ(support::propertyListNestingWithin(bytes, kMaxNestingDepth), accepted) << name;
    if (!accepted) {
      EXPECT_FALSE(support::PropertyList::fromBytes(bytes)) << name;
    }
  }
  EXPECT_TRUE(support::PropertyList::fromBytes(binaryNested(kMaxNestingDepth)));
}

TEST(StoreInputLimitsTest, JSONDeeperThanTheCapIsRefused) {
  const std::size_t cap = kMaxNestingDepth;
  const std::pair<std::string, bool> rows[] = {
      {nested(cap, "[", "]", ""), true},
      {nested(cap + 1, "[", "]", ""), false},
      {nested(cap + 1, "{\"k\":", "}", "1"), false},
      {"[\"" + nested(1000, "[{", "", "") + "\\\"[\"]", true},  // brackets in a string, escaped quote
      {"[\"\\\\\"" + nested(cap, "[", "", ""), false},           // an escaped backslash ends no string
  };
  for (const auto& [text, accepted] : rows) EXPECT_EQ(support::jsonNestingWithin(text, cap), accepted) << text;
}

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
