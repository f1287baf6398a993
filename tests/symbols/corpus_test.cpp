// Our readers on every real Mach-O file at hand (the fixtures and the shared
// corpus): the slices and UUIDs are those the corpus inventory lists (made
// with llvm-dwarfdump and llvm-objdump); each slice's text is well formed;
// the text written while slices are read, with units decoded on many threads,
// equals the text formatted from the raw lists read on one thread; and so it
// stays on damaged copies.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>

#include "dispatch/thread_pool.h"
#include "macho/macho_binary.h"
#include "support/diagnostics.h"
#include "support/test_support.h"
#include "symbols/dwarf/dwarf_provider.h"
#include "symbols/symbol_processor.h"

namespace symlift::symbols {
namespace {

namespace fs = std::filesystem;
using symlift::testing::TempDir;

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::size_t start = 0;
  for (std::size_t end; (end = text.find(separator, start)) != std::string::npos; start = end + 1)
    parts.push_back(text.substr(start, end - start));
  parts.push_back(text.substr(start));
  return parts;
}

std::vector<fs::path> dwarfFiles() {
  std::vector<fs::path> files;
  for (const fs::path& root : {symlift::testing::fixturesDir(), symlift::testing::corpusDir().value_or(fs::path())}) {
    if (root.empty() || !fs::exists(root)) continue;
    for (const auto& entry : fs::recursive_directory_iterator(root))
      if (entry.is_regular_file() && entry.path().string().find(".dSYM/Contents/Resources/DWARF/") != std::string::npos)
        files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

// "<arch> <uuid>" → text.
using Texts = std::map<std::string, std::string>;

// The streaming text, units decoded on four threads even for a handful of them.
Texts streamed(const std::string& file) {
  dispatch::ThreadPool pool;
  support::DiscardingDiagnosticsSink sink;
  dwarf::DecodeOptions options;
  options.maxParallel = 4;
  options.minimumUnitsPerThread = 1;
  SymbolFileCache cache(pool, sink, dwarf::makeDwarfSymbolicationProvider(options));
  Texts texts;
  SUPSymbolProcessor::enumerateFormattedDataVersion(
      1, file, 0.0f,
      [&](std::uint64_t, const std::optional<std::string>& uuid, const std::string& arch, std::string& data,
          const support::ErrorPtr&) { texts[arch + " " + uuid.value_or("-")] = std::move(data); },
      cache);
  return texts;
}

// The raw lists, read on the calling thread, then formatted.
Texts fromLists(const std::string& file) {
  dispatch::ThreadPool pool;
  support::DiscardingDiagnosticsSink sink;
  dwarf::DecodeOptions options;
  options.maxParallel = 1;
  SymbolFileCache cache(pool, sink, dwarf::makeDwarfSymbolicationProvider(options));
  Texts texts;
  SUPSymbolProcessor::enumerateSymbolicationDataFromFile(
      file,
      [&](std::uint64_t type, const std::optional<std::string>& uuid, const std::string& arch,
          const std::vector<std::string>& files, const std::vector<std::string>& symbols,
          const std::vector<SUPSymbolRange>& ranges, const support::ErrorPtr&) {
        texts[arch + " " + uuid.value_or("-")] =
            SUPSymbolProcessor::formattedDataVersion(1, type, uuid, arch, files, symbols, ranges);
      },
      cache);
  return texts;
}

struct Listed {
  std::vector<std::string> slices;  // "arch uuid" (lower case, no dashes), in fat-header order
  bool withDWARF = false;           // a dSYM with DWARF
};

// The inventory's slices, by file.
std::map<fs::path, Listed> inventory() {
  std::map<fs::path, Listed> listed;
  auto corpus = symlift::testing::corpusDir();
  if (!corpus) return listed;
  std::ifstream rows(*corpus / "INVENTORY.tsv");
  for (std::string row; std::getline(rows, row);) {
    std::vector<std::string> fields = split(row, '\t');
    if (fields.size() < 6) continue;
    Listed& file = listed[(*corpus / fields[0]).lexically_normal()];
    file.withDWARF = fields[3] == "DSYM" && !fields[5].starts_with("noDWARF");
    for (std::string entry : split(fields[4], ' ')) {
      std::size_t equals = entry.find('=');
      if (equals == std::string::npos) continue;
      std::string uuid = entry.substr(equals + 1);
      uuid.erase(std::remove(uuid.begin(), uuid.end(), '-'), uuid.end());
      std::transform(uuid.begin(), uuid.end(), uuid.begin(), [](unsigned char c) { return std::tolower(c); });
      file.slices.push_back(entry.substr(0, equals) + " " + uuid);
    }
  }
  return listed;
}

TEST(Corpus, EverySliceGivesWellFormedTextUnderItsUUIDOnOneThreadAndOnMany) {
  const auto listed = inventory();
  std::size_t slices = 0, ranges = 0, inventoried = 0;
  for (const fs::path& file : dwarfFiles()) {
    SCOPED_TRACE(file.string());
    const Texts many = streamed(file.string());
    EXPECT_TRUE(many == fromLists(file.string())) << "the two paths wrote different texts";
    std::set<std::string> seen;
    for (const auto& [key, text] : many) {
      EXPECT_EQ(symlift::testing::csymProblem(text), "") << key;
      ranges += std::stoull(split(text.substr(0, text.find('\n')), '\t').back());
      ++slices;
      seen.insert(key);
    }
    if (auto found = listed.find(file.lexically_normal()); found != listed.end() && found->second.withDWARF) {
      EXPECT_EQ(seen, std::set<std::string>(found->second.slices.begin(), found->second.slices.end()));
      ++inventoried;
    }
  }
  if (slices == 0) GTEST_SKIP() << "no dSYM found among the fixtures or the corpus";
  EXPECT_GT(ranges, 10000u);  // real work, not empty slices
  if (!listed.empty()) {
    EXPECT_GT(inventoried, 5u);
  }
}

TEST(Corpus, DamagedCopiesGiveTheSameTextOnOneThreadAndOnMany) {
  // The largest fixture or corpus file under 8 MB: damage there reaches group boundaries.
  std::optional<fs::path> source;
  for (const fs::path& file : dwarfFiles())
    if (fs::file_size(file) < (8u << 20) && (!source || fs::file_size(file) > fs::file_size(*source))) source = file;
  if (!source) GTEST_SKIP() << "no dSYM found";
  const std::string good = symlift::testing::readFile(*source);
  const Texts undamaged = fromLists(source->string());
  TempDir dir;
  std::mt19937 random(20261122);
  std::size_t differentFromGood = 0;
  for (int round = 0; round < 60; ++round) {
    std::string damaged = good;
    for (int i = 0; i < 4; ++i) damaged[64 + random() % (damaged.size() - 64)] = static_cast<char>(random());
    const fs::path file = dir.write("damaged-" + std::to_string(round), damaged);
    const Texts one = fromLists(file.string());
    EXPECT_TRUE(one == streamed(file.string())) << round;
    if (one != undamaged) ++differentFromGood;
  }
  EXPECT_GT(differentFromGood, 10u);  // the damage mattered to the reader
}

}  // namespace
}  // namespace symlift::symbols
