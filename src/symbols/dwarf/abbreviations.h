#pragma once
// One abbreviation table of .debug_abbrev: for each code, the DIE's tag,
// whether it has children, and its attribute specifications.

#include <cstdint>
#include <span>
#include <vector>

#include "symbols/dwarf/byte_reader.h"

namespace symlift::symbols::dwarf {

struct AttributeSpec {
  std::uint32_t attribute = 0;
  std::uint32_t form = 0;
  std::int64_t implicitConst = 0;  // DW_FORM_implicit_const only
};

struct Abbreviation {
  std::uint64_t code = 0;
  std::uint32_t tag = 0;
  bool hasChildren = false;
  std::uint32_t firstAttribute = 0;
  std::uint32_t attributeCount = 0;
};

class AbbreviationTable {
 public:
  // Reads the table at offset; false when it is out of bounds or cut short
  // (the abbreviations read before the damage are kept).
  bool parse(Bytes section, std::uint64_t offset);

  const Abbreviation* find(std::uint64_t code) const {
    // Inline: it is looked up for every DIE.
    if (sequential_) return code == 0 || code > abbreviations_.size() ? nullptr : &abbreviations_[code - 1];
    return findSorted(code);
  }
  std::span<const AttributeSpec> attributes(const Abbreviation& abbreviation) const {
    return std::span<const AttributeSpec>(attributes_).subspan(abbreviation.firstAttribute,
                                                                abbreviation.attributeCount);
  }
  std::size_t size() const { return abbreviations_.size(); }
  // Abbreviations are numbered 0 to size() - 1 in the table.
  std::size_t indexOf(const Abbreviation& abbreviation) const {
    return static_cast<std::size_t>(&abbreviation - abbreviations_.data());
  }
  const Abbreviation& at(std::size_t index) const { return abbreviations_[index]; }
  // Bytes of the section the last parse() went through.
  std::size_t bytesRead() const { return bytesRead_; }

 private:
  std::vector<Abbreviation> abbreviations_;
  std::vector<AttributeSpec> attributes_;
  // Codes are usually 1, 2, 3, ... in order; then lookup is by index.
  bool sequential_ = true;
  std::size_t bytesRead_ = 0;

  bool parseFrom(ByteReader& reader);
  const Abbreviation* findSorted(std::uint64_t code) const;
};

}  // namespace symlift::symbols::dwarf
