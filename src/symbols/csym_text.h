#pragma once
// The cSYM text: one tab-separated document per architecture slice with a
// header, the source files, the code symbols and their address ranges.
//
//   code_mapping<TAB>1<TAB><type><TAB><uuid><TAB><arch><TAB><files><TAB><symbols><TAB><ranges>
//   files<TAB><n>      then one path per line
//   symbols<TAB><n>    then one name per line
//   ranges<TAB><n>     then "<start><TAB><length><TAB><symbol><TAB><file><TAB><line>" per line

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "symbols/symbol_range.h"

namespace symlift::symbols {

// Kinds of symbol owner a slice came from.
enum SUPSourceType : std::uint64_t {
  SUPSourceTypeUnknown = 0,
  SUPSourceTypeDylib = 1,
  SUPSourceTypeStatic = 2,
  SUPSourceTypeDyldSharedCache = 3,
  SUPSourceTypeDsym = 4,
};

// "dylib", "static", "dyld-shared-cache", "dsym", or "unknown" for any other value.
std::string_view sourceTypeName(std::uint64_t sourceType);

// A file path as the files list holds it: one line, so without its line
// feeds. The path itself when it has none; otherwise a copy in storage.
std::string_view pathWithoutLineFeeds(std::string_view path, std::string& storage);

// The complete cSYM text of one slice. The format version written is always 1.
// A missing UUID is written as "(null)".
std::string formatCSYMText(std::uint64_t sourceType, const std::optional<std::string>& uuid, std::string_view arch,
                           const std::vector<std::string>& files, const std::vector<std::string>& symbols,
                           const std::vector<SUPSymbolRange>& ranges);

// Builds the text formatCSYMText would write for the same files, symbols and
// ranges while a slice is being read, without a list of range objects: symbol
// names and range lines go straight into text, and files are numbered in
// order of first use as they come.
class CSYMTextBuilder {
 public:
  // expectedRanges only sizes the buffer (reserved, not touched).
  explicit CSYMTextBuilder(std::size_t expectedRanges = 0);

  // Appends a symbol; returns its index.
  std::int64_t addSymbol(std::string_view name);
  // Appends a range line. A path gets the index of its first use (line feeds
  // removed, as in the file list); no path is file -1.
  void addRange(std::uint64_t location, std::uint64_t length, std::int64_t symbolIndex,
                std::optional<std::string_view> path, std::int64_t line);

  std::size_t fileCount() const { return fileCount_; }
  std::size_t symbolCount() const { return symbolCount_; }
  std::size_t rangeCount() const { return rangeCount_; }

  // The whole text; the builder is empty afterwards.
  std::string finish(std::uint64_t sourceType, const std::optional<std::string>& uuid, std::string_view arch);

 private:
  std::int64_t fileIndexFor(std::string_view path);

  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
  };

  std::string files_;
  std::string symbols_;
  std::string ranges_;
  std::size_t fileCount_ = 0, symbolCount_ = 0, rangeCount_ = 0;
  std::unordered_map<std::string, std::int64_t, Hash, std::equal_to<>> fileIndexByPath_;
  // Consecutive ranges mostly share a file: the last one found is checked first.
  std::string_view lastPath_;
  std::int64_t lastFileIndex_ = -1;
};

}  // namespace symlift::symbols
