// The generator over real dSYMs read by our DWARF reader: a fat dSYM built
// here with the LLVM toolchain, and the published dSYMs of the shared corpus.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <charconv>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "support/scoped_environment.h"
#include "support/test_support.h"
#include "symbols/csym_generator.h"
#include "symbols/symbol_processor.h"

namespace symlift::testing {
namespace {

namespace fs = std::filesystem;
using symbols::CSYMGenerator;
using symbols::SUPSymbolProcessor;

struct ParsedCSYM {
  std::vector<std::string> header;
  std::vector<std::string> files;
  std::vector<std::string> symbols;
  std::vector<std::array<std::int64_t, 5>> ranges;
};

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::size_t start = 0;
  for (std::size_t end; (end = text.find(separator, start)) != std::string::npos; start = end + 1)
    parts.push_back(text.substr(start, end - start));
  parts.push_back(text.substr(start));
  return parts;
}

std::optional<std::int64_t> number(const std::string& text) {
  std::int64_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// Parses a cSYM document, checking that it is well formed: the header's counts
// match the sections, and every range refers to an existing symbol and file.
::testing::AssertionResult parseCSYM(const std::string& text, ParsedCSYM& out) {
  if (text.empty() || text.back() != '\n') return ::testing::AssertionFailure() << "text does not end in a line feed";
  std::vector<std::string> lines = split(text.substr(0, text.size() - 1), '\n');
  std::size_t next = 0;
  auto line = [&]() -> std::optional<std::string> {
    if (next >= lines.size()) return std::nullopt;
    return lines[next++];
  };
  out.header = split(*line(), '\t');
  if (out.header.size() != 8 || out.header[0] != "code_mapping" || out.header[1] != "1")
    return ::testing::AssertionFailure() << "bad header: " << lines[0];
  if (!std::regex_match(out.header[3], std::regex("[0-9a-f]{32}")))
    return ::testing::AssertionFailure() << "bad UUID field: " << out.header[3];
  auto section = [&](const char* name, std::size_t headerField, std::vector<std::string>& items) -> ::testing::AssertionResult {
    auto title = line();
    auto expected = number(out.header[headerField]);
    if (!title || !expected || *title != std::string(name) + "\t" + out.header[headerField])
      return ::testing::AssertionFailure() << "section " << name << " does not match the header count";
    for (std::int64_t i = 0; i < *expected; ++i) {
      auto item = line();
      if (!item) return ::testing::AssertionFailure() << "section " << name << " is short";
      items.push_back(*item);
    }
    return ::testing::AssertionSuccess();
  };
  std::vector<std::string> rangeLines;
  for (auto result : {section("files", 5, out.files), section("symbols", 6, out.symbols),
                      section("ranges", 7, rangeLines)})
    if (!result) return result;
  if (next != lines.size()) return ::testing::AssertionFailure() << "text continues after the ranges";
  for (const std::string& rangeLine : rangeLines) {
    std::vector<std::string> fields = split(rangeLine, '\t');
    std::array<std::int64_t, 5> values{};
    if (fields.size() != 5) return ::testing::AssertionFailure() << "bad range line: " << rangeLine;
    for (std::size_t i = 0; i < 5; ++i) {
      auto value = number(fields[i]);
      if (!value) return ::testing::AssertionFailure() << "bad range number: " << rangeLine;
      values[i] = *value;
    }
    auto [start, length, symbol, file, lineNumber] = values;
    (void)start;
    (void)length;
    if (symbol < 0 || symbol >= static_cast<std::int64_t>(out.symbols.size()) || file < -1 ||
        file >= static_cast<std::int64_t>(out.files.size()) || lineNumber < -1 || lineNumber > 99999)
      return ::testing::AssertionFailure() << "range refers outside the lists: " << rangeLine;
    out.ranges.push_back(values);
  }
  return ::testing::AssertionSuccess();
}

void run(const std::vector<std::string>& argv, const RunOptions& options = {}) {
  RunResult result = runProgram(argv, options);
  ASSERT_EQ(result.status, 0) << argv[0] << " failed: " << result.err;
}

RunOptions inFolder(const std::string& folder) {
  RunOptions options;
  options.workingDirectory = folder;
  return options;
}

RunOptions withPath(const std::string& path) {
  RunOptions options;
  options.extraEnvironment["PATH"] = path;
  return options;
}

// The UUID of each architecture of a Mach-O or dSYM, as llvm-dwarfdump sees it.
std::map<std::string, std::string> dwarfdumpUUIDs(const std::string& path) {
  std::map<std::string, std::string> uuids;
  RunResult result = runProgram({"/usr/bin/llvm-dwarfdump-14", "--uuid", path});
  std::regex pattern(R"(UUID: ([0-9A-F-]{36}) \((\w+)\))");
  for (std::sregex_iterator it(result.out.begin(), result.out.end(), pattern), end; it != end; ++it) {
    std::string uuid = (*it)[1];
    uuid.erase(std::remove(uuid.begin(), uuid.end(), '-'), uuid.end());
    std::transform(uuid.begin(), uuid.end(), uuid.begin(), [](unsigned char c) { return std::tolower(c); });
    uuids[(*it)[2]] = uuid;
  }
  return uuids;
}

const char* kMainSource = R"(int helper(int x);

int main(void) {
  return helper(3) + 1;
}
)";

const char* kHelperSource = R"(__attribute__((noinline)) int helper(int x) {
  int y = x * 2;
  return y + 7;
}
)";

