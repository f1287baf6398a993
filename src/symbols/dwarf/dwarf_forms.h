#pragma once
// DWARF attribute forms: reading one attribute value of any form (DWARF 2
// to 5 and the GNU split-DWARF extensions) and resolving string, address
// and reference values against the unit they belong to.

#include <cstdint>
#include <string_view>

#include "symbols/dwarf/byte_reader.h"
#include "symbols/dwarf/dwarf_sections.h"

namespace symlift::symbols::dwarf {

namespace form {
inline constexpr std::uint32_t kAddr = 0x01, kBlock2 = 0x03, kBlock4 = 0x04, kData2 = 0x05, kData4 = 0x06,
                               kData8 = 0x07, kString = 0x08, kBlock = 0x09, kBlock1 = 0x0a, kData1 = 0x0b,
                               kFlag = 0x0c, kSdata = 0x0d, kStrp = 0x0e, kUdata = 0x0f, kRefAddr = 0x10,
                               kRef1 = 0x11, kRef2 = 0x12, kRef4 = 0x13, kRef8 = 0x14, kRefUdata = 0x15,
                               kIndirect = 0x16, kSecOffset = 0x17, kExprloc = 0x18, kFlagPresent = 0x19,
                               kStrx = 0x1a, kAddrx = 0x1b, kRefSup4 = 0x1c, kStrpSup = 0x1d, kData16 = 0x1e,
                               kLineStrp = 0x1f, kRefSig8 = 0x20, kImplicitConst = 0x21, kLoclistx = 0x22,
                               kRnglistx = 0x23, kRefSup8 = 0x24, kStrx1 = 0x25, kStrx2 = 0x26, kStrx3 = 0x27,
                               kStrx4 = 0x28, kAddrx1 = 0x29, kAddrx2 = 0x2a, kAddrx3 = 0x2b, kAddrx4 = 0x2c,
                               kGnuAddrIndex = 0x1f01, kGnuStrIndex = 0x1f02, kGnuRefAlt = 0x1f20,
                               kGnuStrpAlt = 0x1f21;
}  // namespace form

// What reading a value needs to know about its unit.
struct FormContext {
  std::uint16_t version = 4;
  std::uint8_t addressSize = 8;
  std::uint8_t offsetSize = 4;  // 8 in the 64-bit DWARF format
};

struct FormValue {
  std::uint32_t form = 0;  // the actual form (after DW_FORM_indirect)
  std::uint64_t number = 0;
  std::string_view text;  // DW_FORM_string only
};

// Reads one value; false (and a failed reader) when it does not fit or the
// form is unknown, which makes the rest of the unit unreadable.
bool readFormValue(ByteReader& reader, std::uint32_t form, std::int64_t implicitConst, const FormContext& context,
                   FormValue& value);

enum class FormClass { kOther, kAddress, kAddressIndex, kConstant, kString, kReference, kGlobalReference, kSectionOffset, kRangeListIndex };
FormClass classOf(std::uint32_t form);

// The bytes a value of this form takes in a unit of this context whatever it
// holds (readFormValue reads exactly that many); -1 when that depends on the
// value or the form is not one readFormValue reads.
int fixedFormSize(std::uint32_t form, const FormContext& context);

// Unit-level bases that indexed forms are resolved against.
struct UnitBases {
  std::uint64_t strOffsets = 0;
  std::uint64_t addr = 0;
  std::uint64_t rnglists = 0;
  bool hasRnglistsBase = false;
};

// The string of a string-class value, or false.
bool resolveString(const FormValue& value, const DwarfSections& sections, const FormContext& context,
                   const UnitBases& bases, std::string_view& out);
// The address of an address-class value (DW_FORM_addr, addrx*), or false.
bool resolveAddress(const FormValue& value, const DwarfSections& sections, const FormContext& context,
                    const UnitBases& bases, std::uint64_t& out);
// The entry at index in .debug_addr.
bool addressAtIndex(std::uint64_t index, const DwarfSections& sections, const FormContext& context,
                    const UnitBases& bases, std::uint64_t& out);

}  // namespace symlift::symbols::dwarf
