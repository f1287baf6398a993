#pragma once
// Writes bytes as one gzip member at zlib's default level. Large inputs are
// cut into chunks deflated on several threads (each chunk primed with the
// last 32 KiB of the one before it, so the ratio stays close to a single
// stream) and stitched behind one header, with the CRC-32 combined and the
// length trailer: any gzip reader sees an ordinary single-member file.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace symlift::operations {

struct GzipOptions {
  // Inputs smaller than this go through zlib's own gzip writer.
  std::size_t parallelThreshold = std::size_t{1} << 20;
  std::size_t chunkSize = std::size_t{1} << 20;
  // 0: one thread per core.
  unsigned maxThreads = 0;
};

// The chunked deflate of `data` as a complete gzip member (header, raw
// deflate stream, CRC-32, ISIZE), whatever its size. Nothing when zlib fails.
std::optional<std::vector<std::uint8_t>> gzipInChunks(std::span<const std::uint8_t> data,
                                                      const GzipOptions& options = {});

// Writes `data` gzipped to `fd` and closes it (also on failure). False when
// a write came up short, compression failed or the close failed.
bool writeGzipToDescriptor(int fd, std::span<const std::uint8_t> data, const GzipOptions& options = {});

}  // namespace symlift::operations
