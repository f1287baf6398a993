// The compression floors of a conversion: the given cSYM files deflated at
// level 6 alone, 1 MiB chunks spread over every core, by zlib or by
// libdeflate. The files are read into memory first; the compressed bytes
// are counted and dropped. Prints the total compressed size (gzip wrappers
// included). "zlib-size" instead prints what zlib's level 6 makes of each
// file as one gzip stream, summed: what the upload would weigh with zlib.
//
//   bench-gzip-floor zlib|libdeflate|zlib-size a.csym b.csym

#include <libdeflate.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <span>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr std::size_t kChunk = std::size_t{1} << 20;
constexpr std::size_t kWindow = 32768;

// zlib, each chunk primed with the 32 KiB before it (as a chunked zlib
// writer would do to keep its ratio).
std::size_t zlibChunk(std::span<const std::uint8_t> all, std::size_t begin, std::size_t end) {
  z_stream stream{};
  if (deflateInit2(&stream, 6, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY) != Z_OK) return 0;
  const std::size_t window = std::min(kWindow, begin);
  if (window) deflateSetDictionary(&stream, all.data() + begin - window, static_cast<uInt>(window));
  std::vector<std::uint8_t> out(deflateBound(&stream, static_cast<uLong>(end - begin)) + 16);
  stream.next_in = const_cast<Bytef*>(all.data() + begin);
  stream.avail_in = static_cast<uInt>(end - begin);
  stream.next_out = out.data();
  stream.avail_out = static_cast<uInt>(out.size());
  deflate(&stream, end == all.size() ? Z_FINISH : Z_SYNC_FLUSH);
  const std::size_t produced = out.size() - stream.avail_out;
  deflateEnd(&stream);
  return produced;
}

std::size_t libdeflateChunk(std::span<const std::uint8_t> all, std::size_t begin, std::size_t end) {
  libdeflate_compressor* compressor = libdeflate_alloc_compressor(6);
  if (!compressor) return 0;
  std::vector<std::uint8_t> out(libdeflate_deflate_compress_bound(compressor, end - begin));
  const std::size_t produced =
      libdeflate_deflate_compress(compressor, all.data() + begin, end - begin, out.data(), out.size());
  libdeflate_free_compressor(compressor);
  return produced;
}

std::size_t zlibWhole(const std::string& text) {
  uLongf size = compressBound(static_cast<uLong>(text.size()));
  std::vector<std::uint8_t> out(size);
  if (compress2(out.data(), &size, reinterpret_cast<const Bytef*>(text.data()), static_cast<uLong>(text.size()), 6) !=
      Z_OK)
    return 0;
  return size - 6 + 18;  // a gzip wrapper instead of zlib's
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode != "zlib" && mode != "libdeflate" && mode != "zlib-size") {
    std::fprintf(stderr, "usage: bench-gzip-floor zlib|libdeflate|zlib-size file...\n");
    return 2;
  }
  const bool zlib = mode == "zlib";
  std::vector<std::string> contents;
  for (int i = 2; i < argc; ++i) {
    std::ifstream in(argv[i], std::ios::binary);
    if (!in) {
      std::fprintf(stderr, "bench-gzip-floor: cannot read %s\n", argv[i]);
      return 1;
    }
    contents.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  if (mode == "zlib-size") {
    std::size_t whole = 0;
    for (const std::string& text : contents) whole += zlibWhole(text);
    std::printf("%zu\n", whole);
    return 0;
  }
  struct Piece {
    std::size_t file, begin, end;
  };
  std::vector<Piece> pieces;
  for (std::size_t f = 0; f < contents.size(); ++f)
    for (std::size_t begin = 0; begin < std::max<std::size_t>(contents[f].size(), 1); begin += kChunk)
      pieces.push_back({f, begin, std::min(begin + kChunk, contents[f].size())});
  std::atomic<std::size_t> next{0}, compressed{0};
  auto work = [&] {
    for (std::size_t i; (i = next.fetch_add(1)) < pieces.size();) {
      const Piece& piece = pieces[i];
      std::span<const std::uint8_t> all(reinterpret_cast<const std::uint8_t*>(contents[piece.file].data()),
                                        contents[piece.file].size());
      compressed += zlib ? zlibChunk(all, piece.begin, piece.end) : libdeflateChunk(all, piece.begin, piece.end);
    }
  };
  std::vector<std::thread> threads;
  for (unsigned t = 1; t < std::max(1u, std::thread::hardware_concurrency()); ++t) threads.emplace_back(work);
  work();
  for (auto& thread : threads) thread.join();
  std::printf("%zu\n", compressed.load() + 18 * contents.size());
  return 0;
}
