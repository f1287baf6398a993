#include "symbols/dwarf/image_symbols.h"

#include <algorithm>
#include <cstring>
#include <span>

#include "demangle/demangle.h"
#include "dispatch/thread_pool.h"
#include "symbols/dwarf/byte_reader.h"
#include "symbols/dwarf/debug_info.h"
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

void setNames(ImageSymbol& symbol, const Candidate& candidate, const DebugInfo* debugInfo, TextArena& names) {
  if (candidate.tableName) {
    symbol.mangledName = names.copy(*candidate.tableName);
  } else if (debugInfo) {
    FunctionNames found = debugInfo->namesOf(candidate.dieOffset);
    if (found.linkageName) {
      // DWARF linkage names lack the Mach-O underscore of symbol-table names.
      std::string mangled;
      mangled.reserve(found.linkageName->size() + 1);
      mangled.push_back('_');
      mangled.append(*found.linkageName);
      symbol.mangledName = names.copy(mangled);
    } else if (found.name) {
      symbol.mangledName = names.copy(*found.name);
      symbol.name = symbol.mangledName;
      return;
    }
  }
  if (!symbol.mangledName) return;
  if (auto demangled = demangle::demangled(*symbol.mangledName)) symbol.name = names.copy(*demangled);
  else symbol.name = demangle::plainDisplayName(*symbol.mangledName);
}

struct SequenceRef {
  std::uint32_t group;
  std::uint32_t sequence;
};

// The spans of every sequence inside the text section in address order,
// with their files numbered across all groups (group g's file f is
// pathBase[g] + f), walked one at a time. Sequences rarely overlap: taken
// in order of their start they almost always give strictly increasing spans
// already, and then that order is the only sorted one and the spans are
// made from the rows as the walk goes. Otherwise all spans are listed and
// sorted, earlier sequences (in group order) first on ties.
class LineSpans {
 public:
  LineSpans(const std::vector<LineTables>& groups, const std::vector<std::uint32_t>& pathBase,
            const macho::MachOSection& text)
      : groups_(groups), pathBase_(pathBase) {
    const std::uint64_t textEnd = text.address + text.size;
    std::vector<SequenceRef> order;
    for (std::size_t g = 0; g < groups.size(); ++g) {
      for (std::size_t i = 0; i < groups[g].sequences.size(); ++i) {
        const LineSequence& sequence = groups[g].sequences[i];
        // Sequences outside the text section belong to code the linker removed.
        if (sequence.low < text.address || sequence.low >= textEnd) continue;
        order.push_back({static_cast<std::uint32_t>(g), static_cast<std::uint32_t>(i)});
        rowCount_ += sequence.rowCount;
      }
    }
    byStart_ = order;
    std::stable_sort(byStart_.begin(), byStart_.end(),
                     [&](SequenceRef a, SequenceRef b) { return sequenceOf(a).low < sequenceOf(b).low; });
    bool increasing = true;
    std::optional<std::uint64_t> previous;
    std::size_t position = 0;
    for (Cursor span = begin(); increasing && !span.done(); span.next(), ++position) {
      increasing = !previous || *previous < span.span().start;
      previous = span.span().start;
      if (position % kMarkEvery == 0) marks_.push_back(span);
    }
    if (increasing) return;
    marks_.clear();
    byStart_ = std::move(order);
    for (Cursor span = begin(); !span.done(); span.next()) listed_.push_back(span.span());
    std::stable_sort(listed_.begin(), listed_.end(),
                     [](const LineSpan& a, const LineSpan& b) { return a.start < b.start; });
    sorted_ = true;
    for (Cursor span = begin(); !span.done(); span.at_ += kMarkEvery, span.settle()) marks_.push_back(span);
  }

  // At most this many spans.
  std::size_t sizeHint() const { return rowCount_; }

  class Cursor {
   public:
    bool done() const { return done_; }
    const LineSpan& span() const { return current_; }
    void next() {
      ++at_;
      settle();
    }

