#include "buildenv/task.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>

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

TEST(TaskRunner, StatusAndStreams) {
  auto r = runShell("echo 'no such archive' >&2; exit 3");
  EXPECT_TRUE(r.called);
  EXPECT_EQ(r.err, "no such archive\n");
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(runShell("printf 'a\\000b\\377'").out, std::string("a\0b\xff", 4));
  EXPECT_EQ(runShell("kill -9 $$").status, 128 + SIGKILL);
  EXPECT_EQ(runShell("cat; echo after", 5).out, "after\n");  // standard input is at end of file
}

TEST(TaskRunner, ChattyChildrenNeverBlock) {
  EXPECT_EQ(runShell("head -c 1048576 /dev/zero | tr '\\0' 'a'").out, std::string(1048576, 'a'));
  // Interleaved lines on both streams, each stream well past a pipe buffer.
  auto r = runShell("i=0; while [ $i -lt 4000 ]; do echo \"out $i padding padding padding padding\"; "
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

TEST(TaskRunner, TimeLimit) {
  auto r = runShell("echo started; exec sleep 10", 1.0);
  EXPECT_TRUE(r.called);
  EXPECT_EQ(r.status, 128 + SIGTERM);
  EXPECT_EQ(r.out, "started\n");
  EXPECT_GE(r.seconds, 1.0);
  EXPECT_LT(r.seconds, 1.5);

  r = runShell("echo done", 5);
  EXPECT_EQ(r.status, 0);
  EXPECT_LT(r.seconds, 0.5);  // a quick program is not held up by the limit
}

TEST(TaskRunner, TimeLimitEscalatesWhenTerminationIsIgnored) {
  auto r = runShell("trap '' TERM; while :; do sleep 1; done", 0.3);
  EXPECT_EQ(r.status, 128 + SIGKILL);
  EXPECT_GE(r.seconds, 5.3);
  EXPECT_LT(r.seconds, 7.0);
}

TEST(TaskRunner, ProgramThatCannotStartSkipsTheCompletion) {
  bool called = false;
  auto completion = [&](const std::string&, const std::string&, std::int32_t) { called = true; };
  TempDir dir;
  auto notExecutable = dir.write("script.sh", "#!/bin/sh\necho hi\n");
  EXPECT_FALSE(SUPTask::launchWithPath("/nonexistent/program", std::nullopt, std::nullopt, completion));
  EXPECT_FALSE(SUPTask::launchWithPath(notExecutable.string(), std::nullopt, std::nullopt, completion));
  EXPECT_FALSE(SUPTask::launchWithPath("/bin/sh", std::string("/nonexistent"), SUPTask::Arguments{"-c", "true"},
                                       completion));
  EXPECT_FALSE(called);
  EXPECT_EQ(SUPTask::stdoutWithLaunchPath("/nonexistent/program", {}), std::nullopt);
  EXPECT_FALSE(SUPTask::runTaskWithLaunchPath("/nonexistent/program", {}));
}

TEST(TaskRunner, EnvironmentWorkingDirectoryAndArguments) {
  EXPECT_EQ(runShell("echo \"[$PROBE][${HOME-unset}]\"", 0, {}, SUPTask::EnvironmentMap{{"PROBE", "a b"}}).out,
            "[a b][unset]\n");
  ::setenv("SYMLIFT_INHERITED_PROBE", "from parent", 1);
  EXPECT_EQ(runShell("echo \"$SYMLIFT_INHERITED_PROBE\"").out, "from parent\n");
  ::unsetenv("SYMLIFT_INHERITED_PROBE");

  TempDir dir;
  EXPECT_EQ(runShell("pwd -P", 0, dir.str()).out, std::filesystem::canonical(dir.path()).string() + "\n");
  EXPECT_TRUE(SUPTask::runTaskWithLaunchPath("/bin/sh", dir.str(), {"-c", "touch made-here"}));
  EXPECT_TRUE(std::filesystem::exists(dir.path() / "made-here"));
  EXPECT_FALSE(SUPTask::runTaskWithLaunchPath("/bin/sh", {"-c", "exit 1"}));

  // argv[0] is the program path; arguments arrive unsplit.
  EXPECT_EQ(runShell("echo \"$0\"").out, "/bin/sh\n");
  EXPECT_EQ(SUPTask::stdoutWithLaunchPath("/bin/sh", {"-c", "printf '%s|' \"$@\"", "zero", "a b", "", "c"}),
            "a b||c|");
  EXPECT_EQ(SUPTask::stderrWithLaunchPath("/bin/sh", {"-c", "echo out; echo err >&2"}), "err\n");
  EXPECT_EQ(SUPTask::stdoutWithLaunchPath("/usr/bin/printf", {"a\\377"}), std::nullopt);  // not UTF-8
}

TEST(TaskRunner, WhichFindsUnzip) {
  if (!symlift::testing::haveProgram("unzip")) GTEST_SKIP() << "unzip is not installed";
  auto path = SUPTask::stdoutWithLaunchPath("/usr/bin/which", {"unzip"});
  ASSERT_TRUE(path && path->size() > 1 && path->back() == '\n');
  std::filesystem::path program = path->substr(0, path->size() - 1);
  EXPECT_EQ(program.filename(), "unzip");
  EXPECT_TRUE(std::filesystem::exists(program));
}

TEST(TaskUTF8, Validation) {
  EXPECT_TRUE(SUPTask::isValidUTF8("plain /usr/bin/unzip\n Gr\xC3\xBC\xC3\x9F" "e \xE2\x82\xAC \xF0\x9F\x98\x80"));
  for (const char* bad : {"\xFF", "\xC3", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xE2\x28\xA1"})
    EXPECT_FALSE(SUPTask::isValidUTF8(bad));  // stray, truncated, overlong, surrogate, too big, bad continuation
}

}  // namespace
}  // namespace symlift::buildenv
