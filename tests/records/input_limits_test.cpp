// Limits on input that others may control: the bounded file reader, the
// nesting pre-scan in front of the property-list and JSON parsers, the
// store's lock file, and decoding a store far larger than the recorder keeps.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>

#include <fmt/format.h>
#include <plist/plist.h>

#include "records/store_file.h"
#include "records/upload_record_archive.h"
#include "support/files.h"
#include "support/property_list.h"
#include "support/test_support.h"

namespace symlift {
namespace {

namespace fs = std::filesystem;
using support::kMaxNestingDepth;
using testing::TempDir;

TEST(BoundedReaderTest, ReadsOnlyRegularFilesWithinTheCap) {
  TempDir dir;
  const std::string fifo = (dir.path() / "fifo").string();
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const std::string small = dir.write("small", "twelve bytes").string();
  struct Row {
    std::string path;
    std::size_t cap;
    std::optional<std::string> expected;
  } rows[] = {
      {small, 12, "twelve bytes"},
      {dir.write("empty", "").string(), 0, ""},
      {small, 11, std::nullopt},  // one byte over
      {fifo, 1024, std::nullopt},  // nobody writes: must not block
      {"/dev/zero", 1024, std::nullopt},
      {dir.str(), 1024, std::nullopt},
      {(dir.path() / "missing").string(), 1024, std::nullopt},
  };
  for (const Row& row : rows) EXPECT_EQ(support::readRegularFile(row.path, row.cap), row.expected) << row.path;
}

std::string nested(std::size_t depth, const std::string& open, const std::string& close, const std::string& inner) {
  std::string text;
  for (std::size_t i = 0; i < depth; ++i) text += open;
  text += inner;
  for (std::size_t i = 0; i < depth; ++i) text += close;
  return text;
}

std::string xmlList(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" + body + "</plist>\n";
}

// Arrays nested depth deep (one element each around a string), binary.
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

// One array at offset 8 holding a reference to itself.
std::string binaryCycle() {
  std::string bytes = "bplist00";
  bytes += "\xA1";
  bytes += '\0';                  // reference to object 0: itself
  bytes += '\x08';                // offset table: object 0 at 8
  bytes += std::string(6, '\0');  // trailer
  bytes += "\x01\x01";            // offset and reference sizes
  bytes += std::string(7, '\0') + "\x01";   // one object
  bytes += std::string(8, '\0');            // top object 0
  bytes += std::string(7, '\0') + "\x0A";   // offset table at 10
  return bytes;
}

TEST(NestingTest, PropertyListsDeeperThanTheCapAreRefused) {
  const std::string deepInComment = "<!--" + nested(1000, "<array>", "", "") + "-->";
  struct Row {
    const char* name;
    std::string bytes;
    bool accepted;
  } rows[] = {
      {"XML at the cap", xmlList(nested(kMaxNestingDepth, "<array>", "</array>", "<string>a</string>")), true},
      {"XML one past", xmlList(nested(kMaxNestingDepth + 1, "<array>", "</array>", "")), false},
      {"XML dict one past", xmlList(nested(kMaxNestingDepth + 1, "<dict><key>k</key>", "</dict>", "<true/>")), false},
      {"XML 200000 deep", xmlList(nested(200000, "<array>", "", "")), false},
      {"XML empty forms and comments", xmlList("<array>" + nested(1000, "<array/><dict />", "", deepInComment) +
                                               "<![CDATA[" + nested(1000, "<dict>", "", "") + "]]></array>"),
       true},
      {"binary at the cap", binaryNested(kMaxNestingDepth), true},
      {"binary one past", binaryNested(kMaxNestingDepth + 1), false},
      {"binary cycle", binaryCycle(), false},
      {"binary truncated", binaryNested(3).substr(0, 30), false},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(support::propertyListNestingWithin(row.bytes, kMaxNestingDepth), row.accepted) << row.name;
    if (!row.accepted) {
      EXPECT_FALSE(support::PropertyList::fromBytes(row.bytes)) << row.name;
    }
  }
  EXPECT_TRUE(support::PropertyList::fromBytes(binaryNested(kMaxNestingDepth)));
}

TEST(NestingTest, JSONDeeperThanTheCapIsRefused) {
  const std::size_t cap = kMaxNestingDepth;
  struct Row {
    std::string text;
    bool accepted;
  } rows[] = {
      {nested(cap, "[", "]", ""), true},
      {nested(cap + 1, "[", "]", ""), false},
      {nested(cap + 1, "{\"k\":", "}", "1"), false},
      {"[\"" + nested(1000, "[{", "", "") + "\\\"[\"]", true},  // brackets in a string, escaped quote
      {"[\"\\\\\"" + nested(cap, "[", "", ""), false},           // an escaped backslash ends no string
  };
  for (const Row& row : rows) EXPECT_EQ(support::jsonNestingWithin(row.text, cap), row.accepted) << row.text;
}

// No false refusals: every fixture plist and every stored fuzzer input that
// libplist parses passes the pre-scan.
TEST(NestingTest, FixturesAndParsableCorpusInputsPass) {
  std::size_t checked = 0;
  const fs::path root = SYMLIFT_SOURCE_DIR "/tests";
  for (const char* folder : {"fixtures", "fuzz-regressions/property_list_fuzzer", "fuzz-regressions/records_store_fuzzer"}) {
    for (const auto& entry : fs::recursive_directory_iterator(root / folder)) {
      if (!entry.is_regular_file()) continue;
      const bool fixture = std::string(folder) == "fixtures";
      if (fixture && entry.path().extension() != ".plist") continue;
      auto bytes = support::readRegularFile(entry.path().string(), support::kMaxPropertyListFileBytes);
      ASSERT_TRUE(bytes) << entry.path();
      plist_t node = nullptr;
      if (!bytes->empty()) plist_from_memory(bytes->data(), static_cast<std::uint32_t>(bytes->size()), &node);
      if (!node) continue;
      plist_free(node);
      ++checked;
      EXPECT_TRUE(support::propertyListNestingWithin(*bytes, kMaxNestingDepth)) << entry.path();
      if (fixture) {
        EXPECT_TRUE(support::PropertyList::fromFile(entry.path().string()).isDictionary()) << entry.path();
      }
    }
  }
  EXPECT_GE(checked, 3u);
}

TEST(StoreLockTest, PlantedLinkIsNeverFollowed) {
  TempDir dir;
  const fs::path target = dir.path() / "victim";
  const fs::path lock = dir.path() / "records.dat.lock";
  fs::create_symlink(target, lock);  // dangling: open(O_CREAT) would create victim
  std::string error;
  EXPECT_FALSE(records::StoreLock::acquire(lock.string(), &error));
  EXPECT_FALSE(error.empty());
  EXPECT_FALSE(fs::exists(fs::symlink_status(target)));

  dir.write("victim", "untouched");
  EXPECT_FALSE(records::StoreLock::acquire(lock.string(), &error));
  EXPECT_EQ(support::readWholeFile(target.string()), "untouched");
  EXPECT_EQ(fs::status(target).permissions() & fs::perms::owner_read, fs::perms::owner_read);

  const fs::path fresh = dir.path() / "fresh.lock";
  EXPECT_TRUE(records::StoreLock::acquire(fresh.string(), &error)) << error;
  EXPECT_EQ(fs::status(fresh).permissions() & fs::perms::all, fs::perms::owner_read | fs::perms::owner_write);
}

// Far more records than the recorder keeps: every one decodes (the decode
// used to be quadratic; timings are reported, not asserted).
TEST(LargeStoreTest, ManyRecordsRoundTrip) {
  constexpr int kRecords = 2000;
  records::UploadRecordSet written;
  for (int i = 0; i < kRecords; ++i)
    written.insert(records::SUPUploadRecord({fmt::format("{:032x}", i), fmt::format("{:032x}", i + kRecords)},
                                            records::Date(std::chrono::seconds(1609459200 + i))));
  auto read = records::unarchiveUploadRecords(records::archivedDataWithUploadRecords(written));
  ASSERT_TRUE(read);
  EXPECT_EQ(*read, written);
}

}  // namespace
}  // namespace symlift
