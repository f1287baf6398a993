// Limits on input that others may control: the bounded file reader, the
// nesting pre-scan in front of the property-list and JSON parsers, and the
// store's lock file.

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <string>

#include <plist/plist.h>

#include "records/store_file.h"
#include "support/files.h"
#include "support/property_list.h"
#include "support/test_support.h"

namespace symlift {
namespace {

namespace fs = std::filesystem;
using support::kMaxNestingDepth;
using testing::TempDir;

TEST(InputLimitsTest, BoundedReaderReadsOnlyRegularFilesWithinTheCap) {
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

TEST(InputLimitsTest, PropertyListsDeeperThanTheCapAreRefused) {
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

TEST(InputLimitsTest, JSONDeeperThanTheCapIsRefused) {
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

// No false refusals: every fixture plist and every stored fuzzer input that
// libplist parses passes the pre-scan.
TEST(InputLimitsTest, FixturesAndParsableCorpusInputsPass) {
  std::size_t checked = 0;
  const fs::path root = SYMLIFT_SOURCE_DIR "/tests";
  for (const std::string folder : {"fixtures", "fuzz-regressions/property_list_fuzzer", "fuzz-regressions/records_store_fuzzer"}) {
    for (const auto& entry : fs::recursive_directory_iterator(root / folder)) {
      const bool fixture = folder == "fixtures";
      if (!entry.is_regular_file() || (fixture && entry.path().extension() != ".plist")) continue;
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

// A link planted at the lock file's name is never followed, dangling or not;
// a fresh lock file is private to the user.
TEST(InputLimitsTest, StoreLockNeverFollowsAPlantedLink) {
  TempDir dir;
  const fs::path target = dir.path() / "victim", lock = dir.path() / "records.dat.lock";
  fs::create_symlink(target, lock);
  std::string error;
  EXPECT_FALSE(records::StoreLock::acquire(lock.string(), &error));
  EXPECT_FALSE(error.empty());
  EXPECT_FALSE(fs::exists(fs::symlink_status(target)));
  dir.write("victim", "untouched");
  EXPECT_FALSE(records::StoreLock::acquire(lock.string(), &error));
  EXPECT_EQ(support::readWholeFile(target.string()), "untouched");

  const fs::path fresh = dir.path() / "fresh.lock";
  EXPECT_TRUE(records::StoreLock::acquire(fresh.string(), &error)) << error;
  EXPECT_EQ(fs::status(fresh).permissions() & fs::perms::all, fs::perms::owner_read | fs::perms::owner_write);
}

}  // namespace
}  // namespace symlift
