#include "symbols/csym_text.h"

#include <charconv>
#include <cstring>

namespace symlift::symbols {

namespace {

// Appends to one growing byte buffer; numbers go through std::to_chars so no
// line needs a temporary string.
class TextBuffer {
 public:
  explicit TextBuffer(std::size_t expectedSize) { bytes_.reserve(expectedSize); }

  TextBuffer& text(std::string_view piece) {
    bytes_.append(piece);
    return *this;
  }
  TextBuffer& number(std::int64_t value) {
    char digits[24];
    auto result = std::to_chars(digits, digits + sizeof digits, value);
    bytes_.append(digits, result.ptr);
    return *this;
  }
  TextBuffer& tab() {
    bytes_.push_back('\t');
    return *this;
  }
  TextBuffer& endLine() {
    bytes_.push_back('\n');
    return *this;
  }
  std::string take() { return std::move(bytes_); }

 private:
  std::string bytes_;
};

constexpr std::string_view kNullText = "(null)";
// A range line is at most five 20-character numbers; most are far shorter.
constexpr std::size_t kTypicalRangeLineSize = 32;

std::int64_t countOf(std::size_t size) { return static_cast<std::int64_t>(size); }

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

std::string formatCSYMText(std::uint64_t sourceType, const std::optional<std::string>& uuid, std::string_view arch,
                           const std::vector<std::string>& files, const std::vector<std::string>& symbols,
                           const std::vector<SUPSymbolRange>& ranges) {
  std::size_t expected = 128 + arch.size() + ranges.size() * kTypicalRangeLineSize;
  for (const std::string& file : files) expected += file.size() + 1;
  for (const std::string& symbol : symbols) expected += symbol.size() + 1;
  TextBuffer out(expected);

  out.text("code_mapping").tab().number(1).tab().text(sourceTypeName(sourceType)).tab();
  out.text(uuid ? std::string_view(*uuid) : kNullText).tab().text(arch).tab();
  out.number(countOf(files.size())).tab().number(countOf(symbols.size())).tab().number(countOf(ranges.size())).endLine();

  out.text("files").tab().number(countOf(files.size())).endLine();
  for (const std::string& file : files) out.text(file).endLine();

  out.text("symbols").tab().number(countOf(symbols.size())).endLine();
  for (const std::string& symbol : symbols) out.text(symbol).endLine();

  out.text("ranges").tab().number(countOf(ranges.size())).endLine();
  for (const SUPSymbolRange& range : ranges) {
    // Addresses are unsigned but written as signed numbers, like every count.
    out.number(static_cast<std::int64_t>(range.range().location)).tab();
    out.number(static_cast<std::int64_t>(range.range().length)).tab();
    out.number(range.symbolIndex()).tab().number(range.fileIndex()).tab().number(range.lineNumber()).endLine();
  }
  return out.take();
}

namespace {

// A range line holds five numbers; a typical one takes well under this.
constexpr std::size_t kReservedRangeLineSize = 40;
// Room kept in front of the ranges for the header, files and symbols, so
// the finished text needs no second buffer (untouched room costs no memory).
constexpr std::size_t kReservedPrefixShare = 4;  // a quarter of the ranges' room

void appendNumber(std::string& out, std::int64_t value) {
  char digits[24];
  auto result = std::to_chars(digits, digits + sizeof digits, value);
  out.append(digits, result.ptr);
}

}  // namespace

std::string_view pathWithoutLineFeeds(std::string_view path, std::string& storage) {
  if (path.find('\n') == std::string_view::npos) return path;
  storage.clear();
  storage.reserve(path.size());
  for (char c : path)
    if (c != '\n') storage.push_back(c);
  return storage;
}

CSYMTextBuilder::CSYMTextBuilder(std::size_t expectedRanges) {
  const std::size_t rangeBytes = expectedRanges * kReservedRangeLineSize;
  ranges_.reserve(rangeBytes + rangeBytes / kReservedPrefixShare);
}

std::int64_t CSYMTextBuilder::addSymbol(std::string_view name) {
  symbols_.append(name);
  symbols_.push_back('\n');
  return static_cast<std::int64_t>(symbolCount_++);
}

std::int64_t CSYMTextBuilder::fileIndexFor(std::string_view path) {
  if (path == lastPath_ && lastFileIndex_ >= 0) return lastFileIndex_;
  std::string storage;
  const std::string_view key = pathWithoutLineFeeds(path, storage);
  auto found = fileIndexByPath_.find(key);
  if (found == fileIndexByPath_.end()) {
    found = fileIndexByPath_.emplace(std::string(key), static_cast<std::int64_t>(fileCount_++)).first;
    files_.append(key);
    files_.push_back('\n');
  }
  // Only a path without line feeds is its own key; others take the slow way.
  if (key.data() == path.data()) {
    lastPath_ = found->first;
    lastFileIndex_ = found->second;
  }
  return found->second;
}

void CSYMTextBuilder::addRange(std::uint64_t location, std::uint64_t length, std::int64_t symbolIndex,
                               std::optional<std::string_view> path, std::int64_t line) {
  const std::int64_t fileIndex = path ? fileIndexFor(*path) : -1;
  // Addresses are unsigned but written as signed numbers, like every count.
  appendNumber(ranges_, static_cast<std::int64_t>(location));
  ranges_.push_back('\t');
  appendNumber(ranges_, static_cast<std::int64_t>(length));
  ranges_.push_back('\t');
  appendNumber(ranges_, symbolIndex);
  ranges_.push_back('\t');
  appendNumber(ranges_, fileIndex);
  ranges_.push_back('\t');
  appendNumber(ranges_, line);
  ranges_.push_back('\n');
  ++rangeCount_;
}

std::string CSYMTextBuilder::finish(std::uint64_t sourceType, const std::optional<std::string>& uuid,
                                    std::string_view arch) {
  std::string prefix;
  prefix.reserve(128 + arch.size() + files_.size() + symbols_.size());
  prefix.append("code_mapping\t1\t").append(sourceTypeName(sourceType)).push_back('\t');
  prefix.append(uuid ? std::string_view(*uuid) : kNullText).push_back('\t');
  prefix.append(arch).push_back('\t');
  appendNumber(prefix, countOf(fileCount_));
  prefix.push_back('\t');
  appendNumber(prefix, countOf(symbolCount_));
  prefix.push_back('\t');
  appendNumber(prefix, countOf(rangeCount_));
  prefix.append("\nfiles\t");
  appendNumber(prefix, countOf(fileCount_));
  prefix.push_back('\n');
  prefix.append(files_);
  std::string().swap(files_);
  prefix.append("symbols\t");
  appendNumber(prefix, countOf(symbolCount_));
  prefix.push_back('\n');
  prefix.append(symbols_);
  std::string().swap(symbols_);
  prefix.append("ranges\t");
  appendNumber(prefix, countOf(rangeCount_));
  prefix.push_back('\n');

  // The range lines are the bulk: they move up inside their own buffer and
  // the rest goes in front of them.
  std::string text = std::move(ranges_);
  ranges_.clear();
  const std::size_t tail = text.size();
  text.resize(tail + prefix.size());
  std::memmove(text.data() + prefix.size(), text.data(), tail);
  std::memcpy(text.data(), prefix.data(), prefix.size());

  fileIndexByPath_.clear();
  lastPath_ = {};
  lastFileIndex_ = -1;
  fileCount_ = symbolCount_ = rangeCount_ = 0;
  return text;
}

}  // namespace symlift::symbols
