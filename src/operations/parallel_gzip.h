#pragma once
// Gzips bytes as one gzip member at zlib's default level. The input is cut
// into chunks deflated side by side on the run's pool (each chunk primed
// with the last 32 KiB of the one before it, so the ratio stays close to a
// single stream) and stitched behind one header, with the CRC-32 combined
// and the length trailer: any gzip reader sees an ordinary single-member file.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "dispatch/thread_pool.h"

namespace symlift::operations {

struct GzipOptions {
  std::size_t chunkSize = std::size_t{1} << 20;
  // 0: one thread per core.
  unsigned maxThreads = 0;
};

// The chunked deflate of `data` as a complete gzip member (header, raw
// deflate stream, CRC-32, ISIZE), whatever its size. Nothing when zlib fails.
std::optional<std::vector<std::uint8_t>> gzipInChunks(dispatch::ThreadPool& pool, std::span<const std::uint8_t> data,
                                                      const GzipOptions& options = {});

}  // namespace symlift::operations