TEST(RealDSYMTest, GeneratorOnAFatDSYMBuiltWithTheLLVMToolchain) {
  for (const char* tool : {"clang-14", "ld64.lld-14", "llvm-lipo-14", "dsymutil-14", "llvm-dwarfdump-14",
                           "llvm-symbolizer-19"})
    if (!haveProgram(tool)) GTEST_SKIP() << tool << " is not installed";

  TempDir work;
  const std::string dir = work.str();
  work.write("main.c", kMainSource);
  work.write("helper.c", kHelperSource);
  std::vector<std::string> slices;
  for (std::string arch : {"arm64", "x86_64"}) {
    for (std::string unit : {"main", "helper"})
      ASSERT_NO_FATAL_FAILURE(run({"/usr/bin/clang-14", "-target", arch + "-apple-macos11", "-g", "-O1", "-c",
                                   dir + "/" + unit + ".c", "-o", dir + "/" + unit + "-" + arch + ".o"},
                                  inFolder(dir)));
    ASSERT_NO_FATAL_FAILURE(run({"/usr/bin/ld64.lld-14", "-arch", arch, "-platform_version", "macos", "11.0", "11.0",
                                 "-undefined", "dynamic_lookup", "-e", "_main", "-o", dir + "/app-" + arch,
                                 dir + "/main-" + arch + ".o", dir + "/helper-" + arch + ".o"}));
    slices.push_back(dir + "/app-" + arch);
  }
  ASSERT_NO_FATAL_FAILURE(run({"/usr/bin/llvm-lipo-14", slices[0], slices[1], "-create", "-output", dir + "/app"}));
  fs::create_directories(dir + "/bin");
  fs::create_symlink("/usr/bin/llvm-lipo-14", dir + "/bin/lipo");
  ASSERT_NO_FATAL_FAILURE(run({"/usr/bin/dsymutil-14", dir + "/app", "-o", dir + "/app.dSYM"},
                              withPath(dir + "/bin:" + getenv("PATH"))));
  const std::string dwarfFile = dir + "/app.dSYM/Contents/Resources/DWARF/app";

  std::map<std::string, std::string> expectedUUIDs = dwarfdumpUUIDs(dwarfFile);
  ASSERT_EQ(expectedUUIDs.size(), 2u);
  EXPECT_EQ(SUPSymbolProcessor::countSymbolOwnersAtPath(dir + "/app.dSYM"), 4);  // main and helper, twice
  EXPECT_FALSE(SUPSymbolProcessor::checkForHiddenSymbolsAtPath(dir + "/app.dSYM"));

  TempDir output;
  ScopedEnvironment tmp("TMPDIR", output.str());
  std::map<std::string, std::string> written = CSYMGenerator::generateCSYMsFromDSYMAtPath(dwarfFile, 0.0f);
  ASSERT_EQ(written.size(), 2u);

  std::string allTexts;
  for (const auto& [arch, uuid] : expectedUUIDs) {
    ASSERT_EQ(written[uuid], arch);
    std::string text = readFile(output.path() / (arch + "-" + uuid + ".csym"));
    allTexts += text;
    ParsedCSYM csym;
    ASSERT_TRUE(parseCSYM(text, csym)) << text;
    EXPECT_EQ(csym.header[2], "dsym");
    EXPECT_EQ(csym.header[3], uuid);
    EXPECT_EQ(csym.header[4], arch);
    EXPECT_EQ(csym.symbols, (std::vector<std::string>{"main", "helper"})) << text;
    EXPECT_EQ(std::set<std::string>(csym.files.begin(), csym.files.end()),
              (std::set<std::string>{dir + "/main.c", dir + "/helper.c"}))
        << text;

    // Every range with a line agrees with llvm-symbolizer about its start.
    std::vector<std::string> argv{"/usr/bin/llvm-symbolizer-19", "--no-inlines", "--obj=" + dwarfFile,
                                  "--default-arch=" + arch};
    std::vector<std::string> expected;
    for (const auto& [start, length, symbol, file, line] : csym.ranges) {
      (void)length;
      if (line <= 0 || file < 0) continue;
      std::ostringstream address;
      address << "0x" << std::hex << (0x100000000 + start);
      argv.push_back(address.str());
      expected.push_back(csym.symbols[symbol] + "\n" + csym.files[file] + ":" + std::to_string(line) + ":");
    }
    ASSERT_GE(expected.size(), 2u) << text;
    RunResult symbolized = runProgram(argv);
    std::vector<std::string> answers = split(symbolized.out, '\n');
    for (std::size_t i = 0; i < expected.size(); ++i) {
      std::string answer = i * 3 + 1 < answers.size() ? answers[i * 3] + "\n" + answers[i * 3 + 1] : "";
      EXPECT_TRUE(answer.starts_with(expected[i])) << "range " << i << ": expected " << expected[i] << " got "
                                                   << answer;
    }
  }

  // The developer tool prints the same documents.
  RunResult dumped = runProgram({SYMLIFT_CSYM_DUMP, dir + "/app.dSYM"});
  EXPECT_EQ(dumped.status, 0) << dumped.err;
  EXPECT_EQ(dumped.out.size(), allTexts.size());
  for (const auto& entry : fs::directory_iterator(output.path()))
    EXPECT_NE(dumped.out.find(readFile(entry.path())), std::string::npos);
}

