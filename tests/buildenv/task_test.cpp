// Running a program (unzip, xdg-mime): its streams, status and time limit.
//
// Framework search paths from a build setting: which words are folders, and
// settings whose blanks were not escaped rebuilt from their pieces.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>

#include "buildenv/environment_search_paths.h"
#include "buildenv/task.h"
#include "support/test_support.h"

namespace symlift::buildenv {
namespace {

using symlift::testing::TempDir;
using ::testing::ElementsAre;
using ::testing::Optional;

struct Result {
  bool called = false;
  std::string err, out;
  std::int32_t status = -1;
  double seconds = 0;
};

Result runShell(const std::string& script, double timeout = 0, const std::optional<std::string>& directory = {},
                const std::optional<SUPTask::EnvironmentMap>& environment = {}) {
  Result r;
  auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(SUPTask::launchWithPath("/bin/sh", directory, SUPTask::Arguments{"-c", script}, environment, timeout,
                                      [&](const std::string& err, const std::string& out, std::int32_t status) {
                                        r = {true, err, out, status};
                                      }));
  r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return r;
}

// Both streams in full (binary, and well past a pipe buffer each, interleaved),
// the exit status (128 + the signal when killed), standard input at its end.
TEST(TaskTest, StatusAndBothStreams) {
  auto r = runShell("echo 'no such archive' >&2; exit 3");
  EXPECT_TRUE(r.called);
  EXPECT_EQ(std::tie(r.err, r.out, r.status), std::make_tuple("no such archive\n", "", 3));
  EXPECT_EQ(runShell("printf 'a\\000b\\377'").out, std::string("a\0b\xff", 4));
  EXPECT_EQ(runShell("kill -9 $$").status, 128 + SIGKILL);
  EXPECT_EQ(runShell("cat; echo after", 5).out, "after\n");
  r = runShell("i=0; while [ $i -lt 4000 ]; do echo \"out $i padding padding padding padding\"; "
               "echo \"err $i padding padding padding padding\" >&2; i=$((i+1)); done");
  std::string out, err;
  for (int i = 0; i < 4000; ++i) {
    out += "out " + std::to_string(i) + " padding padding padding padding\n";
    err += "err " + std::to_string(i) + " padding padding padding padding\n";
  }
  EXPECT_EQ(r.out, out);
  EXPECT_EQ(r.err, err);
  // A grandchild still holding the pipes does not keep us waiting.
  r = runShell("(sleep 3 &); echo parent-done");
  EXPECT_EQ(r.out, "parent-done\n");
  EXPECT_LT(r.seconds, 2.5);
}

// SIGTERM at the limit, SIGKILL five seconds later if that is ignored; a
// quick program is not held up by its limit.
TEST(TaskTest, TimeLimit) {
  auto r = runShell("echo started; exec sleep 10", 1.0);
  EXPECT_EQ(std::tie(r.status, r.out), std::make_tuple(128 + SIGTERM, "started\n"));
  EXPECT_GE(r.seconds, 1.0);
  EXPECT_LT(r.seconds, 1.5);
  r = runShell("echo done", 5);
  EXPECT_EQ(r.status, 0);
  EXPECT_LT(r.seconds, 0.5);
  r = runShell("trap '' TERM; while :; do sleep 1; done", 0.3);
  EXPECT_EQ(r.status, 128 + SIGKILL);
  EXPECT_GE(r.seconds, 5.3);
  EXPECT_LT(r.seconds, 7.0);
}

// argv[0] is the program path and the arguments arrive unsplit; the text
// output is given only when it is UTF-8.
TEST(TaskTest, ArgumentsAndUTF8Output) {
  EXPECT_EQ(runShell("echo \"$0\"").out, "/bin/sh\n");
  EXPECT_EQ(SUPTask::stdoutWithLaunchPath("/bin/sh", {"-c", "printf '%s|' \"$@\"", "zero", "a b", "", "c"}),
            "a b||c|");
  EXPECT_EQ(SUPTask::stdoutWithLaunchPath("/usr/bin/printf", {"a\\377"}), std::nullopt);
  EXPECT_TRUE(SUPTask::isValidUTF8("plain /usr/bin/unzip\n Gr\xC3\xBC\xC3\x9F" "e \xE2\x82\xAC \xF0\x9F\x98\x80"));
  for (const char* bad : {"\xFF", "\xC3", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xE2\x28\xA1"})
    EXPECT_FALSE(SUPTask::isValidUTF8(bad));  // stray, truncated, overlong, surrogate, too big, bad continuation
}

using Paths = SUPEnvironment::Paths;

// Real folders "Frameworks", "My Frameworks", "Lib", "Lib Extra" and
// "Vendor/SDKs", and a plain file "notes.txt".
class SearchPathsTest : public ::testing::Test {
 protected:
  SearchPathsTest() {
    for (const char* folder : {"Frameworks", "My Frameworks", "Lib", "Lib Extra", "Vendor/SDKs"})
      std::filesystem::create_directories(dir.path() / folder);
    dir.write("notes.txt", "not a folder");
  }
  std::string at(const std::string& relative) const { return (dir.path() / relative).string(); }
  const SUPFileManager& files = SUPFileManager::defaultManager();
  symlift::testing::TempDir dir;
};

TEST_F(SearchPathsTest, ValidPathsAreExistingFoldersWithOptionalRecursiveMarker) {
  const std::tuple<std::string, std::string, bool> rows[] = {
      {at("Frameworks"), "", true},         {at("Vendor") + "/**", "", true}, {at("Vendor") + "/**/", "", true},
      {"Vendor/SDKs", dir.str(), true},     {"**", dir.str(), true},          {"", "", false},
      {at("Missing") + "/**", "", false},   {at("notes.txt"), "", false},     {"Vendor/SDKs", at("Frameworks"), false},
      {at("Vendor") + "/*", "", false},
  };
  for (const auto& [path, workingDirectory, valid] : rows)
    EXPECT_EQ(SUPEnvironment::isValidFrameworkSearchPath(path, workingDirectory, files), valid) << path;
}

TEST_F(SearchPathsTest, MangledSettingsAreRebuiltFromTheirPieces) {
  const std::pair<std::string, Paths> rows[] = {
      // A folder name with one unescaped blank is joined back from two pieces.
      {at("My Frameworks") + " " + at("Frameworks"), {at("My Frameworks"), at("Frameworks")}},
      // "Lib" alone is a folder, but "Extra" fits nowhere, so the two are joined.
      {at("Lib Extra") + " Vendor/SDKs", {at("Lib Extra"), "Vendor/SDKs"}},
      // A piece that fits nowhere, even joined to the path before it, is dropped.
      {at("Frameworks") + " bogus", {at("Frameworks")}},
      // A quoted path is kept while parsing and unquoted at the end.
      {"\"" + at("My Frameworks") + "\" " + at("Missing Folder"), {at("My Frameworks")}},
      {at("Vendor") + "/** " + at("Frameworks"), {at("Vendor") + "/**", at("Frameworks")}},
      {"", {}},
  };
  for (const auto& [text, paths] : rows)
    EXPECT_EQ(SUPEnvironment::parseMangledFrameworkSearchPathsFromString(text, dir.str(), files), paths) << text;
  // The combined parse falls back to this one.
  for (const char* blank : {"\\ ", " "})
    EXPECT_THAT(SUPEnvironment::parseFrameworkSearchPathsFromString(at("Lib") + " " + dir.str() + "/My" + blank +
                                                                        "Frameworks", dir.str()),
                Optional(ElementsAre(at("Lib"), at("My Frameworks"))));
}

// Words of a setting: blanks split, quotes group, backslashes escape.
TEST(SearchPathsWordsTest, BlanksQuotesAndEscapes) {
  const std::pair<std::string, Paths> rows[] = {
      {" \t\n ", {}},
      {"-F/a  -F\t/b\n-framework\r\nUIKit ", {"-F/a", "-F", "/b", "-framework", "UIKit"}},
      {"\"/My Frameworks\" '/Other Place' -F\"$(SRCROOT)/V L\"/x", {"/My Frameworks", "/Other Place", "-F$(SRCROOT)/V L/x"}},
      {"a \"\" '' b", {"a", "", "", "b"}},
      {"'it\"s' \"it's\"", {"it\"s", "it's"}},
      {"/My\\ Frameworks \\\"q\\\"", {"/My Frameworks", "\"q\""}},
      {"\"a\\\"b\\\\c\\d\" 'a\\ b'", {"a\"b\\c\\d", "a\\ b"}},
      {"one\\\ntwo three end\\", {"onetwo", "three", "end\\"}},
      {"a \"b c", {"a", "b c"}},  // an unterminated quote runs to the end
  };
  for (const auto& [text, words] : rows) EXPECT_EQ(SUPTask::parsedArgumentsFromString(text), words) << text;
}

}  // namespace
}  // namespace symlift::buildenv
