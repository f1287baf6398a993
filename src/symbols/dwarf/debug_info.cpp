#include "symbols/dwarf/debug_info.h"

#include <fmt/format.h>

#include <algorithm>

#include "symbols/dwarf/range_lists.h"

namespace symlift::symbols::dwarf {

namespace {

constexpr std::uint32_t kTagCompileUnit = 0x11;
constexpr std::uint32_t kTagPartialUnit = 0x3c;
constexpr std::uint32_t kTagSkeletonUnit = 0x4a;
constexpr std::uint32_t kTagSubprogram = 0x2e;

constexpr std::uint32_t kAtName = 0x03;
constexpr std::uint32_t kAtStmtList = 0x10;
constexpr std::uint32_t kAtLowPc = 0x11;
constexpr std::uint32_t kAtHighPc = 0x12;
constexpr std::uint32_t kAtCompDir = 0x1b;
constexpr std::uint32_t kAtAbstractOrigin = 0x31;
constexpr std::uint32_t kAtSpecification = 0x47;
constexpr std::uint32_t kAtRanges = 0x55;
constexpr std::uint32_t kAtLinkageName = 0x6e;
constexpr std::uint32_t kAtStrOffsetsBase = 0x72;
constexpr std::uint32_t kAtAddrBase = 0x73;
constexpr std::uint32_t kAtRnglistsBase = 0x74;
constexpr std::uint32_t kAtMipsLinkageName = 0x2007;
constexpr std::uint32_t kAtGnuAddrBase = 0x2133;

constexpr std::uint8_t kUnitCompile = 1;
constexpr std::uint8_t kUnitType = 2;
constexpr std::uint8_t kUnitPartial = 3;
constexpr std::uint8_t kUnitSkeleton = 4;
constexpr std::uint8_t kUnitSplitCompile = 5;
constexpr std::uint8_t kUnitSplitType = 6;

// DIEs visited when following DW_AT_specification / DW_AT_abstract_origin references;
// real chains are two or three long, so this only stops cycles.
constexpr std::size_t kMaxNameHops = 16;

// The absolute .debug_info offset a reference value points at.
std::optional<std::uint64_t> referenceTarget(const FormValue& value, const UnitInfo& unit) {
  switch (classOf(value.form)) {
    case FormClass::kReference:
      if (value.number > UINT64_MAX - unit.offset) return std::nullopt;
      return unit.offset + value.number;
    case FormClass::kGlobalReference:
      return value.number;
    default:
      return std::nullopt;  // type-unit signatures and supplementary files are not followed
  }
}

}  // namespace

DebugInfo::DebugInfo(const DwarfSections& sections, DamageList* damage)
    : sections_(sections), abbreviationBudget_(8 * std::uint64_t{sections.abbrev.size()} + (1u << 20)) {
  ByteReader reader(sections.info);
  while (reader.remaining() > 0) {
    UnitInfo unit;
    unit.offset = reader.offset();
    std::uint64_t length = reader.u32();
    if (length == 0xffffffffu) {
      unit.context.offsetSize = 8;
      length = reader.u64();
    } else if (length >= 0xfffffff0u) {
      noteDamage(damage, "__debug_info", unit.offset, fmt::format("every unit from here on (reserved unit length {:#x})", length));
      break;
    }
    if (!reader.ok() || length > reader.remaining()) {
      noteDamage(damage, "__debug_info", unit.offset, "every unit from here on (a unit running past the end of the section)");
      break;
    }
    unit.end = reader.offset() + length;
    ByteReader header(sections.info.first(static_cast<std::size_t>(unit.end)), reader.offset());
    unit.context.version = header.u16();
    std::uint64_t abbreviationOffset = 0;
    if (unit.context.version >= 5) {
      unit.unitType = header.u8();
      unit.context.addressSize = header.u8();
      abbreviationOffset = header.fixed(unit.context.offsetSize);
      switch (unit.unitType) {
        case kUnitSkeleton:
        case kUnitSplitCompile:
          header.skip(8);  // dwo id
          break;
        case kUnitType:
        case kUnitSplitType:
          header.skip(8);
          header.skip(unit.context.offsetSize);
          break;
        default:
          break;
      }
    } else {
      abbreviationOffset = header.fixed(unit.context.offsetSize);
      unit.context.addressSize = header.u8();
    }
    unit.firstDie = header.offset();
    reader.seek(static_cast<std::size_t>(unit.end));
    const bool usable = header.ok() && unit.context.version >= 2 && unit.context.version <= 5 &&
                        unit.context.addressSize >= 1 && unit.context.addressSize <= 8;
    if (usable) {
      unit.abbreviations = abbreviationTable(abbreviationOffset);
      if (!unit.abbreviations)
        noteDamage(damage, "__debug_info", unit.offset,
                   fmt::format("a unit whose abbreviation table at {:#x} cannot be read", abbreviationOffset));
      readUnitDie(unit);
    } else {
      noteDamage(damage, "__debug_info", unit.offset,
                 fmt::format("a unit with an unreadable header (version {}, address size {})", unit.context.version,
                             unit.context.addressSize));
    }
    units_.push_back(unit);
  }
}

const AbbreviationTable* DebugInfo::abbreviationTable(std::uint64_t offset) {
  auto found = tables_.find(offset);
  if (found != tables_.end()) return found->second.get();
  if (abbreviationBudget_ == 0) return nullptr;
  auto table = std::make_unique<AbbreviationTable>();
  bool complete = table->parse(sections_.abbrev, offset);
  abbreviationBudget_ -= std::min<std::uint64_t>(abbreviationBudget_, table->bytesRead());
  const AbbreviationTable* result = (complete || table->size() > 0) ? table.get() : nullptr;
  tables_.emplace(offset, std::move(table));
  return result;
}

void DebugInfo::readUnitDie(UnitInfo& unit) {
  if (!unit.abbreviations) return;
  ByteReader reader(sections_.info.first(static_cast<std::size_t>(unit.end)), static_cast<std::size_t>(unit.firstDie));
  const Abbreviation* abbreviation = unit.abbreviations->find(reader.uleb());
  if (!reader.ok() || !abbreviation) return;
  unit.tag = abbreviation->tag;
  // Strings and addresses may be indexed through bases that come later in
  // the same DIE, so they are resolved after the whole DIE is read.
  std::optional<FormValue> compDir, lowPc;
  for (const AttributeSpec& attr : unit.abbreviations->attributes(*abbreviation)) {
    FormValue value;
    if (!readFormValue(reader, attr.form, attr.implicitConst, unit.context, value)) return;
    switch (attr.attribute) {
      case kAtCompDir: compDir = value; break;
      case kAtLowPc: lowPc = value; break;
      case kAtStmtList:
        if (classOf(value.form) == FormClass::kSectionOffset || classOf(value.form) == FormClass::kConstant)
          unit.stmtList = value.number;
        break;
      case kAtStrOffsetsBase: unit.bases.strOffsets = value.number; break;
      case kAtAddrBase: case kAtGnuAddrBase: unit.bases.addr = value.number; break;
      case kAtRnglistsBase:
        unit.bases.rnglists = value.number;
        unit.bases.hasRnglistsBase = true;
        break;
      default: break;
    }
  }
  if (compDir) resolveString(*compDir, sections_, unit.context, unit.bases, unit.compDir);
  if (lowPc) resolveAddress(*lowPc, sections_, unit.context, unit.bases, unit.baseAddress);
}

std::uint64_t DebugInfo::functionRangeBudget() const {
  return 4 * std::uint64_t{sections_.ranges.size() + sections_.rnglists.size()} + (1u << 16);
}

std::vector<FunctionRange> DebugInfo::functionRanges(DamageList* damage) const {
  std::uint64_t budget = functionRangeBudget();
  return functionRanges(0, units_.size(), budget, damage);
}

std::vector<FunctionRange> DebugInfo::functionRanges(std::size_t firstUnit, std::size_t endUnit,
                                                     std::uint64_t& rangeBudget, DamageList* damage) const {
  std::vector<FunctionRange> functions;
  std::vector<AddressRange> ranges;
  // Most DIEs are not subprograms and have attributes of fixed sizes only:
  // they are stepped over whole. Their sizes are worked out per table and
  // unit context (units usually share both).
  const AbbreviationTable* sizedTable = nullptr;
  FormContext sizedContext;
  std::vector<int> dieSizes;  // per abbreviation; -1: read attribute by attribute
  endUnit = std::min(endUnit, units_.size());
  for (std::size_t u = firstUnit; u < endUnit; ++u) {
    const UnitInfo& unit = units_[u];
    if (!unit.abbreviations) continue;
    if (unit.tag != kTagCompileUnit && unit.tag != kTagPartialUnit && unit.tag != kTagSkeletonUnit) continue;
    if (unit.unitType != kUnitCompile && unit.unitType != kUnitPartial && unit.unitType != kUnitSkeleton) continue;
    const FormContext& context = unit.context;
    if (unit.abbreviations != sizedTable || context.version != sizedContext.version ||
        context.addressSize != sizedContext.addressSize || context.offsetSize != sizedContext.offsetSize) {
      sizedTable = unit.abbreviations;
      sizedContext = context;
      dieSizes.assign(sizedTable->size(), -1);
      for (std::size_t a = 0; a < dieSizes.size(); ++a) {
        const Abbreviation& abbreviation = sizedTable->at(a);
        if (abbreviation.tag == kTagSubprogram) continue;
        int size = 0;
        for (const AttributeSpec& attr : sizedTable->attributes(abbreviation)) {
          const int formSize = fixedFormSize(attr.form, context);
          size = formSize < 0 ? -1 : size + formSize;
          if (size < 0) break;
        }
        dieSizes[a] = size;
      }
    }
    ByteReader reader(sections_.info.first(static_cast<std::size_t>(unit.end)), static_cast<std::size_t>(unit.firstDie));
    while (reader.remaining() > 0) {
      std::uint64_t dieOffset = reader.offset();
      std::uint64_t code = reader.uleb();
      if (!reader.ok()) break;
      if (code == 0) continue;  // end of a sibling list
      const Abbreviation* abbreviation = unit.abbreviations->find(code);
      if (!abbreviation) {
        noteDamage(damage, "__debug_info", dieOffset,
                   fmt::format("the rest of a unit, from a DIE with an unknown abbreviation code ({})", code));
        break;
      }
      if (const int size = dieSizes[sizedTable->indexOf(*abbreviation)];
          size >= 0 && static_cast<std::size_t>(size) <= reader.remaining()) {
        reader.skip(static_cast<std::uint64_t>(size));
        continue;
      }
      const bool subprogram = abbreviation->tag == kTagSubprogram;
      std::optional<FormValue> low, high, rangesValue;
      bool readable = true;
      for (const AttributeSpec& attr : unit.abbreviations->attributes(*abbreviation)) {
        FormValue value;
        if (!readFormValue(reader, attr.form, attr.implicitConst, unit.context, value)) {
          // A form this reader does not know leaves the reader where it was.
          noteDamage(damage, "__debug_info", dieOffset,
                     reader.ok() ? fmt::format("the rest of a unit, from a DIE with an unknown form ({:#x})", attr.form)
                                 : std::string("the rest of a unit, cut short inside a DIE"));
          readable = false;
          break;
        }
        if (!subprogram) continue;
        if (attr.attribute == kAtLowPc) low = value;
        else if (attr.attribute == kAtHighPc) high = value;
        else if (attr.attribute == kAtRanges) rangesValue = value;
      }
      if (!readable) break;
      if (!subprogram) continue;
      std::uint64_t lowAddress = 0;
      if (low && high && resolveAddress(*low, sections_, unit.context, unit.bases, lowAddress)) {
        std::uint64_t highAddress = 0;
        if (classOf(high->form) == FormClass::kConstant) {
          highAddress = lowAddress + high->number;
          if (highAddress < lowAddress) continue;
        } else if (!resolveAddress(*high, sections_, unit.context, unit.bases, highAddress)) {
          continue;
        }
        if (highAddress > lowAddress) functions.push_back({lowAddress, highAddress, dieOffset});
      } else if (rangesValue) {
        ranges.clear();
        if (!readRangeList(sections_, unit, *rangesValue, ranges, rangeBudget))
          noteDamage(damage, "__debug_info", dieOffset, "part of a subprogram's ranges (its range list is damaged)");
        for (const AddressRange& range : ranges) functions.push_back({range.first, range.second, dieOffset});
      }
    }
  }
  return functions;
}

const UnitInfo* DebugInfo::unitContaining(std::uint64_t offset) const {
  auto it = std::upper_bound(units_.begin(), units_.end(), offset,
                             [](std::uint64_t o, const UnitInfo& unit) { return o < unit.offset; });
  if (it == units_.begin()) return nullptr;
  --it;
  if (offset < it->firstDie || offset >= it->end || !it->abbreviations) return nullptr;
  return &*it;
}

FunctionNames DebugInfo::namesOf(std::uint64_t dieOffset) const {
  FunctionNames names;
  std::uint64_t pending[kMaxNameHops];
  std::size_t pendingCount = 0, next = 0;
  pending[pendingCount++] = dieOffset;
  while (next < pendingCount && !(names.linkageName && names.name)) {
    std::uint64_t offset = pending[next++];
    const UnitInfo* unit = unitContaining(offset);
    if (!unit) continue;
    ByteReader reader(sections_.info.first(static_cast<std::size_t>(unit->end)), static_cast<std::size_t>(offset));
    const Abbreviation* abbreviation = unit->abbreviations->find(reader.uleb());
    if (!reader.ok() || !abbreviation) continue;
    std::optional<std::string_view> linkage, mipsLinkage, name;
    for (const AttributeSpec& attr : unit->abbreviations->attributes(*abbreviation)) {
      FormValue value;
      if (!readFormValue(reader, attr.form, attr.implicitConst, unit->context, value)) break;
      std::string_view text;
      switch (attr.attribute) {
        case kAtLinkageName:
          if (resolveString(value, sections_, unit->context, unit->bases, text)) linkage = text;
          break;
        case kAtMipsLinkageName:
          if (resolveString(value, sections_, unit->context, unit->bases, text)) mipsLinkage = text;
          break;
        case kAtName:
          if (resolveString(value, sections_, unit->context, unit->bases, text)) name = text;
          break;
        case kAtSpecification:
        case kAtAbstractOrigin:
          if (auto target = referenceTarget(value, *unit); target && pendingCount < kMaxNameHops) {
            if (std::find(pending, pending + pendingCount, *target) == pending + pendingCount)
              pending[pendingCount++] = *target;
          }
          break;
        default:
          break;
      }
    }
    if (!names.linkageName) {
      if (mipsLinkage && !mipsLinkage->empty()) names.linkageName = mipsLinkage;
      else if (linkage && !linkage->empty()) names.linkageName = linkage;
    }
    if (!names.name && name && !name->empty()) names.name = name;
  }
  return names;
}

}  // namespace symlift::symbols::dwarf
