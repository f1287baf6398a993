#include "symbols/csym_text.h"

#include <charconv>

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

}  // namespace symlift::symbols
