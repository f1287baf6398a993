#include "symbols/dwarf/dwarf_forms.h"

namespace symlift::symbols::dwarf {

namespace {
// DW_FORM_indirect may name another DW_FORM_indirect; a chain longer than
// this is damage.
constexpr int kMaxIndirections = 4;
}  // namespace

bool readFormValue(ByteReader& reader, std::uint32_t formCode, std::int64_t implicitConst, const FormContext& context,
                   FormValue& value) {
  for (int hop = 0; hop <= kMaxIndirections; ++hop) {
    value.form = formCode;
    value.number = 0;
    value.text = {};
    switch (formCode) {
      case form::kAddr: value.number = reader.fixed(context.addressSize); break;
      case form::kBlock2: reader.skip(reader.u16()); break;
      case form::kBlock4: reader.skip(reader.u32()); break;
      case form::kData2: case form::kRef2: case form::kStrx2: case form::kAddrx2: value.number = reader.u16(); break;
      case form::kData4: case form::kRef4: case form::kRefSup4: case form::kStrx4: case form::kAddrx4:
        value.number = reader.u32(); break;
      case form::kData8: case form::kRef8: case form::kRefSig8: case form::kRefSup8: value.number = reader.u64(); break;
      case form::kString: value.text = reader.cstr(); break;
      case form::kBlock: case form::kExprloc: reader.skip(reader.uleb()); break;
      case form::kBlock1: reader.skip(reader.u8()); break;
      case form::kData1: case form::kRef1: case form::kFlag: case form::kStrx1: case form::kAddrx1:
        value.number = reader.u8(); break;
      case form::kSdata: value.number = static_cast<std::uint64_t>(reader.sleb()); break;
      case form::kUdata: case form::kRefUdata: case form::kStrx: case form::kAddrx: case form::kLoclistx:
      case form::kRnglistx: case form::kGnuAddrIndex: case form::kGnuStrIndex:
        value.number = reader.uleb(); break;
      case form::kRefAddr:
        // DWARF 2 wrote it with the size of an address.
        value.number = reader.fixed(context.version <= 2 ? context.addressSize : context.offsetSize);
        break;
      case form::kStrp: case form::kSecOffset: case form::kStrpSup: case form::kLineStrp: case form::kGnuRefAlt:
      case form::kGnuStrpAlt:
        value.number = reader.fixed(context.offsetSize); break;
      case form::kStrx3: case form::kAddrx3: value.number = reader.fixed(3); break;
      case form::kData16: reader.skip(16); break;
      case form::kFlagPresent: value.number = 1; break;
      case form::kImplicitConst: value.number = static_cast<std::uint64_t>(implicitConst); break;
      case form::kIndirect:
        formCode = static_cast<std::uint32_t>(reader.uleb());
        if (!reader.ok()) return false;
        continue;
      default:
        return false;
    }
    return reader.ok();
  }
  return false;
}

int fixedFormSize(std::uint32_t formCode, const FormContext& context) {
  auto width = [](unsigned bytes) { return bytes >= 1 && bytes <= 8 ? static_cast<int>(bytes) : -1; };
  switch (formCode) {
    case form::kAddr: return width(context.addressSize);
    case form::kData1: case form::kRef1: case form::kFlag: case form::kStrx1: case form::kAddrx1: return 1;
    case form::kData2: case form::kRef2: case form::kStrx2: case form::kAddrx2: return 2;
    case form::kStrx3: case form::kAddrx3: return 3;
    case form::kData4: case form::kRef4: case form::kRefSup4: case form::kStrx4: case form::kAddrx4: return 4;
    case form::kData8: case form::kRef8: case form::kRefSig8: case form::kRefSup8: return 8;
    case form::kData16: return 16;
    case form::kRefAddr: return width(context.version <= 2 ? context.addressSize : context.offsetSize);
    case form::kStrp: case form::kSecOffset: case form::kStrpSup: case form::kLineStrp: case form::kGnuRefAlt:
    case form::kGnuStrpAlt:
      return width(context.offsetSize);
    case form::kFlagPresent: case form::kImplicitConst: return 0;
    default: return -1;
  }
}

FormClass classOf(std::uint32_t formCode) {
  switch (formCode) {
    case form::kAddr: return FormClass::kAddress;
    case form::kAddrx: case form::kAddrx1: case form::kAddrx2: case form::kAddrx3: case form::kAddrx4:
    case form::kGnuAddrIndex:
      return FormClass::kAddressIndex;
    case form::kData1: case form::kData2: case form::kData4: case form::kData8: case form::kUdata:
    case form::kSdata: case form::kImplicitConst:
      return FormClass::kConstant;
    case form::kString: case form::kStrp: case form::kLineStrp: case form::kStrx: case form::kStrx1:
    case form::kStrx2: case form::kStrx3: case form::kStrx4: case form::kGnuStrIndex:
      return FormClass::kString;
    case form::kRef1: case form::kRef2: case form::kRef4: case form::kRef8: case form::kRefUdata:
      return FormClass::kReference;
    case form::kRefAddr: return FormClass::kGlobalReference;
    case form::kSecOffset: return FormClass::kSectionOffset;
    case form::kRnglistx: return FormClass::kRangeListIndex;
    default: return FormClass::kOther;
  }
}

bool resolveString(const FormValue& value, const DwarfSections& sections, const FormContext& context,
                   const UnitBases& bases, std::string_view& out) {
  switch (value.form) {
    case form::kString: out = value.text; return true;
    case form::kStrp: return stringAt(sections.str, value.number, out);
    case form::kLineStrp: return stringAt(sections.lineStr, value.number, out);
    case form::kStrx: case form::kStrx1: case form::kStrx2: case form::kStrx3: case form::kStrx4:
    case form::kGnuStrIndex: {
      std::uint64_t size = context.offsetSize;
      if (value.number > (UINT64_MAX - bases.strOffsets) / size) return false;
      std::uint64_t position = bases.strOffsets + value.number * size;
      if (position > sections.strOffsets.size() || sections.strOffsets.size() - position < size) return false;
      ByteReader reader(sections.strOffsets, static_cast<std::size_t>(position));
      return stringAt(sections.str, reader.fixed(context.offsetSize), out);
    }
    default: return false;
  }
}

bool addressAtIndex(std::uint64_t index, const DwarfSections& sections, const FormContext& context,
                    const UnitBases& bases, std::uint64_t& out) {
  std::uint64_t size = context.addressSize;
  if (size == 0 || size > 8 || index > (UINT64_MAX - bases.addr) / size) return false;
  std::uint64_t position = bases.addr + index * size;
  if (position > sections.addr.size() || sections.addr.size() - position < size) return false;
  ByteReader reader(sections.addr, static_cast<std::size_t>(position));
  out = reader.fixed(context.addressSize);
  return reader.ok();
}

bool resolveAddress(const FormValue& value, const DwarfSections& sections, const FormContext& context,
                    const UnitBases& bases, std::uint64_t& out) {
  switch (classOf(value.form)) {
    case FormClass::kAddress: out = value.number; return true;
    case FormClass::kAddressIndex: return addressAtIndex(value.number, sections, context, bases, out);
    default: return false;
  }
}

}  // namespace symlift::symbols::dwarf
