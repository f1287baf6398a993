// Compares what our reader says about code addresses with what
// llvm-symbolizer says about the same addresses, for every Mach-O slice of
// the committed fixtures (DWARF 4 and 5 from both LLVM tool chains, -O2
// inlining) and of the shared corpus of real dSYMs.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "demangle/demangle.h"
#include "support/test_support.h"
#include "symbols/dwarf/debug_info.h"
#include "symbols/dwarf/dwarf_provider.h"
#include "symbols/dwarf/line_table.h"
#include "symbols/symbol_file_cache.h"

namespace symlift::symbols::dwarf {
namespace {

namespace fs = std::filesystem;
using symlift::testing::corpusDir;
using symlift::testing::fixturesDir;
using symlift::testing::haveProgram;
using symlift::testing::machOFilesUnder;
using symlift::testing::runProgram;
using symlift::testing::TempDir;

constexpr std::size_t kRandomAddresses = 1000;
// Row, symbol and record addresses per slice beyond this are sampled
// evenly, to keep the whole comparison within a minute or two on two cores.
constexpr std::size_t kMaxRecordAddresses = 5000;

struct Answer {
  std::string function = "??";
  std::string file = "??";
  std::uint64_t line = 0;
  // Ours only: the symbol before an address that lies in no symbol.
  std::string preceding;
};

struct Record {
  std::string path;
  std::uint64_t line, address, length;
};
struct Symbol {
  std::string name;
  std::uint64_t address, length;
  std::vector<Record> records;
};

Answer ourAnswer(const std::vector<Symbol>& symbols, std::uint64_t address) {
  Answer answer;
  // The symbol with the highest start at or below the address that reaches
  // it; symbols with DWARF extents may overlap a few of their neighbours.
  auto it = std::upper_bound(symbols.begin(), symbols.end(), address,
                             [](std::uint64_t a, const Symbol& s) { return a < s.address; });
  if (it != symbols.begin()) answer.preceding = std::prev(it)->name;
  for (int step = 0; step < 16 && it != symbols.begin(); ++step) {
    --it;
    if (address >= it->address + it->length) continue;
    answer.function = it->name;
    for (const Record& record : it->records) {
      if (address >= record.address && address < record.address + record.length) {
        answer.file = record.path.empty() ? "??" : record.path;
        answer.line = record.line;
      }
    }
    break;
  }
  return answer;
}

// Runs llvm-symbolizer over many addresses at once (addresses on stdin).
std::vector<Answer> symbolizerAnswers(const fs::path& file, const std::string& arch,
                                      const std::vector<std::uint64_t>& addresses, const TempDir& temp) {
  std::ostringstream input;
  for (std::uint64_t address : addresses) input << "0x" << std::hex << address << "\n";
  fs::path inputPath = temp.write("addresses.txt", input.str());
  std::string command = "llvm-symbolizer-19 --no-inlines --obj='" + file.string() + "' --default-arch=" + arch +
                        " < '" + inputPath.string() + "'";
  auto result = runProgram({"/bin/sh", "-c", command});
  std::vector<Answer> answers;
  std::istringstream output(result.out);
  std::string function, location, blank;
  while (std::getline(output, function) && std::getline(output, location)) {
    std::getline(output, blank);
    Answer answer;
    // The symbolizer leaves Swift names mangled; ours come demangled.
    answer.function = demangle::demangleSwift(function).value_or(function);
    // file:line:column, where the file may itself hold colons.
    std::size_t column = location.rfind(':');
    std::size_t line = column == std::string::npos ? std::string::npos : location.rfind(':', column - 1);
    if (line != std::string::npos) {
      answer.file = location.substr(0, line);
      answer.line = std::stoull(location.substr(line + 1, column - line - 1));
    }
    answers.push_back(answer);
  }
  return answers;
}

std::string symbolizerArch(const SymbolicationArchitecture& architecture) {
  if (architecture.is64Bit() && !architecture.isX86_64())
    return (architecture.cpusubtype & 0xff) == 2 ? "arm64e" : "arm64";
  return architecture.familyName();
}

// Why our answer differs from the symbolizer's, as one of the documented
// classes (listed in the README), or "unexplained".
std::string differenceClass(const Answer& ours, const Answer& theirs, std::uint64_t address, const macho::MachOImage& image) {
  const bool sameFunction = ours.function == theirs.function;
  const bool sameLocation = ours.file == theirs.file && ours.line == theirs.line;
  if (sameFunction && sameLocation) return {};
  if (theirs.function == "??" && theirs.file == "??" && address - image.textSection->address >= image.bytes.size())
    return "text section clipped to the file size";
  if (sameFunction && ours.line == 0 && theirs.line == 0 && theirs.file == "??") return "line 0 printed as ??:0";
  if (sameFunction && theirs.file == "??" && theirs.line == 0 && ours.line != 0)
    return "location outside every compile unit";  // confirmed by the caller
  if (ours.function == "??" && theirs.function == ours.preceding && theirs.file == "??")
    return "gap after a DWARF extent";
  return "unexplained";
}

struct Totals {
  std::size_t slices = 0, addresses = 0, lookups = 0;
  std::map<std::string, std::size_t> differences;
  std::vector<std::string> examples;
};

// The address of every line-table row in the text section.
std::vector<std::uint64_t> rowAddresses(const macho::MachOImage& image) {
  std::vector<std::uint64_t> addresses;
  DwarfSections sections = DwarfSections::of(image);
  if (sections.info.empty()) return addresses;
  DebugInfo debugInfo(sections);
  LineTables tables;
  std::deque<std::string> strings;
  std::set<std::uint64_t> read;
  for (const UnitInfo& unit : debugInfo.units())
    if (unit.stmtList && read.insert(*unit.stmtList).second)
      readLineTable(sections, unit, *unit.stmtList, tables, strings);
  const macho::MachOSection& text = *image.textSection;
  for (const LineRow& row : tables.rows)
    if (row.address >= text.address && row.address - text.address < text.size) addresses.push_back(row.address);
  return addresses;
}

// The symbolizer takes line information only from the compile unit whose
// address ranges hold the address; llvm-dwarfdump --lookup shows whether
// there is one. Looked up for a bounded number of addresses.
bool outsideEveryUnit(const fs::path& file, const std::string& arch, std::uint64_t address, Totals& totals) {
  if (++totals.lookups > 400) return false;
  std::ostringstream lookup;
  lookup << "--lookup=0x" << std::hex << address;
  auto result = runProgram({"/usr/bin/llvm-dwarfdump-19", "--arch=" + arch, lookup.str(), file.string()});
  return !result.out.empty() && result.out.find("DW_TAG_compile_unit") == std::string::npos;
}

// The symbolizer reads "<file>.dSYM" beside an executable instead of the
// executable itself; a copy in a folder of its own keeps it to the file.
fs::path symbolizedCopy(const fs::path& file, const TempDir& temp) {
  if (file.parent_path().filename() == "DWARF") return file;
  fs::path copy = temp.path() / "copy" / file.filename();
  fs::create_directories(copy.parent_path());
  fs::copy_file(file, copy, fs::copy_options::overwrite_existing);
  return copy;
}

void compareFile(const fs::path& file, Totals& totals, const TempDir& temp) {
  SymbolFileCache cache;
  auto mapped = cache.machOFile(file.string());
  if (!mapped) return;
  std::size_t sliceIndex = 0;
  makeDwarfSymbolicationProvider()->forEachSymbolicatorWithPath(file.string(), cache, [&](const auto& slice) {
    const Symbolicator& symbolicator = *slice;
    const macho::MachOImage& image = mapped->images().at(sliceIndex++);
    if (!image.textSection || image.textSection->size == 0) return;
    std::string arch = symbolizerArch(symbolicator.architecture());
    std::vector<Symbol> symbols;
    symbolicator.forEachSymbolOwner([&](const SymbolOwner& owner) {
      owner.forEachTextSymbol([&](const SymbolInfo& info) {
        Symbol symbol{info.name ? std::string(*info.name) : "??", info.address, info.length, {}};
        for (const SourceInfo& source : info.sourceInfos)
          symbol.records.push_back({std::string(source.path), source.line, source.address, source.length});
        symbols.push_back(std::move(symbol));
      });
    });
    std::vector<std::uint64_t> addresses = rowAddresses(image);
    for (const Symbol& symbol : symbols) {
      addresses.push_back(symbol.address);
      for (const Record& record : symbol.records) addresses.push_back(record.address);
    }
    std::sort(addresses.begin(), addresses.end());
    addresses.erase(std::unique(addresses.begin(), addresses.end()), addresses.end());
    if (addresses.size() > kMaxRecordAddresses) {
      std::vector<std::uint64_t> sampled;
      for (std::size_t i = 0; i < kMaxRecordAddresses; ++i)
        sampled.push_back(addresses[i * addresses.size() / kMaxRecordAddresses]);
      addresses.swap(sampled);
    }
    std::mt19937_64 random(20261122);
    std::uniform_int_distribution<std::uint64_t> offset(0, image.textSection->size - 1);
    for (std::size_t i = 0; i < kRandomAddresses; ++i) addresses.push_back(image.textSection->address + offset(random));

    std::vector<Answer> theirs = symbolizerAnswers(symbolizedCopy(file, temp), arch, addresses, temp);
    ASSERT_EQ(theirs.size(), addresses.size()) << file << " " << arch;
    ++totals.slices;
    for (std::size_t i = 0; i < addresses.size(); ++i) {
      ++totals.addresses;
      Answer ours = ourAnswer(symbols, addresses[i]);
      std::string kind = differenceClass(ours, theirs[i], addresses[i], image);
      if (kind.empty()) continue;
      if (kind == "location outside every compile unit" && !outsideEveryUnit(file, arch, addresses[i], totals))
        kind = "unexplained";
      if (totals.differences[kind]++ < 3 || kind == "unexplained") {
        if (totals.examples.size() < 40) {
          std::ostringstream example;
          example << kind << ": " << file.string() << " " << arch << " 0x" << std::hex << addresses[i] << std::dec
                  << "\n    ours:   " << ours.function << " " << ours.file << ":" << ours.line
                  << "\n    theirs: " << theirs[i].function << " " << theirs[i].file << ":" << theirs[i].line;
          totals.examples.push_back(example.str());
        }
      }
    }
  });
}

void report(const Totals& totals, std::size_t files) {
  std::printf("compared %zu addresses in %zu slices of %zu files\n", totals.addresses, totals.slices, files);
  for (const auto& [kind, count] : totals.differences) std::printf("  %-40s %zu\n", kind.c_str(), count);
  for (const std::string& example : totals.examples) std::printf("%s\n", example.c_str());
}

TEST(DifferentialTest, AgreesWithLlvmSymbolizerOnFixturesAndCorpus) {
  if (!haveProgram("llvm-symbolizer-19")) GTEST_SKIP() << "llvm-symbolizer-19 is not installed";
  std::vector<fs::path> files = machOFilesUnder(fixturesDir());
  if (auto corpus = corpusDir()) {
    auto more = machOFilesUnder(*corpus);
    files.insert(files.end(), more.begin(), more.end());
  }
  if (files.empty()) GTEST_SKIP() << "neither fixtures nor the shared corpus are present";

  TempDir temp;
  Totals totals;
  for (const fs::path& file : files) compareFile(file, totals, temp);

  report(totals, files.size());
  EXPECT_EQ(totals.differences.count("unexplained"), 0u);
  EXPECT_GT(totals.addresses, 0u);
}

}  // namespace
}  // namespace symlift::symbols::dwarf
