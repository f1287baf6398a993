#pragma once
// Writes a "multipart/form-data" body part by part to an output stream,
// counting what the stream accepted, and can fill a request's body and its
// Content-Type and Content-Length headers from it.
//
// Problems (an empty file, a missing name, a short write) are logged as
// errors and the encoding carries on; only writeBytes reports back.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "network/multipart_output_stream.h"
#include "network/url_request.h"

namespace symlift::network {

// The null placeholder object: a value slot that is deliberately empty.
struct SUPNull {};

// What a value part can carry; a number is written as its decimal text.
using SUPFormValue = std::variant<SUPNull, std::string, std::int64_t, double>;

// The text a value is written (and logged) as: numbers in decimal, the null
// placeholder as "<null>".
std::string textOfFormValue(const SUPFormValue& value);

class SUPMultipartMimeStreamEncoder {
 public:
  // With no boundary, a fresh one from generateBoundary.
  SUPMultipartMimeStreamEncoder(std::shared_ptr<SUPOutputStream> stream, std::optional<std::string> boundary);
  static std::unique_ptr<SUPMultipartMimeStreamEncoder> encoderWithStream(std::shared_ptr<SUPOutputStream> stream,
                                                                         std::optional<std::string> boundary);

  // A random (version 4) UUID in upper-case canonical form, 36 characters.
  static std::string generateBoundary();
  static std::string contentTypeHTTPHeaderValueWithBoundary(const std::string& boundary);

  // Builds the whole body in memory with a fresh boundary: the block adds
  // the parts; the request gets the body and both headers.
  static void populateRequest(URLRequest& request,
                              const std::function<void(SUPMultipartMimeStreamEncoder& encoder)>& block);

  // beginEncoding, the block, endEncoding.
  void encode(const std::function<void()>& block);
  void beginEncoding();
  void endEncoding();

  void addFileData(const Data& data, const std::optional<std::string>& fileName,
                   const std::optional<std::string>& mimeType, const std::optional<std::string>& fieldName);
  // Reads the whole file; an unreadable file counts as empty data.
  void addFile(const std::string& path, const std::optional<std::string>& fileName,
               const std::optional<std::string>& mimeType, const std::optional<std::string>& fieldName);
  // A missing value (nullopt) or the null placeholder is refused.
  void addValue(const std::optional<SUPFormValue>& value, const std::optional<std::string>& fieldName);

  // One write; false (and length unchanged) unless the stream took it all.
  bool writeBytes(const std::uint8_t* bytes, std::size_t length);
  // Writes the bytes as one region; a short write is logged, not retried.
  void writeData(const Data& data);

  std::uint64_t length() const { return length_; }
  const std::string& boundary() const { return boundary_; }
  void setBoundary(const std::string& boundary) { boundary_ = boundary; }
  const std::shared_ptr<SUPOutputStream>& outputStream() const { return outputStream_; }
  Data headerData() const;
  Data footerData() const;
  std::string contentTypeHTTPHeaderValue() const;
  std::string contentLengthHTTPHeaderValue() const;

 private:
  void writeText(const std::string& text);

  std::uint64_t length_ = 0;
  std::string boundary_;
  std::shared_ptr<SUPOutputStream> outputStream_;
};

}  // namespace symlift::network
