#pragma once
// Reading position in a mangled name. Every read is bounds-checked: at the
// end a read yields 0, which no production accepts, so a truncated name
// fails where it ends instead of reading past it.

#include <cstdint>
#include <string_view>

namespace symlift::demangle::swift {

// Numbers beyond this are not real counts or indices in any name; refusing
// them keeps arithmetic on them from overflowing.
inline constexpr std::uint64_t kMaxNumber = 1u << 28;

class Cursor {
 public:
  explicit Cursor(std::string_view text) : text_(text) {}

  bool atEnd() const { return position_ >= text_.size(); }
  char peek(std::size_t ahead = 0) const {
    return position_ + ahead < text_.size() ? text_[position_ + ahead] : '\0';
  }
  char next() { return atEnd() ? '\0' : text_[position_++]; }
  bool nextIf(char c) {
    if (atEnd() || text_[position_] != c) return false;
    ++position_;
    return true;
  }
  bool nextIf(std::string_view s) {
    if (text_.substr(position_, s.size()) != s) return false;
    position_ += s.size();
    return true;
  }
  void back() {
    if (position_ > 0) --position_;
  }
  std::size_t position() const { return position_; }
  void seek(std::size_t position) { position_ = position; }
  std::string_view rest() const { return text_.substr(position_); }
  std::string_view text() const { return text_; }
  // n characters, or an empty view when fewer are left.
  std::string_view take(std::uint64_t n) {
    if (n > text_.size() - position_) return {};
    std::string_view s = text_.substr(position_, n);
    position_ += n;
    return s;
  }

  static bool isDigit(char c) { return c >= '0' && c <= '9'; }
  static bool isLower(char c) { return c >= 'a' && c <= 'z'; }
  static bool isUpper(char c) { return c >= 'A' && c <= 'Z'; }
  static bool isLetter(char c) { return isLower(c) || isUpper(c); }

  // [0-9]+; false when there is no digit or the number is absurd.
  bool natural(std::uint64_t& value) {
    if (!isDigit(peek())) return false;
    value = 0;
    while (isDigit(peek())) {
      value = value * 10 + static_cast<std::uint64_t>(next() - '0');
      if (value > kMaxNumber) return false;
    }
    return true;
  }
  // '_' is 0, N '_' is N + 1.
  bool index(std::uint64_t& value) {
    if (nextIf('_')) {
      value = 0;
      return true;
    }
    std::uint64_t n = 0;
    if (!natural(n) || !nextIf('_')) return false;
    value = n + 1;
    return true;
  }

 private:
  std::string_view text_;
  std::size_t position_ = 0;
};

}  // namespace symlift::demangle::swift
