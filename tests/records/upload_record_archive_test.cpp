// The upload-record store's bytes: the keyed-archive object graph we write,
// archives written the way the platform's archiver writes them (including the
// older record class name), and bytes that are no such archive.

#include <gtest/gtest.h>

#include <cmath>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include <plist/plist.h>

#include "records/upload_record.h"
#include "records/upload_record_archive.h"
#include "support/property_list.h"

namespace symlift::records {
namespace {

using namespace std::chrono_literals;

const std::string kUUID1 = "0123456789abcdef0123456789abcdef";
const std::string kUUID2 = "fedcba9876543210fedcba9876543210";
const std::string kUUID3 = "5e1f7000000040008000000000000003";

// 2021-01-01 00:00:00 UTC: 631152000 seconds after the reference date.
const Date kNewYear2021 = Date(1609459200s);

std::string text(plist_t node) {
  if (!node || plist_get_node_type(node) != PLIST_STRING) return "<not a string>";
  char* value = nullptr;
  plist_get_string_val(node, &value);
  std::string result(value ? value : "");
  std::free(value);
  return result;
}

std::uint64_t uid(plist_t node) {
  EXPECT_TRUE(node && plist_get_node_type(node) == PLIST_UID);
  std::uint64_t value = 0;
  if (node && plist_get_node_type(node) == PLIST_UID) plist_get_uid_val(node, &value);
  return value;
}

// Builds "$objects" by hand with libplist, as the platform's archiver lays it
// out, independently of our own archiver.
class HandArchive {
 public:
  HandArchive() : objects_(plist_new_array()) { add(plist_new_string("$null")); }
  ~HandArchive() { plist_free(objects_); }

  std::uint64_t add(plist_t object) {
    plist_array_append_item(objects_, object);
    return plist_array_get_size(objects_) - 1;
  }
  std::uint64_t classDescription(const std::vector<std::string>& classes) {
    plist_t description = plist_new_dict();
    plist_dict_set_item(description, "$classname", plist_new_string(classes.front().c_str()));
    plist_t chain = plist_new_array();
    for (const std::string& name : classes) plist_array_append_item(chain, plist_new_string(name.c_str()));
    plist_dict_set_item(description, "$classes", chain);
    return add(description);
  }
  static plist_t keyed(std::uint64_t classUID, std::vector<std::pair<const char*, plist_t>> fields) {
    plist_t object = plist_new_dict();
    plist_dict_set_item(object, "$class", plist_new_uid(classUID));
    for (auto& [key, value] : fields) plist_dict_set_item(object, key, value);
    return object;
  }
  static plist_t uids(const std::vector<std::uint64_t>& members) {
    plist_t array = plist_new_array();
    for (std::uint64_t member : members) plist_array_append_item(array, plist_new_uid(member));
    return array;
  }
  void replace(std::uint64_t index, plist_t object) {
    plist_array_set_item(objects_, object, static_cast<std::uint32_t>(index));
  }

  std::string binary(std::uint64_t root, const char* archiver = "NSKeyedArchiver") const {
    plist_t archive = plist_new_dict();
    plist_dict_set_item(archive, "$version", plist_new_uint(100000));
    plist_dict_set_item(archive, "$archiver", plist_new_string(archiver));
    plist_t top = plist_new_dict();
    plist_dict_set_item(top, "root", plist_new_uid(root));
    plist_dict_set_item(archive, "$top", top);
    plist_dict_set_item(archive, "$objects", plist_copy(objects_));
    char* bytes = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(archive, &bytes, &length);
    std::string result(bytes, length);
    plist_to_bin_free(bytes);
    plist_free(archive);
    return result;
  }

