// Input made to hurt: nesting that would exhaust a recursive parser, files
// that block or never end, names with control characters or a leading dash,
// paths past the system's limit, an archive that asks for a password. Every
// run ends by itself, with the status and the message a user can act on.
//
// The real symlift binary on damaged dSYMs: a real fat dSYM's DWARF file cut
// short at evenly spaced offsets, and with bytes flipped in the fat header,
// in each slice's load commands and in each __DWARF section. Every run must
// end by itself (no signal, no time-out) with status 0 or 8, say why when it
// fails, and never leave a cSYM that is cut short or inconsistent. Special
// files in a dSYM's place are not waited for.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "e2e/manual_run.h"
#include "e2e/output_lines.h"
#include "network/fake_service_process.h"
#include "support/hostile_inputs.h"
#include "support/test_support.h"

namespace symlift::testing::e2e {
namespace {

namespace fs = std::filesystem;

std::size_t linesEqualTo(const std::string& out, const std::string& line) {
  std::istringstream lines(out);
  std::size_t count = 0;
  for (std::string each; std::getline(lines, each);) count += each == line;
  return count;
}

TEST(HostileInputTest, ServicePlistsThatWouldHangOrCrashAreUnreadable) {
  TempDir work;
  const fs::path fifo = work.path() / "fifo.plist";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  fs::create_symlink("/dev/zero", work.path() / "zero.plist");
  const std::vector<fs::path> plists = {
      work.write("deep-xml.plist", deepXMLPlist(200000)),
      work.write("deep-binary.plist", deepBinaryPlist(100000)),
      fifo,
      work.path() / "zero.plist",
  };
  for (const fs::path& plist : plists) {
    SCOPED_TRACE(plist.filename());
    RunOptions options;
    options.timeoutSeconds = 60;
    RunResult result = runSymlift({"-osp", plist.string(), "-p", "ios", "-c", "--", fatAppDSYM()}, options);
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.status, 13) << result.out;
    EXPECT_EQ(result.out, "error: Unable to read Omvara Service plist at path " + plist.string() + "\n");
  }
}

// A dSYM copied into work under name, with its Info.plist replaced.
fs::path dSYMWithInfo(const TempDir& work, const std::string& name, const std::string& info) {
  const fs::path bundle = work.path() / "in" / name;
  fs::create_directories(bundle.parent_path());
  fs::copy(fixturesDir() / "FatApp.dSYM", bundle, fs::copy_options::recursive);
  fs::remove(bundle / "Contents/Info.plist");
  if (!info.empty()) work.write(fs::relative(bundle / "Contents/Info.plist", work.path()).string(), info);
  return bundle;
}

TEST(HostileInputTest, BundlesWithHurtfulInfoPlistsStillConvert) {
  struct Case {
    const char* name;
    std::string info;
    bool fifo;
  };
  const Case cases[] = {
      {"deep XML", deepXMLPlist(200000), false},
      {"deep binary", deepBinaryPlist(100000), false},
      {"a pipe nobody writes to", "", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir work, tmp;
    const fs::path bundle = dSYMWithInfo(work, "App.dSYM", c.info);
    if (c.fifo) {
      ASSERT_EQ(::mkfifo((bundle / "Contents/Info.plist").c_str(), 0600), 0);
    }
    ASSERT_TRUE(zipFolder(work.path() / "in", work.path() / "Symbols.zip"));
    RunResult result = runByHand({"Symbols.zip"}, tmp.str(), work.str());
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.status, 0) << result.out;
  }
}

TEST(HostileInputTest, PathsAndNamesAreReportedAsTheyAre) {
  TempDir work, tmp;
  // A DWARF file that cannot be opened: a link to itself.
  const fs::path looping = dSYMWithInfo(work, "Loop.dSYM", "");
  const fs::path loopingDWARF = looping / "Contents/Resources/DWARF/FatApp";
  fs::remove(loopingDWARF);
  fs::create_symlink(loopingDWARF, loopingDWARF);
  RunResult loop = runByHand({looping.string()}, tmp.str(), work.str());
  EXPECT_EQ(loop.status, 8) << loop.out;
  EXPECT_NE(loop.out.find("Could not read DWARF file at " + loopingDWARF.string() + ": " + std::strerror(ELOOP)),
            std::string::npos)
      << loop.out;

  // A path longer than the system takes.
  const std::string tooLong = "/tmp/" + std::string(5000, 'x') + ".dSYM";
  RunResult longPath = runByHand({tooLong}, tmp.str(), work.str());
  EXPECT_EQ(longPath.status, 0);
  EXPECT_EQ(linesEqualTo(longPath.out, "warning: Path is too long: " + tooLong), 3u) << longPath.out;

  // An archive whose name starts with a dash.
  dSYMWithInfo(work, "App.dSYM", "");
  ASSERT_TRUE(zipFolder(work.path() / "in", work.path() / "-Symbols.zip"));
  RunResult dashed = runByHand({"-Symbols.zip"}, tmp.str(), work.str());
  EXPECT_EQ(dashed.status, 0) << dashed.out;
  EXPECT_EQ(linesEqualTo(dashed.out, "Successfully uploaded Vantrel symbols"), 1u) << dashed.out;

  // A folder holding a bundle whose name would print a success line of its
  // own and clear the line before it.
  TempDir folder;
  const std::string faked = "App\nSuccessfully uploaded Vantrel symbols\x1b[2K.dSYM";
  fs::copy(fixturesDir() / "FatApp.dSYM", folder.path() / faked, fs::copy_options::recursive);
  RunOptions options;
  options.environment = std::map<std::string, std::string>{{"PATH", "/usr/bin:/bin"}, {"TMPDIR", tmp.str()}};
  RunResult named = runSymlift({"-sdv", "-d", "-ai", "1:9:ios:name", "-p", "ios", "-c", "--", folder.str()}, options);
  EXPECT_EQ(named.status, 0) << named.out;
  EXPECT_NE(named.out.find("Found dSYM at path: " + folder.str() + "/App\\nSuccessfully uploaded Vantrel symbols\\x1b[2K.dSYM"),
            std::string::npos)
      << named.out;
  EXPECT_EQ(linesEqualTo(named.out, "Successfully uploaded Vantrel symbols"), 1u) << named.out;
  EXPECT_EQ(named.out.find('\x1b'), std::string::npos) << named.out;
}

// Finder leaves a .DS_Store wherever a folder was looked at.
TEST(HostileInputTest, AStrayFileInTheDWARFFolderIsLeftOutWithAWarning) {
  TempDir work, tmp;
  const fs::path bundle = dSYMWithInfo(work, "App.dSYM", "");
  const fs::path stray = bundle / "Contents/Resources/DWARF/.DS_Store";
  std::string finder("\0\0\0\1Bud1", 8);
  finder.resize(6148, '\0');
  work.write(fs::relative(stray, work.path()).string(), finder);
  RunResult result = runByHand({bundle.string()}, tmp.str(), work.str());
  EXPECT_EQ(result.status, 0) << result.out;
  EXPECT_EQ(result.out, "warning: No architecture slices in dSYM at " + stray.string() +
                            "\nSuccessfully uploaded Vantrel symbols\n");
}

TEST(HostileInputTest, AnArchiveAtAnAbsolutePathLeavesNoFoldersBehind) {
  FakeServiceProcess service;
  ASSERT_TRUE(service.started());
  TempDir work, tmp;
  dSYMWithInfo(work, "App.dSYM", "");
  ASSERT_TRUE(zipFolder(work.path() / "in", work.path() / "Symbols.zip"));
  RunOptions options;
  options.environment = std::map<std::string, std::string>{
      {"PATH", "/usr/bin:/bin"}, {"TMPDIR", tmp.str()}, {"VantrelUploadEndpoint", service.baseURL()}};
  RunResult result =
      runSymlift({"-sdv", "-ai", "1:9:ios:abs", "-p", "ios", "--", (work.path() / "Symbols.zip").string()}, options);
  EXPECT_EQ(result.status, 0) << result.out;
  EXPECT_EQ(entryNames(tmp.path()), std::vector<std::string>{}) << "the unpack folder's parents stayed";
}

// unzip of an encrypted archive asks the terminal for the password. With a
// terminal as symlift's controlling terminal, nothing may wait for an
// answer that never comes.
TEST(HostileInputTest, AnEncryptedArchiveNeverWaitsForAPassword) {
  if (!haveProgram("zip")) GTEST_SKIP() << "needs zip";
  TempDir work, tmp;
  dSYMWithInfo(work, "App.dSYM", "");
  RunOptions zipIn;
  zipIn.workingDirectory = (work.path() / "in").string();
  ASSERT_EQ(runProgram({"/usr/bin/zip", "-qr", "-P", "secret", (work.path() / "Locked.zip").string(), "."}, zipIn)
                .status,
            0);
  int terminal = -1;
  const pid_t child = ::forkpty(&terminal, nullptr, nullptr, nullptr);
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::setenv("TMPDIR", tmp.str().c_str(), 1);
    ::chdir(work.str().c_str());
    const std::string binary = symliftBinary();
    ::execl(binary.c_str(), binary.c_str(), "-sdv", "-ai", "1:9:ios:lock", "-p", "ios", "-c", "--", "Locked.zip",
            static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::fcntl(terminal, F_SETFL, O_NONBLOCK);
  std::string seen;
  int status = 0;
  bool ended = false;
  for (auto until = std::chrono::steady_clock::now() + std::chrono::seconds(30);
       !ended && std::chrono::steady_clock::now() < until;) {
    char buffer[256];
    for (ssize_t n; (n = ::read(terminal, buffer, sizeof buffer)) > 0;) seen.append(buffer, static_cast<std::size_t>(n));
    ended = ::waitpid(child, &status, WNOHANG) == child;
    if (!ended) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  if (!ended) {
    ::kill(child, SIGKILL);
    ::waitpid(child, &status, 0);
  }
  ::close(terminal);
  EXPECT_TRUE(ended) << "still waiting: " << seen;
  EXPECT_EQ(seen.find("password:"), std::string::npos) << seen;
}

// A stretch of the DWARF file, by offset and length, with a name for messages.
struct Region {
  std::string name;
  std::size_t offset = 0;
  std::size_t size = 0;
};

template <typename T>
T little(const std::string& bytes, std::size_t at) {
  T value = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i)
    value |= static_cast<T>(static_cast<unsigned char>(bytes[at + i])) << (8 * i);
  return value;
}

std::uint32_t bigEndian32(const std::string& bytes, std::size_t at) {
  return __builtin_bswap32(little<std::uint32_t>(bytes, at));
}

// The fat header and, per 64-bit slice, its load commands and every section
// of its __DWARF segment. A small reader of its own, so that a fault in the
// tool's reader cannot hide a region from the test.
std::vector<Region> regionsOf(const std::string& file) {
  std::vector<Region> regions;
  if (file.size() < 8 || bigEndian32(file, 0) != 0xCAFEBABE) return regions;
  const std::uint32_t count = bigEndian32(file, 4);
  regions.push_back({"fat header", 0, 8 + 20 * std::size_t{count}});
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::size_t slice = bigEndian32(file, 8 + 20 * std::size_t{i} + 8);
    if (slice + 32 > file.size() || little<std::uint32_t>(file, slice) != 0xFEEDFACF) continue;
    const std::string prefix = "slice " + std::to_string(i) + " ";
    regions.push_back({prefix + "load commands", slice + 32, little<std::uint32_t>(file, slice + 20)});
    std::size_t at = slice + 32;
    for (std::uint32_t c = 0, commands = little<std::uint32_t>(file, slice + 16); c < commands && at + 8 <= file.size();
         ++c) {
      if (little<std::uint32_t>(file, at) == 0x19 /* LC_SEGMENT_64 */ && file.compare(at + 8, 7, "__DWARF") == 0) {
        for (std::uint32_t s = 0, sections = little<std::uint32_t>(file, at + 64); s < sections; ++s) {
          const std::size_t section = at + 72 + 80 * std::size_t{s};
          if (section + 80 > file.size()) break;
          const auto size = little<std::uint64_t>(file, section + 40);
          const auto offset = little<std::uint32_t>(file, section + 48);
          if (size > 0 && slice + offset + size <= file.size())
            regions.push_back(
                {prefix + file.substr(section, 16).c_str(), slice + offset, static_cast<std::size_t>(size)});
        }
      }
      const std::uint32_t size = little<std::uint32_t>(file, at + 4);
      if (size < 8) break;
      at += size;
    }
  }
  return regions;
}

struct Variant {
  std::string name;
  std::string bytes;  // the whole damaged DWARF file
};

// SYMLIFT_SWEEP_SCALE=n multiplies the seeds per region, for a longer
// search by hand; CI runs the default of 1.
std::uint32_t sweepScale() {
  const char* text = std::getenv("SYMLIFT_SWEEP_SCALE");
  const long value = text ? std::strtol(text, nullptr, 10) : 1;
  return value >= 1 && value <= 1000 ? static_cast<std::uint32_t>(value) : 1;
}

std::vector<Variant> variantsOf(const std::string& original) {
  std::vector<Variant> variants;
  // Cut short at 64 evenly spaced lengths, from nothing to just short of whole.
  for (std::size_t i = 0; i < 64; ++i) {
    const std::size_t length = original.size() * i / 64;
    variants.push_back({"truncated to " + std::to_string(length), original.substr(0, length)});
  }
  // Bytes of a region XORed with a non-zero mask, so every variant really
  // differs; mt19937 is fully specified, so the same on every system.
  for (const auto& region : regionsOf(original)) {
    const bool header = region.name == "fat header" || region.name.ends_with("load commands");
    for (std::uint32_t seed = 1; seed <= (header ? 8 : 4) * sweepScale(); ++seed) {
      std::mt19937 random(seed * 7919 + static_cast<std::uint32_t>(region.offset));
      Variant variant{"flip " + region.name + " seed " + std::to_string(seed) + ", byte ^ mask:", original};
      for (std::uint32_t flip = 0; flip < 1 + seed % 4; ++flip) {
        const std::size_t at = region.offset + random() % region.size;
        const auto mask = static_cast<unsigned>((random() % 255) + 1);
        variant.bytes[at] = static_cast<char>(variant.bytes[at] ^ static_cast<char>(mask));
        variant.name += " " + std::to_string(at) + " ^ " + std::to_string(mask);
      }
      variants.push_back(std::move(variant));
    }
  }
  return variants;
}

// What went wrong with a convert-only run of the variant; empty if nothing.
std::string problemsOfRun(const Variant& variant, const fs::path& scratch, int& status) {
  const fs::path bundle = scratch / "App.dSYM";
  const fs::path tmp = scratch / "tmp";
  fs::create_directories(tmp);
  copyFixture("FatApp.dSYM", bundle);
  std::ofstream(bundle / "Contents/Resources/DWARF/FatApp", std::ios::binary | std::ios::trunc) << variant.bytes;
  const RunResult result = runByHand({bundle.string()}, tmp.string(), scratch.string());
  status = result.status;

  std::string problems;
  if (result.timedOut) problems += "did not end; ";
  if (result.signal != 0) problems += "ended by signal " + std::to_string(result.signal) + "; ";
  if (result.status != 0 && result.status != 8) problems += "exit status " + std::to_string(result.status) + "; ";
  if (result.status == 8 &&
      result.out.find("error: Could not complete submission of dSYM at " + bundle.string() + ": ") == std::string::npos)
    problems += "status 8 without the failure line; ";
  std::size_t csyms = 0;
  for (const auto& name : entriesBelow(tmp)) {
    if (name.find(".partial") != std::string::npos) problems += "left " + name + "; ";
    if (!name.ends_with(".csym")) continue;
    ++csyms;
    if (auto problem = csymProblem(readFile(tmp / name), name); !problem.empty())
      problems += name + ": " + problem + "; ";
  }
  // A successful convert-only run of an intact slice leaves its cSYM; a
  // success claimed with none at all must be a file without slices.
  if (result.status == 0 && csyms == 0 && result.out.find("warning: No architecture slices") == std::string::npos &&
      result.out.find("warning: Path") == std::string::npos &&
      result.out.find("warning: Found a DWARF dir") == std::string::npos)
    problems += "success without cSYMs or a warning; ";
  std::error_code error;
  fs::remove_all(scratch, error);
  return problems.empty() ? problems : problems + "\noutput:\n" + result.out + result.err;
}

TEST(MalformedDSYMTest, EveryDamagedCopyEndsCleanlyWithStatusZeroOrEight) {
  const std::string bytes = readFile(fixturesDir() / "FatApp.dSYM/Contents/Resources/DWARF/FatApp");
  ASSERT_FALSE(bytes.empty());

  // The test's own reader must see what it means to damage.
  std::set<std::string> names;
  for (const auto& region : regionsOf(bytes)) names.insert(region.name);
  for (const std::string slice : {"slice 0 ", "slice 1 "})
    for (const std::string section : {"load commands", "__debug_info", "__debug_abbrev", "__debug_line", "__debug_str"})
      EXPECT_EQ(names.count(slice + section), 1u) << "no region " << slice + section;

  const auto variants = variantsOf(bytes);
  ASSERT_GE(variants.size(), 64u + 8u + 2 * (8u + 4 * 4u));

  TempDir work;
  std::atomic<std::size_t> next{0};
  std::mutex mutex;
  std::map<int, std::size_t> statuses;
  auto worker = [&] {
    for (std::size_t i = next++; i < variants.size(); i = next++) {
      int status = -1;
      const std::string problems = problemsOfRun(variants[i], work.path() / std::to_string(i), status);
      std::lock_guard<std::mutex> guard(mutex);
      ++statuses[status];
      if (!problems.empty()) ADD_FAILURE() << variants[i].name << ": " << problems;
    }
  };
  std::thread helper(worker);
  worker();
  helper.join();
  std::cout << "[ malformed ] " << variants.size() << " damaged copies; by status:";
  for (const auto& [status, count] : statuses) std::cout << ' ' << status << ": " << count;
  std::cout << '\n';
}

// A named pipe would block a plain open for reading until a writer comes; a
// link to /dev/zero reads without end; a fat file may hold no slice at all.
// None is uploaded (nothing listens at the endpoint), none is waited for.
TEST(MalformedDSYMTest, DWARFFilesWithoutSlicesAreLeftOutAndNotWaitedFor) {
  TempDir work;
  const std::vector<std::pair<std::string, std::function<void(const fs::path&)>>> files{
      {"Pipe.dSYM", [](const fs::path& file) { ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0); }},
      {"Zero.dSYM", [](const fs::path& file) { fs::create_symlink("/dev/zero", file); }},
      {"Empty.dSYM", [](const fs::path& file) { fs::copy_file(fixturesDir() / "edge/fat-empty", file); }},
  };
  for (const auto& [name, make] : files) {
    SCOPED_TRACE(name);
    const fs::path dwarf = work.path() / name / "Contents/Resources/DWARF/App";
    fs::create_directories(dwarf.parent_path());
    make(dwarf);
    TempDir tmp;
    const RunResult result = runClean(byHand({}, {(work.path() / name).string()}), tmp.str());
    EXPECT_FALSE(result.timedOut);
    expectExactRun(result, 0,
                   Lines{}.warning("No architecture slices in dSYM at " + dwarf.string()) + Lines{}.uploaded());
    EXPECT_TRUE(fs::is_empty(tmp.path()));
  }
}

}  // namespace
}  // namespace symlift::testing::e2e
