#pragma once
// A bounds-checked little-endian cursor over a byte span. A read past the
// end sets the failure flag, yields zero and leaves the cursor at the end, so
// parsers can read a whole record and check once.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

namespace symlift::symbols::dwarf {

using Bytes = std::span<const std::uint8_t>;

class ByteReader {
 public:
  ByteReader() = default;
  explicit ByteReader(Bytes data, std::size_t offset = 0) : data_(data), offset_(offset) {
    if (offset_ > data_.size()) fail();
  }

  bool ok() const { return !failed_; }
  bool atEnd() const { return offset_ >= data_.size(); }
  std::size_t offset() const { return offset_; }
  std::size_t size() const { return data_.size(); }
  std::size_t remaining() const { return data_.size() - offset_; }
  Bytes data() const { return data_; }

  void seek(std::size_t offset) {
    if (offset > data_.size()) return fail();
    offset_ = offset;
  }
  void skip(std::uint64_t count) {
    if (count > remaining()) return fail();
    offset_ += static_cast<std::size_t>(count);
  }

  std::uint8_t u8() { return static_cast<std::uint8_t>(fixed(1)); }
  std::uint16_t u16() { return static_cast<std::uint16_t>(fixed(2)); }
  std::uint32_t u32() { return static_cast<std::uint32_t>(fixed(4)); }
  std::uint64_t u64() { return fixed(8); }
  // An unsigned little-endian integer of 1 to 8 bytes.
  std::uint64_t fixed(unsigned width) {
    if (width == 0 || width > 8 || width > remaining()) {
      fail();
      return 0;
    }
    std::uint64_t value = 0;
    for (unsigned i = 0; i < width; ++i) value |= std::uint64_t{data_[offset_ + i]} << (8 * i);
    offset_ += width;
    return value;
  }

  std::uint64_t uleb() {
    std::uint64_t value = 0;
    unsigned shift = 0;
    while (true) {
      if (atEnd()) {
        fail();
        return 0;
      }
      std::uint8_t byte = data_[offset_++];
      if (shift < 64) value |= std::uint64_t{byte & 0x7fu} << shift;
      shift += 7;
      if (!(byte & 0x80)) return value;
    }
  }

  std::int64_t sleb() {
    std::uint64_t value = 0;
    unsigned shift = 0;
    std::uint8_t byte = 0;
    do {
      if (atEnd()) {
        fail();
        return 0;
      }
      byte = data_[offset_++];
      if (shift < 64) value |= std::uint64_t{byte & 0x7fu} << shift;
      shift += 7;
    } while (byte & 0x80);
    if (shift < 64 && (byte & 0x40)) value |= ~std::uint64_t{0} << shift;
    return static_cast<std::int64_t>(value);
  }

  // A NUL-terminated string; the view excludes the terminator.
  std::string_view cstr() {
    if (atEnd()) {
      fail();
      return {};
    }
    const void* end = std::memchr(data_.data() + offset_, 0, remaining());
    if (!end) {
      fail();
      return {};
    }
    auto length = static_cast<std::size_t>(static_cast<const std::uint8_t*>(end) - (data_.data() + offset_));
    std::string_view text(reinterpret_cast<const char*>(data_.data() + offset_), length);
    offset_ += length + 1;
    return text;
  }

  Bytes bytes(std::uint64_t count) {
    if (count > remaining()) {
      fail();
      return {};
    }
    Bytes result = data_.subspan(offset_, static_cast<std::size_t>(count));
    offset_ += static_cast<std::size_t>(count);
    return result;
  }

 private:
  void fail() {
    failed_ = true;
    offset_ = data_.size();
  }

  Bytes data_;
  std::size_t offset_ = 0;
  bool failed_ = false;
};

// The NUL-terminated string at offset in a string section, or nothing.
inline bool stringAt(Bytes section, std::uint64_t offset, std::string_view& out) {
  if (offset >= section.size()) return false;
  ByteReader reader(section, static_cast<std::size_t>(offset));
  std::string_view text = reader.cstr();
  if (!reader.ok()) return false;
  out = text;
  return true;
}

}  // namespace symlift::symbols::dwarf
