#pragma once
// Our own reader of Mach-O symbol tables and DWARF, offered through the
// symbolication provider interface.

#include <memory>

#include "symbols/symbolication_provider.h"

namespace symlift::symbols::dwarf {

std::shared_ptr<SymbolicationProvider> makeDwarfSymbolicationProvider();

}  // namespace symlift::symbols::dwarf