    // Where the cursor stands, for LineSpans::at(): two numbers, cheaper to
    // keep for every span passed than the cursor itself.
    struct Place {
      std::size_t sequence = 0;
      std::size_t at = 0;
    };
    Place place() const { return {sequence_, at_}; }

   private:
    friend class LineSpans;
    explicit Cursor(const LineSpans& spans) : spans_(&spans) { settle(); }
    Cursor(const LineSpans& spans, Place place) : spans_(&spans), sequence_(place.sequence), at_(place.at) {
      settle();
    }
    // To the first span at or after the position.
    void settle() {
      if (spans_->sorted_) {
        done_ = at_ >= spans_->listed_.size();
        if (!done_) current_ = spans_->listed_[at_];
        return;
      }
      for (; sequence_ < spans_->byStart_.size(); ++sequence_, at_ = 0) {
        const SequenceRef ref = spans_->byStart_[sequence_];
        const LineTables& tables = spans_->groups_[ref.group];
        const LineSequence& sequence = tables.sequences[ref.sequence];
        for (; at_ < sequence.rowCount; ++at_) {
          const LineRow& row = tables.rows[sequence.firstRow + at_];
          const std::uint64_t end =
              at_ + 1 < sequence.rowCount ? tables.rows[sequence.firstRow + at_ + 1].address : sequence.high;
          if (end <= row.address) continue;  // a later row at the same address wins
          const std::uint32_t file = row.file == kNoFile ? kNoFile : spans_->pathBase_[ref.group] + row.file;
          current_ = {row.address, end, file, row.line};
          return;
        }
      }
      done_ = true;
    }

    const LineSpans* spans_;
    std::size_t sequence_ = 0;  // into byStart_ while walking the rows
    std::size_t at_ = 0;        // a row of that sequence, or an index into listed_
    LineSpan current_;
    bool done_ = false;
  };

  Cursor begin() const { return Cursor(*this); }
  // The cursor at a place a cursor of these spans stood.
  Cursor at(Cursor::Place place) const { return Cursor(*this, place); }

  // The last span a walk passed: where it stands and where it ends.
  struct Passed {
    Cursor::Place place;
    std::uint64_t end = 0;
  };

  // Where a walk over the spans stands once it has passed every span that
  // starts at or before address: at the first span starting after it, with
  // the last span passed (if any).
  struct Position {
    Cursor ahead;
    std::optional<Passed> behind;
  };
  Position after(std::uint64_t address) const {
    auto mark = std::upper_bound(marks_.begin(), marks_.end(), address,
                                 [](std::uint64_t a, const Cursor& c) { return a < c.span().start; });
    if (mark == marks_.begin()) return {begin(), std::nullopt};
    Position position{*std::prev(mark), std::nullopt};
    for (; !position.ahead.done() && position.ahead.span().start <= address; position.ahead.next())
      position.behind = Passed{position.ahead.place(), position.ahead.span().end};
    return position;
  }

 private:
  const LineSequence& sequenceOf(SequenceRef ref) const { return groups_[ref.group].sequences[ref.sequence]; }

  const std::vector<LineTables>& groups_;
  const std::vector<std::uint32_t>& pathBase_;
  std::vector<SequenceRef> byStart_;  // sorted by start, or in group order when the spans are listed
  std::size_t rowCount_ = 0;
  bool sorted_ = false;
  std::vector<LineSpan> listed_;
  // Every kMarkEvery-th span's cursor, for after().
  static constexpr std::size_t kMarkEvery = 1024;
  std::vector<Cursor> marks_;
};

// Units are read in groups, a few per thread so that uneven units balance.
constexpr std::size_t kGroupsPerThread = 8;

