#include "network/multipart_mime_stream_encoder.h"

#include <gtest/gtest.h>

#include "support/captured_output.h"
#include "support/test_support.h"

namespace symlift::network {
namespace {

using symlift::testing::CapturedOutput;

std::string textOf(const Data& data) { return std::string(data.begin(), data.end()); }
Data bytesOf(const std::string& text) { return Data(text.begin(), text.end()); }

// Parts in the order added, each byte as given; a refused part writes
// nothing and logs one error line, in order.
TEST(MultipartMimeStreamEncoderTest, PartsAreLaidOutByteForByteAndRefusedOnesOnlyLogged) {
  symlift::testing::TempDir dir;
  auto path = dir.write("payload.txt", "file contents").string();
  auto stream = std::make_shared<SUPMemoryOutputStream>();
  SUPMultipartMimeStreamEncoder encoder(stream, std::string("B0UND"));
  CapturedOutput output(STDOUT_FILENO);
  encoder.encode([&] {
    encoder.addFileData({0x00, 0xFF, '\r', '\n', 0x7F}, std::string("blob.bin"), std::nullopt, std::string("raw"));
    encoder.addFileData({}, std::string(""), std::nullopt, std::nullopt);  // the length is checked first
    encoder.addFileData(bytesOf("<a/>"), std::string("doc.xml"), std::string("text/xml"), std::string("doc"));
    encoder.addFileData(bytesOf("x"), std::string("f.txt"), std::nullopt, std::string(""));
    encoder.addFileData(bytesOf("x"), std::nullopt, std::nullopt, std::string("field"));
    encoder.addValue(SUPFormValue(7), std::string("count"));
    encoder.addValue(std::nullopt, std::string("a"));
    encoder.addValue(SUPFormValue(SUPNull{}), std::string("b"));
    encoder.addValue(SUPFormValue(std::string("v")), std::string(""));
    encoder.addValue(SUPFormValue(std::string("two words")), std::string("title"));
    encoder.addFile(path, std::string("payload.txt"), std::string("text/plain"), std::string("upload"));
    encoder.addFile(dir.str() + "/missing", std::string("missing"), std::nullopt, std::string("gone"));
  });
  const std::string expected =
      "MIME-Version: 1.0\r\n"
      "--B0UND\r\nContent-Disposition: form-data; name=\"raw\"; filename=\"blob.bin\"\r\n"
      "Content-Type: application/octet-stream\r\n\r\n" + std::string("\x00\xFF\r\n\x7F", 5) + "\r\n"
      "--B0UND\r\nContent-Disposition: form-data; name=\"doc\"; filename=\"doc.xml\"\r\n"
      "Content-Type: text/xml\r\nContent-Transfer-Encoding: binary\r\n\r\n<a/>\r\n"
      "--B0UND\r\nContent-Disposition: form-data; name=\"count\"\r\nContent-Type: text/plain\r\n\r\n7\r\n"
      "--B0UND\r\nContent-Disposition: form-data; name=\"title\"\r\nContent-Type: text/plain\r\n\r\ntwo words\r\n"
      "--B0UND\r\nContent-Disposition: form-data; name=\"upload\"; filename=\"payload.txt\"\r\n"
      "Content-Type: text/plain\r\nContent-Transfer-Encoding: binary\r\n\r\nfile contents\r\n"
      "--B0UND--\r\n";
  EXPECT_EQ(textOf(stream->bytesWritten()), expected);
  EXPECT_EQ(encoder.length(), expected.size());

  const std::string log = output.take();
  const std::vector<std::string> messages = {
      "Unable to MIME encode data with zero length ((null))", "name () or fieldname (f.txt) is invalid",
      "name (field) or fieldname ((null)) is invalid",       "name (a) or value ((null)) is invalid",
      "name (b) or value (<null>) is invalid",               "name () or value (v) is invalid",
      "Unable to MIME encode data with zero length (gone)",
  };
  std::size_t position = 0;
  for (const auto& message : messages) {
    position = log.find("error: " + message, position);
    ASSERT_NE(position, std::string::npos) << message << " (in order) in:\n" << log;
  }
  EXPECT_EQ(symlift::testing::countOccurrences(log, "error: "), messages.size()) << log;
}

TEST(MultipartMimeStreamEncoderTest, ShortAndClosedWritesAreNotCounted) {
  // A stream that takes at most 4 bytes of any one write.
  struct ShortWriteStream : SUPMemoryOutputStream {
    ssize_t write(const std::uint8_t* bytes, std::size_t length) override {
      return SUPMemoryOutputStream::write(bytes, std::min<std::size_t>(length, 4));
    }
  };
  SUPMultipartMimeStreamEncoder encoder(std::make_shared<ShortWriteStream>(), std::string("B"));
  CapturedOutput output(STDOUT_FILENO);
  encoder.beginEncoding();  // the 19-byte header line is cut short
  EXPECT_EQ(encoder.length(), 0u);
  const std::uint8_t small[] = {'a', 'b', 'c'}, large[] = {'1', '2', '3', '4', '5'};
  EXPECT_TRUE(encoder.writeBytes(small, 3));
  EXPECT_FALSE(encoder.writeBytes(large, 5));
  EXPECT_EQ(encoder.length(), 3u);
  encoder.endEncoding();
  // Once closed, a memory stream refuses everything.
  EXPECT_FALSE(encoder.writeBytes(small, 1));
  encoder.addValue(SUPFormValue(std::string("late")), std::string("field"));
  EXPECT_EQ(encoder.contentLengthHTTPHeaderValue(), "3");
  std::string log = output.take();
  EXPECT_NE(log.find("Failed to write data to stream"), std::string::npos) << log;
  EXPECT_NE(log.find("Failed to write bytes to stream"), std::string::npos) << log;
}

}  // namespace
}  // namespace symlift::network
