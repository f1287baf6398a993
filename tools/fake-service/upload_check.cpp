#include "upload_check.h"

#include <zlib.h>

#include <vector>

namespace symlift::fakeservice {

namespace {

constexpr std::size_t kMaximumHeaderLine = 64 * 1024;

std::vector<std::string_view> splitTabs(std::string_view line) {
  std::vector<std::string_view> fields;
  for (;;) {
    auto tab = line.find('\t');
    fields.push_back(line.substr(0, tab));
    if (tab == std::string_view::npos) return fields;
    line.remove_prefix(tab + 1);
  }
}

}  // namespace

UploadVerdict checkUpload(std::string_view body, std::string_view uuid) {
  z_stream stream{};
  if (inflateInit2(&stream, 16 + MAX_WBITS) != Z_OK) return {false, "cannot start decompression"};
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(body.data()));
  stream.avail_in = static_cast<uInt>(body.size());  // uploads here are far below 4 GiB

  // Decompress everything (to know the stream is complete), keeping only
  // the first line.
  std::string firstLine;
  bool lineComplete = false;
  char buffer[64 * 1024];
  int status = Z_OK;
  while (status == Z_OK) {
    stream.next_out = reinterpret_cast<Bytef*>(buffer);
    stream.avail_out = sizeof buffer;
    status = inflate(&stream, Z_NO_FLUSH);
    if (status != Z_OK && status != Z_STREAM_END) break;
    std::size_t produced = sizeof buffer - stream.avail_out;
    if (!lineComplete) {
      std::string_view chunk(buffer, produced);
      auto newline = chunk.find('\n');
      firstLine.append(chunk.substr(0, newline));
      lineComplete = newline != std::string_view::npos;
      if (firstLine.size() > kMaximumHeaderLine) {
        inflateEnd(&stream);
        return {false, "the first line is not a cSYM header"};
      }
    }
    if (status == Z_OK && produced == 0 && stream.avail_in == 0) break;  // truncated input
  }
  inflateEnd(&stream);
  if (status != Z_STREAM_END) return {false, "the body is not a complete gzip stream"};

  auto fields = splitTabs(firstLine);
  if (fields.size() < 4 || fields[0] != "code_mapping" || fields[1] != "1")
    return {false, "the first line is not a cSYM header"};
  if (fields[3] != uuid) return {false, "the cSYM header names UUID " + std::string(fields[3]) + ", not " + std::string(uuid)};
  return {true, {}};
}

}  // namespace symlift::fakeservice
