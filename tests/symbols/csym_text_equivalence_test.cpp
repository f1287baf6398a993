// The converter's fast path against its plain one: the cSYM text built while
// the slice is read, with units decoded on several threads, must equal, byte
// for byte, the text formatted from the per-slice lists read on one thread —
// on every fixture and real dSYM, and on damaged copies of one.

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <random>
#include <string>

#include "support/test_support.h"
#include "symbols/csym_text.h"
#include "symbols/dwarf/image_symbols.h"
#include "symbols/symbol_processor.h"

namespace symlift::symbols {
namespace {

namespace fs = std::filesystem;
using symlift::testing::TempDir;

// "<arch> <uuid>" → cSYM text of that slice.
using Texts = std::map<std::string, std::string>;

std::string keyOf(const std::optional<std::string>& uuid, const std::string& arch) {
  return arch + " " + uuid.value_or("-");
}

Texts fromLists(const std::string& file) {
  Texts texts;
  SUPSymbolProcessor::enumerateSymbolicationDataFromFile(
      file, [&](std::uint64_t type, const std::optional<std::string>& uuid, const std::string& arch,
                const std::vector<std::string>& files, const std::vector<std::string>& symbols,
                const std::vector<SUPSymbolRange>& ranges, const support::ErrorPtr&) {
        texts[keyOf(uuid, arch)] = formatCSYMText(type, uuid, arch, files, symbols, ranges);
      });
  return texts;
}

Texts formatted(const std::string& file) {
  Texts texts;
  SUPSymbolProcessor::enumerateFormattedDataVersion(
      1, file, [&](std::uint64_t, const std::optional<std::string>& uuid, const std::string& arch,
                   std::string& data, const support::ErrorPtr&) { texts[keyOf(uuid, arch)] = std::move(data); });
  return texts;
}

class CSYMTextEquivalenceTest : public ::testing::Test {
 protected:
  void TearDown() override { dwarf::setMaxDecodeThreads(0); }

  // One thread, lists then formatting: the reference.
  static Texts reference(const std::string& file) {
    dwarf::setMaxDecodeThreads(1);
    return fromLists(file);
  }
  // Four threads even for a handful of units, text built on the way.
  static Texts fast(const std::string& file) {
    dwarf::setMaxDecodeThreads(4, 1);
    return formatted(file);
  }
};

std::vector<fs::path> dwarfFiles() {
  std::vector<fs::path> files;
  auto add = [&](const fs::path& root) {
    if (!fs::exists(root)) return;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
      const std::string path = entry.path().string();
      if (entry.is_regular_file() && path.find(".dSYM/Contents/Resources/DWARF/") != std::string::npos)
        files.push_back(entry.path());
    }
  };
  add(symlift::testing::fixturesDir());
  if (auto corpus = symlift::testing::corpusDir()) add(*corpus);
  std::sort(files.begin(), files.end());
  return files;
}

TEST_F(CSYMTextEquivalenceTest, FastPathWritesTheReferenceTextForEveryDSYM) {
  std::size_t slices = 0, ranges = 0;
  for (const fs::path& file : dwarfFiles()) {
    SCOPED_TRACE(file.string());
    const Texts expected = reference(file.string());
    const Texts actual = fast(file.string());
    ASSERT_EQ(actual.size(), expected.size());
    for (const auto& [key, text] : expected) {
      SCOPED_TRACE(key);
      ASSERT_TRUE(actual.count(key));
      EXPECT_TRUE(actual.at(key) == text) << "texts differ (" << actual.at(key).size() << " vs " << text.size()
                                          << " bytes)";
      ++slices;
      ranges += static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
    }
  }
  if (slices == 0) GTEST_SKIP() << "no dSYM found among the fixtures or the corpus";
  // The comparison must have covered real work, not empty slices.
  EXPECT_GT(ranges, 1000u);
}

TEST_F(CSYMTextEquivalenceTest, DamagedCopiesGiveTheSameTextOnOneThreadAndOnMany) {
  // The fixture with the most units: damage there reaches group boundaries.
  std::optional<fs::path> source;
  std::uintmax_t largest = 0;
  for (const fs::path& file : dwarfFiles()) {
    if (fs::file_size(file) > largest && fs::file_size(file) < (8u << 20)) {
      largest = fs::file_size(file);
      source = file;
    }
  }
  if (!source) GTEST_SKIP() << "no dSYM found";
  const std::string good = symlift::testing::readFile(*source);
  const Texts undamaged = reference(source->string());
  TempDir dir;
  std::mt19937 random(20261122);
  std::size_t differentFromGood = 0;
  for (int round = 0; round < 60; ++round) {
    std::string damaged = good;
    // A few bytes changed anywhere past the Mach-O header.
    for (int i = 0; i < 4; ++i) {
      const std::size_t at = 64 + random() % (damaged.size() - 64);
      damaged[at] = static_cast<char>(random());
    }
    const fs::path file = dir.write("damaged-" + std::to_string(round), damaged);
    SCOPED_TRACE(round);
    const Texts one = reference(file.string());
    const Texts many = fast(file.string());
    EXPECT_TRUE(one == many);
    if (one != undamaged) ++differentFromGood;
  }
  // The damage must have mattered to the reader most of the time.
  EXPECT_GT(differentFromGood, 10u);
}

}  // namespace
}  // namespace symlift::symbols
