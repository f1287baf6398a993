// The encoder over a stream that takes only part of each write, then none:
// what it could not write is neither counted nor sent. The layout of the
// parts shows in the web client's requests (WebClientTest).

#include "network/multipart_mime_stream_encoder.h"

#include <gtest/gtest.h>

#include "support/captured_output.h"

namespace symlift::network {
namespace {

using symlift::testing::CapturedOutput;

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
