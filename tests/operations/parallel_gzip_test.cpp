// The gzip writer: what it writes must decode, byte for byte, as one gzip
// member in every reader, across the chunk boundaries, and be no larger than
// zlib's level 6.

#include "operations/parallel_gzip.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <fmt/format.h>

#include <random>

#include "operations/pipeline_test_support.h"

namespace symlift::operations {
namespace {

using namespace symlift::testing;

std::string randomBytes(std::size_t size, unsigned seed) {
  std::mt19937 rng(seed);
  std::string bytes(size, '\0');
  for (auto& b : bytes) b = static_cast<char>(rng());
  return bytes;
}

// Lines shaped like a cSYM's range records: repetitive, with varying numbers.
std::string csymLikeText(std::size_t size) {
  std::mt19937 rng(7);
  std::string text = "Apple Inc. CSYM 1\narm64 4C4C4476-5555-3144-A1B2-C3D4E5F60718 MyApp\n";
  while (text.size() < size) {
    text += fmt::format("{:x}\t{:x}\t{}\t{}\tsrc/Module{}/File{}.swift\t{}\n", 0x100000000 + rng() % 0x1000000,
                        rng() % 4096, rng() % 200, rng() % 50, rng() % 60, rng() % 40, rng() % 3000);
  }
  text.resize(size);
  return text;
}

std::string gzip(const std::string& data, const GzipOptions& options = {}) {
  static dispatch::ThreadPool pool;
  auto gz = gzipInChunks(pool, {reinterpret_cast<const std::uint8_t*>(data.data()), data.size()}, options);
  EXPECT_TRUE(gz);
  return gz ? std::string(gz->begin(), gz->end()) : std::string();
}

// gunzip demands one whole member that ends at the last byte; zlib checks
// its CRC-32 and length. Chunks of a few dozen bytes end in blocks with
// the fixed codes or stored blocks, larger ones in blocks with their own
// codes: every kind of block is opened up to continue the stream.
TEST(ParallelGzipTest, RoundTripsAcrossChunkBoundaries) {
  for (std::size_t t : {std::size_t{64} * 1024, std::size_t{48}}) {
    GzipOptions options;
    options.chunkSize = t;
    options.maxThreads = 2;
    for (std::size_t size : {std::size_t{0}, std::size_t{1}, t - 1, t, t + 1, 5 * t + 12345})
      for (const std::string& data : {randomBytes(size, static_cast<unsigned>(size)), csymLikeText(size)})
        EXPECT_TRUE(gunzip(gzip(data, options)) == data) << "chunk " << t << ", size " << size;
  }
}

// zlib's file reader, gzip -t and Python's gzip module all read it.
TEST(ParallelGzipTest, SeveralMebibytesDecodeInZlibGzipAndPython) {
  TempDir dir;
  for (const std::string& data : {csymLikeText(5 * 1024 * 1024 + 777), randomBytes(3 * 1024 * 1024 + 5, 11)}) {
    const std::string file = dir.write("big.gz", gzip(data)).string(), raw = dir.write("raw", data).string();
    EXPECT_TRUE(gunzip(readFile(file)) == data);
    gzFile in = gzopen(file.c_str(), "r");
    ASSERT_NE(in, nullptr);
    std::string read(data.size() + 1, '\0');
    read.resize(std::max(0, gzread(in, read.data(), static_cast<unsigned>(read.size()))));
    EXPECT_EQ(gzclose(in), Z_OK);
    EXPECT_TRUE(read == data);
    for (const char* check : {"gzip -t \"$0\"", "python3 -c 'import gzip,sys; sys.exit(gzip.open(sys.argv[1]).read() "
                                                "!= open(sys.argv[2],\"rb\").read())' \"$0\" \"$1\""}) {
      auto result = runProgram({"/bin/sh", "-c", check, file, raw});
      EXPECT_EQ(result.status, 0) << check << ": " << result.err;
    }
  }
}

// No larger than zlib's level 6 would make it, in the chunks a run cuts on
// any number of cores (each starts without the previous chunk's history,
// which costs less than libdeflate's level 5 saves).
TEST(ParallelGzipTest, NoLargerThanZlibLevelSix) {
  const std::string text = csymLikeText(8 * 1024 * 1024);
  uLongf zlibSize = compressBound(static_cast<uLong>(text.size()));
  std::string zlibOut(zlibSize, '\0');
  ASSERT_EQ(compress2(reinterpret_cast<Bytef*>(zlibOut.data()), &zlibSize,
                      reinterpret_cast<const Bytef*>(text.data()), static_cast<uLong>(text.size()), 6),
            Z_OK);
  for (unsigned threads : {1u, 2u, 64u}) {
    GzipOptions options;
    options.maxThreads = threads;
    // zlib's stream has a 6-byte wrapper, gzip an 18-byte one.
    EXPECT_LE(gzip(text, options).size() - 18, zlibSize - 6) << threads << " threads";
  }
}

}  // namespace
}  // namespace symlift::operations
