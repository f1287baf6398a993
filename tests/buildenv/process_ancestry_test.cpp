#include "buildenv/process_ancestry.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <map>

#include "buildenv/build_environment.h"

namespace symlift::buildenv {
namespace {

using Names = std::vector<std::string>;

TEST(ProcessStat, NameRunsToTheLastClosingParenthesis) {
  auto status = parseProcessStat("4242 (bash) S 4100 4242 4242 34816 4300 4194304 1\n");
  ASSERT_TRUE(status);
  EXPECT_EQ(status->commandName, "bash");
  EXPECT_EQ(status->parentID, 4100);
  status = parseProcessStat("77 (a) b) (c d) R 12 77 77 0");
  ASSERT_TRUE(status);
  EXPECT_EQ(status->commandName, "a) b) (c d");
  EXPECT_EQ(status->parentID, 12);
  for (const char* text : {"", "12 bash S 1", "12 (bash S 1", "12 )bash( S 1", "12 (bash)", "12 (bash) S x"})
    EXPECT_FALSE(parseProcessStat(text)) << text;
}

// pid → status; reads of a pid in `failing` fail that many times first.
struct FakeTable {
  explicit FakeTable(std::map<long, ProcessStatus> table) : processes(std::move(table)) {}
  std::map<long, ProcessStatus> processes;
  std::map<long, int> failing;
  std::vector<long> reads;
  std::optional<ProcessStatus> operator()(long pid) {
    reads.push_back(pid);
    if (failing[pid] > 0 && failing[pid]--) return std::nullopt;
    auto found = processes.find(pid);
    return found == processes.end() ? std::nullopt : std::optional(found->second);
  }
};

TEST(ProcessAncestry, WalksUpAndStopsAfterTheFirstProcess) {
  FakeTable table{{{300, {"symlift", 200}}, {200, {"bash", 1}}, {1, {"launchd", 0}}, {0, {"kernel", 0}}}};
  EXPECT_EQ(ancestorProcessNames(300, std::ref(table)), (Names{"symlift", "bash", "launchd"}));
  EXPECT_EQ(table.reads, (std::vector<long>{300, 200, 1}));
  // In a PID namespace the outermost visible process has parent 0 and no entry.
  FakeTable container{{{30, {"symlift", 7}}, {7, {"sh", 0}}}};
  EXPECT_EQ(ancestorProcessNames(30, std::ref(container)), (Names{"symlift", "sh"}));
}

TEST(ProcessAncestry, GivesUpAfterFiveFailedReadsOfOneProcess) {
  FakeTable table{{{300, {"symlift", 200}}, {200, {"Xcode", 1}}, {1, {"launchd", 0}}}};
  table.failing[200] = 4;
  EXPECT_EQ(ancestorProcessNames(300, std::ref(table)), (Names{"symlift", "Xcode", "launchd"}));
  table.reads.clear();
  table.failing[200] = 5;
  EXPECT_EQ(ancestorProcessNames(300, std::ref(table)), (Names{"symlift"}));
  EXPECT_EQ(table.reads, (std::vector<long>{300, 200, 200, 200, 200, 200}));
}

TEST(ProcessAncestry, RealProcessTable) {
  auto self = readProcessStatus(static_cast<long>(getpid()));
  ASSERT_TRUE(self);
  EXPECT_EQ(self->parentID, static_cast<long>(getppid()));
  auto parent = readProcessStatus(self->parentID);
  ASSERT_TRUE(parent);
  EXPECT_TRUE(hasAncestorProcessNamed("buildenv_tests"));  // the test runner itself
  EXPECT_TRUE(hasAncestorProcessNamed(parent->commandName));
  EXPECT_FALSE(hasAncestorProcessNamed("buildenv_test"));  // exact names only
  EXPECT_FALSE(hasAncestorProcessNamed("no-such-process"));
}

}  // namespace
}  // namespace symlift::buildenv
