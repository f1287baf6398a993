#include "operations/parallel_gzip.h"

#include <libdeflate.h>
#include <zlib.h>

#include <algorithm>
#include <memory>

namespace symlift::operations {

namespace {

// Bytes that deflate overwrites need no zeroing first: a vector whose
// elements are left uninitialised when it grows.
template <typename T>
struct UninitialisedAllocator : std::allocator<T> {
  template <typename U>
  struct rebind {
    using other = UninitialisedAllocator<U>;
  };
  template <typename U>
  void construct(U* p) noexcept {
    ::new (static_cast<void*>(p)) U;
  }
  template <typename U, typename... Args>
  void construct(U* p, Args&&... args) {
    ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
  }
};
using Buffer = std::vector<std::uint8_t, UninitialisedAllocator<std::uint8_t>>;

struct CompressorDeleter {
  void operator()(libdeflate_compressor* compressor) const { libdeflate_free_compressor(compressor); }
};

// zlib counts in uInt; it is fed at most this much at a time.
constexpr std::size_t kMaxZlibCount = std::size_t{1} << 30;

struct Chunk {
  std::span<const std::uint8_t> input;
  bool last = false;
  Buffer output;
  std::uint32_t crc = 0;
  bool ok = false;
};

// Where a complete raw deflate stream's final block begins and where the
// stream ends, in bits from its first byte. zlib's inflate stops at every
// block boundary when asked to and then says how many bits of the last byte
// it took are still unused.
struct StreamBounds {
  std::uint64_t finalBlock = 0;
  std::uint64_t end = 0;
};

std::optional<StreamBounds> boundsOf(const Buffer& stream) {
  z_stream inflater{};
  if (inflateInit2(&inflater, -15) != Z_OK) return std::nullopt;
  std::vector<std::uint8_t> scratch(std::size_t{1} << 16);  // the output is not kept: zlib keeps its own window
  std::span<const std::uint8_t> rest(stream.data(), stream.size());
  std::uint64_t boundary = 0;  // the first block starts at bit 0
  std::optional<StreamBounds> bounds;
  for (;;) {
    if (inflater.avail_in == 0 && !rest.empty()) {
      const std::size_t n = std::min(rest.size(), kMaxZlibCount);
      inflater.next_in = const_cast<Bytef*>(rest.data());
      inflater.avail_in = static_cast<uInt>(n);
      rest = rest.subspan(n);
    }
    inflater.next_out = scratch.data();
    inflater.avail_out = static_cast<uInt>(scratch.size());
    const int status = inflate(&inflater, Z_BLOCK);
    const std::uint64_t position = std::uint64_t{inflater.total_in} * 8 - (inflater.data_type & 7);
    if (status != Z_OK && status != Z_BUF_ERROR) break;  // the end is never passed without a stop first
    if (status == Z_BUF_ERROR && inflater.avail_in == 0 && rest.empty()) break;  // cut short
    if (inflater.data_type & 128) {  // stopped right after a block
      if (inflater.data_type & 64) {  // and it was the final one
        bounds = StreamBounds{boundary, position};
        break;
      }
      boundary = position;
    }
  }
  inflateEnd(&inflater);
  return bounds;
}

// The chunk's raw deflate stream, made to continue into the next chunk's:
// its final block turned into an ordinary one and followed by an empty
// stored block, which ends on a byte boundary.
bool openUp(Buffer& stream) {
  const auto bounds = boundsOf(stream);
  if (!bounds || bounds->end > std::uint64_t{stream.size()} * 8) return false;
  stream[bounds->finalBlock / 8] &= static_cast<std::uint8_t>(~(1u << (bounds->finalBlock % 8)));
  // The stored block's three header bits (not final, type 0) are zero, as
  // is the padding after them to the byte boundary.
  const std::uint64_t headerEnd = bounds->end + 3;
  const std::size_t bytes = static_cast<std::size_t>((headerEnd + 7) / 8);
  stream.resize(bytes, 0);
  const unsigned used = static_cast<unsigned>(bounds->end % 8);
  if (used != 0) stream[bounds->end / 8] &= static_cast<std::uint8_t>((1u << used) - 1);
  for (std::size_t i = static_cast<std::size_t>(bounds->end / 8) + (used != 0); i < bytes; ++i) stream[i] = 0;
  for (std::uint8_t byte : {0x00, 0x00, 0xFF, 0xFF}) stream.push_back(byte);
  return true;
}

void deflateChunk(Chunk& chunk, int level) {
  std::unique_ptr<libdeflate_compressor, CompressorDeleter> compressor(libdeflate_alloc_compressor(level));
  if (!compressor) return;
  chunk.crc = static_cast<std::uint32_t>(libdeflate_crc32(0, chunk.input.data(), chunk.input.size()));
  chunk.output.resize(libdeflate_deflate_compress_bound(compressor.get(), chunk.input.size()));
  const std::size_t produced = libdeflate_deflate_compress(compressor.get(), chunk.input.data(), chunk.input.size(),
                                                           chunk.output.data(), chunk.output.size());
  if (produced == 0) return;
  chunk.output.resize(produced);
  chunk.ok = chunk.last || openUp(chunk.output);
}

void appendLittleEndian32(std::vector<std::uint8_t>& out, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

}  // namespace

std::optional<std::vector<std::uint8_t>> gzipInChunks(dispatch::ThreadPool& pool, std::span<const std::uint8_t> data,
                                                      const GzipOptions& options) {
  const std::size_t chunkSize = std::max<std::size_t>(options.chunkSize, 1);
  const std::size_t chunkCount = std::max<std::size_t>((data.size() + chunkSize - 1) / chunkSize, 1);
  std::vector<Chunk> chunks(chunkCount);
  for (std::size_t i = 0; i < chunkCount; ++i) {
    const std::size_t begin = std::min(i * chunkSize, data.size());
    chunks[i].input = data.subspan(begin, std::min(chunkSize, data.size() - begin));
    chunks[i].last = i + 1 == chunkCount;
  }
  pool.parallelFor(chunkCount, [&](std::size_t i) { deflateChunk(chunks[i], options.level); }, options.maxThreads);

  // Header: deflate, no flags, no time stamp, no extra flags, OS Unix.
  std::vector<std::uint8_t> out{0x1f, 0x8b, 8, 0, 0, 0, 0, 0, 0, 3};
  std::size_t total = out.size() + 8;
  for (const Chunk& chunk : chunks) {
    if (!chunk.ok) return std::nullopt;
    total += chunk.output.size();
  }
  out.reserve(total);
  uLong crc = crc32(0L, Z_NULL, 0);
  for (Chunk& chunk : chunks) {
    out.insert(out.end(), chunk.output.begin(), chunk.output.end());
    crc = crc32_combine(crc, chunk.crc, static_cast<z_off_t>(chunk.input.size()));
    Buffer().swap(chunk.output);
  }
  appendLittleEndian32(out, static_cast<std::uint32_t>(crc));
  appendLittleEndian32(out, static_cast<std::uint32_t>(data.size() & 0xffffffffu));
  return out;
}

}  // namespace symlift::operations
