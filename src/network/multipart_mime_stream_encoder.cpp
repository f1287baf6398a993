#include "network/multipart_mime_stream_encoder.h"

#include <openssl/rand.h>

#include <fmt/format.h>

#include <random>

#include "console/console_log.h"
#include "support/property_list.h"
#include "support/files.h"

namespace symlift::network {

namespace {

std::string textOrNull(const std::optional<std::string>& text) { return text ? *text : std::string("(null)"); }

Data bytesOf(const std::string& text) { return Data(text.begin(), text.end()); }

}  // namespace

std::string textOfFormValue(const SUPFormValue& value) {
  struct Visitor {
    std::string operator()(const SUPNull&) const { return "<null>"; }
    std::string operator()(const std::string& text) const { return text; }
    std::string operator()(std::int64_t number) const { return std::to_string(number); }
    std::string operator()(double number) const { return fmt::format("{}", number); }
  };
  return std::visit(Visitor{}, value);
}

SUPMultipartMimeStreamEncoder::SUPMultipartMimeStreamEncoder(std::shared_ptr<SUPOutputStream> stream,
                                                             std::optional<std::string> boundary)
    : boundary_(boundary ? std::move(*boundary) : generateBoundary()), outputStream_(std::move(stream)) {}

std::unique_ptr<SUPMultipartMimeStreamEncoder> SUPMultipartMimeStreamEncoder::encoderWithStream(
    std::shared_ptr<SUPOutputStream> stream, std::optional<std::string> boundary) {
  return std::make_unique<SUPMultipartMimeStreamEncoder>(std::move(stream), std::move(boundary));
}

std::string SUPMultipartMimeStreamEncoder::generateBoundary() {
  std::uint8_t bytes[16];
  if (RAND_bytes(bytes, sizeof bytes) != 1) {
    // The system's generator failed; a seeded engine still gives distinct boundaries.
    static thread_local std::mt19937_64 engine{std::random_device{}()};
    for (auto& byte : bytes) byte = static_cast<std::uint8_t>(engine());
  }
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
  std::string text;
  text.reserve(36);
  for (int i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += fmt::format("{:02X}", bytes[i]);
  }
  return text;
}

std::string SUPMultipartMimeStreamEncoder::contentTypeHTTPHeaderValueWithBoundary(const std::string& boundary) {
  return fmt::format("multipart/form-data; boundary={}", boundary);
}

void SUPMultipartMimeStreamEncoder::populateRequest(
    URLRequest& request, const std::function<void(SUPMultipartMimeStreamEncoder& encoder)>& block) {
  std::string boundary = generateBoundary();
  auto stream = std::make_shared<SUPMemoryOutputStream>();
  SUPMultipartMimeStreamEncoder encoder(stream, boundary);
  encoder.encode([&] {
    if (block) block(encoder);
  });
  request.setValueForHTTPHeaderField(encoder.contentTypeHTTPHeaderValue(), "Content-Type");
  request.setValueForHTTPHeaderField(encoder.contentLengthHTTPHeaderValue(), "Content-Length");
  request.HTTPBody = stream->bytesWritten();
}

void SUPMultipartMimeStreamEncoder::encode(const std::function<void()>& block) {
  beginEncoding();
  if (block) block();
  endEncoding();
}

void SUPMultipartMimeStreamEncoder::beginEncoding() {
  length_ = 0;
  if (outputStream_) outputStream_->open();
  writeData(headerData());
}

void SUPMultipartMimeStreamEncoder::endEncoding() {
  writeData(footerData());
  if (outputStream_) outputStream_->close();
}

void SUPMultipartMimeStreamEncoder::addFileData(const Data& data, const std::optional<std::string>& fileName,
                                                const std::optional<std::string>& mimeType,
                                                const std::optional<std::string>& fieldName) {
  if (data.empty()) {
    console::SYLLogError("Unable to MIME encode data with zero length ({})", textOrNull(fieldName));
    return;
  }
  if (!fieldName || fieldName->empty() || !fileName || fileName->empty()) {
    console::SYLLogError("name ({}) or fieldname ({}) is invalid", textOrNull(fieldName), textOrNull(fileName));
    return;
  }
  writeText(fmt::format("--{}\r\nContent-Disposition: form-data; name=\"{}\"; filename=\"{}\"\r\n", boundary_,
                        *fieldName, *fileName));
  if (mimeType) {
    writeText(fmt::format("Content-Type: {}\r\n", *mimeType));
    writeText("Content-Transfer-Encoding: binary\r\n\r\n");
  } else {
    // Without a declared type the part goes out as opaque bytes, with no
    // transfer-encoding line.
    writeText("Content-Type: application/octet-stream\r\n\r\n");
  }
  writeData(data);
  writeText("\r\n");
}

void SUPMultipartMimeStreamEncoder::addFile(const std::string& path, const std::optional<std::string>& fileName,
                                            const std::optional<std::string>& mimeType,
                                            const std::optional<std::string>& fieldName) {
  auto contents = support::readWholeFile(path);
  Data data = contents ? bytesOf(*contents) : Data();
  addFileData(data, fileName, mimeType, fieldName);
}

void SUPMultipartMimeStreamEncoder::addValue(const std::optional<SUPFormValue>& value,
                                             const std::optional<std::string>& fieldName) {
  bool isNull = !value || std::holds_alternative<SUPNull>(*value);
  if (isNull || !fieldName || fieldName->empty()) {
    console::SYLLogError("name ({}) or value ({}) is invalid", textOrNull(fieldName),
                     value ? textOfFormValue(*value) : std::string("(null)"));
    return;
  }
  writeText(fmt::format("--{}\r\nContent-Disposition: form-data; name=\"{}\"\r\n", boundary_, *fieldName));
  writeText("Content-Type: text/plain\r\n\r\n");
  writeText(fmt::format("{}\r\n", textOfFormValue(*value)));
}

bool SUPMultipartMimeStreamEncoder::writeBytes(const std::uint8_t* bytes, std::size_t length) {
  ssize_t written = outputStream_ ? outputStream_->write(bytes, length) : -1;
  if (written < 0 || static_cast<std::size_t>(written) < length) {
    console::SYLLogError("Failed to write bytes to stream");
    return false;
  }
  length_ += length;
  return true;
}

void SUPMultipartMimeStreamEncoder::writeData(const Data& data) {
  ssize_t written = outputStream_ ? outputStream_->write(data.data(), data.size()) : -1;
  if (written < 0 || static_cast<std::size_t>(written) < data.size()) {
    console::SYLLogError("Failed to write data to stream");
    return;
  }
  length_ += data.size();
}

Data SUPMultipartMimeStreamEncoder::headerData() const { return bytesOf("MIME-Version: 1.0\r\n"); }

Data SUPMultipartMimeStreamEncoder::footerData() const { return bytesOf(fmt::format("--{}--\r\n", boundary_)); }

std::string SUPMultipartMimeStreamEncoder::contentTypeHTTPHeaderValue() const {
  return contentTypeHTTPHeaderValueWithBoundary(boundary_);
}

std::string SUPMultipartMimeStreamEncoder::contentLengthHTTPHeaderValue() const {
  return std::to_string(length_);
}

void SUPMultipartMimeStreamEncoder::writeText(const std::string& text) { writeData(bytesOf(text)); }

}  // namespace symlift::network
