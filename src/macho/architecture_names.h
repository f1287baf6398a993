#pragma once
// The published table of Mach-O architecture names (as mach-o/arch.h gives
// them on Apple's platforms), looked up by CPU type and subtype.

#include <cstdint>

namespace symlift::macho {

inline constexpr std::int32_t kCPUArchABI64 = 0x01000000;
inline constexpr std::int32_t kCPUArchABI64_32 = 0x02000000;
inline constexpr std::int32_t kCPUTypeX86 = 7;
inline constexpr std::int32_t kCPUTypeX86_64 = kCPUTypeX86 | kCPUArchABI64;
inline constexpr std::int32_t kCPUTypeARM = 12;
inline constexpr std::int32_t kCPUTypeARM64 = kCPUTypeARM | kCPUArchABI64;
inline constexpr std::int32_t kCPUTypeARM64_32 = kCPUTypeARM | kCPUArchABI64_32;
inline constexpr std::int32_t kCPUTypePowerPC = 18;
inline constexpr std::int32_t kCPUTypePowerPC64 = kCPUTypePowerPC | kCPUArchABI64;
// The top 8 bits of a subtype are capability bits, not part of the subtype.
inline constexpr std::uint32_t kCPUSubtypeCapabilityMask = 0xff000000u;

// The table's name for (cputype, cpusubtype), comparing subtypes without
// their capability bits. When the subtype is not listed but the CPU type is,
// the first (family) name of that CPU type is given, as the platform's
// lookup does. nullptr when the CPU type is unknown.
const char* publishedArchitectureName(std::int32_t cputype, std::int32_t cpusubtype);

// The name a slice goes by: "arm64e", "arm64", "armv7s" and "armv7k" by exact
// CPU type and full subtype (capability bits included), else the published
// table's name, else "unknown".
const char* sliceArchitectureName(std::int32_t cputype, std::int32_t cpusubtype);

// The family name of a CPU type and subtype: the published table's name, or
// "unknown" when the CPU type is not in it.
const char* architectureFamilyName(std::int32_t cputype, std::int32_t cpusubtype);

}  // namespace symlift::macho
