#include "demangle/swift/punycode.h"

#include <cstdint>
#include <vector>

namespace symlift::demangle::swift {

namespace {

constexpr std::uint32_t kBase = 36, kTMin = 1, kTMax = 26, kSkew = 38, kDamp = 700;
constexpr std::uint32_t kInitialBias = 72, kInitialN = 128;
// An identifier is a name, not a document: anything longer is refused.
constexpr std::size_t kMaxCodePoints = 4096;

int digitValue(char c) {
  if (c >= 'a' && c <= 'z') return c - 'a';
  if (c >= 'A' && c <= 'J') return c - 'A' + 26;
  return -1;
}

std::uint32_t adapt(std::uint32_t delta, std::uint32_t points, bool first) {
  delta = first ? delta / kDamp : delta / 2;
  delta += delta / points;
  std::uint32_t k = 0;
  while (delta > ((kBase - kTMin) * kTMax) / 2) {
    delta /= kBase - kTMin;
    k += kBase;
  }
  return k + (kBase - kTMin + 1) * delta / (delta + kSkew);
}

void appendUtf8(std::uint32_t c, std::string& out) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

}  // namespace

bool decodePunycode(std::string_view encoded, std::string& out) {
  std::vector<std::uint32_t> points;
  std::size_t delimiter = encoded.rfind('_');
  std::size_t position = 0;
  if (delimiter != std::string_view::npos) {
    for (std::size_t i = 0; i < delimiter; ++i) {
      if (static_cast<unsigned char>(encoded[i]) >= 0x80) return false;
      points.push_back(static_cast<unsigned char>(encoded[i]));
    }
    position = delimiter + 1;
  }
  std::uint32_t n = kInitialN, bias = kInitialBias;
  std::uint64_t i = 0;
  while (position < encoded.size()) {
    std::uint64_t oldI = i, w = 1;
    for (std::uint32_t k = kBase;; k += kBase) {
      if (position >= encoded.size()) return false;
      int digit = digitValue(encoded[position++]);
      if (digit < 0) return false;
      i += static_cast<std::uint64_t>(digit) * w;
      if (i > 0x7fffffff) return false;
      std::uint32_t t = k <= bias ? kTMin : (k >= bias + kTMax ? kTMax : k - bias);
      if (static_cast<std::uint32_t>(digit) < t) break;
      w *= kBase - t;
      if (w > 0x7fffffff) return false;
    }
    std::uint32_t count = static_cast<std::uint32_t>(points.size() + 1);
    bias = adapt(static_cast<std::uint32_t>(i - oldI), count, oldI == 0);
    std::uint64_t next = n + i / count;
    if (next > 0x10FFFF) return false;
    n = static_cast<std::uint32_t>(next);
    i %= count;
    if (points.size() >= kMaxCodePoints) return false;
    points.insert(points.begin() + static_cast<std::ptrdiff_t>(i), n);
    ++i;
  }
  for (std::uint32_t c : points) appendUtf8(c, out);
  return true;
}

}  // namespace symlift::demangle::swift