// Every DWARF file of the corpus gives well-formed text per
// slice, under the UUIDs the corpus inventory lists.
TEST(RealDSYMTest, CorpusDSYMsGiveWellFormedTextForEverySlice) {
  auto corpus = corpusDir();
  if (!corpus) GTEST_SKIP() << "the shared corpus is not present";
  std::ifstream inventory(*corpus / "INVENTORY.tsv");
  std::string row;
  int checked = 0;
  std::int64_t totalRanges = 0;
  while (std::getline(inventory, row)) {
    std::vector<std::string> fields = split(row, '\t');
    if (fields.size() < 6 || fields[3] != "DSYM" || fields[5].starts_with("noDWARF")) continue;
    const std::string path = (*corpus / fields[0]).string();
    std::map<std::string, std::string> expected;  // uuid → arch
    for (const std::string& entry : split(fields[4], ' ')) {
      std::size_t equals = entry.find('=');
      if (equals == std::string::npos) continue;
      std::string uuid = entry.substr(equals + 1);
      uuid.erase(std::remove(uuid.begin(), uuid.end(), '-'), uuid.end());
      std::transform(uuid.begin(), uuid.end(), uuid.begin(), [](unsigned char c) { return std::tolower(c); });
      expected[uuid] = entry.substr(0, equals);
    }
    std::map<std::string, std::string> seen;
    std::int64_t rangeCount = 0;
    SUPSymbolProcessor::enumerateFormattedDataVersion(
        1, path, [&](std::uint64_t, const std::optional<std::string>& uuid, const std::string& arch,
                     const std::string& data, const support::ErrorPtr& error) {
          ParsedCSYM csym;
          EXPECT_TRUE(parseCSYM(data, csym)) << path << " " << arch;
          EXPECT_FALSE(error) << path;
          if (uuid) seen[*uuid] = arch;
          rangeCount += static_cast<std::int64_t>(csym.ranges.size());
        });
    EXPECT_EQ(seen, expected) << path;
    totalRanges += rangeCount;
    ++checked;
  }
  // Some corpus dSYMs have an empty __text section; together they have plenty.
  EXPECT_GT(checked, 5);
  EXPECT_GT(totalRanges, 10000);
}

}  // namespace
}  // namespace symlift::testing
