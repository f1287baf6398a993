#pragma once
// Gzip streams of the cSYM files this process has just written, made on
// other cores while the generator reads the next slice. The compress step
// takes the stream from here instead of reading the file back and deflating
// it again; when the file on disk is no longer the one written (replaced,
// changed, removed) the entry is dropped and the file is read as usual.

#include <sys/types.h>

#include <cstdint>
#include <future>
#include <map>
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

  // Starts gzipping text, the whole contents of the file just written at path.
  void compressInBackground(const std::string& path, std::string text);
  // The gzip stream of the file at path, if this process compressed exactly
  // that file's current contents (it waits for a compression under way).
  // The entry is gone afterwards.
  std::optional<Bytes> take(const std::string& path);
  // Drops the entry for path (waiting for its compression to end).
  void forget(const std::string& path);

  std::size_t size() const;

 private:
  struct Identity {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    std::int64_t modifiedNanoseconds = 0;
    bool operator==(const Identity&) const = default;
  };
  struct Entry {
    Identity identity;
    std::future<std::optional<Bytes>> stream;
  };

  static std::optional<Identity> identityOf(const std::string& path);

  dispatch::ThreadPool& pool_;
  mutable std::mutex mutex_;
  std::map<std::string, Entry> entries_;
};

}  // namespace symlift::operations
