#include "symbols/dwarf/range_lists.h"

namespace symlift::symbols::dwarf {

namespace {

constexpr std::uint8_t kRleEndOfList = 0, kRleBaseAddressx = 1, kRleStartxEndx = 2, kRleStartxLength = 3,
                       kRleOffsetPair = 4, kRleBaseAddress = 5, kRleStartEnd = 6, kRleStartLength = 7;

void add(std::vector<AddressRange>& out, std::uint64_t low, std::uint64_t high) {
  if (high > low) out.emplace_back(low, high);
}

// .debug_ranges: pairs of addresses relative to the base address, a pair
// with the largest address first selecting a new base, (0, 0) ending it.
bool readRanges(const DwarfSections& sections, const UnitInfo& unit, std::uint64_t offset,
                std::vector<AddressRange>& out, std::uint64_t& budget) {
  if (offset >= sections.ranges.size()) return false;
  const unsigned size = unit.context.addressSize;
  const std::uint64_t selector = size >= 8 ? UINT64_MAX : (std::uint64_t{1} << (8 * size)) - 1;
  std::uint64_t base = unit.baseAddress;
  ByteReader reader(sections.ranges, static_cast<std::size_t>(offset));
  while (true) {
    if (budget == 0) return false;
    --budget;
    std::uint64_t start = reader.fixed(size);
    std::uint64_t end = reader.fixed(size);
    if (!reader.ok()) return false;
    if (start == 0 && end == 0) return true;
    if (start == selector) {
      base = end;
      continue;
    }
    add(out, base + start, base + end);
  }
}

bool readRnglist(const DwarfSections& sections, const UnitInfo& unit, std::uint64_t offset,
                 std::vector<AddressRange>& out, std::uint64_t& budget) {
  if (offset >= sections.rnglists.size()) return false;
  const FormContext& context = unit.context;
  std::uint64_t base = unit.baseAddress;
  ByteReader reader(sections.rnglists, static_cast<std::size_t>(offset));
  while (true) {
    if (budget == 0) return false;
    --budget;
    std::uint8_t kind = reader.u8();
    if (!reader.ok()) return false;
    std::uint64_t a = 0, b = 0;
    switch (kind) {
      case kRleEndOfList:
        return true;
      case kRleBaseAddressx:
        if (!addressAtIndex(reader.uleb(), sections, context, unit.bases, base)) return false;
        break;
      case kRleStartxEndx: {
        std::uint64_t first = reader.uleb(), second = reader.uleb();
        if (!addressAtIndex(first, sections, context, unit.bases, a) ||
            !addressAtIndex(second, sections, context, unit.bases, b))
          return false;
        add(out, a, b);
        break;
      }
      case kRleStartxLength: {
        std::uint64_t first = reader.uleb();
        std::uint64_t length = reader.uleb();
        if (!addressAtIndex(first, sections, context, unit.bases, a)) return false;
        add(out, a, a + length);
        break;
      }
      case kRleOffsetPair:
        a = reader.uleb();
        b = reader.uleb();
        add(out, base + a, base + b);
        break;
      case kRleBaseAddress:
        base = reader.fixed(context.addressSize);
        break;
      case kRleStartEnd:
        a = reader.fixed(context.addressSize);
        b = reader.fixed(context.addressSize);
        add(out, a, b);
        break;
      case kRleStartLength:
        a = reader.fixed(context.addressSize);
        b = reader.uleb();
        add(out, a, a + b);
        break;
      default:
        return false;
    }
    if (!reader.ok()) return false;
  }
}

}  // namespace

bool readRangeList(const DwarfSections& sections, const UnitInfo& unit, const FormValue& value,
                   std::vector<AddressRange>& out, std::uint64_t& budget) {
  if (unit.context.version < 5) {
    if (classOf(value.form) != FormClass::kSectionOffset && classOf(value.form) != FormClass::kConstant) return false;
    return readRanges(sections, unit, value.number, out, budget);
  }
  if (classOf(value.form) == FormClass::kRangeListIndex) {
    // The index selects an entry of the offset table that follows the
    // list header; the offsets are relative to that table.
    const std::uint64_t size = unit.context.offsetSize;
    const std::uint64_t base =
        unit.bases.hasRnglistsBase ? unit.bases.rnglists : (size == 8 ? 20 : 12);
    if (value.number > (UINT64_MAX - base) / size) return false;
    std::uint64_t position = base + value.number * size;
    if (position > sections.rnglists.size() || sections.rnglists.size() - position < size) return false;
    ByteReader reader(sections.rnglists, static_cast<std::size_t>(position));
    std::uint64_t relative = reader.fixed(static_cast<unsigned>(size));
    if (relative > UINT64_MAX - base) return false;
    return readRnglist(sections, unit, base + relative, out, budget);
  }
  if (classOf(value.form) != FormClass::kSectionOffset) return false;
  return readRnglist(sections, unit, value.number, out, budget);
}

}  // namespace symlift::symbols::dwarf
