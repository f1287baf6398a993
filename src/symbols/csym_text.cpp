#include "symbols/csym_text.h"

#include <algorithm>

#include <charconv>
#include <cstring>

namespace symlift::symbols {

namespace {

constexpr std::string_view kNullText = "(null)";
// A range line holds five numbers; a typical one takes well under this.
constexpr std::size_t kReservedRangeLineSize = 40;
// Room kept in front of the ranges for the header, files and symbols, so
// the finished text needs no second buffer (untouched room costs no memory).
constexpr std::size_t kReservedPrefixShare = 4;  // a quarter of the ranges' room

std::int64_t countOf(std::size_t size) { return static_cast<std::int64_t>(size); }

// Five numbers of at most 20 characters each, and their separators.
constexpr std::size_t kMaxRangeLineSize = 5 * 21;
// The range buffer grows by this much at a time and is written through a
// pointer in between (and cut to what was written at the end).
constexpr std::size_t kRangeBlockSize = std::size_t{64} << 10;

char* writeNumber(char* out, std::int64_t value) { return std::to_chars(out, out + 21, value).ptr; }

void appendNumber(std::string& out, std::int64_t value) {
  char digits[24];
  auto result = std::to_chars(digits, digits + sizeof digits, value);
  out.append(digits, result.ptr);
}

}  // namespace

std::string_view sourceTypeName(std::uint64_t sourceType) {
  switch (sourceType) {
    case SUPSourceTypeDylib:
      return "dylib";
    case SUPSourceTypeStatic:
      return "static";
    case SUPSourceTypeDyldSharedCache:
      return "dyld-shared-cache";
    case SUPSourceTypeDsym:
      return "dsym";
    default:
      return "unknown";
  }
}

CSYMFileTable::Entry CSYMFileTable::fileFor(std::string_view path) {
  if (lastIndex_ >= 0 && path == lastPath_) return {lastIndex_, lastPath_, false};
  std::string storage;
  std::string_view key = path;
  if (key.find('\n') != std::string_view::npos) {
    for (char c : path)
      if (c != '\n') storage.push_back(c);
    key = storage;
  }
  auto [found, isNew] = indexByPath_.try_emplace(std::string(key), static_cast<std::int64_t>(indexByPath_.size()));
  // Only a path without line feeds is its own key; others take the slow way.
  if (key.data() == path.data()) {
    lastPath_ = found->first;
    lastIndex_ = found->second;
  }
  return {found->second, found->first, isNew};
}

CSYMTextBuilder::CSYMTextBuilder(std::size_t expectedRanges, std::uint64_t byteBudget, std::size_t expectedNameBytes)
    : budget_(byteBudget) {
  const std::size_t rangeBytes = expectedRanges * kReservedRangeLineSize;
  ranges_.reserve(static_cast<std::size_t>(
      std::min<std::uint64_t>(rangeBytes + rangeBytes / kReservedPrefixShare + expectedNameBytes, byteBudget)));
  symbols_.reserve(static_cast<std::size_t>(std::min<std::uint64_t>(expectedNameBytes, byteBudget)));
}

bool CSYMTextBuilder::fits(std::size_t n) {
  if (overflowed_) return false;
  if (std::uint64_t{files_.size()} + symbols_.size() + rangesUsed_ + n <= budget_) return true;
  overflowed_ = true;
  std::string().swap(files_);
  std::string().swap(symbols_);
  std::string().swap(ranges_);
  rangesUsed_ = 0;
  return false;
}

std::int64_t CSYMTextBuilder::addSymbol(std::string_view name) {
  // One name a line: a line feed inside a name (the file's own bytes) could
  // otherwise start a line, even a section, of its own. It is removed, as
  // in paths.
  if (!fits(name.size() + 1)) return static_cast<std::int64_t>(symbolCount_++);
  if (name.find('\n') == std::string_view::npos) {
    symbols_.append(name);
  } else {
    for (char c : name)
      if (c != '\n') symbols_.push_back(c);
  }
  symbols_.push_back('\n');
  return static_cast<std::int64_t>(symbolCount_++);
}

void CSYMTextBuilder::addFileLine(std::string_view path) {
  if (!fits(path.size() + 1)) return;
  files_.append(path);
  files_.push_back('\n');
  ++fileCount_;
}

// A repeated index is copied as all 24 bytes of its digits: a line has room
// for five 21-byte numbers, so what is copied past the digits stays inside
// the room and is overwritten by what follows.
char* CSYMTextBuilder::writeIndex(char* out, std::int64_t value, Digits& digits) {
  if (!digits.set || digits.value != value) {
    // Written twice rather than copied from the digits just stored: loading
    // them right back as whole words would wait for the byte stores.
    digits.set = true;
    digits.value = value;
    digits.size = static_cast<std::size_t>(writeNumber(digits.text, value) - digits.text);
    return writeNumber(out, value);
  }
  std::memcpy(out, digits.text, sizeof digits.text);
  return out + digits.size;
}

void CSYMTextBuilder::addRangeLine(std::uint64_t location, std::uint64_t length, std::int64_t symbolIndex,
                                   std::int64_t fileIndex, std::int64_t line) {
  if (!fits(kMaxRangeLineSize)) return;
  if (ranges_.size() - rangesUsed_ < kMaxRangeLineSize) ranges_.resize(ranges_.size() + kRangeBlockSize);
  char* const start = ranges_.data() + rangesUsed_;
  // Addresses are unsigned but written as signed numbers, like every count.
  char* out = writeNumber(start, static_cast<std::int64_t>(location));
  *out++ = '\t';
  out = writeNumber(out, static_cast<std::int64_t>(length));
  *out++ = '\t';
  out = writeIndex(out, symbolIndex, symbolDigits_);
  *out++ = '\t';
  out = writeIndex(out, fileIndex, fileDigits_);
  *out++ = '\t';
  out = writeNumber(out, line);
  *out++ = '\n';
  rangesUsed_ += static_cast<std::size_t>(out - start);
  ++rangeCount_;
}

std::string CSYMTextBuilder::finish(std::uint64_t sourceType, const std::optional<std::string>& uuid,
                                    std::string_view arch) {
  std::string header;
  header.append("code_mapping\t1\t").append(sourceTypeName(sourceType)).push_back('\t');
  header.append(uuid ? std::string_view(*uuid) : kNullText).push_back('\t');
  header.append(arch).push_back('\t');
  appendNumber(header, countOf(fileCount_));
  header.push_back('\t');
  appendNumber(header, countOf(symbolCount_));
  header.push_back('\t');
  appendNumber(header, countOf(rangeCount_));
  header.append("\nfiles\t");
  appendNumber(header, countOf(fileCount_));
  header.push_back('\n');
  std::string symbolsLine = "symbols\t";
  appendNumber(symbolsLine, countOf(symbolCount_));
  symbolsLine.push_back('\n');
  std::string rangesLine = "ranges\t";
  appendNumber(rangesLine, countOf(rangeCount_));
  rangesLine.push_back('\n');

  // The range lines are the bulk: they move up inside their own buffer
  // (into the room reserved for it) and the rest is written in front of them.
  const std::string_view parts[] = {header, files_, symbolsLine, symbols_, rangesLine};
  std::size_t prefixSize = 0;
  for (std::string_view part : parts) prefixSize += part.size();
  const std::size_t tail = rangesUsed_;
  rangesUsed_ = 0;
  std::string text = std::move(ranges_);
  ranges_.clear();
  text.resize(tail + prefixSize);
  std::memmove(text.data() + prefixSize, text.data(), tail);
  char* out = text.data();
  for (std::string_view part : parts) out = std::copy(part.begin(), part.end(), out);
  std::string().swap(files_);
  std::string().swap(symbols_);

  fileTable_ = CSYMFileTable();
  fileCount_ = symbolCount_ = rangeCount_ = 0;
  return text;
}

}  // namespace symlift::symbols
