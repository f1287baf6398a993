#include "macho/architecture_names.h"

#include <iterator>

namespace symlift::macho {

namespace {

struct ArchInfo {
  const char* name;
  std::int32_t cputype;
  std::int32_t cpusubtype;
};

// Families first, then specific implementations, in the platform's order:
// the first row that matches wins.
constexpr ArchInfo kArchTable[] = {
    {"hppa", 11, 0},
    {"i386", kCPUTypeX86, 3},
    {"x86_64", kCPUTypeX86_64, 3},
    {"x86_64h", kCPUTypeX86_64, 8},
    {"i860", 15, 0},
    {"m68k", 6, 1},
    {"m88k", 5, 0},
    {"ppc", kCPUTypePowerPC, 0},
    {"ppc64", kCPUTypePowerPC64, 0},
    {"sparc", 14, 0},
    {"arm", kCPUTypeARM, 0},
    {"arm64", kCPUTypeARM64, 0},
    {"arm64e", kCPUTypeARM64, 2},
    {"arm64_32", kCPUTypeARM64_32, 1},
    {"any", -1, -1},
    {"veo", 255, 2},
    {"hppa7100LC", 11, 1},
    {"m68030", 6, 3},
    {"m68040", 6, 2},
    {"i486", kCPUTypeX86, 4},
    {"i486SX", kCPUTypeX86, 0x84},
    {"pentium", kCPUTypeX86, 5},
    {"i586", kCPUTypeX86, 5},
    {"pentpro", kCPUTypeX86, 0x16},
    {"i686", kCPUTypeX86, 0x16},
    {"pentIIm3", kCPUTypeX86, 0x36},
    {"pentIIm5", kCPUTypeX86, 0x56},
    {"pentium4", kCPUTypeX86, 0x0a},
    {"ppc601", kCPUTypePowerPC, 1},
    {"ppc603", kCPUTypePowerPC, 3},
    {"ppc603e", kCPUTypePowerPC, 4},
    {"ppc603ev", kCPUTypePowerPC, 5},
    {"ppc604", kCPUTypePowerPC, 6},
    {"ppc604e", kCPUTypePowerPC, 7},
    {"ppc750", kCPUTypePowerPC, 9},
    {"ppc7400", kCPUTypePowerPC, 10},
    {"ppc7450", kCPUTypePowerPC, 11},
    {"ppc970", kCPUTypePowerPC, 100},
    {"ppc970-64", kCPUTypePowerPC64, 100},
    {"armv4t", kCPUTypeARM, 5},
    {"armv5", kCPUTypeARM, 7},
    {"xscale", kCPUTypeARM, 8},
    {"armv6", kCPUTypeARM, 6},
    {"armv6m", kCPUTypeARM, 14},
    {"armv7", kCPUTypeARM, 9},
    {"armv7f", kCPUTypeARM, 10},
    {"armv7s", kCPUTypeARM, 11},
    {"armv7k", kCPUTypeARM, 12},
    {"armv8", kCPUTypeARM, 13},
    {"armv7m", kCPUTypeARM, 15},
    {"armv7em", kCPUTypeARM, 16},
    {"arm64v8", kCPUTypeARM64, 1},
    {"veo1", 255, 1},
    {"veo2", 255, 2},
    {"veo3", 255, 3},
    {"veo4", 255, 4},
};

constexpr std::uint32_t withoutCapabilities(std::int32_t subtype) {
  return static_cast<std::uint32_t>(subtype) & ~kCPUSubtypeCapabilityMask;
}

}  // namespace

const char* publishedArchitectureName(std::int32_t cputype, std::int32_t cpusubtype) {
  for (const ArchInfo& info : kArchTable) {
    if (info.cputype == cputype && withoutCapabilities(info.cpusubtype) == withoutCapabilities(cpusubtype))
      return info.name;
  }
  for (const ArchInfo& info : kArchTable) {
    if (info.cputype == cputype) return info.name;
  }
  return nullptr;
}

const char* sliceArchitectureName(std::int32_t cputype, std::int32_t cpusubtype) {
  // arm64e with capability bits (0x80000002) goes to the published table.
  const auto subtype = static_cast<std::uint32_t>(cpusubtype);
  if (cputype == kCPUTypeARM64 && subtype == 2) return "arm64e";
  if (cputype == kCPUTypeARM64 && subtype == 0) return "arm64";
  if (cputype == kCPUTypeARM && subtype == 11) return "armv7s";
  if (cputype == kCPUTypeARM && subtype == 12) return "armv7k";
  return architectureFamilyName(cputype, cpusubtype);
}

const char* architectureFamilyName(std::int32_t cputype, std::int32_t cpusubtype) {
  const char* name = publishedArchitectureName(cputype, cpusubtype);
  return name != nullptr ? name : "unknown";
}

}  // namespace symlift::macho
