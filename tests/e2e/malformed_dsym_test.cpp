// The real symlift binary, convert only, on damaged copies of a real fat dSYM:
// its DWARF file cut short at evenly spaced offsets, and bytes flipped in the
// fat header, in each slice's load commands and in each __DWARF section. Every
// run must end by itself (no signal, no time-out) with status 0 or 8, say why
// when it fails, and never leave a cSYM that is cut short or inconsistent.

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <fstream>
#include <iostream>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "operations/pipeline_test_support.h"
#include "support/test_support.h"

namespace symlift::testing::e2e {
namespace {

namespace fs = std::filesystem;

// A stretch of the DWARF file, by offset and length, with a name for messages.
struct Region {
  std::string name;
  std::size_t offset = 0;
  std::size_t size = 0;
};

std::uint32_t bigEndian32(const std::string& bytes, std::size_t at) {
  return static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[at])) << 24 |
         static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[at + 1])) << 16 |
         static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[at + 2])) << 8 |
         static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[at + 3]));
}

template <typename T>
T little(const std::string& bytes, std::size_t at) {
  T value = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i)
    value |= static_cast<T>(static_cast<unsigned char>(bytes[at + i])) << (8 * i);
  return value;
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
    const std::size_t entry = 8 + 20 * std::size_t{i};
    const std::size_t slice = bigEndian32(file, entry + 8);
    if (slice + 32 > file.size() || little<std::uint32_t>(file, slice) != 0xFEEDFACF) continue;
    const std::uint32_t commands = little<std::uint32_t>(file, slice + 16);
    const std::uint32_t commandBytes = little<std::uint32_t>(file, slice + 20);
    const std::string prefix = "slice " + std::to_string(i) + " ";
    regions.push_back({prefix + "load commands", slice + 32, commandBytes});
    std::size_t at = slice + 32;
    for (std::uint32_t c = 0; c < commands && at + 8 <= file.size(); ++c) {
      const std::uint32_t command = little<std::uint32_t>(file, at);
      const std::uint32_t size = little<std::uint32_t>(file, at + 4);
      if (command == 0x19 /* LC_SEGMENT_64 */ && file.compare(at + 8, 7, "__DWARF") == 0) {
        const std::uint32_t sections = little<std::uint32_t>(file, at + 64);
        for (std::uint32_t s = 0; s < sections; ++s) {
          const std::size_t section = at + 72 + 80 * std::size_t{s};
          if (section + 80 > file.size()) break;
          const std::string name = file.substr(section, 16).c_str();
          const auto size64 = little<std::uint64_t>(file, section + 40);
          const auto offset = little<std::uint32_t>(file, section + 48);
          if (size64 > 0 && slice + offset + size64 <= file.size())
            regions.push_back({prefix + name, slice + offset, static_cast<std::size_t>(size64)});
        }
      }
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

// flips bytes in the region: each chosen byte is XORed with a non-zero value,
// so every variant really differs from the original.
Variant flipped(const std::string& original, const Region& region, std::uint32_t seed, int flips) {
  std::mt19937 random(seed);  // fully specified, so the same on every system
  std::string bytes = original;
  std::ostringstream name;
  name << "flip " << region.name << " seed " << seed << ", byte ^ mask:";
  for (int i = 0; i < flips; ++i) {
    const std::size_t at = region.offset + random() % region.size;
    const auto mask = static_cast<unsigned>((random() % 255) + 1);
    bytes[at] = static_cast<char>(bytes[at] ^ static_cast<char>(mask));
    name << ' ' << at << " ^ " << mask;
  }
  return {name.str(), std::move(bytes)};
}

// SYMLIFT_SWEEP_SCALE=n multiplies the seeds per region, for a longer
// search by hand; CI runs the default of 1.
std::uint32_t sweepScale() {
  const char* text = std::getenv("SYMLIFT_SWEEP_SCALE");
  const long value = text ? std::strtol(text, nullptr, 10) : 1;
  return value >= 1 && value <= 1000 ? static_cast<std::uint32_t>(value) : 1;
}

// SYMLIFT_SWEEP_BINARY runs another build of symlift (a sanitizer build,
// say) over the same damaged copies.
std::string sweepBinary() {
  const char* path = std::getenv("SYMLIFT_SWEEP_BINARY");
  return path && *path ? path : symliftBinary();
}

std::vector<Variant> variantsOf(const std::string& original) {
  std::vector<Variant> variants;
  // Cut short at 64 evenly spaced lengths, from nothing to just short of whole.
  for (std::size_t i = 0; i < 64; ++i) {
    const std::size_t length = original.size() * i / 64;
    variants.push_back({"truncated to " + std::to_string(length), original.substr(0, length)});
  }
  for (const auto& region : regionsOf(original)) {
    const bool header = region.name == "fat header" || region.name.ends_with("load commands");
    const std::uint32_t seeds = (header ? 8 : 4) * sweepScale();
    for (std::uint32_t seed = 1; seed <= seeds; ++seed)
      variants.push_back(flipped(original, region, seed * 7919 + static_cast<std::uint32_t>(region.offset),
                                 static_cast<int>(1 + seed % 4)));
  }
  return variants;
}

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

std::vector<std::string> splitTabs(const std::string& line) {
  std::vector<std::string> fields;
  std::size_t start = 0;
  while (true) {
    const std::size_t end = line.find('\t', start);
    fields.push_back(line.substr(start, end == std::string::npos ? std::string::npos : end - start));
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return fields;
}

bool isNumber(const std::string& text) {
  return !text.empty() && std::all_of(text.begin() + (text[0] == '-' ? 1 : 0), text.end(),
                                      [](char c) { return c >= '0' && c <= '9'; });
}

// Empty when the text is a whole, self-consistent cSYM named by its file
// name (<arch>-<uuid>.csym); otherwise what is wrong with it.
std::string csymProblem(const std::string& fileName, const std::string& text) {
  if (text.empty() || text.back() != '\n') return "does not end with a line break";
  const auto lines = splitLines(text);
  const auto header = splitTabs(lines[0]);
  if (header.size() != 8 || header[0] != "code_mapping" || header[1] != "1") return "bad header: " + lines[0];
  if (fileName != header[4] + "-" + header[3] + ".csym") return "header does not match the name: " + lines[0];
  std::size_t at = 1;
  std::size_t counts[3] = {};
  const char* sections[3] = {"files", "symbols", "ranges"};
  for (int s = 0; s < 3; ++s) {
    if (!isNumber(header[5 + s])) return "bad count in header";
    counts[s] = std::stoull(header[5 + s]);
    if (at >= lines.size() || lines[at] != std::string(sections[s]) + "\t" + header[5 + s])
      return std::string("missing or inconsistent ") + sections[s] + " line";
    at += 1 + counts[s];
    if (at > lines.size()) return std::string("fewer ") + sections[s] + " than counted";
  }
  if (at != lines.size()) return "lines after the ranges";
  for (std::size_t r = lines.size() - counts[2]; r < lines.size(); ++r) {
    const auto fields = splitTabs(lines[r]);
    if (fields.size() != 5 || !std::all_of(fields.begin(), fields.end(), isNumber)) return "bad range: " + lines[r];
    const long long symbol = std::stoll(fields[2]);
    const long long file = std::stoll(fields[3]);
    if (symbol < -1 || symbol >= static_cast<long long>(counts[1])) return "symbol index out of range: " + lines[r];
    if (file < -1 || file >= static_cast<long long>(counts[0])) return "file index out of range: " + lines[r];
  }
  return {};
}

struct Outcome {
  std::string variant;
  std::string failure;  // empty when the run behaved
  int status = -1;
};

Outcome runVariant(const fs::path& dsymTemplate, const Variant& variant, const fs::path& scratch) {
  Outcome outcome{variant.name, {}};
  const fs::path bundle = scratch / "App.dSYM";
  const fs::path tmp = scratch / "tmp";
  fs::create_directories(tmp);
  fs::copy(dsymTemplate, bundle, fs::copy_options::recursive);
  const fs::path dwarf = bundle / "Contents/Resources/DWARF/FatApp";
  {
    std::ofstream out(dwarf, std::ios::binary | std::ios::trunc);
    out.write(variant.bytes.data(), static_cast<std::streamsize>(variant.bytes.size()));
  }

  RunOptions options;
  options.environment = std::map<std::string, std::string>{
      {"PATH", "/usr/bin:/bin"}, {"TMPDIR", tmp.string()}, {"VantrelUploadEndpoint", "http://127.0.0.1:9"}};
  options.timeoutSeconds = 30;
  const RunResult result =
      runProgram({sweepBinary(), "-sdv", "-ai", "1:99:ios:e2e", "-p", "ios", "-c", "--", bundle.string()}, options);
  outcome.status = result.status;

  std::ostringstream problems;
  if (result.timedOut) problems << "did not end within 30 s; ";
  if (result.signal != 0) problems << "ended by signal " << result.signal << "; ";
  if (result.status != 0 && result.status != 8) problems << "exit status " << result.status << "; ";
  if (result.status == 8 && result.out.find("error: Could not complete submission of dSYM at " + bundle.string() +
                                            ": ") == std::string::npos)
    problems << "status 8 without the failure line; ";

  std::error_code error;
  std::size_t csyms = 0;
  for (const auto& entry : fs::directory_iterator(tmp, error)) {
    const std::string name = entry.path().filename().string();
    if (name.find(".partial") != std::string::npos) problems << "left " << name << "; ";
    if (!name.ends_with(".csym")) continue;
    ++csyms;
    if (auto problem = csymProblem(name, readFile(entry.path())); !problem.empty())
      problems << name << ": " << problem << "; ";
  }
  // A successful convert-only run of an intact slice leaves its cSYM; a
  // success claimed with none at all must be a file without slices.
  if (result.status == 0 && csyms == 0 && result.out.find("warning: No architecture slices") == std::string::npos &&
      result.out.find("warning: Path") == std::string::npos && result.out.find("warning: Found a DWARF dir") == std::string::npos)
    problems << "success without cSYMs or a warning; ";

  outcome.failure = problems.str();
  if (!outcome.failure.empty()) outcome.failure += "\noutput:\n" + result.out + result.err;
  fs::remove_all(scratch, error);
  return outcome;
}

TEST(MalformedDSYMTest, EveryDamagedCopyEndsCleanlyWithStatusZeroOrEight) {
  const fs::path original = fixturesDir() / "FatApp.dSYM";
  const std::string bytes = readFile(original / "Contents/Resources/DWARF/FatApp");
  ASSERT_FALSE(bytes.empty());

  // The test's own reader must see what it means to damage.
  const auto regions = regionsOf(bytes);
  std::set<std::string> names;
  for (const auto& region : regions) names.insert(region.name);
  for (const std::string slice : {"slice 0 ", "slice 1 "})
    for (const std::string section : {"load commands", "__debug_info", "__debug_abbrev", "__debug_line", "__debug_str"})
      EXPECT_EQ(names.count(slice + section), 1u) << "no region " << slice + section;

  const auto variants = variantsOf(bytes);
  ASSERT_GE(variants.size(), 64u + 8u + 2 * (8u + 4 * 4u));

  TempDir work;
  std::atomic<std::size_t> next{0};
  std::mutex mutex;
  std::vector<Outcome> failures;
  std::map<int, std::size_t> statuses;
  auto worker = [&] {
    for (std::size_t i = next++; i < variants.size(); i = next++) {
      Outcome outcome = runVariant(original, variants[i], work.path() / std::to_string(i));
      std::lock_guard<std::mutex> guard(mutex);
      ++statuses[outcome.status];
      if (!outcome.failure.empty()) failures.push_back(std::move(outcome));
    }
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) threads.emplace_back(worker);
  for (auto& thread : threads) thread.join();

  for (const auto& failure : failures) ADD_FAILURE() << failure.variant << ": " << failure.failure;
  std::cout << "[ malformed ] " << variants.size() << " damaged copies, " << failures.size() << " misbehaved; by status:";
  for (const auto& [status, count] : statuses) std::cout << ' ' << status << ": " << count;
  std::cout << '\n';
}

TEST(MalformedDSYMTest, SpecialFilesInTheDWARFFolderAreNotWaitedFor) {
  // A named pipe would block a plain open for reading until a writer comes;
  // a link to /dev/zero reads without end.
  TempDir work;
  const fs::path fifoBundle = work.path() / "Pipe.dSYM";
  fs::create_directories(fifoBundle / "Contents/Resources/DWARF");
  ASSERT_EQ(::mkfifo((fifoBundle / "Contents/Resources/DWARF/App").c_str(), 0600), 0);
  const fs::path zeroBundle = work.path() / "Zero.dSYM";
  fs::create_directories(zeroBundle / "Contents/Resources/DWARF");
  fs::create_symlink("/dev/zero", zeroBundle / "Contents/Resources/DWARF/App");
  for (const auto& bundle : {fifoBundle, zeroBundle}) {
    TempDir tmp;
    RunOptions options;
    options.environment = std::map<std::string, std::string>{{"PATH", "/usr/bin:/bin"}, {"TMPDIR", tmp.str()}};
    options.timeoutSeconds = 30;
    const RunResult result = runSymlift({"-sdv", "-ai", "1:99:ios:e2e", "-p", "ios", "-c", "--", bundle.string()}, options);
    EXPECT_FALSE(result.timedOut) << bundle;
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_NE(result.out.find("warning: No architecture slices in dSYM at " + bundle.string()), std::string::npos)
        << result.out;
    EXPECT_TRUE(fs::is_empty(tmp.path()));
  }
}

TEST(MalformedDSYMTest, TheCSYMCheckRejectsWhatIsCutShortOrInconsistent) {
  const std::string whole =
      "code_mapping\t1\tdsym\tabc\tarm64\t1\t1\t1\nfiles\t1\na.c\nsymbols\t1\nmain\nranges\t1\n0\t4\t0\t0\t3\n";
  EXPECT_EQ(csymProblem("arm64-abc.csym", whole), "");
  EXPECT_NE(csymProblem("arm64-abc.csym", whole.substr(0, whole.size() - 1)), "");
  EXPECT_NE(csymProblem("arm64-abc.csym", whole.substr(0, whole.size() - 6)), "");
  EXPECT_NE(csymProblem("x86_64-abc.csym", whole), "");
  std::string badIndex = whole;
  badIndex.replace(badIndex.rfind("0\t0\t3"), 5, "5\t0\t3");
  EXPECT_NE(csymProblem("arm64-abc.csym", badIndex), "");
}

}  // namespace
}  // namespace symlift::testing::e2e