 private:
  plist_t objects_;
};

// The store a platform build wrote under the older class name: an immutable
// root set, the first record's UUIDs including a mutable string, and a date
// stored as whole seconds (an integer), as some writers do.
std::string legacyStore(const char* recordClass = "SYLUploadRecord", double secondDate = 631152000.5) {
  HandArchive archive;
  std::uint64_t root = archive.add(plist_new_string("placeholder"));
  std::uint64_t record1 = archive.add(plist_new_string("placeholder"));
  std::uint64_t uuids1 = archive.add(plist_new_string("placeholder"));
  std::uint64_t mutableString = archive.add(plist_new_string("placeholder"));
  std::uint64_t mutableStringClass = archive.classDescription({"NSMutableString", "NSString", "NSObject"});
  archive.replace(mutableString,
                  HandArchive::keyed(mutableStringClass, {{"NS.string", plist_new_string(kUUID1.c_str())}}));
  std::uint64_t plain = archive.add(plist_new_string(kUUID2.c_str()));
  std::uint64_t setClass = archive.classDescription({"NSSet", "NSObject"});
  archive.replace(uuids1, HandArchive::keyed(setClass, {{"NS.objects", HandArchive::uids({mutableString, plain})}}));
  std::uint64_t dateClass = archive.classDescription({"NSDate", "NSObject"});
  std::uint64_t date1 = archive.add(HandArchive::keyed(dateClass, {{"NS.time", plist_new_uint(631152000)}}));
  std::uint64_t recordClassUID = archive.classDescription({recordClass, "NSObject"});
  archive.replace(record1, HandArchive::keyed(recordClassUID, {{"uuids", plist_new_uid(uuids1)},
                                                               {"uploadDate", plist_new_uid(date1)}}));

  std::uint64_t record2 = archive.add(plist_new_string("placeholder"));
  std::uint64_t uuid3 = archive.add(plist_new_string(kUUID3.c_str()));
  std::uint64_t uuids2 = archive.add(HandArchive::keyed(setClass, {{"NS.objects", HandArchive::uids({uuid3})}}));
  std::uint64_t date2 = archive.add(HandArchive::keyed(dateClass, {{"NS.time", plist_new_real(secondDate)}}));
  archive.replace(record2, HandArchive::keyed(recordClassUID, {{"uuids", plist_new_uid(uuids2)},
                                                               {"uploadDate", plist_new_uid(date2)}}));
  archive.replace(root, HandArchive::keyed(setClass, {{"NS.objects", HandArchive::uids({record1, record2})}}));
  return archive.binary(root);
}

const SUPUploadRecord* find(const UploadRecordSet& records, const std::set<std::string>& uuids) {
  auto found = records.find(SUPUploadRecord(uuids, Date()));
  return found == records.end() ? nullptr : &*found;
}

TEST(UploadRecordArchive, RoundTripsSeveralRecordsWithTheirDates) {
  UploadRecordSet records = {
      SUPUploadRecord({kUUID1, kUUID2}, kNewYear2021),
      SUPUploadRecord({kUUID3}, kNewYear2021 + 90min + 250ms),
      SUPUploadRecord({}, kNewYear2021 - 24h * 400),
  };
  auto decoded = unarchiveUploadRecords(archivedDataWithUploadRecords(records));
  ASSERT_TRUE(decoded);
  ASSERT_EQ(decoded->size(), 3u);
  for (const SUPUploadRecord& record : records) {
    const SUPUploadRecord* match = find(*decoded, record.uuids());
    ASSERT_NE(match, nullptr);
    EXPECT_EQ(match->uuids(), record.uuids());
    // A double of seconds holds these dates to well under a microsecond.
    EXPECT_LT(std::chrono::abs(match->uploadDate() - record.uploadDate()), 1us);
  }
  auto empty = unarchiveUploadRecords(archivedDataWithUploadRecords({}));
  ASSERT_TRUE(empty);
  EXPECT_TRUE(empty->empty());
}

// A store read from damaged bytes can hold text that is not UTF-8 (or holds
// a NUL byte); writing it back must still give a store that reads, with the
// good records intact and the damaged text replaced, not dropped.
TEST(UploadRecordArchive, DamagedTextStillWritesAReadableStore) {
  const std::string damaged = std::string("4c4c\xff") + "445a" + std::string("\xe2\x82") + "\xed\xa0\x80";
  UploadRecordSet records = {
      SUPUploadRecord({kUUID1}, kNewYear2021),
      SUPUploadRecord({damaged, kUUID2}, kNewYear2021),
      SUPUploadRecord({std::string("ab\0cd", 5)}, kNewYear2021),
  };
  auto decoded = unarchiveUploadRecords(archivedDataWithUploadRecords(records));
  ASSERT_TRUE(decoded);
  ASSERT_EQ(decoded->size(), 3u);
  EXPECT_NE(find(*decoded, {kUUID1}), nullptr);
  const std::string replacement = "\xef\xbf\xbd";
  // One replacement per byte that starts no well-formed sequence: the cut
  // three-byte sequence gives two, the encoded surrogate three.
  std::string repaired = "4c4c" + replacement + "445a";
  for (int i = 0; i < 5; ++i) repaired += replacement;
  EXPECT_NE(find(*decoded, {repaired, kUUID2}), nullptr);
}

// Checked by hand on a store written by the recorder: `plistutil -i
// records.dat` shows a binary plist with "$archiver" NSKeyedArchiver,
// "$version" 100000, "$top" {root: CF$UID 1} and "$objects" starting with
// "$null"; Python's plistlib.load gives the same graph with UID(...) members,
// an NSMutableSet root whose NS.objects are records, each record a dict of
// "uuids" -> NSSet of plain strings and "uploadDate" -> NSDate with a float
// NS.time, every class description with "$classname" and "$classes" ending
// in "NSObject". This test pins the same fields down with libplist.
TEST(UploadRecordArchive, WritesThePlatformsKeyedArchiveLayout) {
  std::string bytes = archivedDataWithUploadRecords({SUPUploadRecord({kUUID1, kUUID2}, kNewYear2021)});
  ASSERT_TRUE(bytes.starts_with("bplist00"));
  support::PropertyList archive = support::PropertyList::fromBytes(bytes);
  ASSERT_TRUE(archive.isDictionary());
  EXPECT_EQ(archive.dictionarySize(), 4u);
  EXPECT_EQ(text(archive.itemForKey("$archiver")), "NSKeyedArchiver");
  EXPECT_EQ(archive.stringForKey("$version"), "100000");
  plist_t objects = archive.itemForKey("$objects");
  ASSERT_TRUE(objects && plist_get_node_type(objects) == PLIST_ARRAY);
  auto object = [&](std::uint64_t index) {
    EXPECT_LT(index, plist_array_get_size(objects));
    return plist_array_get_item(objects, static_cast<std::uint32_t>(index));
  };
  auto field = [&](std::uint64_t index, const char* key) { return plist_dict_get_item(object(index), key); };
  auto classChain = [&](std::uint64_t index) {
    plist_t description = object(uid(field(index, "$class")));
    std::vector<std::string> chain;
    plist_t classes = plist_dict_get_item(description, "$classes");
    for (std::uint32_t i = 0; classes && i < plist_array_get_size(classes); ++i)
      chain.push_back(text(plist_array_get_item(classes, i)));
    EXPECT_EQ(text(plist_dict_get_item(description, "$classname")), chain.empty() ? "" : chain.front());
    return chain;
  };

  EXPECT_EQ(text(object(0)), "$null");
  std::uint64_t root = uid(plist_dict_get_item(archive.itemForKey("$top"), "root"));
  EXPECT_EQ(root, 1u);
  EXPECT_EQ(classChain(root), (std::vector<std::string>{"NSMutableSet", "NSSet", "NSObject"}));
  plist_t members = field(root, "NS.objects");
  ASSERT_EQ(plist_array_get_size(members), 1u);

  std::uint64_t record = uid(plist_array_get_item(members, 0));
  EXPECT_EQ(classChain(record), (std::vector<std::string>{"SUPUploadRecord", "NSObject"}));
  EXPECT_EQ(plist_dict_get_size(object(record)), 3u);  // $class, uuids, uploadDate

  std::uint64_t uuids = uid(field(record, "uuids"));
  EXPECT_EQ(classChain(uuids), (std::vector<std::string>{"NSSet", "NSObject"}));
  plist_t uuidMembers = field(uuids, "NS.objects");
  ASSERT_EQ(plist_array_get_size(uuidMembers), 2u);
  std::set<std::string> uuidTexts;
  for (std::uint32_t i = 0; i < 2; ++i) uuidTexts.insert(text(object(uid(plist_array_get_item(uuidMembers, i)))));
  EXPECT_EQ(uuidTexts, (std::set<std::string>{kUUID1, kUUID2}));

  std::uint64_t date = uid(field(record, "uploadDate"));
  EXPECT_EQ(classChain(date), (std::vector<std::string>{"NSDate", "NSObject"}));
  plist_t time = field(date, "NS.time");
  ASSERT_TRUE(time && plist_get_node_type(time) == PLIST_REAL);
  double seconds = 0;
  plist_get_real_val(time, &seconds);
  EXPECT_DOUBLE_EQ(seconds, 631152000.0);
}

TEST(UploadRecordArchive, ReadsPlatformStoresUnderEitherRecordClassName) {
  for (const char* recordClass : {"SYLUploadRecord", "SUPUploadRecord"}) {
    SCOPED_TRACE(recordClass);
    auto decoded = unarchiveUploadRecords(legacyStore(recordClass));
    ASSERT_TRUE(decoded);
    ASSERT_EQ(decoded->size(), 2u);
    const SUPUploadRecord* first = find(*decoded, {kUUID1, kUUID2});
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->uploadDate(), kNewYear2021);
    const SUPUploadRecord* second = find(*decoded, {kUUID3});
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->uploadDate(), kNewYear2021 + 500ms);
  }
}

