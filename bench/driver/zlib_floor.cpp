// The compression floor of a conversion: zlib at its default level (6) on
// the given cSYM files, their chunks spread over every core. The files are
// read into memory first; the gzip streams are made and dropped.
//
//   bench-zlib-floor a.csym b.csym

#include <cstdio>
#include <fstream>
#include <iterator>
#include <span>
#include <string>
#include <vector>

#include "operations/parallel_gzip.h"

int main(int argc, char** argv) {
  std::vector<std::string> contents;
  for (int i = 1; i < argc; ++i) {
    std::ifstream in(argv[i], std::ios::binary);
    if (!in) {
      std::fprintf(stderr, "bench-zlib-floor: cannot read %s\n", argv[i]);
      return 1;
    }
    contents.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  std::size_t compressed = 0;
  for (const std::string& text : contents) {
    auto stream = symlift::operations::gzipInChunks(
        std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
    if (!stream) return 1;
    compressed += stream->size();
  }
  std::printf("%zu\n", compressed);
  return 0;
}
