#pragma once
// The cSYM text: one tab-separated document per architecture slice with a
// header, the source files, the code symbols and their address ranges.
//
//   code_mapping<TAB>1<TAB><type><TAB><uuid><TAB><arch><TAB><files><TAB><symbols><TAB><ranges>
//   files<TAB><n>      then one path per line
//   symbols<TAB><n>    then one name per line
//   ranges<TAB><n>     then "<start><TAB><length><TAB><symbol><TAB><file><TAB><line>" per line

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
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

// The complete cSYM text of one slice. The format version written is always 1.
// A missing UUID is written as "(null)".
std::string formatCSYMText(std::uint64_t sourceType, const std::optional<std::string>& uuid, std::string_view arch,
                           const std::vector<std::string>& files, const std::vector<std::string>& symbols,
                           const std::vector<SUPSymbolRange>& ranges);

}  // namespace symlift::symbols
