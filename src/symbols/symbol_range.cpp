#include "symbols/symbol_range.h"

#include <fmt/format.h>

namespace symlift::symbols {

std::optional<std::string> SUPSymbolRange::filePath() const {
  if (!path_) return std::nullopt;
  return std::string(*path_);
}

std::string SUPSymbolRange::description() const {
  // Location and length print as signed numbers, as every cSYM number does.
  return fmt::format("<Range: {} {}, symbol: {}, file: {}, line: {}>", static_cast<std::int64_t>(range_.location),
                     static_cast<std::int64_t>(range_.length), symbolIndex_, fileIndex_, lineNumber_);
}

int SUPSymbolRange::compareToAddress(std::uint64_t address) const {
  if (address < range_.location) return -1;
  // Measured from the start so that a range reaching the top of the address
  // space does not wrap.
  if (address - range_.location >= range_.length) return 1;
  return 0;
}

}  // namespace symlift::symbols
