// The real symlift binary on damaged dSYMs: a real fat dSYM's DWARF file cut
// short at evenly spaced offsets, and with bytes flipped in the fat header,
// in each slice's load commands and in each __DWARF section. Every run must
// end by itself (no signal, no time-out) with status 0 or 8, say why when it
// fails, and never leave a cSYM that is cut short or inconsistent. Special
// files in a dSYM's place are not waited for.

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <mutex>
#include <random>
#include <set>
#include <thread>

#include "e2e/output_lines.h"
#include "e2e/manual_run.h"

namespace symlift::testing::e2e {
namespace {

namespace fs = std::filesystem;

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
