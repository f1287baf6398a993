#include "operations/compressed_csym_cache.h"

#include <sys/stat.h>

#include <span>
#include <system_error>

#include "operations/parallel_gzip.h"

namespace symlift::operations {

CompressedCSYMCache::~CompressedCSYMCache() {
  for (auto& [path, entry] : entries_)
    if (entry.stream.valid()) entry.stream.wait();
}

std::optional<CompressedCSYMCache::Identity> CompressedCSYMCache::identityOf(const std::string& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  Identity identity;
  identity.device = info.st_dev;
  identity.inode = info.st_ino;
  identity.size = info.st_size;
#ifdef __APPLE__
  identity.modifiedNanoseconds = std::int64_t{info.st_mtimespec.tv_sec} * 1000000000 + info.st_mtimespec.tv_nsec;
#else
  identity.modifiedNanoseconds = std::int64_t{info.st_mtim.tv_sec} * 1000000000 + info.st_mtim.tv_nsec;
#endif
  return identity;
}

void CompressedCSYMCache::compressInBackground(const std::string& path, std::string text) {
  std::optional<Identity> identity = identityOf(path);
  if (!identity || static_cast<std::uint64_t>(identity->size) != text.size()) return;
  auto promise = std::make_shared<std::promise<std::optional<Bytes>>>();
  {
    std::lock_guard lock(mutex_);
    entries_[path] = Entry{*identity, promise->get_future()};
  }
  pool_.submit([this, promise, text = std::move(text)]() mutable {
    // The text goes as soon as its stream exists, not with the task.
    const std::string mine = std::move(text);
    promise->set_value(gzipInChunks(pool_, std::span(reinterpret_cast<const std::uint8_t*>(mine.data()), mine.size())));
  });
}

std::optional<CompressedCSYMCache::Bytes> CompressedCSYMCache::take(const std::string& path) {
  Entry entry;
  {
    std::lock_guard lock(mutex_);
    auto found = entries_.find(path);
    if (found == entries_.end()) return std::nullopt;
    entry = std::move(found->second);
    entries_.erase(found);
  }
  std::optional<Bytes> bytes = entry.stream.get();  // waits for it
  if (!bytes || identityOf(path) != entry.identity) return std::nullopt;
  return bytes;
}

void CompressedCSYMCache::forget(const std::string& path) {
  Entry entry;
  {
    std::lock_guard lock(mutex_);
    auto found = entries_.find(path);
    if (found == entries_.end()) return;
    entry = std::move(found->second);
    entries_.erase(found);
  }
  entry.stream.wait();
}

std::size_t CompressedCSYMCache::size() const {
  std::lock_guard lock(mutex_);
  return entries_.size();
}

}  // namespace symlift::operations
