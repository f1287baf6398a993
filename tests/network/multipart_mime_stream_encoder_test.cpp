#include "network/multipart_mime_stream_encoder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

#include "support/captured_output.h"
#include "support/test_support.h"

namespace symlift::network {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using symlift::testing::CapturedOutput;
using symlift::testing::TempDir;

std::string textOf(const Data& data) { return std::string(data.begin(), data.end()); }
Data bytesOf(const std::string& text) { return Data(text.begin(), text.end()); }

// A stream that takes at most `limit` bytes of any one write.
class ShortWriteStream : public SUPMemoryOutputStream {
 public:
  explicit ShortWriteStream(std::size_t limit) : limit_(limit) {}
  ssize_t write(const std::uint8_t* bytes, std::size_t length) override {
    return SUPMemoryOutputStream::write(bytes, std::min(length, limit_));
  }

 private:
  std::size_t limit_;
};

struct Encoded {
  std::string body;
  std::uint64_t length = 0;
  std::string log;
};

// Encodes with the boundary "B0UND" and returns the body, the counted length
// and everything logged meanwhile.
Encoded encodeWith(const std::function<void(SUPMultipartMimeStreamEncoder&)>& addParts) {
  auto stream = std::make_shared<SUPMemoryOutputStream>();
  SUPMultipartMimeStreamEncoder encoder(stream, std::string("B0UND"));
  CapturedOutput output(STDOUT_FILENO);
  encoder.encode([&] { addParts(encoder); });
  return {textOf(stream->bytesWritten()), encoder.length(), output.take()};
}

TEST(MultipartMimeStreamEncoderTest, EmptyBodyFillsRequestWithFreshBoundaryAndLength) {
  URLRequest first, second;
  SUPMultipartMimeStreamEncoder::populateRequest(first, [](SUPMultipartMimeStreamEncoder&) {});
  SUPMultipartMimeStreamEncoder::populateRequest(second, nullptr);

  std::string contentType = first.valueForHTTPHeaderField("Content-Type").value_or("");
  const std::string prefix = "multipart/form-data; boundary=";
  ASSERT_EQ(contentType.substr(0, prefix.size()), prefix);
  std::string boundary = contentType.substr(prefix.size());
  EXPECT_TRUE(std::regex_match(boundary, std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")))
      << boundary;
  EXPECT_EQ(textOf(first.HTTPBody), "MIME-Version: 1.0\r\n--" + boundary + "--\r\n");
  EXPECT_EQ(first.valueForHTTPHeaderField("Content-Length"), "61");
  EXPECT_EQ(first.HTTPBody.size(), 61u);

  EXPECT_NE(second.valueForHTTPHeaderField("Content-Type"), first.valueForHTTPHeaderField("Content-Type"));
  EXPECT_NE(SUPMultipartMimeStreamEncoder::generateBoundary(), SUPMultipartMimeStreamEncoder::generateBoundary());
}

TEST(MultipartMimeStreamEncoderTest, PartsAreLaidOutByteForByte) {
  Data binary = {0x00, 0xFF, '\r', '\n', 0x7F};
  auto result = encodeWith([&](SUPMultipartMimeStreamEncoder& encoder) {
    encoder.addFileData(binary, std::string("blob.bin"), std::nullopt, std::string("raw"));
    encoder.addFileData(bytesOf("<a/>"), std::string("doc.xml"), std::string("text/xml"), std::string("doc"));
    encoder.addValue(SUPFormValue(7), std::string("count"));
    encoder.addValue(SUPFormValue(std::string("two words")), std::string("title"));
  });
  std::string expected =
      "MIME-Version: 1.0\r\n"
      "--B0UND\r\nContent-Disposition: form-data; name=\"raw\"; filename=\"blob.bin\"\r\n"
      "Content-Type: application/octet-stream\r\n\r\n" +
      std::string("\x00\xFF\r\n\x7F", 5) +
      "\r\n"
      "--B0UND\r\nContent-Disposition: form-data; name=\"doc\"; filename=\"doc.xml\"\r\n"
      "Content-Type: text/xml\r\nContent-Transfer-Encoding: binary\r\n\r\n<a/>\r\n"
      "--B0UND\r\nContent-Disposition: form-data; name=\"count\"\r\nContent-Type: text/plain\r\n\r\n7\r\n"
      "--B0UND\r\nContent-Disposition: form-data; name=\"title\"\r\nContent-Type: text/plain\r\n\r\ntwo words\r\n"
      "--B0UND--\r\n";
  EXPECT_EQ(result.body, expected);
  EXPECT_EQ(result.length, expected.size());
  EXPECT_EQ(result.log, "");
}

TEST(MultipartMimeStreamEncoderTest, RefusedPartsAreLoggedInOrderAndWriteNothing) {
  auto result = encodeWith([&](SUPMultipartMimeStreamEncoder& encoder) {
    // The length is checked before the names.
    encoder.addFileData({}, std::string(""), std::nullopt, std::nullopt);
    encoder.addFileData(bytesOf("x"), std::string("f.txt"), std::nullopt, std::string(""));
    encoder.addFileData(bytesOf("x"), std::nullopt, std::nullopt, std::string("field"));
    encoder.addValue(std::nullopt, std::string("a"));
    encoder.addValue(SUPFormValue(SUPNull{}), std::string("b"));
    encoder.addValue(SUPFormValue(std::string("v")), std::string(""));
  });
  EXPECT_EQ(result.body, "MIME-Version: 1.0\r\n--B0UND--\r\n");
  EXPECT_EQ(result.length, result.body.size());

  std::vector<std::string> messages = {
      "Unable to MIME encode data with zero length ((null))",
      "name () or fieldname (f.txt) is invalid",
      "name (field) or fieldname ((null)) is invalid",
      "name (a) or value ((null)) is invalid",
      "name (b) or value (<null>) is invalid",
      "name () or value (v) is invalid",
  };
  std::size_t position = 0;
  for (const auto& message : messages) {
    auto found = result.log.find(message, position);
    ASSERT_NE(found, std::string::npos) << message << " (in order) in:\n" << result.log;
    EXPECT_NE(result.log.rfind("error: ", found), std::string::npos);
    position = found + message.size();
  }
}

TEST(MultipartMimeStreamEncoderTest, AddFileReadsTheFileAndTreatsUnreadableAsEmpty) {
  TempDir dir;
  auto path = dir.write("payload.txt", "file contents");
  auto result = encodeWith([&](SUPMultipartMimeStreamEncoder& encoder) {
    encoder.addFile(path.string(), std::string("payload.txt"), std::string("text/plain"), std::string("upload"));
    encoder.addFile((dir.path() / "missing").string(), std::string("missing"), std::nullopt, std::string("gone"));
  });
  EXPECT_THAT(result.body, HasSubstr("filename=\"payload.txt\"\r\nContent-Type: text/plain\r\n"
                                     "Content-Transfer-Encoding: binary\r\n\r\nfile contents\r\n--B0UND--\r\n"));
  EXPECT_THAT(result.body, Not(HasSubstr("gone")));
  EXPECT_THAT(result.log, HasSubstr("Unable to MIME encode data with zero length (gone)"));
}

TEST(MultipartMimeStreamEncoderTest, ShortAndClosedWritesAreNotCounted) {
  auto stream = std::make_shared<ShortWriteStream>(4);
  SUPMultipartMimeStreamEncoder encoder(stream, std::string("B"));
  CapturedOutput output(STDOUT_FILENO);
  encoder.beginEncoding();  // the 19-byte header line is cut short
  EXPECT_EQ(encoder.length(), 0u);
  const std::uint8_t small[] = {'a', 'b', 'c'};
  EXPECT_TRUE(encoder.writeBytes(small, 3));
  EXPECT_EQ(encoder.length(), 3u);
  const std::uint8_t large[] = {'1', '2', '3', '4', '5'};
  EXPECT_FALSE(encoder.writeBytes(large, 5));
  EXPECT_EQ(encoder.length(), 3u);
  encoder.endEncoding();
  // Once closed, a memory stream refuses everything.
  EXPECT_FALSE(encoder.writeBytes(small, 1));
  encoder.addValue(SUPFormValue(std::string("late")), std::string("field"));
  EXPECT_EQ(encoder.length(), 3u);
  std::string log = output.take();
  EXPECT_THAT(log, HasSubstr("Failed to write data to stream"));
  EXPECT_THAT(log, HasSubstr("Failed to write bytes to stream"));
  EXPECT_EQ(encoder.contentLengthHTTPHeaderValue(), "3");
}

}  // namespace
}  // namespace symlift::network
