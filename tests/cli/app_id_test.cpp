// Where the app identifier comes from: the sources' precedence, what each
// source accepts, and the trimming of the Lumo file's value.

#include "cli/app_id.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include "support/captured_output.h"

namespace symlift::cli {
namespace {

using symlift::testing::binaryPlist;
using symlift::testing::consoleOutput;
using symlift::testing::TempDir;

// What a lookup gave, and what it printed.
using Outcome = std::pair<std::optional<std::string>, std::string>;

template <typename F>
Outcome outcome(F&& f) {
  Outcome result;
  result.second = consoleOutput(console::kLogLevelInfo, [&] { result.first = f(); });
  return result;
}

Outcome failure(const std::string& message) { return {std::nullopt, "error: " + message + "\n"}; }

// Unchanged, even when empty; anything but a dictionary is unreadable.
TEST(AppIDTest, ServicePlistValueIsTakenUnchanged) {
  TempDir dir;
  const std::pair<std::string, std::optional<std::string>> rows[] = {
      {symlift::testing::xmlPlist("<key>API_KEY</key><string>ignored</string>"
                                  "<key>OMVARA_APP_ID</key><string> 1:1234:ios:abcd </string>"),
       " 1:1234:ios:abcd "},
      {binaryPlist("OMVARA_APP_ID", "1:99:mac:ff"), "1:99:mac:ff"},
      {binaryPlist("OMVARA_APP_ID", ""), ""},
      {"not a plist at all {", std::nullopt},
      {"<plist version=\"1.0\"><array><string>x</string></array></plist>", std::nullopt},
      {"<plist version=\"1.0\"><dict/></plist>", std::nullopt},
  };
  for (const auto& [contents, appID] : rows) {
    const std::string path = dir.write("OmvaraService-Info.plist", contents).string();
    EXPECT_EQ(outcome([&] { return appIDFromServicePlist(path); }),
              appID ? Outcome(appID, "") : failure("Unable to read Omvara Service plist at path " + path));
  }
  EXPECT_EQ(outcome([&] { return appIDFromServicePlist(dir.str()); }),
            failure("Unable to read Omvara Service plist at path " + dir.str()));
}

TEST(AppIDTest, LumoFileValueIsTrimmed) {
  TempDir dir;
  const std::string noJSON = "Unable to create json from file at path ";
  const std::string noKey = "Unable to read valid app ID from path ";
  const struct {
    std::string text;
    std::optional<std::string> appID;
    std::string error;
  } rows[] = {
      {"{\"OTHER\": 1, \"OMVARA_APP_ID\": \"  1:5:ios:77\\r\\n\"}", "1:5:ios:77", ""},
      {"{\"OMVARA_APP_ID\": \" \\t\\n \"}", "", ""},
      {"[\"OMVARA_APP_ID\"]", std::nullopt, noJSON},
      {"{\"OMVARA_APP_ID\": ", std::nullopt, noJSON},
      {"\"1:2:ios:3\"", std::nullopt, noJSON},
      {"", std::nullopt, noJSON},
      {"{\"a\":" + std::string(300, '[') + std::string(300, ']') + "}", std::nullopt, noJSON},  // past the cap
      {"{}", std::nullopt, noKey},
      {"{\"OMVARA_APP_ID\": 12}", std::nullopt, noKey},
      {"{\"omvara_app_id\": \"x\"}", std::nullopt, noKey},
  };
  for (const auto& row : rows) {
    const std::string path = dir.write("app.json", row.text).string();
    EXPECT_EQ(outcome([&] { return appIDFromLumoProject(path); }),
              row.appID ? Outcome(row.appID, "") : failure(row.error + path))
        << row.text;
  }
  // A FIFO or a device is not read.
  const std::string fifo = (dir.path() / "fifo.json").string();
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& path : {fifo, std::string("/dev/zero")})
    EXPECT_EQ(outcome([&] { return appIDFromLumoProject(path); }), failure("Unable to read file at path " + path));
}

// The first source given decides, and its failure is final.
TEST(AppIDTest, FirstOptionGivenDecides) {
  TempDir dir;
  const std::string plist = dir.write("named.plist", binaryPlist("OMVARA_APP_ID", "from-named")).string();
  const std::string lumo = dir.write("lumo.json", "{\"OMVARA_APP_ID\": \"from-lumo\"}").string();
  const std::string missing = dir.str() + "/missing.plist";
  dir.write("Products/Res/OmvaraService-Info.plist", binaryPlist("OMVARA_APP_ID", "from-products"));
  const buildenv::Environment products{{"BUILT_PRODUCTS_DIR", dir.str() + "/Products"},
                                       {"UNLOCALIZED_RESOURCES_FOLDER_PATH", "Res"}};
  const buildenv::Environment noResources{{"BUILT_PRODUCTS_DIR", dir.str() + "/Products"}};
  const struct {
    std::vector<std::string> words;
    std::optional<buildenv::Environment> environment;
    Outcome expected;
  } rows[] = {
      {{"-osp", missing, "--app-id", "X", "-bp"}, products, {"X", ""}},  // the plist is not read
      {{"-bp", "-lp", lumo, "-omvara-service-plist", plist}, products, {"from-named", ""}},
      {{"-lp", lumo, "--bp"}, products, {"from-products", ""}},
      {{"--lumo-project", lumo}, products, {"from-lumo", ""}},
      {{"-bp", "-lp", lumo}, noResources,
       failure("Could not get OMVARA_APP_ID in Omvara Services file from build environment")},
      {{"-lp", lumo, "-osp", missing}, std::nullopt, failure("Unable to read Omvara Service plist at path " + missing)},
  };
  for (const auto& row : rows) {
    std::vector<std::string> words{"symlift"};
    words.insert(words.end(), row.words.begin(), row.words.end());
    EXPECT_EQ(outcome([&] { return resolveAppID(ArgumentList(words), row.environment); }), row.expected)
        << ::testing::PrintToString(row.words);
  }
}

TEST(AppIDTest, TrimTakesWhiteSpaceAndLineBreaksAtBothEndsOnly) {
  const std::pair<std::string, std::string> rows[] = {
      {" \t\r\n\v\fa b\n\t ", "a b"},
      // No-break, ideographic and line-separator spaces count; a zero-width space does not.
      {"\xC2\xA0\xE3\x80\x80id\xE2\x80\xA8\xC2\x85", "id"},
      {"id\xE2\x80\x8B", "id\xE2\x80\x8B"},
      {"caf\xC3\xA9 ", "caf\xC3\xA9"},  // a multi-byte letter at the end is not a space
      {" \n ", ""},
      {"", ""},
  };
  for (const auto& [text, trimmed] : rows) EXPECT_EQ(trimWhitespaceAndNewlines(text), trimmed);
}

}  // namespace
}  // namespace symlift::cli
