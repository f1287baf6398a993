#pragma once
// One source address range of a code symbol: where it is relative to the
// slice's base address, which symbol and file it belongs to, and its line.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace symlift::symbols {

struct SUPRange {
  std::uint64_t location = 0;
  std::uint64_t length = 0;
};

class SUPSymbolRange {
 public:
  SUPSymbolRange() = default;

  // The source path as the reader reported it (not owned: valid only while
  // the data it points into lives), or nothing.
  std::optional<std::string_view> path() const { return path_; }
  void setPath(std::optional<std::string_view> path) { path_ = path; }
  // The path as an owned string, or nothing without a path.
  std::optional<std::string> filePath() const;

  std::int64_t lineNumber() const { return lineNumber_; }
  void setLineNumber(std::int64_t line) { lineNumber_ = line; }
  std::int64_t symbolIndex() const { return symbolIndex_; }
  void setSymbolIndex(std::int64_t index) { symbolIndex_ = index; }
  std::int64_t fileIndex() const { return fileIndex_; }
  void setFileIndex(std::int64_t index) { fileIndex_ = index; }
  SUPRange range() const { return range_; }
  void setRange(SUPRange range) { range_ = range; }

  // "<Range: location length, symbol: i, file: i, line: n>"
  std::string description() const;

  // -1 when address lies below the range, 1 at or past its end, 0 inside.
  int compareToAddress(std::uint64_t address) const;
  bool containsAddress(std::uint64_t address) const { return compareToAddress(address) == 0; }

 private:
  std::optional<std::string_view> path_;
  std::int64_t lineNumber_ = -1;
  std::int64_t symbolIndex_ = -1;
  std::int64_t fileIndex_ = -1;
  SUPRange range_;
};

}  // namespace symlift::symbols
