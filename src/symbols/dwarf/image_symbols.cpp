#include "symbols/dwarf/image_symbols.h"

#include <algorithm>

#include "symbols/dwarf/debug_info.h"
#include "symbols/dwarf/demangle.h"
#include "symbols/dwarf/dwarf_sections.h"
#include "symbols/dwarf/line_table.h"
#include "symbols/dwarf/symbol_table.h"

namespace symlift::symbols::dwarf {

namespace {

// One start address with what the symbol table and DWARF say about it.
struct Candidate {
  std::uint64_t address = 0;
  std::optional<std::string_view> tableName;
  std::optional<std::uint64_t> dwarfEnd;
  std::uint64_t dieOffset = 0;
};

// A stretch of code with one source position: a line-table row up to the
// next row of its sequence.
struct LineSpan {
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  std::uint32_t file = kNoFile;
  std::uint32_t line = 0;
};

void setNames(ImageSymbol& symbol, const Candidate& candidate, const DebugInfo* debugInfo, ImageSymbols& out) {
  if (candidate.tableName) {
    symbol.mangledName = *candidate.tableName;
  } else if (debugInfo) {
    FunctionNames names = debugInfo->namesOf(candidate.dieOffset);
    if (names.linkageName) {
      // DWARF linkage names lack the Mach-O underscore of symbol-table names.
      symbol.mangledName = out.keep("_" + std::string(*names.linkageName));
    } else if (names.name) {
      symbol.mangledName = *names.name;
      symbol.name = *names.name;
      return;
    }
  }
  if (!symbol.mangledName) return;
  if (auto demangled = demangleItanium(*symbol.mangledName)) symbol.name = out.keep(std::move(*demangled));
  else symbol.name = plainDisplayName(*symbol.mangledName);
}

std::vector<LineSpan> lineSpans(const LineTables& tables, const MachOSection& text) {
  std::vector<LineSpan> spans;
  const std::uint64_t textEnd = text.address + text.size;
  for (const LineSequence& sequence : tables.sequences) {
    // Sequences outside the text section belong to code the linker removed.
    if (sequence.low < text.address || sequence.low >= textEnd) continue;
    for (std::size_t i = 0; i < sequence.rowCount; ++i) {
      const LineRow& row = tables.rows[sequence.firstRow + i];
      std::uint64_t end = i + 1 < sequence.rowCount ? tables.rows[sequence.firstRow + i + 1].address : sequence.high;
      if (end <= row.address) continue;  // a later row at the same address wins
      spans.push_back({row.address, end, row.file, row.line});
    }
  }
  std::stable_sort(spans.begin(), spans.end(), [](const LineSpan& a, const LineSpan& b) { return a.start < b.start; });
  return spans;
}

void attachSources(ImageSymbols& out, const std::vector<LineSpan>& spans, const LineTables& tables) {
  // Symbols are in address order; spans are found from where the previous
  // symbol's search ended, stepping back only over spans that may still
  // reach into the next symbol.
  std::size_t cursor = 0;
  for (ImageSymbol& symbol : out.symbols) {
    const std::uint64_t start = symbol.address;
    const std::uint64_t end = symbol.address + symbol.length;
    auto first = std::upper_bound(spans.begin() + static_cast<std::ptrdiff_t>(cursor), spans.end(), start,
                                  [](std::uint64_t a, const LineSpan& s) { return a < s.start; });
    std::size_t index = static_cast<std::size_t>(first - spans.begin());
    if (index > 0 && spans[index - 1].end > start) --index;
    cursor = index;
    symbol.firstSource = out.sources.size();
    std::uint64_t covered = start;
    for (; index < spans.size() && spans[index].start < end; ++index) {
      const LineSpan& span = spans[index];
      std::uint64_t from = std::max({span.start, start, covered});
      std::uint64_t to = std::min(span.end, end);
      if (to <= from) continue;
      std::string_view path = span.file == kNoFile ? std::string_view{} : tables.paths[span.file];
      bool merged = false;
      if (out.sources.size() > symbol.firstSource) {
        SourceInfo& last = out.sources.back();
        if (last.address + last.length == from && last.line == span.line && last.path == path) {
          last.length = to - last.address;
          merged = true;
        }
      }
      if (!merged) out.sources.push_back({path, span.line, from, to - from});
      covered = to;
    }
    symbol.sourceCount = out.sources.size() - symbol.firstSource;
  }
}

}  // namespace

ImageSymbols readImageSymbols(const MachOImage& image) {
  ImageSymbols out;
  if (image.bigEndian || !image.textSection) return out;
  const MachOSection& text = *image.textSection;
  const std::uint64_t textEnd = text.address + text.size;
  auto inText = [&](std::uint64_t address) { return address >= text.address && address < textEnd; };

  std::vector<TableSymbol> table = readTextSymbols(image);

  DwarfSections sections = DwarfSections::of(image);
  std::optional<DebugInfo> debugInfo;
  std::vector<FunctionRange> functions;
  if (!sections.info.empty()) {
    debugInfo.emplace(sections);
    functions = debugInfo->functionRanges();
    std::erase_if(functions, [&](const FunctionRange& f) { return !inText(f.low); });
    std::stable_sort(functions.begin(), functions.end(),
                     [](const FunctionRange& a, const FunctionRange& b) { return a.low < b.low; });
  }

  // Merge the two sorted lists into one candidate per start address.
  std::vector<Candidate> candidates;
  candidates.reserve(table.size() + functions.size());
  std::size_t t = 0, f = 0;
  while (t < table.size() || f < functions.size()) {
    std::uint64_t address = UINT64_MAX;
    if (t < table.size()) address = table[t].address;
    if (f < functions.size()) address = std::min(address, functions[f].low);
    Candidate candidate;
    candidate.address = address;
    if (t < table.size() && table[t].address == address) candidate.tableName = table[t++].name;
    if (f < functions.size() && functions[f].low == address) {
      // The first subprogram at an address describes it.
      candidate.dwarfEnd = std::min(functions[f].high, textEnd);
      candidate.dieOffset = functions[f].dieOffset;
      while (f < functions.size() && functions[f].low == address) ++f;
    }
    candidates.push_back(candidate);
  }

  out.symbols.reserve(candidates.size());
  for (std::size_t i = 0; i < candidates.size(); ++i) {
    const Candidate& candidate = candidates[i];
    ImageSymbol symbol;
    symbol.address = candidate.address;
    std::uint64_t end = candidate.dwarfEnd ? *candidate.dwarfEnd
                                           : (i + 1 < candidates.size() ? candidates[i + 1].address : textEnd);
    symbol.length = end - candidate.address;
    setNames(symbol, candidate, debugInfo ? &*debugInfo : nullptr, out);
    out.symbols.push_back(symbol);
  }

  if (debugInfo) {
    // Each line table once, in section order. Tables do not overlap; a
    // unit naming an offset inside a table already read is damaged (and
    // skipping it keeps the work linear in the section's size).
    std::vector<const UnitInfo*> units;
    for (const UnitInfo& unit : debugInfo->units())
      if (unit.stmtList) units.push_back(&unit);
    std::stable_sort(units.begin(), units.end(),
                     [](const UnitInfo* a, const UnitInfo* b) { return *a->stmtList < *b->stmtList; });
    LineTables tables;
    std::uint64_t readUntil = 0;
    for (const UnitInfo* unit : units) {
      if (*unit->stmtList < readUntil) continue;
      if (auto end = readLineTable(sections, *unit, *unit->stmtList, tables, out.strings)) readUntil = *end;
    }
    attachSources(out, lineSpans(tables, text), tables);
  }
  return out;
}

}  // namespace symlift::symbols::dwarf
