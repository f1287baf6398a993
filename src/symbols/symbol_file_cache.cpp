#include "symbols/symbol_file_cache.h"

#include <sys/stat.h>

#include <filesystem>
#include <utility>

#include "dispatch/thread_pool.h"
#include "support/diagnostics.h"
#include "symbols/dwarf/dwarf_provider.h"

namespace symlift::symbols {

SymbolFileCache::SymbolFileCache(dispatch::ThreadPool& pool, support::DiagnosticsSink& diagnostics,
                                 std::shared_ptr<const SymbolicationProvider> provider)
    : pool_(&pool),
      diagnostics_(&diagnostics),
      provider_(provider ? std::move(provider) : dwarf::makeDwarfSymbolicationProvider()),
      keepsDecoded_(true) {}

SymbolFileCache::SymbolFileCache(std::shared_ptr<const SymbolicationProvider> provider)
    : ownPool_(std::make_unique<dispatch::ThreadPool>()),
      ownDiagnostics_(std::make_unique<support::DiscardingDiagnosticsSink>()),
      pool_(ownPool_.get()),
      diagnostics_(ownDiagnostics_.get()),
      provider_(provider ? std::move(provider) : dwarf::makeDwarfSymbolicationProvider()),
      keepsDecoded_(false) {}

SymbolFileCache::~SymbolFileCache() = default;

std::string SymbolFileCache::keyFor(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) == 0)
    return "inode " + std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
  std::error_code error;
  std::filesystem::path absolute = std::filesystem::absolute(path, error);
  return "path " + (error ? path : absolute.lexically_normal().string());
}

std::shared_ptr<const macho::MachOFile> SymbolFileCache::machOFile(const std::string& path) {
  const std::string key = keyFor(path);
  std::lock_guard<std::mutex> guard(mutex_);
  Entry& entry = entries_[key];
  if (!entry.file) {
    // Under the lock, so that one file is never mapped twice; mapping reads
    // only the headers.
    entry.file = macho::MachOFile::open(path, diagnostics_);
    if (entry.file) ++mappingsMade_;
  }
  return entry.file;
}

void SymbolFileCache::forEachSlice(const std::string& path, Decoded decoded,
                                   const std::function<void(const Symbolicator&)>& visitor) {
  if (!keepsDecoded_) decoded = Decoded::kLetGo;
  const std::string key = keyFor(path);
  std::optional<std::vector<std::shared_ptr<const Symbolicator>>> kept;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    auto found = entries_.find(key);
    if (found != entries_.end() && found->second.kept) {
      if (decoded == Decoded::kKeptForConversion) kept = found->second.kept;
      else kept = std::exchange(found->second.kept, std::nullopt);
    }
  }
  if (kept) {
    for (std::shared_ptr<const Symbolicator>& symbolicator : *kept) {
      visitor(*symbolicator);
      symbolicator.reset();  // taken slices go one by one
    }
    return;
  }

  ++decodesMade_;
  std::vector<std::shared_ptr<const Symbolicator>> decodedNow;
  provider_->forEachSymbolicatorWithPath(path, *this, [&](const std::shared_ptr<const Symbolicator>& symbolicator) {
    visitor(*symbolicator);
    if (decoded == Decoded::kKeptForConversion) decodedNow.push_back(symbolicator);
  });
  if (decoded == Decoded::kKeptForConversion) {
    std::lock_guard<std::mutex> guard(mutex_);
    entries_[key].kept = std::move(decodedNow);
  }
}

std::optional<SymbolFileFacts> SymbolFileCache::facts(const std::string& path) const {
  const std::string key = keyFor(path);
  std::lock_guard<std::mutex> guard(mutex_);
  auto found = entries_.find(key);
  return found == entries_.end() ? std::nullopt : found->second.facts;
}

void SymbolFileCache::recordFacts(const std::string& path, const SymbolFileFacts& facts) {
  const std::string key = keyFor(path);
  std::lock_guard<std::mutex> guard(mutex_);
  Entry& entry = entries_[key];
  if (!entry.facts) entry.facts = facts;
}

}  // namespace symlift::symbols
