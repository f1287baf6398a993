#pragma once
// The byte sink a multipart body is written to. A stream accepts writes only
// between open and close, and answers each write with the number of bytes
// it took (fewer than offered, or -1, is a failed write).

#include <cstddef>
#include <cstdint>
#include <sys/types.h>
#include <vector>

namespace symlift::network {

class SUPOutputStream {
 public:
  virtual ~SUPOutputStream() = default;
  virtual void open() = 0;
  // Bytes accepted, or -1 when the stream is not open or has failed.
  virtual ssize_t write(const std::uint8_t* bytes, std::size_t length) = 0;
  virtual void close() = 0;
};

// Keeps everything written in memory.
class SUPMemoryOutputStream : public SUPOutputStream {
 public:
  void open() override;
  ssize_t write(const std::uint8_t* bytes, std::size_t length) override;
  void close() override;

  bool isOpen() const { return open_; }
  // Everything accepted so far (still available after close).
  const std::vector<std::uint8_t>& bytesWritten() const { return bytes_; }

 private:
  bool open_ = false;
  bool closed_ = false;  // a closed memory stream stays closed
  std::vector<std::uint8_t> bytes_;
};

}  // namespace symlift::network