// The threads that decode an image of this many units.
unsigned decodeThreadsFor(std::size_t units, const DecodeOptions& options) {
  if (!options.pool) return 1;
  const unsigned threads = options.maxParallel ? options.maxParallel : dispatch::ThreadPool::hardwareConcurrency();
  const std::size_t perThread = std::max<std::size_t>(options.minimumUnitsPerThread, 1);
  return static_cast<unsigned>(std::clamp<std::size_t>(units / perThread, 1, threads));
}

// Runs task(0) … task(count - 1) on up to `threads` threads of the pool,
// the calling one included.
void runTasks(std::size_t count, unsigned threads, const DecodeOptions& options,
              const std::function<void(std::size_t)>& task) {
  if (threads <= 1 || !options.pool) {
    for (std::size_t i = 0; i < count; ++i) task(i);
    return;
  }
  options.pool->parallelFor(count, task, threads);
}

// [begin, end) of group g when n items are cut into `groups` nearly equal parts.
std::pair<std::size_t, std::size_t> groupBounds(std::size_t n, std::size_t groups, std::size_t g) {
  return {n * g / groups, n * (g + 1) / groups};
}

// Every subprogram range of every unit, in DIE order: the same list as
// DebugInfo::functionRanges(), read by several threads.
std::vector<FunctionRange> readFunctionRanges(const DebugInfo& debugInfo, unsigned threads,
                                              const DecodeOptions& options, DamageList* damage) {
  const std::size_t unitCount = debugInfo.units().size();
  if (threads <= 1) return debugInfo.functionRanges(damage);
  const std::size_t groups = std::min<std::size_t>(threads * kGroupsPerThread, unitCount);
  const std::uint64_t budget = debugInfo.functionRangeBudget();
  std::vector<std::vector<FunctionRange>> parts(groups);
  std::vector<DamageList> partDamage(groups);
  std::vector<std::uint64_t> used(groups, 0);
  runTasks(groups, threads, options, [&](std::size_t g) {
    auto [begin, end] = groupBounds(unitCount, groups, g);
    std::uint64_t left = budget;
    parts[g] = debugInfo.functionRanges(begin, end, left, damage ? &partDamage[g] : nullptr);
    used[g] = budget - left;
  });
  // Each group had the whole budget to itself. Only when all of them
  // together stayed under it is the result the one-pass walk's; otherwise
  // (a damaged file) the walk is repeated in one pass.
  std::uint64_t total = 0;
  for (std::uint64_t n : used) total += n;
  if (total >= budget) return debugInfo.functionRanges(damage);
  std::size_t count = 0;
  for (const auto& part : parts) count += part.size();
  std::vector<FunctionRange> functions;
  functions.reserve(count);
  for (std::size_t g = 0; g < groups; ++g) {
    functions.insert(functions.end(), parts[g].begin(), parts[g].end());
    std::vector<FunctionRange>().swap(parts[g]);
    if (damage) damage->insert(damage->end(), partDamage[g].begin(), partDamage[g].end());
  }
  return functions;
}

// One group of line tables and the text its paths point into.
struct LineGroup {
  LineTables tables;
  std::deque<std::string> strings;
  DamageList damage;
  bool anyRead = false;         // a table of the group was read
  std::uint64_t readUntil = 0;  // just past the last table read
};

// Reads the tables of units (sorted by table offset), skipping any that
// starts inside a table already read, from readUntil on.
void readLineGroup(const DwarfSections& sections, std::span<const UnitInfo* const> units, std::uint64_t readUntil,
                   LineGroup& group) {
  group.readUntil = readUntil;
  // Every row takes at least one byte of a line program, and programs made
  // by compilers take about five: room for a row per four bytes of the
  // tables is rarely outgrown, and what is not used is never touched.
  std::uint64_t tableBytes = 0;
  for (const UnitInfo* unit : units) {
    const std::uint64_t offset = *unit->stmtList;
    if (offset >= sections.line.size()) continue;
    ByteReader reader(sections.line, static_cast<std::size_t>(offset));
    std::uint64_t length = reader.u32();
    if (length == 0xffffffffu) length = reader.u64();
    if (!reader.ok()) continue;
    tableBytes += std::min<std::uint64_t>(length, sections.line.size() - offset);
  }
  group.tables.rows.reserve(static_cast<std::size_t>(std::min<std::uint64_t>(tableBytes, sections.line.size()) / 4));
  for (const UnitInfo* unit : units) {
    if (*unit->stmtList < group.readUntil) {
      noteDamage(&group.damage, "__debug_info", unit->offset,
                 "the line table of a unit, which starts inside a line table already read");
      continue;
    }
    if (auto end = readLineTable(sections, *unit, *unit->stmtList, group.tables, group.strings, &group.damage)) {
      group.readUntil = *end;
      group.anyRead = true;
    }
  }
}

