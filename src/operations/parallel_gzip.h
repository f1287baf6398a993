#pragma once
// Gzips bytes as one gzip member with libdeflate at level 5. On cSYM text
// that is smaller than libdeflate's level 6 (17.19 against 17.23 MB for
// 91 MB of text) and than zlib's level 6 (18.12 MB), for about two thirds of
// level 6's CPU; level 4 is larger than zlib's level 6. A large input is cut into chunks
// deflated side by side on the run's pool; each chunk but the last is then
// cut at the end of its last block, that block made non-final, and closed
// with an empty stored block (as a sync flush would), so the chunks follow
// one another in a single deflate stream behind one header, with the CRC-32
// combined and the length trailer: any gzip reader sees an ordinary
// single-member file.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "dispatch/thread_pool.h"

namespace symlift::operations {

struct GzipOptions {
  // The largest chunk. An input is cut into a few chunks per thread, each
  // of at least 1 MiB (a smaller input is one chunk) and at most this.
  std::size_t chunkSize = std::size_t{4} << 20;
  // 0: one chunk at a time per core.
  unsigned maxThreads = 0;
  int level = 5;
};

// The gzip member of `data` (header, raw deflate stream, CRC-32, ISIZE),
// whatever its size. Nothing when the deflate stream could not be made.
std::optional<std::vector<std::uint8_t>> gzipInChunks(dispatch::ThreadPool& pool, std::span<const std::uint8_t> data,
                                                      const GzipOptions& options = {});

}  // namespace symlift::operations
