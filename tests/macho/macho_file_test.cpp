// The Mach-O reader on the committed fixtures and the hand-made edge files
// (tests/fixtures/make-edge-files.py says what each one holds): both views
// of a file, the load-command facts, the identity of a binary, and the
// damage the walk reports.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "macho/architecture_names.h"
#include "macho/macho_binary.h"
#include "macho/mapped_file.h"
#include "support/diagnostics.h"
#include "support/test_support.h"

namespace symlift::macho {
namespace {

using symlift::testing::fixturesDir;

std::string edge(const std::string& name) { return (fixturesDir() / "edge" / name).string(); }

// The UUID the edge-file generator gives number n.
std::string edgeUUID(int n) {
  char tail[13];
  std::snprintf(tail, sizeof tail, "%012x", n);
  return std::string("5e1f7000000040008000") + tail;
}

// "name uuid" per slice, "-" for no UUID.
std::vector<std::string> slicesOf(const std::string& path) {
  std::vector<std::string> slices;
  auto binary = SUPMachOBinary::MachOBinaryWithPath(path);
  EXPECT_TRUE(binary) << path;
  if (binary) binary->enumerateUUIDs([&](const auto& uuid, const auto& name) { slices.push_back(name + " " + uuid.value_or("-")); });
  return slices;
}

// "name[ big-endian] uuid" per image the symbol reader reads.
std::vector<std::string> imagesOf(const std::string& path) {
  std::vector<std::string> images;
  auto file = MachOFile::open(path);
  EXPECT_TRUE(file) << path;
  if (!file) return images;
  for (const MachOImage& image : file->images())
    images.push_back(std::string(sliceArchitectureName(image.cputype, image.cpusubtype)) +
                     (image.bigEndian ? " big-endian " : " ") + (image.uuid ? SUPMachOUUIDString(image.uuid->data()) : "-"));
  return images;
}

using Names = std::vector<std::string>;

TEST(MachOFile, SlicesAsThePlatformReportsThemAndImagesAsTheSymbolReaderReadsThem) {
  const std::string fatApp = (fixturesDir() / "FatApp.dSYM/Contents/Resources/DWARF/FatApp").string();
  const Names arm64x86{"arm64 " + edgeUUID(1), "x86_64 " + edgeUUID(2)};
  struct Case {
    std::string path;
    Names slices, images;
  } cases[] = {
      // lipo put x86_64 first in this file.
      {fatApp, {"x86_64 4c4c449155553144a1021bea2e928b85", "arm64 4c4c445a55553144a109bc8fefe46bdc"},
       {"x86_64 4c4c449155553144a1021bea2e928b85", "arm64 4c4c445a55553144a109bc8fefe46bdc"}},
      {edge("fat-arm64-x86_64"), arm64x86, arm64x86},
      {edge("fat-empty"), {}, {}},
      // The platform swaps the fat fields whichever fat magic it sees; LLVM
      // knows only the big-endian one.
      {edge("fat-reversed-magic"), arm64x86, {}},
      // And only LLVM reads 64-bit fat headers.
      {edge("fat64-magic"), {"unknown -"}, {"arm64 " + edgeUUID(3)}},
      // The slice's own header wins over the fat entry.
      {edge("fat-entry-mismatch"), {"arm64 " + edgeUUID(5)}, {"arm64 " + edgeUUID(5)}},
      // arm64 with subtype 0x80000002 misses the exact arm64e row and is
      // named by the published table, which ignores the capability bits.
      {edge("fat-named-archs"),
       {"i386 " + edgeUUID(0x10), "armv7 " + edgeUUID(0x11), "armv7s " + edgeUUID(0x12), "armv7k " + edgeUUID(0x13),
        "arm64 " + edgeUUID(0x14), "arm64e " + edgeUUID(0x15), "arm64e " + edgeUUID(0x16), "x86_64h " + edgeUUID(0x17),
        "arm64_32 " + edgeUUID(0x18), "unknown " + edgeUUID(0x19)},
       {"i386 " + edgeUUID(0x10), "armv7 " + edgeUUID(0x11), "armv7s " + edgeUUID(0x12), "armv7k " + edgeUUID(0x13),
        "arm64 " + edgeUUID(0x14), "arm64e " + edgeUUID(0x15), "arm64e " + edgeUUID(0x16), "x86_64h " + edgeUUID(0x17),
        "arm64_32 " + edgeUUID(0x18), "unknown " + edgeUUID(0x19)}},
      {edge("thin-arm64"), {"arm64 " + edgeUUID(6)}, {"arm64 " + edgeUUID(6)}},
      // Byte-swapped: read in host order by the platform, header-only by LLVM.
      {edge("thin-swapped-magic"), {"unknown -"}, {"ppc big-endian -"}},
      {edge("not-macho"), {"unknown -"}, {}},
      // 16 bytes open; the header does not fit, so the CPU type comes from the first bytes.
      {edge("header-16-bytes"), {"arm64 -"}, {}},
      // Malformed load commands end the walk; the commands before count.
      {edge("two-uuids"), {"arm64 " + edgeUUID(8)}, {"arm64 " + edgeUUID(8)}},
      {edge("command-past-end"), {"arm64 " + edgeUUID(14)}, {"arm64 " + edgeUUID(14)}},
      {edge("zero-size-command"), {"arm64 " + edgeUUID(16)}, {"arm64 " + edgeUUID(16)}},
      {edge("huge-ncmds"), {"arm64 " + edgeUUID(18)}, {"arm64 " + edgeUUID(18)}},
      {edge("ncmds-zero"), {"arm64 -"}, {"arm64 -"}},
      {edge("short-commands"), {"arm64 -"}, {"arm64 -"}},
      // A fat entry outside the file is no slice; one whose header lies past
      // the end keeps the entry's CPU type (and is no image).
      {edge("fat-offset-past-end"), {"arm64 " + edgeUUID(22)}, {"arm64 " + edgeUUID(22)}},
      {edge("fat-header-past-end"), {"arm64 -"}, {}},
      // Only the entries that fit are read: two bogus ones point outside the
      // file, one at the fat header itself. LLVM believes no such count.
      {edge("fat-count-huge"), {"arm64 " + edgeUUID(24), "unknown -"}, {}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(slicesOf(c.path), c.slices) << c.path;
    EXPECT_EQ(imagesOf(c.path), c.images) << c.path;
  }
  EXPECT_EQ(SUPMachOBinary::MachOBinaryWithPath(edge("thin-swapped-magic"))->slices()[0]->cputype(), 0x12000000);
  EXPECT_EQ(SUPMachOBinary::MachOBinaryWithPath(edge("fat-count-huge"))->slices()[1]->cputype(), 0x01000000);
  // The in-memory reading is the same.
  const std::string bytes = symlift::testing::readFile(edge("fat-named-archs"));
  EXPECT_EQ(SUPMachOBinary::slicesOfImage(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size())
                .at(6)->cpusubtype(),
            static_cast<std::int32_t>(0x80000002));
}

TEST(MachOFile, LoadCommandFacts) {
  struct Case {
    const char* file;
    SUPMachOVersion minimum, sdk;
    Names dylibs;
  } cases[] = {
      // The later version-minimum command wins; the build-version command is not read.
      {"version-min", {10, 15, 1}, {11, 1, 0}, {}},
      {"build-version-only", {}, {}, {}},
      // Only the plain load-dylib command counts, in command order.
      {"load-dylib", {}, {}, {"/usr/lib/libSystem.B.dylib", "@rpath/Example.framework/Example"}},
      // A name outside its command is dropped; one without its NUL ends with the command.
      {"short-commands", {}, {}, {"/usr/lib/libunterminated.dylib"}},
  };
  for (const Case& c : cases) {
    std::shared_ptr<SUPMachOSlice> slice;
    {
      auto binary = SUPMachOBinary::MachOBinaryWithPath(edge(c.file));
      ASSERT_TRUE(binary) << c.file;
      slice = binary->slices().at(0);
    }
    // The slice outlives its binary.
    EXPECT_EQ(slice->minimumOSVersion(), c.minimum) << c.file;
    EXPECT_EQ(slice->linkedSDKVersion(), c.sdk) << c.file;
    EXPECT_EQ(slice->linkedDylibs(), c.dylibs) << c.file;
  }
}

TEST(MachOBinary, IdentityIsTheHashOfTheUUIDsInArchitectureOrder) {
  const std::string both = SUPMachOBinary::hashNSString(edgeUUID(1) + edgeUUID(2));
  const struct {
    const char* file;
    std::optional<std::string> identifier;
  } cases[] = {{"fat-arm64-x86_64", both},
               {"fat-x86_64-arm64", both},
               {"no-uuid", std::nullopt},  // a slice without UUID: no identity
               {"fat-empty", "da39a3ee5e6b4b0d3255bfef95601890afd80709"}};
  for (const auto& c : cases) {
    auto binary = SUPMachOBinary::MachOBinaryWithPath(edge(c.file));
    ASSERT_TRUE(binary) << c.file;
    EXPECT_EQ(binary->instanceIdentifier(), c.identifier) << c.file;
  }
  const std::pair<std::string, std::string> hashes[] = {
      {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
      {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
      {std::string("abc\0def", 7), "a9993e364706816aba3e25717850c26c9cd0d89d"},  // up to the first NUL
      {"\xc3\xa9", "bf15be717ac1b080b4f1c456692825891ff5073d"},                   // UTF-8 bytes
  };
  for (const auto& [text, hash] : hashes) EXPECT_EQ(SUPMachOBinary::hashNSString(text), hash);
  auto binary = SUPMachOBinary::MachOBinaryWithPath(edge("fat-arm64-x86_64"));
  EXPECT_EQ(binary->sliceForArchitecture("x86_64"), binary->slices()[1]);
  for (const char* name : {"ARM64", "arm64e", ""}) EXPECT_EQ(binary->sliceForArchitecture(name), nullptr);
}

TEST(MachOFile, DamageIsReportedOncePerPlace) {
  struct Sink final : support::DiagnosticsSink {
    Names lines;
    void report(const support::Diagnostic& d) override { lines.push_back(support::ConsoleDiagnosticsSink::lineFor(d)); }
  };
  const struct {
    const char* file;
    Names lines;
  } cases[] = {
      {"thin-arm64", {}},
      {"zero-size-command", {"Skipped a load command of size 0, too small for its header in load commands at offset 0x38"}},
      {"huge-ncmds",
       {"Skipped 4294967294 of 4294967295 load commands, which lie past the end of the file in load commands at "
        "offset 0x38"}},
      {"fat-offset-past-end",
       {"Skipped a fat entry whose slice starts past the end of the file (0x7ffffff0) in fat header at offset 0x8"}},
      {"fat-count-huge",
       // Entries 1 and 3 (at 0x1c, 0x44) are the slice's bytes read as entries.
       {"Skipped a fat entry whose slice starts past the end of the file (0xc000001) in fat header at offset 0x1c",
        "Skipped a fat entry whose slice starts past the end of the file (0x4000) in fat header at offset 0x44",
        "Skipped 2147483643 of 2147483647 fat entries, which lie past the end of the file in fat header at offset 0x58",
        "Skipped the symbols of all 2147483647 slices (more fat entries than are believed) in fat header at offset 0x4"}},
  };
  for (const auto& c : cases) {
    Sink sink;
    ASSERT_TRUE(MachOFile::open(edge(c.file), &sink));
    Names expected;
    for (const std::string& line : c.lines) expected.push_back(line + " of " + edge(c.file));
    EXPECT_EQ(sink.lines, expected) << c.file;
  }
}

}  // namespace
}  // namespace symlift::macho

namespace symlift::macho {
namespace {

// Another program cutting a mapped file short: reads past the new end see
// zeros instead of ending the process with SIGBUS, and the mapping says so.
TEST(MappedFile, AFileCutShortWhileMappedReadsAsZerosAndSaysSo) {
  symlift::testing::TempDir dir;
  const std::size_t page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  const auto path = dir.write("cut", std::string(4 * page, 'x'));
  auto mapped = MappedFile::open(path.string());
  ASSERT_TRUE(mapped);
  EXPECT_FALSE(mapped->cutShort());
  EXPECT_EQ(mapped->bytes()[3 * page], 'x');
  mapped->release(mapped->bytes());  // the pages come back from the file, or not
  ASSERT_EQ(::truncate(path.c_str(), static_cast<off_t>(page)), 0);
  EXPECT_EQ(mapped->bytes()[0], 'x');
  EXPECT_FALSE(mapped->cutShort());
  EXPECT_EQ(mapped->bytes()[3 * page], 0);
  EXPECT_EQ(mapped->bytes()[2 * page + 1], 0);
  EXPECT_TRUE(mapped->cutShort());
}

}  // namespace
}  // namespace symlift::macho
