#include "operations/compressed_csym_cache.h"

#include <new>
#include <span>

#include "operations/parallel_gzip.h"

namespace symlift::operations {

CompressedCSYMCache::~CompressedCSYMCache() {
  for (auto& [path, stream] : entries_)
    if (stream.valid()) stream.wait();
}

void CompressedCSYMCache::compressInBackground(const std::string& path, std::shared_ptr<const std::string> text) {
  auto promise = std::make_shared<std::promise<std::optional<Bytes>>>();
  {
    std::lock_guard lock(mutex_);
    entries_[path] = promise->get_future();
  }
  pool_.submit([this, promise, text = std::move(text)]() mutable {
    // The text goes as soon as its stream exists, not with the task.
    const std::shared_ptr<const std::string> mine = std::move(text);
    std::optional<Bytes> stream;
    try {
      stream = gzipInChunks(pool_, std::span(reinterpret_cast<const std::uint8_t*>(mine->data()), mine->size()));
    } catch (const std::bad_alloc&) {
      // No stream: the slice's compress step fails and says so.
    }
    promise->set_value(std::move(stream));
  });
}

std::optional<CompressedCSYMCache::Bytes> CompressedCSYMCache::take(const std::string& path) {
  std::future<std::optional<Bytes>> stream;
  {
    std::lock_guard lock(mutex_);
    auto found = entries_.find(path);
    if (found == entries_.end()) return std::nullopt;
    stream = std::move(found->second);
    entries_.erase(found);
  }
  return stream.get();
}

void CompressedCSYMCache::forget(const std::string& path) {
  std::future<std::optional<Bytes>> stream;
  {
    std::lock_guard lock(mutex_);
    auto found = entries_.find(path);
    if (found == entries_.end()) return;
    stream = std::move(found->second);
    entries_.erase(found);
  }
  stream.wait();
}

std::size_t CompressedCSYMCache::size() const {
  std::lock_guard lock(mutex_);
  return entries_.size();
}

}  // namespace symlift::operations
