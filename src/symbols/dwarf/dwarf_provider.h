#pragma once
// Our own reader of Mach-O symbol tables and DWARF, offered through the
// symbolication provider interface.

#include <memory>

#include "symbols/dwarf/image_symbols.h"
#include "symbols/symbolication_provider.h"

namespace symlift::symbols::dwarf {

// Slices are decoded on the files' pool; options other than the pool tune
// how many threads (for tests and measurements).
std::shared_ptr<SymbolicationProvider> makeDwarfSymbolicationProvider(const DecodeOptions& options = {});

}  // namespace symlift::symbols::dwarf
