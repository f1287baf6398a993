// A whole file: fat header, slices, load commands, symbol table and DWARF,
// read the way the symbolication provider reads them.

#include <cstddef>
#include <cstdint>

#include "symbols/dwarf/image_symbols.h"
#include "symbols/dwarf/macho_image.h"

using namespace symlift::symbols::dwarf;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  for (const MachOImage& image : readMachOImages(Bytes(data, size))) {
    ImageSymbols symbols = readImageSymbols(image);
    for (const ImageSymbol& symbol : symbols.symbols)
      if (symbol.firstSource + symbol.sourceCount > symbols.sources.size()) __builtin_trap();
  }
  return 0;
}