// Each line table once, in section order. Tables do not overlap; a unit
// naming an offset inside a table already read is damaged (and skipping it
// keeps the work linear in the section's size). Groups of units are read on
// several threads, each as if nothing had been read before it; a group is
// read again, in order, when what came before would have changed its choices.
std::vector<LineGroup> readLineGroups(const DwarfSections& sections, const DebugInfo& debugInfo, unsigned threads,
                                      const DecodeOptions& options) {
  std::vector<const UnitInfo*> units;
  for (const UnitInfo& unit : debugInfo.units())
    if (unit.stmtList) units.push_back(&unit);
  std::stable_sort(units.begin(), units.end(),
                   [](const UnitInfo* a, const UnitInfo* b) { return *a->stmtList < *b->stmtList; });
  const std::size_t groupCount = threads <= 1 ? 1 : std::min<std::size_t>(threads * kGroupsPerThread, units.size());
  std::vector<LineGroup> groups(std::max<std::size_t>(groupCount, 1));
  auto unitsOf = [&](std::size_t g) {
    auto [begin, end] = groupBounds(units.size(), groups.size(), g);
    return std::span<const UnitInfo* const>(units.data() + begin, end - begin);
  };
  runTasks(groups.size(), threads, options, [&](std::size_t g) { readLineGroup(sections, unitsOf(g), 0, groups[g]); });
  std::uint64_t readUntil = 0;
  for (std::size_t g = 0; g < groups.size(); ++g) {
    std::span<const UnitInfo* const> span = unitsOf(g);
    // Read from 0, the group chose as one pass would have exactly when its
    // first table (the lowest offset) does not start before readUntil.
    if (!span.empty() && *span.front()->stmtList < readUntil) {
      groups[g] = LineGroup();
      readLineGroup(sections, span, readUntil, groups[g]);
    }
    if (groups[g].anyRead) readUntil = groups[g].readUntil;
  }
  return groups;
}

// Makes the source records of the symbols in order, one symbol at a time.
// Symbols and spans are both in address order: for each symbol the walk
// goes on to the first span starting after it, and its records begin there,
// or one span earlier when that one still reaches into it. A walk may start
// at any symbol: it starts where a walk from the first would stand.
class SourceWalker {
 public:
  SourceWalker(const ImageSymbols& symbols, const LineSpans& spans, std::size_t first)
      : symbols_(symbols),
        spans_(spans),
        position_(first == 0 ? LineSpans::Position{spans.begin(), std::nullopt}
                             : spans.after(symbols.symbols[first - 1].address)) {}

