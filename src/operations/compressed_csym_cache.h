#pragma once
// The gzip streams of the cSYMs this run converted, made on the pool while
// the generator reads the next slice, keyed by the cSYM file's path. The
// compress step takes its slice's stream from here: what a run uploads is
// always what it converted itself, never whatever another process has since
// put at that predictable path.

#include <cstdint>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "dispatch/thread_pool.h"

namespace symlift::operations {

class CompressedCSYMCache {
 public:
  using Bytes = std::vector<std::uint8_t>;

  // Compresses on the pool, which outlives the cache.
  explicit CompressedCSYMCache(dispatch::ThreadPool& pool) : pool_(pool) {}
  // Waits for compressions still under way.
  ~CompressedCSYMCache();
  CompressedCSYMCache(const CompressedCSYMCache&) = delete;
  CompressedCSYMCache& operator=(const CompressedCSYMCache&) = delete;

  // Starts gzipping text, the cSYM being written at path; the text is let
  // go once its stream exists.
  void compressInBackground(const std::string& path, std::shared_ptr<const std::string> text);
  // The gzip stream of the cSYM this run wrote at path (waiting for its
  // compression); nothing when the run wrote none there or it could not be
  // compressed. The entry is gone afterwards.
  std::optional<Bytes> take(const std::string& path);
  // Drops the entry for path (waiting for its compression to end).
  void forget(const std::string& path);

  std::size_t size() const;

 private:
  dispatch::ThreadPool& pool_;
  mutable std::mutex mutex_;  // guards entries_
  std::map<std::string, std::future<std::optional<Bytes>>> entries_;
};

}  // namespace symlift::operations
