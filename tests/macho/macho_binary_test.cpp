// SUPMachOBinary and SUPMachOSlice on the committed fixtures: the real
// toolchain-built files and the hand-made edge files.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "macho/macho_binary.h"
#include "support/test_support.h"

namespace symlift::macho {
namespace {

namespace fs = std::filesystem;
using symlift::testing::fixturesDir;
using symlift::testing::TempDir;

std::string edge(const std::string& name) { return (fixturesDir() / "edge" / name).string(); }

// The UUID the edge-file generator gives number n.
std::string edgeUUID(int n) {
  char tail[13];
  std::snprintf(tail, sizeof tail, "%012x", n);
  return std::string("5e1f7000000040008000") + tail;
}

using SliceList = std::vector<std::pair<std::string, std::string>>;  // (name, uuid or "-")

SliceList describe(const SUPMachOBinary& binary) {
  SliceList list;
  binary.enumerateUUIDs([&list](const std::optional<std::string>& uuid, const std::string& name) {
    list.emplace_back(name, uuid.value_or("-"));
  });
  return list;
}

std::shared_ptr<SUPMachOBinary> open(const std::string& path) {
  auto binary = SUPMachOBinary::MachOBinaryWithPath(path);
  EXPECT_NE(binary, nullptr) << path;
  return binary;
}

TEST(MachOBinary, FatDSYMHasSlicesInFatHeaderOrder) {
  // lipo put x86_64 first in this file.
  auto binary = open((fixturesDir() / "FatApp.dSYM/Contents/Resources/DWARF/FatApp").string());
  ASSERT_TRUE(binary);
  EXPECT_EQ(describe(*binary), (SliceList{{"x86_64", "4c4c449155553144a1021bea2e928b85"},
                                          {"arm64", "4c4c445a55553144a109bc8fefe46bdc"}}));
  EXPECT_EQ(binary->slices()[0]->cputype(), 0x01000007);
  EXPECT_EQ(binary->slices()[1]->cputype(), 0x0100000C);
  EXPECT_EQ(binary->path(), (fixturesDir() / "FatApp.dSYM/Contents/Resources/DWARF/FatApp").string());
}

TEST(MachOBinary, ExecutableAndItsDSYMCarryTheSameUUIDs) {
  auto executable = open((fixturesDir() / "FatApp").string());
  auto dwarf = open((fixturesDir() / "FatApp.dSYM/Contents/Resources/DWARF/FatApp").string());
  ASSERT_TRUE(executable && dwarf);
  EXPECT_EQ(describe(*executable), describe(*dwarf));
  EXPECT_EQ(executable->instanceIdentifier(), dwarf->instanceIdentifier());
}

TEST(MachOBinary, SliceForArchitectureMatchesExactlyAndReturnsTheFirst) {
  auto binary = open(edge("fat-arm64-x86_64"));
  ASSERT_TRUE(binary);
  auto arm64 = binary->sliceForArchitecture("arm64");
  ASSERT_TRUE(arm64);
  EXPECT_EQ(arm64, binary->slices()[0]);
  EXPECT_EQ(binary->sliceForArchitecture("x86_64"), binary->slices()[1]);
  EXPECT_EQ(binary->sliceForArchitecture("ARM64"), nullptr);
  EXPECT_EQ(binary->sliceForArchitecture("arm64e"), nullptr);
  EXPECT_EQ(binary->sliceForArchitecture(""), nullptr);
}

TEST(MachOBinary, FatHeaderVariants) {
  auto empty = open(edge("fat-empty"));
  ASSERT_TRUE(empty);
  EXPECT_TRUE(empty->slices().empty());
  int calls = 0;
  empty->enumerateUUIDs([&calls](const auto&, const auto&) { ++calls; });
  EXPECT_EQ(calls, 0);

  // The fields are swapped whichever magic was seen.
  auto reversed = open(edge("fat-reversed-magic"));
  ASSERT_TRUE(reversed);
  EXPECT_EQ(describe(*reversed), (SliceList{{"arm64", edgeUUID(1)}, {"x86_64", edgeUUID(2)}}));

  // The 64-bit fat header is not read as fat: one slice of CPU type 0.
  auto fat64 = open(edge("fat64-magic"));
  ASSERT_TRUE(fat64);
  ASSERT_EQ(fat64->slices().size(), 1u);
  EXPECT_EQ(fat64->slices()[0]->cputype(), 0);
  EXPECT_EQ(describe(*fat64), (SliceList{{"unknown", "-"}}));

  // The slice's own header wins over the fat entry.
  auto mismatch = open(edge("fat-entry-mismatch"));
  ASSERT_TRUE(mismatch);
  EXPECT_EQ(describe(*mismatch), (SliceList{{"arm64", edgeUUID(5)}}));
}

TEST(MachOBinary, ArchitectureNamingRules) {
  auto binary = open(edge("fat-named-archs"));
  ASSERT_TRUE(binary);
  // arm64 with subtype 0x80000002 misses the exact arm64e row and is named
  // by the published table, which ignores the capability bits.
  EXPECT_EQ(describe(*binary), (SliceList{{"i386", edgeUUID(0x10)},
                                          {"armv7", edgeUUID(0x11)},
                                          {"armv7s", edgeUUID(0x12)},
                                          {"armv7k", edgeUUID(0x13)},
                                          {"arm64", edgeUUID(0x14)},
                                          {"arm64e", edgeUUID(0x15)},
                                          {"arm64e", edgeUUID(0x16)},
                                          {"x86_64h", edgeUUID(0x17)},
                                          {"arm64_32", edgeUUID(0x18)},
                                          {"unknown", edgeUUID(0x19)}}));
  EXPECT_EQ(static_cast<std::uint32_t>(binary->slices()[6]->cpusubtype()), 0x80000002u);
}

TEST(MachOSlice, ArchitectureNameFallbacks) {
  struct Case {
    std::int32_t cputype;
    std::uint32_t cpusubtype;
    const char* name;
  };
  const Case cases[] = {
      {0x0100000C, 77, "arm64"},          // unlisted subtype: the CPU type's family name
      {0x01000007, 0x80000003, "x86_64"},  // capability bits ignored by the table
      {12, 0x0100000B, "armv7s"},          // not the exact armv7s row, but the table's
      {0, 0, "unknown"},
      {0x4242, 1, "unknown"},
  };
  for (const Case& c : cases) {
    SUPMachOSliceRecord record{nullptr, c.cputype, static_cast<std::int32_t>(c.cpusubtype), 0};
    EXPECT_STREQ(SUPMachOSliceArchitectureName(&record), c.name) << std::hex << c.cputype << "/" << c.cpusubtype;
  }
}

TEST(MachOBinary, ThinFileReadsItsOwnHeader) {
  auto binary = open(edge("thin-arm64"));
  ASSERT_TRUE(binary);
  ASSERT_EQ(binary->slices().size(), 1u);
  EXPECT_EQ(binary->slices()[0]->cputype(), 0x0100000C);
  EXPECT_EQ(binary->slices()[0]->cpusubtype(), 0);
  EXPECT_EQ(binary->slices()[0]->uuid(), edgeUUID(6));

  // A byte-swapped magic: the values are still read in host order.
  auto swapped = open(edge("thin-swapped-magic"));
  ASSERT_TRUE(swapped);
  ASSERT_EQ(swapped->slices().size(), 1u);
  EXPECT_EQ(swapped->slices()[0]->cputype(), 0x12000000);
  EXPECT_EQ(swapped->slices()[0]->architectureName(), "unknown");

  // Not Mach-O at all: one slice of CPU type 0 without UUID.
  auto text = open(edge("not-macho"));
  ASSERT_TRUE(text);
  EXPECT_EQ(describe(*text), (SliceList{{"unknown", "-"}}));
}

TEST(MachOBinary, FilesThatCannotBeOpened) {
  EXPECT_EQ(SUPMachOBinary::MachOBinaryWithPath(edge("short-15-bytes")), nullptr);
  EXPECT_EQ(SUPMachOBinary::MachOBinaryWithPath(fixturesDir().string()), nullptr);
  EXPECT_EQ(SUPMachOBinary::MachOBinaryWithPath(edge("no-such-file")), nullptr);
  EXPECT_EQ(SUPMachOBinary::MachOBinaryWithPath(""), nullptr);
  EXPECT_EQ(SUPMachOBinary::initWithURL(fs::path()), nullptr);
  // Exactly 16 bytes is enough to open; the header is then too short for
  // load commands, so the CPU type comes from the first bytes alone.
  auto sixteen = open(edge("header-16-bytes"));
  ASSERT_TRUE(sixteen);
  EXPECT_EQ(describe(*sixteen), (SliceList{{"arm64", "-"}}));
}

TEST(MachOBinary, NonRegularFilesAreRefused) {
  TempDir dir;
  fs::path fifo = dir.path() / "pipe";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(SUPMachOBinary::MachOBinaryWithPath(fifo.string()), nullptr);
  // A symbolic link to a regular file is followed.
  fs::create_symlink(edge("thin-arm64"), dir.path() / "link");
  EXPECT_NE(SUPMachOBinary::MachOBinaryWithPath((dir.path() / "link").string()), nullptr);
}

TEST(MachOSlice, LoadCommands) {
  auto two = open(edge("two-uuids"));
  ASSERT_TRUE(two);
  EXPECT_EQ(two->slices()[0]->uuid(), edgeUUID(8));

  auto none = open(edge("no-uuid"));
  ASSERT_TRUE(none);
  EXPECT_EQ(none->slices()[0]->uuid(), std::nullopt);

  // The later version-minimum command overwrites the earlier one.
  auto versions = open(edge("version-min"));
  ASSERT_TRUE(versions);
  EXPECT_EQ(versions->slices()[0]->minimumOSVersion(), (SUPMachOVersion{10, 15, 1}));
  EXPECT_EQ(versions->slices()[0]->linkedSDKVersion(), (SUPMachOVersion{11, 1, 0}));

  auto buildVersion = open(edge("build-version-only"));
  ASSERT_TRUE(buildVersion);
  EXPECT_EQ(buildVersion->slices()[0]->minimumOSVersion(), (SUPMachOVersion{0, 0, 0}));
  EXPECT_EQ(buildVersion->slices()[0]->linkedSDKVersion(), (SUPMachOVersion{0, 0, 0}));
  EXPECT_EQ(buildVersion->slices()[0]->uuid(), edgeUUID(10));

  // Only the plain load-dylib command counts, in command order.
  auto dylibs = open(edge("load-dylib"));
  ASSERT_TRUE(dylibs);
  EXPECT_EQ(dylibs->slices()[0]->linkedDylibs(),
            (std::vector<std::string>{"/usr/lib/libSystem.B.dylib", "@rpath/Example.framework/Example"}));
  EXPECT_EQ(dylibs->slices()[0]->uuid(), edgeUUID(11));
}

TEST(MachOSlice, MalformedLoadCommandsEndTheWalk) {
  struct Case {
    const char* file;
    std::optional<std::string> uuid;
  };
  const Case cases[] = {
      {"command-past-end", edgeUUID(14)},   // the second UUID is never read
      {"zero-size-command", edgeUUID(16)},  // the walk stops at the size-0 command
      {"huge-ncmds", edgeUUID(18)},
      {"ncmds-zero", std::nullopt},
      {"short-commands", std::nullopt},
  };
  for (const Case& c : cases) {
    auto binary = open(edge(c.file));
    ASSERT_TRUE(binary) << c.file;
    ASSERT_EQ(binary->slices().size(), 1u) << c.file;
    EXPECT_EQ(binary->slices()[0]->uuid(), c.uuid) << c.file;
    EXPECT_EQ(binary->slices()[0]->architectureName(), "arm64") << c.file;
  }
  auto shortCommands = open(edge("short-commands"));
  ASSERT_TRUE(shortCommands);
  EXPECT_EQ(shortCommands->slices()[0]->minimumOSVersion(), (SUPMachOVersion{0, 0, 0}));
  // A name outside its command is dropped; one without its NUL ends with
  // the command.
  EXPECT_EQ(shortCommands->slices()[0]->linkedDylibs(),
            (std::vector<std::string>{"/usr/lib/libunterminated.dylib"}));
}

TEST(MachOBinary, MalformedFatHeaders) {
  auto pastEnd = open(edge("fat-offset-past-end"));
  ASSERT_TRUE(pastEnd);
  EXPECT_EQ(describe(*pastEnd), (SliceList{{"arm64", edgeUUID(22)}}));

  // The header cannot be read: the fat entry's CPU type stands.
  auto headerPastEnd = open(edge("fat-header-past-end"));
  ASSERT_TRUE(headerPastEnd);
  EXPECT_EQ(describe(*headerPastEnd), (SliceList{{"arm64", "-"}}));

  // Only the entries that fit in the file are read (88 bytes: 4 entries).
  // The three bogus ones lie over the slice's bytes: two point outside the
  // file and are skipped, one points at offset 0, the fat header itself,
  // which has no Mach-O header and keeps the bogus entry's CPU type.
  auto huge = open(edge("fat-count-huge"));
  ASSERT_TRUE(huge);
  EXPECT_EQ(describe(*huge), (SliceList{{"arm64", edgeUUID(24)}, {"unknown", "-"}}));
  EXPECT_EQ(huge->slices()[1]->cputype(), 0x01000000);
}

TEST(MachOBinary, InstanceIdentifierIgnoresFatOrder) {
  auto armFirst = open(edge("fat-arm64-x86_64"));
  auto x86First = open(edge("fat-x86_64-arm64"));
  ASSERT_TRUE(armFirst && x86First);
  std::string expected = SUPMachOBinary::hashNSString(edgeUUID(1) + edgeUUID(2));
  EXPECT_EQ(armFirst->instanceIdentifier(), expected);
  EXPECT_EQ(x86First->instanceIdentifier(), expected);
  EXPECT_EQ(x86First->instanceIdentifier(), expected);  // cached value
  EXPECT_EQ(expected.size(), 40u);

  // A slice without UUID leaves the file without an identity.
  auto noUUID = open(edge("no-uuid"));
  ASSERT_TRUE(noUUID);
  EXPECT_EQ(noUUID->instanceIdentifier(), std::nullopt);
  // No slices at all: the hash of nothing.
  auto empty = open(edge("fat-empty"));
  ASSERT_TRUE(empty);
  EXPECT_EQ(empty->instanceIdentifier(), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

TEST(MachOBinary, HashNSString) {
  EXPECT_EQ(SUPMachOBinary::hashNSString(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_EQ(SUPMachOBinary::hashNSString("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
  // Only the bytes before the first NUL are hashed.
  EXPECT_EQ(SUPMachOBinary::hashNSString(std::string("abc\0def", 7)), SUPMachOBinary::hashNSString("abc"));
  // UTF-8 bytes: "é" is c3 a9.
  EXPECT_EQ(SUPMachOBinary::hashNSString("\xc3\xa9"), "bf15be717ac1b080b4f1c456692825891ff5073d");
}

TEST(MachOSlice, SlicesOutliveTheirBinary) {
  std::shared_ptr<SUPMachOSlice> slice;
  {
    auto binary = open(edge("load-dylib"));
    ASSERT_TRUE(binary);
    slice = binary->slices()[0];
  }
  EXPECT_EQ(slice->uuid(), edgeUUID(11));
  EXPECT_EQ(slice->linkedDylibs().size(), 2u);
  EXPECT_EQ(slice->architectureName(), "arm64");
}

TEST(MachOSlice, RunningSliceIsUnknownOnThisPlatform) {
  auto slice = SUPMachOSlice::runningSlice();
  ASSERT_TRUE(slice);
  EXPECT_EQ(slice->uuid(), std::nullopt);
  EXPECT_EQ(slice->architectureName(), "unknown");
  EXPECT_EQ(SUPMachOSlice::initWithSlice(nullptr), nullptr);
}

}  // namespace
}  // namespace symlift::macho
