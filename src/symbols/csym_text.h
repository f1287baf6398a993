#pragma once
// The cSYM text: one tab-separated document per architecture slice with a
// header, the source files, the code symbols and their address ranges.
//
//   code_mapping<TAB>1<TAB><type><TAB><uuid><TAB><arch><TAB><files><TAB><symbols><TAB><ranges>
//   files<TAB><n>      then one path per line
//   symbols<TAB><n>    then one name per line
//   ranges<TAB><n>     then "<start><TAB><length><TAB><symbol><TAB><file><TAB><line>" per line
//
// CSYMTextBuilder is the only writer of it.

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

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

// The source files of one slice, numbered from 0 in order of first use. A
// file is one line of the text, so a path is listed without its line feeds
// (paths that differ only in those are one file).
class CSYMFileTable {
 public:
  struct Entry {
    std::int64_t index;
    std::string_view listedPath;  // owned by the table, valid as long as it lives
    bool isNew;                   // listed by this call
  };
  Entry fileFor(std::string_view path);
  std::size_t size() const { return indexByPath_.size(); }

 private:
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
  };
  // Node-based: the keys, which listedPath views, never move.
  std::unordered_map<std::string, std::int64_t, Hash, std::equal_to<>> indexByPath_;
  // Consecutive ranges mostly share a file: the last one found is checked first.
  std::string_view lastPath_;
  std::int64_t lastIndex_ = -1;
};

// Writes one slice's text while the slice is read: symbol names and range
// lines go straight into text (a large slice has millions of ranges), and
// files are numbered as they come. Lists made elsewhere are written with
// addFileLine and addRangeLine instead, exactly as they are.
class CSYMTextBuilder {
 public:
  // expectedRanges and expectedNameBytes only size the buffers (reserved,
  // not touched). Text past byteBudget is not kept: the builder then counts
  // as overflowed, and its buffers are let go.
  explicit CSYMTextBuilder(std::size_t expectedRanges = 0,
                           std::uint64_t byteBudget = std::numeric_limits<std::uint64_t>::max(),
                           std::size_t expectedNameBytes = 0);

  bool overflowed() const { return overflowed_; }

  // Appends a symbol; returns its index.
  std::int64_t addSymbol(std::string_view name);
  // Appends a range line; a path gets its file's index (see CSYMFileTable),
  // no path (an empty one) is file -1.
  void addRange(std::uint64_t location, std::uint64_t length, std::int64_t symbolIndex, std::string_view path,
                std::int64_t line) {
    std::int64_t fileIndex = -1;
    if (!path.empty()) {
      const CSYMFileTable::Entry file = fileTable_.fileFor(path);
      if (file.isNew) addFileLine(file.listedPath);
      fileIndex = file.index;
    }
    addRangeLine(location, length, symbolIndex, fileIndex, line);
  }

  // Appends a file line as it is, and a range line with the numbers given.
  void addFileLine(std::string_view path);
  void addRangeLine(std::uint64_t location, std::uint64_t length, std::int64_t symbolIndex, std::int64_t fileIndex,
                    std::int64_t line);

  std::size_t fileCount() const { return fileCount_; }
  std::size_t symbolCount() const { return symbolCount_; }
  std::size_t rangeCount() const { return rangeCount_; }

  // The whole text; the format version written is always 1, a missing UUID
  // is written "(null)". The builder is empty afterwards.
  std::string finish(std::uint64_t sourceType, const std::optional<std::string>& uuid, std::string_view arch);

 private:
  // Whether the text stays within its budget after n more bytes; when not,
  // the builder overflows for good.
  bool fits(std::size_t n);

  std::uint64_t budget_;
  bool overflowed_ = false;
  std::string files_;
  std::string symbols_;
  std::string ranges_;       // written up to rangesUsed_, then room
  std::size_t rangesUsed_ = 0;
  std::size_t fileCount_ = 0, symbolCount_ = 0, rangeCount_ = 0;
  CSYMFileTable fileTable_;
  // A symbol's ranges come together, and often a file's: the digits of the
  // last symbol and file index written, kept for the lines that repeat them.
  struct Digits {
    bool set = false;
    std::int64_t value = 0;
    char text[24] = {};
    std::size_t size = 0;
  };
  Digits symbolDigits_, fileDigits_;
  static char* writeIndex(char* out, std::int64_t value, Digits& digits);
};

}  // namespace symlift::symbols
