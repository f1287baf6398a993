// symlift in a CI pipeline: output that reaches a log line by line, colour
// and the progress line only on a terminal, the JSON report on every way
// out, and --strict.

#include <gtest/gtest.h>

#include <signal.h>

#include <nlohmann/json.hpp>

#include "e2e/manual_run.h"

namespace symlift::testing::e2e {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using namespace std::chrono_literals;
using Stream = BackgroundRun::Stream;

std::map<std::string, std::string> environment(const TempDir& tmp, const std::string& endpoint = kNowhere) {
  return cleanEnvironment(tmp.str(), endpoint, {{"SYMLIFT_TEST_MAX_RETRY_DELAY_MS", "1"}});
}

TEST(PipelineUseTest, PipedOutputArrivesLineByLine) {
  FakeServiceProcess service({"--delay-ms", "4000"});
  ASSERT_TRUE(service.started());
  TempDir tmp;
  BackgroundRun run(byHand({"-d"}, {fatAppDSYM()}), environment(tmp, service.baseURL()));
  run.waitUntil([&] { return run.out.find('\n') != std::string::npos; }, 3000ms);
  EXPECT_EQ(run.out.substr(0, run.out.find('\n')), "symlift 0.1.0 build 1");
  EXPECT_TRUE(run.running()) << "the line came only once the run was over";
  EXPECT_EQ(run.finish().status, 0) << run.out;
}

TEST(PipelineUseTest, ColourAndTheProgressLineOnlyOnATerminal) {
  struct Case {
    const char* name;
    Stream out, err;
    bool noColour;
    bool colour, progress;
  };
  const Case cases[] = {
      {"both to pipes", Stream::Pipe, Stream::Pipe, false, false, false},
      {"output on a terminal", Stream::Terminal, Stream::Pipe, false, true, false},
      {"output on a terminal, NO_COLOR", Stream::Terminal, Stream::Pipe, true, false, false},
      {"errors on a terminal", Stream::Pipe, Stream::Terminal, false, false, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir tmp;
    auto env = environment(tmp);
    if (c.noColour) env["NO_COLOR"] = "";
    BackgroundRun run(byHand({"-c"}, {fatAppDSYM()}), env, ".", c.out, c.err);
    const RunResult result = run.finish();
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_NE(result.out.find("Successfully uploaded Vantrel symbols"), std::string::npos) << result.out;
    EXPECT_EQ(result.out.find("\x1b[32mSuccessfully uploaded Vantrel symbols\x1b[0m") != std::string::npos, c.colour)
        << result.out;
    const bool drew = result.err.find("[0/2 slices] Converting ") != std::string::npos &&
                      result.err.find("[2/2 slices]") != std::string::npos;
    EXPECT_EQ(drew, c.progress) << result.err;
    // Whatever it drew, the line is gone at the end.
    if (c.progress) {
      EXPECT_TRUE(result.err.ends_with("\r\x1b[2K")) << result.err;
    } else {
      EXPECT_EQ(result.err, "");
    }
  }
}

TEST(PipelineUseTest, ReportOnEveryWayOut) {
  struct Ending {
    const char* name;
    std::vector<std::string> service;
    bool brokenArchive;
    bool interrupt;
    int status;
    const char* sliceStatus;  // of every slice; nullptr: no slice
  };
  const Ending endings[] = {
      {"uploaded", {}, false, false, 0, "uploaded"},
      {"failed upload", {"--fail-first", "1000"}, false, false, 8, "failed"},
      {"archive that will not unpack", {}, true, false, 11, nullptr},
      {"interrupted while uploading", {"--delay-ms", "20000"}, false, true, 128 + SIGTERM, "failed"},
  };
  for (const Ending& ending : endings) {
    SCOPED_TRACE(ending.name);
    FakeServiceProcess service(ending.service);
    ASSERT_TRUE(service.started());
    TempDir tmp, work;
    const fs::path report = work.path() / "report.json";
    const std::string input = ending.brokenArchive ? work.write("Broken.zip", "not a zip").string() : fatAppDSYM();
    BackgroundRun run(byHand({"-d", "--report", report.string()}, {input}), environment(tmp, service.baseURL()));
    if (ending.interrupt) {
      // Once the upload has started, the service holds it.
      ASSERT_TRUE(run.waitUntil([&] { return run.out.find("Uploading cSYM to ") != std::string::npos; }, 20s))
          << run.out;
      run.signal(SIGTERM);
    }
    EXPECT_EQ(run.finish().status, ending.status) << run.out;
    ASSERT_TRUE(fs::exists(report)) << run.out << run.err;
    // The schema in docs/, checked with Debian's JSON Schema validator.
    RunResult check =
        runProgram({"/usr/bin/python3", "-c",
                    "import json,sys,jsonschema\n"
                    "jsonschema.validate(json.load(open(sys.argv[1])), json.load(open(sys.argv[2])))",
                    report.string(), (fs::path(SYMLIFT_SOURCE_DIR) / "docs/report.schema.json").string()});
    EXPECT_EQ(check.status, 0) << check.err << readFile(report);
    const json document = json::parse(readFile(report));
    EXPECT_EQ(document["exitStatus"], ending.status);
    EXPECT_EQ(document["interrupted"], ending.interrupt);
    ASSERT_EQ(document["inputs"].size(), 1u);
    EXPECT_EQ(document["inputs"][0]["path"], input);
    const json& dsyms = document["inputs"][0]["dsyms"];
    if (!ending.sliceStatus) {
      EXPECT_TRUE(dsyms.empty());
      EXPECT_FALSE(document["errors"].empty());
      continue;
    }
    ASSERT_EQ(dsyms.size(), 1u);
    ASSERT_EQ(dsyms[0]["slices"].size(), 2u);
    for (const json& slice : dsyms[0]["slices"]) {
      EXPECT_EQ(slice["status"], ending.sliceStatus) << slice.dump();
      EXPECT_GT(slice["symbols"].get<int>(), 0) << slice.dump();
    }
  }
}

TEST(PipelineUseTest, StrictRefusesUnknownOptionsAndRunsThatUploadNothing) {
  struct Case {
    std::vector<std::string> arguments;
    int status;
    const char* lastLine;
  };
  TempDir empty;
  const Case cases[] = {
      {byHand({"--strict", "--dry-run"}, {fatAppDSYM()}), 3,
       "error: Unknown option --dry-run (run symlift --help for the options)\n"},
      {byHand({"--dry-run", "-val"}, {fatAppDSYM()}), 0, ""},
      {byHand({"--strict", "-c"}, {empty.str()}), 4,
       "error: Nothing was converted: no dSYM with architecture slices was found in the given paths\n"},
      {byHand({"--strict", "-c"}, {fatAppDSYM()}), 0, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(joined(c.arguments));
    TempDir tmp;
    RunResult result = runClean(c.arguments, tmp.str(), kNowhere, environment(tmp));
    EXPECT_EQ(result.status, c.status) << result.out;
    EXPECT_TRUE(result.out.ends_with(c.lastLine)) << result.out;
  }
}

// A DWARF file that goes away while an earlier one of its bundle is being
// uploaded is reported gone when its turn comes, and the run fails.
TEST(PipelineUseTest, DWARFFileGoneBeforeItsTurnFailsTheRun) {
  FakeServiceProcess service({"--delay-ms", "1500"});
  ASSERT_TRUE(service.started());
  TempDir tmp, work;
  const fs::path bundle = work.path() / "Two.dSYM";
  fs::copy(fixturesDir() / "FatApp.dSYM", bundle, fs::copy_options::recursive);
  const fs::path second = bundle / "Contents/Resources/DWARF/Second";
  fs::copy_file(fixturesDir() / "Hello.dSYM/Contents/Resources/DWARF/Hello", second);
  BackgroundRun run(byHand({"-d"}, {bundle.string()}), environment(tmp, service.baseURL()));
  ASSERT_TRUE(run.waitUntil([&] { return run.out.find("Uploading cSYM to ") != std::string::npos; }, 20000ms))
      << run.out;
  fs::remove(second);
  const RunResult result = run.finish();
  EXPECT_EQ(result.status, 8) << result.out;
  EXPECT_NE(result.out.find("error: Could not complete submission of dSYM at " + bundle.string() + ": "),
            std::string::npos)
      << result.out;
  EXPECT_NE(result.out.find("File no longer exists at " + second.string()), std::string::npos) << result.out;
}

}  // namespace
}  // namespace symlift::testing::e2e
