#pragma once
// The code symbols of one image and their source records: symbol-table
// entries and DWARF subprograms of __TEXT,__text joined into one list in
// address order, each with the line-table records inside its extent.

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "macho/macho_file.h"
#include "symbols/dwarf/damage.h"
#include "symbols/symbolication_provider.h"

namespace symlift::dispatch {
class ThreadPool;
}

namespace symlift::symbols::dwarf {

struct ImageSymbol {
  std::optional<std::string_view> mangledName;
  std::optional<std::string_view> name;
  std::uint64_t address = 0;
  std::uint64_t length = 0;
};

// A source record kept compactly: its path is an index into
// ImageSymbols::paths (kNoPath when unknown).
struct SourceRecord {
  std::uint64_t address = 0;
  std::uint64_t length = 0;
  std::uint32_t path = 0;
  std::uint32_t line = 0;
};
inline constexpr std::uint32_t kNoPath = UINT32_MAX;

// Copies of short texts in large blocks: views into it stay valid as it
// grows, and a few blocks replace a heap allocation per name.
class TextArena {
 public:
  std::string_view copy(std::string_view text);

 private:
  static constexpr std::size_t kBlockSize = std::size_t{1} << 20;
  std::vector<std::unique_ptr<char[]>> blocks_;
  std::size_t used_ = 0;
  std::size_t capacity_ = 0;
};

// The line tables' rows in address order, from which a symbol's source
// records are made when they are asked for.
struct LineWalk;

struct ImageSymbols {
  std::vector<ImageSymbol> symbols;
  std::vector<std::string_view> paths;
  // The names of the symbols: copied out of the file (whose pages can then
  // go) or made here (demangled names); one arena per group of symbols
  // named together.
  std::vector<TextArena> names;
  // Other text that is not in the file itself; a deque so that views into
  // it stay valid as it grows.
  std::deque<std::string> strings;
  // The line tables' full paths, one pool per group of units read together.
  std::deque<std::deque<std::string>> stringPools;  // a deque: pools never move

  std::string_view keep(std::string text) { return strings.emplace_back(std::move(text)); }

  // The rows; none without line tables. Shared by copies: never changed.
  std::shared_ptr<const LineWalk> lines;

  // The source records of every symbol, in symbol order: one walk over the
  // rows, a symbol's records handed out while the next ones are made. The
  // span is valid during the call only.
  void forEachSymbolSources(
      const std::function<void(const ImageSymbol& symbol, std::span<const SourceRecord> records)>& visit) const;
  // The records of symbols[index], made anew.
  std::vector<SourceRecord> sourcesOf(std::size_t index) const;
  // How many records all symbols have (a walk over them all).
  std::size_t sourceCount() const;
  // At least as many records as all symbols have, without a walk.
  std::size_t sourceCountBound() const;
  // A source record as the symbolication interface describes it.
  SourceInfo source(const SourceRecord& record) const {
    return {record.path == kNoPath ? std::string_view{} : paths[record.path], record.line, record.address,
            record.length};
  }
};

struct DecodeOptions {
  // Where groups of units are decoded; nothing: all on the calling thread.
  dispatch::ThreadPool* pool = nullptr;
  // Threads at most, the caller's included (0: one per core).
  unsigned maxParallel = 0;
  // Fewer units than this per thread are not worth a thread.
  std::size_t minimumUnitsPerThread = 16;
  // Told of bytes of the image the reader is done with, so that their pages
  // can go while the rest of the work still holds memory: the sections of
  // the DIEs once the symbols are named, then the whole image once the line
  // tables are read (the records are made from copies). A unit's
  // strings may still be looked at after the first call, so releasing may
  // only mean that the bytes are read from the file again when touched.
  std::function<void(std::span<const std::uint8_t> bytes)> bytesDone;
};

// Neither the symbols nor the damage noted depend on how many threads
// decoded. Nothing in the result points into the image.
ImageSymbols readImageSymbols(const macho::MachOImage& image, const DecodeOptions& options = {},
                              DamageList* damage = nullptr);

}  // namespace symlift::symbols::dwarf
