// Running a program (unzip, xdg-mime): its streams, status and time limit.

#include "buildenv/task.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>

#include "support/test_support.h"

namespace symlift::buildenv {
namespace {

using symlift::testing::TempDir;

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

}  // namespace
}  // namespace symlift::buildenv
