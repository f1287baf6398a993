// A whole file: fat header, slices, load commands, symbol table and DWARF,
// read the way the symbolication provider reads them.

#include <cstddef>
#include <cstdint>

#include "macho/macho_file.h"
#include "support/diagnostics.h"
#include "symbols/dwarf/image_symbols.h"

using namespace symlift::symbols::dwarf;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  symlift::support::DiscardingDiagnosticsSink discard;
  for (const symlift::macho::MachOImage& image : symlift::macho::readMachOLayout(symlift::macho::Bytes(data, size), &discard).images) {
    DamageList damage;
    ImageSymbols symbols = readImageSymbols(image, {}, &damage);
    for (const ImageSymbol& symbol : symbols.symbols)
      if (symbol.sourceCount > 0 && (symbol.sourcePart >= symbols.sourceParts.size() ||
                                     symbol.firstSource + symbol.sourceCount > symbols.sourceParts[symbol.sourcePart].size()))
        __builtin_trap();
  }
  return 0;
}