TEST(UploadRecordArchive, AnythingButAWholeRecordSetIsNoStore) {
  const std::string good = legacyStore();
  ASSERT_TRUE(unarchiveUploadRecords(good));

  // Records of a class nobody registered.
  EXPECT_FALSE(unarchiveUploadRecords(legacyStore("SomeOtherRecord")));

  // Dates no clock can hold.
  for (double date : {double(INFINITY), -double(INFINITY), double(NAN), 1e300, -1e300})
    EXPECT_FALSE(unarchiveUploadRecords(legacyStore("SYLUploadRecord", date))) << date;

  // A well-formed plist that is not a keyed archive, and archives whose graph
  // does not fit: another archiver, a root that is a record rather than a
  // set, references past the end, a member that is a string.
  EXPECT_FALSE(unarchiveUploadRecords(
      "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>a</key><string>b</string></dict></plist>"));
  {
    HandArchive archive;
    std::uint64_t setClass = archive.classDescription({"NSSet", "NSObject"});
    std::uint64_t root = archive.add(HandArchive::keyed(setClass, {{"NS.objects", HandArchive::uids({})}}));
    EXPECT_TRUE(unarchiveUploadRecords(archive.binary(root)));
    EXPECT_FALSE(unarchiveUploadRecords(archive.binary(root, "NSArchiver")));
    EXPECT_FALSE(unarchiveUploadRecords(archive.binary(1000)));
    EXPECT_FALSE(unarchiveUploadRecords(archive.binary(0)));
  }
  {
    HandArchive archive;
    std::uint64_t setClass = archive.classDescription({"NSSet", "NSObject"});
    std::uint64_t name = archive.add(plist_new_string(kUUID1.c_str()));
    std::uint64_t root =
        archive.add(HandArchive::keyed(setClass, {{"NS.objects", HandArchive::uids({name, 999})}}));
    EXPECT_FALSE(unarchiveUploadRecords(archive.binary(root)));
  }
  {
    // A record whose "$class" points at itself and whose UUID set is missing.
    HandArchive archive;
    std::uint64_t setClass = archive.classDescription({"NSSet", "NSObject"});
    std::uint64_t record = archive.add(HandArchive::keyed(2, {}));
    std::uint64_t root = archive.add(HandArchive::keyed(setClass, {{"NS.objects", HandArchive::uids({record})}}));
    EXPECT_FALSE(unarchiveUploadRecords(archive.binary(root)));
  }
}

}  // namespace
}  // namespace symlift::records