  // The records of the symbol after the one before (the first: `first`'s).
  void next(const ImageSymbol& symbol, std::vector<SourceRecord>& records) {
    records.clear();
    LineSpans::Cursor& ahead = position_.ahead;
    std::optional<LineSpans::Passed>& behind = position_.behind;
    const std::uint64_t start = symbol.address;
    const std::uint64_t symbolEnd = symbol.address + symbol.length;
    for (; !ahead.done() && ahead.span().start <= start; ahead.next())
      behind = LineSpans::Passed{ahead.place(), ahead.span().end};
    LineSpans::Cursor walk = behind && behind->end > start ? spans_.at(behind->place) : ahead;
    std::uint64_t covered = start;
    for (; !walk.done() && walk.span().start < symbolEnd; walk.next()) {
      const LineSpan& span = walk.span();
      std::uint64_t from = std::max({span.start, start, covered});
      std::uint64_t to = std::min(span.end, symbolEnd);
      if (to <= from) continue;
      const std::uint32_t path = span.file == kNoFile ? kNoPath : span.file;
      bool merged = false;
      if (!records.empty()) {
        SourceRecord& last = records.back();
        if (last.address + last.length == from && last.line == span.line &&
            (last.path == path || pathOf(last.path) == pathOf(path))) {
          last.length = to - last.address;
          merged = true;
        }
      }
      if (!merged) records.push_back({from, to - from, path, span.line});
      covered = to;
    }
  }

 private:
  std::string_view pathOf(std::uint32_t path) const {
    return path == kNoPath ? std::string_view{} : symbols_.paths[path];
  }

  const ImageSymbols& symbols_;
  const LineSpans& spans_;
  LineSpans::Position position_;
};

}  // namespace

// The rows of every line table, and the spans they make inside the text
// section, which point into them: never copied or moved.
struct LineWalk {
  LineWalk() = default;
  LineWalk(const LineWalk&) = delete;
  LineWalk& operator=(const LineWalk&) = delete;

  std::vector<LineTables> tables;
  std::vector<std::uint32_t> pathBase;
  std::optional<LineSpans> spans;
};

