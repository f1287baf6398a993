// Micro-benchmarks of the symbol side's hot loops on a real generated dSYM:
// the DIE walk that finds subprograms, line-program decoding, the whole
// per-slice read, and cSYM text writing.
//
// The DWARF file comes from $SYMLIFT_BENCH_DWARF (scripts/bench sets it to
// the 5 MB benchmark input); without it the reader benchmarks are skipped.
// The first slice in the fat header is used (its architecture is the label).

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "dispatch/thread_pool.h"
#include "macho/macho_file.h"
#include "symbols/dwarf/debug_info.h"
#include "symbols/dwarf/dwarf_sections.h"
#include "symbols/dwarf/image_symbols.h"
#include "symbols/dwarf/line_table.h"
#include "symbols/csym_text.h"
#include "symbols/symbol_processor.h"

namespace {

using namespace symlift::symbols;
using namespace symlift::symbols::dwarf;

using symlift::macho::MachOFile;
using symlift::macho::MachOImage;

struct Input {
  std::shared_ptr<const MachOFile> file;
  const std::vector<MachOImage>& images() const { return file->images(); }
};

const Input* input() {
  static const Input loaded = [] {
    Input in;
    const char* path = std::getenv("SYMLIFT_BENCH_DWARF");
    if (path && *path) in.file = MachOFile::open(path);
    return in;
  }();
  return loaded.file && !loaded.images().empty() ? &loaded : nullptr;
}

bool skipWithoutInput(benchmark::State& state) {
  if (!input()) {
    state.SkipWithError("set SYMLIFT_BENCH_DWARF to a DWARF file (scripts/bench does)");
    return true;
  }
  // Which slice of the fat file was read.
  constexpr std::int32_t kCPUTypeX86_64 = 0x01000007, kCPUTypeARM64 = 0x0100000c;
  std::int32_t cputype = input()->images().front().cputype;
  state.SetLabel(cputype == kCPUTypeX86_64 ? "x86_64" : cputype == kCPUTypeARM64 ? "arm64" : "other");
  return false;
}

void BM_DieWalk(benchmark::State& state) {
  if (skipWithoutInput(state)) return;
  DwarfSections sections = DwarfSections::of(input()->images().front());
  std::size_t functions = 0;
  for (auto _ : state) {
    DebugInfo info(sections);
    auto ranges = info.functionRanges();
    functions = ranges.size();
    benchmark::DoNotOptimize(ranges.data());
  }
  state.counters["functions"] = static_cast<double>(functions);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * sections.info.size()));
}
BENCHMARK(BM_DieWalk)->Unit(benchmark::kMillisecond);

void BM_LinePrograms(benchmark::State& state) {
  if (skipWithoutInput(state)) return;
  DwarfSections sections = DwarfSections::of(input()->images().front());
  DebugInfo info(sections);
  std::size_t rows = 0;
  for (auto _ : state) {
    LineTables tables;
    std::deque<std::string> strings;
    for (const UnitInfo& unit : info.units())
      if (unit.stmtList) readLineTable(sections, unit, *unit.stmtList, tables, strings);
    rows = tables.rows.size();
    benchmark::DoNotOptimize(tables.rows.data());
  }
  state.counters["rows"] = static_cast<double>(rows);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * sections.line.size()));
}
BENCHMARK(BM_LinePrograms)->Unit(benchmark::kMillisecond);

// Symbol table, DIE walk, names (with demangling) and line records joined:
// everything the cSYM of one slice needs before formatting; the argument is
// the number of threads (on a pool, as a run decodes).
void BM_ReadImageSymbols(benchmark::State& state) {
  if (skipWithoutInput(state)) return;
  const MachOImage& image = input()->images().front();
  symlift::dispatch::ThreadPool pool;
  DecodeOptions options;
  options.pool = &pool;
  options.maxParallel = static_cast<unsigned>(state.range(0));
  std::size_t symbols = 0, sources = 0;
  for (auto _ : state) {
    ImageSymbols read = readImageSymbols(image, options);
    symbols = read.symbols.size();
    sources = read.sourceCount();
    benchmark::DoNotOptimize(read.symbols.data());
  }
  state.counters["symbols"] = static_cast<double>(symbols);
  state.counters["sources"] = static_cast<double>(sources);
}
BENCHMARK(BM_ReadImageSymbols)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);

// Formatting alone, on lists shaped like a large app's: long C++ names,
// a few thousand files, several ranges per symbol.
void BM_CSYMText(benchmark::State& state) {
  const std::size_t symbolCount = static_cast<std::size_t>(state.range(0));
  std::vector<std::string> files, symbols;
  for (std::size_t i = 0; i < symbolCount / 20 + 1; ++i)
    files.push_back("/Users/builder/src/App/Sources/Feature" + std::to_string(i) + "/Module" + std::to_string(i) +
                    ".cpp");
  for (std::size_t i = 0; i < symbolCount; ++i)
    symbols.push_back("app::checkout::payment::m" + std::to_string(i % 500) + "::RingBuffer<double, " +
                      std::to_string(i) + ">::countIf<(anonymous namespace)::lambda>(int) const");
  std::vector<SUPSymbolRange> ranges;
  ranges.reserve(symbolCount * 6);
  std::uint64_t address = 0x4000;
  for (std::size_t s = 0; s < symbolCount; ++s)
    for (int r = 0; r < 6; ++r) {
      SUPSymbolRange range;
      range.setRange({address, 4 + static_cast<std::uint64_t>(r) * 4});
      address += 4 + r * 4;
      range.setSymbolIndex(static_cast<std::int64_t>(s));
      range.setFileIndex(static_cast<std::int64_t>(s / 20));
      range.setLineNumber(static_cast<std::int64_t>(10 + r));
      ranges.push_back(range);
    }
  std::size_t bytes = 0;
  for (auto _ : state) {
    std::string text =
        SUPSymbolProcessor::formattedDataVersion(1, SUPSourceTypeDsym, std::string(32, 'a'), "arm64", files, symbols, ranges);
    bytes = text.size();
    benchmark::DoNotOptimize(text.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
  state.counters["ranges"] = static_cast<double>(ranges.size());
}
BENCHMARK(BM_CSYMText)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
