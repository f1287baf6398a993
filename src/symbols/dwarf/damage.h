#pragma once
// What a reader skipped because the bytes were damaged, in the order it met
// it. The readers note places here (section and offset within the section);
// whoever knows the file and slice passes them on to the diagnostics sink.
// Lists made on several threads are joined in a fixed order, so what is
// reported does not depend on how many threads decoded.

#include <cstdint>
#include <string>
#include <vector>

#include "support/diagnostics.h"

namespace symlift::symbols::dwarf {

using DamageList = std::vector<support::Diagnostic>;

inline void noteDamage(DamageList* damage, const char* section, std::uint64_t offset, std::string text) {
  if (damage) damage->push_back({{}, section, offset, std::move(text)});
}

}  // namespace symlift::symbols::dwarf