ImageSymbols readImageSymbols(const macho::MachOImage& image, const DecodeOptions& options, DamageList* damage) {
  ImageSymbols out;
  auto done = [&](std::span<const std::uint8_t> bytes) {
    if (options.bytesDone) options.bytesDone(bytes);
  };
  if (image.bigEndian || !image.textSection) {
    done(image.bytes);
    return out;
  }
  const macho::MachOSection& text = *image.textSection;
  const std::uint64_t textEnd = text.address + text.size;
  auto inText = [&](std::uint64_t address) { return address >= text.address && address < textEnd; };

  // The symbol table is read beside the units' headers and subprograms.
  std::vector<TableSymbol> table;
  DamageList tableDamage, infoDamage;
  DwarfSections sections = DwarfSections::of(image);
  std::optional<DebugInfo> debugInfo;
  std::vector<FunctionRange> functions;
  unsigned threads = 1;
  runTasks(2, options.maxParallel == 1 ? 1 : 2, options, [&](std::size_t task) {
    if (task == 0) {
      table = readTextSymbols(image, damage ? &tableDamage : nullptr);
      return;
    }
    if (sections.info.empty()) return;
    DamageList* const noted = damage ? &infoDamage : nullptr;
    debugInfo.emplace(sections, noted);
    threads = decodeThreadsFor(debugInfo->units().size(), options);
    functions = readFunctionRanges(*debugInfo, threads, options, noted);
    std::erase_if(functions, [&](const FunctionRange& f) { return !inText(f.low); });
    std::stable_sort(functions.begin(), functions.end(),
                     [](const FunctionRange& a, const FunctionRange& b) { return a.low < b.low; });
  });
  if (damage) {
    damage->insert(damage->end(), tableDamage.begin(), tableDamage.end());
    damage->insert(damage->end(), infoDamage.begin(), infoDamage.end());
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

  // Looking names up and demangling them is most of this loop's work: the
  // symbols are cut into groups named on every core, each group copying its
  // names into an arena of its own.
  out.symbols.resize(candidates.size());
  const std::size_t nameGroups =
      threads <= 1 ? 1 : std::clamp<std::size_t>(candidates.size(), 1, threads * kGroupsPerThread);
  out.names.resize(nameGroups);
  runTasks(nameGroups, threads, options, [&](std::size_t g) {
    auto [begin, end] = groupBounds(candidates.size(), nameGroups, g);
    for (std::size_t i = begin; i < end; ++i) {
      const Candidate& candidate = candidates[i];
      ImageSymbol& symbol = out.symbols[i];
      symbol.address = candidate.address;
      // An extent ends where the next symbol starts, at the latest: an address
      // belongs to the nearest symbol at or before it, so overlapping extents
      // (which only damaged or unusual debug information has) never hand one
      // row to several symbols, and the work stays linear in the rows.
      const std::uint64_t next = i + 1 < candidates.size() ? candidates[i + 1].address : textEnd;
      const std::uint64_t extentEnd = candidate.dwarfEnd ? std::min(*candidate.dwarfEnd, next) : next;
      symbol.length = extentEnd - candidate.address;
      setNames(symbol, candidate, debugInfo ? &*debugInfo : nullptr, out.names[g]);
    }
  });

  if (!debugInfo) {
    done(image.bytes);
  } else {
    // The DIEs are walked and named: of their sections only a unit's
    // strings may still be looked at by its line table.
    for (Bytes section : {sections.info, sections.str, sections.ranges, sections.rnglists}) done(section);
    std::vector<LineGroup> groups = readLineGroups(sections, *debugInfo, threads, options);
    // The last read of the image: what follows works on copies.
    debugInfo.reset();
    done(image.bytes);
    auto lines = std::make_shared<LineWalk>();
    for (LineGroup& group : groups) {
      if (damage) damage->insert(damage->end(), group.damage.begin(), group.damage.end());
      lines->pathBase.push_back(static_cast<std::uint32_t>(out.paths.size()));
      out.paths.insert(out.paths.end(), group.tables.paths.begin(), group.tables.paths.end());
      // Moving a deque keeps its strings where they are: the paths stay valid.
      out.stringPools.push_back(std::move(group.strings));
      lines->tables.push_back(std::move(group.tables));
    }
    std::vector<LineGroup>().swap(groups);
    // The records are made from the rows when they are asked for: as the
    // text is written, rather than held for every symbol until then.
    lines->spans.emplace(lines->tables, lines->pathBase, text);
    out.lines = std::move(lines);
  }
  return out;
}

void ImageSymbols::forEachSymbolSources(
    const std::function<void(const ImageSymbol& symbol, std::span<const SourceRecord> records)>& visit) const {
  if (!lines) {
    for (const ImageSymbol& symbol : symbols) visit(symbol, {});
    return;
  }
  std::vector<SourceRecord> records;  // one symbol's, reused
  SourceWalker walker(*this, *lines->spans, 0);
  for (const ImageSymbol& symbol : symbols) {
    walker.next(symbol, records);
    visit(symbol, records);
  }
}

std::vector<SourceRecord> ImageSymbols::sourcesOf(std::size_t index) const {
  std::vector<SourceRecord> records;
  if (lines && index < symbols.size()) SourceWalker(*this, *lines->spans, index).next(symbols[index], records);
  return records;
}

std::size_t ImageSymbols::sourceCount() const {
  std::size_t count = 0;
  forEachSymbolSources([&](const ImageSymbol&, std::span<const SourceRecord> records) { count += records.size(); });
  return count;
}

std::size_t ImageSymbols::sourceCountBound() const {
  // A record is a span's part inside one symbol: a span gives one record to
  // each symbol it reaches into, which is at most one more per symbol.
  return lines ? lines->spans->sizeHint() + symbols.size() : 0;
}

std::string_view TextArena::copy(std::string_view text) {
  if (text.empty()) return {};
  if (text.size() > capacity_ - used_) {
    const std::size_t size = std::max(kBlockSize, text.size());
    blocks_.push_back(std::make_unique_for_overwrite<char[]>(size));
    used_ = 0;
    capacity_ = size;
  }
  char* at = blocks_.back().get() + used_;
  std::memcpy(at, text.data(), text.size());
  used_ += text.size();
  return {at, text.size()};
}

}  // namespace symlift::symbols::dwarf
