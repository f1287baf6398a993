#include "operations/parallel_gzip.h"

#include <zlib.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <utility>
#include <vector>

namespace symlift::operations {

namespace {

constexpr std::size_t kWindowSize = 32768;
constexpr int kLevel = Z_DEFAULT_COMPRESSION;  // 6
constexpr int kMemLevel = 8;                   // zlib's default, as gzwrite uses

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

struct Chunk {
  std::span<const std::uint8_t> input;
  std::span<const std::uint8_t> dictionary;  // the end of the previous chunk
  bool last = false;
  Buffer output;
  uLong crc = 0;
  bool ok = false;
};

// zlib counts in uInt; feed it at most this much at a time.
constexpr std::size_t kMaxZlibCount = std::size_t{1} << 30;

uLong crcOf(std::span<const std::uint8_t> bytes) {
  uLong crc = crc32(0L, Z_NULL, 0);
  while (!bytes.empty()) {
    const std::size_t n = std::min(bytes.size(), kMaxZlibCount);
    crc = crc32(crc, bytes.data(), static_cast<uInt>(n));
    bytes = bytes.subspan(n);
  }
  return crc;
}

// Raw deflate of one chunk. A chunk that is not the last ends with a sync
// flush (an empty stored block), which leaves the stream byte-aligned and
// open, so the next chunk's bytes can simply follow it.
void deflateChunk(Chunk& chunk) {
  chunk.crc = crcOf(chunk.input);
  z_stream stream{};
  if (deflateInit2(&stream, kLevel, Z_DEFLATED, -15, kMemLevel, Z_DEFAULT_STRATEGY) != Z_OK) return;
  bool ok = true;
  if (!chunk.dictionary.empty() &&
      deflateSetDictionary(&stream, chunk.dictionary.data(), static_cast<uInt>(chunk.dictionary.size())) != Z_OK) {
    ok = false;
  }
  // Room for the whole chunk's output plus the flush marker; grown if ever short.
  chunk.output.resize(deflateBound(&stream, static_cast<uLong>(std::min(chunk.input.size(), kMaxZlibCount))) + 16);
  std::size_t produced = 0;
  std::span<const std::uint8_t> rest = chunk.input;
  while (ok) {
    const std::size_t n = std::min(rest.size(), kMaxZlibCount);
    stream.next_in = const_cast<Bytef*>(rest.data());
    stream.avail_in = static_cast<uInt>(n);
    const bool finalPiece = n == rest.size();
    const int flush = !finalPiece ? Z_NO_FLUSH : (chunk.last ? Z_FINISH : Z_SYNC_FLUSH);
    int status = Z_OK;
    do {
      if (produced == chunk.output.size()) chunk.output.resize(chunk.output.size() * 2);
      const std::size_t room = std::min(chunk.output.size() - produced, kMaxZlibCount);
      stream.next_out = chunk.output.data() + produced;
      stream.avail_out = static_cast<uInt>(room);
      status = deflate(&stream, flush);
      produced += room - stream.avail_out;
      if (status == Z_STREAM_ERROR) {
        ok = false;
        break;
      }
      // Done with this piece once deflate left output room unused (or ended).
    } while (status != Z_STREAM_END && stream.avail_out == 0);
    if (!ok) break;
    if (stream.avail_in != 0) {
      ok = false;
      break;
    }
    rest = rest.subspan(n);
    if (finalPiece) {
      ok = !chunk.last || status == Z_STREAM_END;
      break;
    }
  }
  deflateEnd(&stream);
  chunk.output.resize(produced);
  chunk.ok = ok;
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
    const std::size_t end = std::min(begin + chunkSize, data.size());
    chunks[i].input = data.subspan(begin, end - begin);
    const std::size_t window = std::min(kWindowSize, begin);
    chunks[i].dictionary = data.subspan(begin - window, window);
    chunks[i].last = i + 1 == chunkCount;
  }

  pool.parallelFor(chunkCount, [&chunks](std::size_t i) { deflateChunk(chunks[i]); }, options.maxThreads);

  // Header: deflate, no flags, no time stamp, no extra flags, OS Unix —
  // the header zlib's own gzip writer produces.
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
