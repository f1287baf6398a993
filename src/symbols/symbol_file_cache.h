#pragma once
// The symbol files of one run: each DWARF file is mapped once for the whole
// run and its slices decoded once, whoever asks first. Path expansion (the
// dSYM model), the cSYM conversion and the dSYM validator all go through the
// run's one cache. The cache also remembers, per file, what the validator
// asks (how many code symbols, whether any is hidden): the conversion
// records it while it decodes, so a validator that comes after it decodes
// nothing. A validator that comes first keeps what it decoded for the
// conversion to take. Files are told apart by device and inode, so different
// spellings of one path share an entry.
//
// Made by the run with its pool and diagnostics sink; no state outlives it.
// Safe to use from several threads. Two visits of one file at the same time
// each decode it: the run never does that, and it stays correct.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "macho/macho_file.h"
#include "symbols/symbolication_provider.h"

namespace symlift::symbols {

// What the dSYM validator asks about a DWARF file.
struct SymbolFileFacts {
  std::int64_t codeSymbolCount = 0;  // of every slice together, named or not
  bool hasHiddenSymbols = false;     // a code symbol's name contains "_hidden#"
  friend bool operator==(const SymbolFileFacts&, const SymbolFileFacts&) = default;
};

class SymbolFileCache final : public SymbolFiles {
 public:
  // What a visit does with slices it had to decode.
  enum class Decoded {
    kLetGo,             // each slice's symbols go once the visitor returns
    kKeptForConversion  // kept until a visit that lets go takes them (a validator before the conversion)
  };

  // Slices are decoded on pool, damage is reported to diagnostics, and the
  // reader is provider (our own DWARF reader when none is given).
  SymbolFileCache(dispatch::ThreadPool& pool, support::DiagnosticsSink& diagnostics,
                  std::shared_ptr<const SymbolicationProvider> provider = nullptr);
  // For one call of an entry point that is given only paths: a pool of its
  // own (joined when the cache goes), no reports, and nothing kept for a
  // conversion (none follows).
  explicit SymbolFileCache(std::shared_ptr<const SymbolicationProvider> provider = nullptr);
  ~SymbolFileCache() override;
  SymbolFileCache(const SymbolFileCache&) = delete;
  SymbolFileCache& operator=(const SymbolFileCache&) = delete;

  // The file's one mapping for the run, made on first use; nothing when it
  // cannot be mapped (tried again on the next call).
  std::shared_ptr<const macho::MachOFile> machOFile(const std::string& path) override;

  // Every slice of the file, one after the other. Slices an earlier visit
  // kept are handed out again instead of being decoded, and are let go
  // (taken) unless this visit keeps too; otherwise the file is decoded, each
  // slice handed over as soon as it is read.
  void forEachSlice(const std::string& path, Decoded decoded, const std::function<void(const Symbolicator&)>& visitor);

  std::optional<SymbolFileFacts> facts(const std::string& path) const;
  // Kept for the run; a file's first record stands.
  void recordFacts(const std::string& path, const SymbolFileFacts& facts);

  dispatch::ThreadPool& pool() const override { return *pool_; }
  support::DiagnosticsSink& diagnostics() const override { return *diagnostics_; }

  // For tests: files mapped, and files decoded (each visit that read a file).
  std::size_t mappingsMade() const { return mappingsMade_.load(); }
  std::size_t decodesMade() const { return decodesMade_.load(); }

 private:
  struct Entry {
    std::shared_ptr<const macho::MachOFile> file;
    std::optional<SymbolFileFacts> facts;
    // Set once a visit kept what it decoded (possibly no slice at all).
    std::optional<std::vector<std::shared_ptr<const Symbolicator>>> kept;
  };

  static std::string keyFor(const std::string& path);

  std::unique_ptr<dispatch::ThreadPool> ownPool_;
  std::unique_ptr<support::DiagnosticsSink> ownDiagnostics_;
  dispatch::ThreadPool* pool_;
  support::DiagnosticsSink* diagnostics_;
  std::shared_ptr<const SymbolicationProvider> provider_;
  bool keepsDecoded_;
  mutable std::mutex mutex_;  // guards entries_
  std::map<std::string, Entry> entries_;
  std::atomic<std::size_t> mappingsMade_{0};
  std::atomic<std::size_t> decodesMade_{0};
};

}  // namespace symlift::symbols
