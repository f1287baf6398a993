#include "symbols/dwarf/abbreviations.h"

#include <algorithm>
#include <limits>

#include "symbols/dwarf/dwarf_forms.h"

namespace symlift::symbols::dwarf {

namespace {
// Far beyond what compilers write; a larger count is damage.
constexpr std::size_t kMaxAttributesPerAbbreviation = 1024;
}  // namespace

bool AbbreviationTable::parse(Bytes section, std::uint64_t offset) {
  abbreviations_.clear();
  attributes_.clear();
  sequential_ = true;
  bytesRead_ = 0;
  if (offset >= section.size()) return false;
  ByteReader reader(section, static_cast<std::size_t>(offset));
  bool complete = parseFrom(reader);
  bytesRead_ = reader.offset() - static_cast<std::size_t>(offset);
  if (!sequential_)
    std::stable_sort(abbreviations_.begin(), abbreviations_.end(),
                     [](const Abbreviation& a, const Abbreviation& b) { return a.code < b.code; });
  return complete;
}

bool AbbreviationTable::parseFrom(ByteReader& reader) {
  while (true) {
    Abbreviation abbreviation;
    abbreviation.code = reader.uleb();
    if (!reader.ok()) return false;
    if (abbreviation.code == 0) break;
    std::uint64_t tag = reader.uleb();
    abbreviation.tag = static_cast<std::uint32_t>(std::min<std::uint64_t>(tag, std::numeric_limits<std::uint32_t>::max()));
    abbreviation.hasChildren = reader.u8() != 0;
    abbreviation.firstAttribute = static_cast<std::uint32_t>(attributes_.size());
    while (true) {
      std::uint64_t attribute = reader.uleb();
      std::uint64_t formCode = reader.uleb();
      if (!reader.ok()) return false;
      if (attribute == 0 && formCode == 0) break;
      AttributeSpec attr;
      attr.attribute = static_cast<std::uint32_t>(std::min<std::uint64_t>(attribute, 0xffffffffu));
      attr.form = static_cast<std::uint32_t>(std::min<std::uint64_t>(formCode, 0xffffffffu));
      if (formCode == form::kImplicitConst) attr.implicitConst = reader.sleb();
      if (++abbreviation.attributeCount > kMaxAttributesPerAbbreviation) return false;
      attributes_.push_back(attr);
    }
    if (abbreviation.code != abbreviations_.size() + 1) sequential_ = false;
    abbreviations_.push_back(abbreviation);
  }
  return true;
}

const Abbreviation* AbbreviationTable::findSorted(std::uint64_t code) const {
  auto it = std::lower_bound(abbreviations_.begin(), abbreviations_.end(), code,
                             [](const Abbreviation& a, std::uint64_t c) { return a.code < c; });
  if (it == abbreviations_.end() || it->code != code) return nullptr;
  return &*it;
}

}  // namespace symlift::symbols::dwarf
