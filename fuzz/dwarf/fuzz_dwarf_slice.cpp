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
    // Every record lies inside its symbol and names a path of the list.
    symbols.forEachSymbolSources([&](const ImageSymbol& symbol, std::span<const SourceRecord> records) {
      for (const SourceRecord& record : records)
        if (record.address < symbol.address || record.address + record.length > symbol.address + symbol.length ||
            (record.path != kNoPath && record.path >= symbols.paths.size()))
          __builtin_trap();
    });
  }
  return 0;
}
