#include "network/multipart_output_stream.h"

namespace symlift::network {

void SUPMemoryOutputStream::open() {
  if (!closed_) open_ = true;
}

ssize_t SUPMemoryOutputStream::write(const std::uint8_t* bytes, std::size_t length) {
  if (!open_) return -1;
  if (length > 0) bytes_.insert(bytes_.end(), bytes, bytes + length);
  return static_cast<ssize_t>(length);
}

void SUPMemoryOutputStream::close() {
  open_ = false;
  closed_ = true;
}

}  // namespace symlift::network
