// The gzip writer: what it writes must decode, byte for byte, as one gzip
// member in every reader, across the chunk boundaries, and be no larger than
// zlib's level 6.

#include "operations/parallel_gzip.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <fmt/format.h>

#include <cstdio>
#include <filesystem>
#include <random>
#include <string>

#include "support/test_support.h"

namespace symlift::operations {
namespace {

using Bytes = std::vector<std::uint8_t>;
using namespace symlift::testing;

// Inflates a gzip file, demanding exactly one member that ends at the last
// byte, and checks the trailer's length field. Nothing when it is not that.
std::optional<Bytes> inflateOneMember(const Bytes& gz) {
  z_stream stream{};
  if (inflateInit2(&stream, 16 + 15) != Z_OK) return std::nullopt;
  Bytes out(1 << 16);
  std::size_t produced = 0;
  stream.next_in = const_cast<Bytef*>(gz.data());
  stream.avail_in = static_cast<uInt>(gz.size());
  int status = Z_OK;
  while (status == Z_OK) {
    if (produced == out.size()) out.resize(out.size() * 2);
    stream.next_out = out.data() + produced;
    stream.avail_out = static_cast<uInt>(out.size() - produced);
    status = inflate(&stream, Z_NO_FLUSH);
    produced = out.size() - stream.avail_out;
  }
  const bool wholeInput = stream.avail_in == 0;
  inflateEnd(&stream);
  if (status != Z_STREAM_END || !wholeInput || gz.size() < 18) return std::nullopt;
  out.resize(produced);
  const std::size_t t = gz.size() - 4;
  const std::uint32_t isize = gz[t] | gz[t + 1] << 8 | gz[t + 2] << 16 | std::uint32_t{gz[t + 3]} << 24;
  if (isize != static_cast<std::uint32_t>(out.size())) return std::nullopt;
  return out;
}

Bytes randomBytes(std::size_t size, unsigned seed) {
  std::mt19937 rng(seed);
  Bytes bytes(size);
  for (auto& b : bytes) b = static_cast<std::uint8_t>(rng());
  return bytes;
}

// Lines shaped like a cSYM's range records: repetitive, with varying numbers.
Bytes csymLikeText(std::size_t size) {
  std::mt19937 rng(7);
  std::string text = "Apple Inc. CSYM 1\narm64 4C4C4476-5555-3144-A1B2-C3D4E5F60718 MyApp\n";
  while (text.size() < size) {
    text += fmt::format("{:x}\t{:x}\t{}\t{}\tsrc/Module{}/File{}.swift\t{}\n", 0x100000000 + rng() % 0x1000000,
                        rng() % 4096, rng() % 200, rng() % 50, rng() % 60, rng() % 40, rng() % 3000);
  }
  text.resize(size);
  return Bytes(text.begin(), text.end());
}

dispatch::ThreadPool& testPool() {
  static dispatch::ThreadPool pool;
  return pool;
}

Bytes gzipToFile(const std::filesystem::path& file, const Bytes& data, const GzipOptions& options) {
  auto gz = gzipInChunks(testPool(), data, options);
  EXPECT_TRUE(gz);
  std::FILE* out = std::fopen(file.c_str(), "wb");
  EXPECT_NE(out, nullptr);
  if (gz) std::fwrite(gz->data(), 1, gz->size(), out);
  std::fclose(out);
  return gz.value_or(Bytes{});
}

TEST(ParallelGzipTest, RoundTripsAcrossChunkBoundaries) {
  TempDir dir;
  GzipOptions options;
  options.chunkSize = 64 * 1024;
  options.maxThreads = 2;
  const std::size_t t = options.chunkSize;
  for (std::size_t size : {std::size_t{0}, std::size_t{1}, t - 1, t, t + 1, 5 * t + 12345}) {
    for (const Bytes& data : {randomBytes(size, static_cast<unsigned>(size)), csymLikeText(size)}) {
      const Bytes gz = gzipToFile(dir.path() / "out.gz", data, options);
      auto decoded = inflateOneMember(gz);
      ASSERT_TRUE(decoded) << "size " << size;
      EXPECT_TRUE(*decoded == data) << "size " << size;
    }
  }
}

TEST(ParallelGzipTest, SeveralMebibytesDecodeInZlibGzipAndPython) {
  TempDir dir;
  const Bytes text = csymLikeText(5 * 1024 * 1024 + 777);
  const Bytes random = randomBytes(3 * 1024 * 1024 + 5, 11);
  for (const Bytes* data : {&text, &random}) {
    const auto file = dir.path() / "big.gz";
    const Bytes gz = gzipToFile(file, *data, {});
    auto decoded = inflateOneMember(gz);
    ASSERT_TRUE(decoded);
    EXPECT_TRUE(*decoded == *data);

    // zlib's file reader, which also checks the CRC-32 trailer.
    gzFile in = gzopen(file.c_str(), "r");
    ASSERT_NE(in, nullptr);
    Bytes read(data->size() + 1);
    const int n = gzread(in, read.data(), static_cast<unsigned>(read.size()));
    EXPECT_EQ(gzclose(in), Z_OK);
    ASSERT_EQ(n, static_cast<int>(data->size()));
    read.resize(data->size());
    EXPECT_TRUE(read == *data);

    if (haveProgram("gzip")) {
      auto result = runProgram({"/bin/sh", "-c", "gzip -t \"$0\"", file.string()});
      EXPECT_EQ(result.status, 0) << result.err;
    }
    if (haveProgram("python3")) {
      const auto raw = dir.path() / "raw";
      std::FILE* f = std::fopen(raw.c_str(), "wb");
      ASSERT_NE(f, nullptr);
      std::fwrite(data->data(), 1, data->size(), f);
      std::fclose(f);
      auto result = runProgram({"/bin/sh", "-c",
                                "python3 -c 'import gzip,sys; sys.exit(gzip.open(sys.argv[1]).read() != "
                                "open(sys.argv[2],\"rb\").read())' \"$0\" \"$1\"",
                                file.string(), raw.string()});
      EXPECT_EQ(result.status, 0) << result.err;
    }
  }
}

// What goes up must be no larger than zlib's level 6 would make it, cut
// into chunks or not (libdeflate's level 6 is smaller by a few per cent;
// chunks start without the previous chunk's history, which costs less).
TEST(ParallelGzipTest, NoLargerThanZlibLevelSixInChunksOrWhole) {
  const Bytes text = csymLikeText(8 * 1024 * 1024);
  uLongf zlibSize = compressBound(static_cast<uLong>(text.size()));
  Bytes zlibOut(zlibSize);
  ASSERT_EQ(compress2(zlibOut.data(), &zlibSize, text.data(), static_cast<uLong>(text.size()), 6), Z_OK);
  for (std::size_t chunk : {std::size_t{1} << 20, text.size()}) {
    GzipOptions options;
    options.chunkSize = chunk;
    auto gz = gzipInChunks(testPool(), text, options);
    ASSERT_TRUE(gz);
    // zlib's stream has a 6-byte wrapper, gzip an 18-byte one.
    EXPECT_LE(gz->size() - 18, zlibSize - 6) << "chunk " << chunk;
  }
}

}  // namespace
}  // namespace symlift::operations
