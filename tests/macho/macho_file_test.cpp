// The free functions under the Mach-O classes, on images built in memory.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "macho/macho_binary.h"
#include "macho/macho_file.h"

namespace symlift::macho {
namespace {

// Little-endian words appended to a byte buffer.
struct Image {
  std::vector<std::uint8_t> bytes;
  Image& le(std::uint32_t v) {
    for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
    return *this;
  }
  Image& be(std::uint32_t v) {
    for (int i = 3; i >= 0; --i) bytes.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
    return *this;
  }
  Image& zeros(std::size_t n) {
    bytes.insert(bytes.end(), n, 0);
    return *this;
  }
};

std::vector<SUPMachOSliceRecord> enumerate(const std::vector<std::uint8_t>& bytes) {
  std::vector<SUPMachOSliceRecord> slices;
  SUPMachOFileEnumerateSlices(bytes.data(), bytes.size(),
                              [&slices](const SUPMachOSliceRecord& slice) { slices.push_back(slice); });
  return slices;
}

TEST(MachOFile, FatEntriesAreBigEndianAndOffsetsRelativeToTheImage) {
  Image image;
  image.be(0xCAFEBABE).be(2);
  image.be(0x0100000C).be(0x80000002).be(48).be(32).be(4);
  image.be(7).be(3).be(80).be(28).be(4);
  image.zeros(112 - image.bytes.size());
  auto slices = enumerate(image.bytes);
  ASSERT_EQ(slices.size(), 2u);
  EXPECT_EQ(slices[0].cputype, 0x0100000C);
  EXPECT_EQ(static_cast<std::uint32_t>(slices[0].cpusubtype), 0x80000002u);
  EXPECT_EQ(slices[0].startAddress, image.bytes.data() + 48);
  EXPECT_EQ(slices[0].availableSize, 112u - 48u);
  EXPECT_EQ(slices[1].cputype, 7);
  EXPECT_EQ(slices[1].startAddress, image.bytes.data() + 80);
}

TEST(MachOFile, ThinHeaderValuesAreReadInHostOrderForEveryMagic) {
  for (std::uint32_t magic : {kMachMagic, kMachMagic64, kMachCigam, kMachCigam64}) {
    Image image;
    image.le(magic).le(0x01000007).le(0x80000003).zeros(20);
    auto slices = enumerate(image.bytes);
    ASSERT_EQ(slices.size(), 1u) << std::hex << magic;
    EXPECT_EQ(slices[0].cputype, 0x01000007) << std::hex << magic;
    EXPECT_EQ(static_cast<std::uint32_t>(slices[0].cpusubtype), 0x80000003u);
  }
  // Unknown magic: one slice, CPU type 0.
  Image other;
  other.le(0x12345678).le(0x01000007).le(3).zeros(4);
  auto slices = enumerate(other.bytes);
  ASSERT_EQ(slices.size(), 1u);
  EXPECT_EQ(slices[0].cputype, 0);
  EXPECT_EQ(slices[0].cpusubtype, 0);
  // Too short to hold a magic: still one unknown slice, nothing read.
  std::vector<std::uint8_t> tiny = {0xcf, 0xfa};
  EXPECT_EQ(enumerate(tiny).size(), 1u);
}

TEST(MachOFile, LoadCommandWalkVisitsEachCommandOnce) {
  Image image;
  image.le(kMachMagic).le(12).le(9).le(0xA).le(3).le(0).le(0);  // 28-byte header
  image.le(0x2).le(16).zeros(8);
  image.le(0x1B).le(24).zeros(16);
  image.le(0x26).le(8);
  SUPMachOSliceRecord record{image.bytes.data(), 0, 0, image.bytes.size()};
  std::vector<std::pair<std::uint32_t, std::uint32_t>> seen;
  std::vector<std::size_t> offsets;
  SUPMachOSliceEnumerateLoadCommands(&record, [&](std::uint32_t type, std::uint32_t size, const std::uint8_t* at) {
    seen.emplace_back(type, size);
    offsets.push_back(static_cast<std::size_t>(at - image.bytes.data()));
  });
  EXPECT_EQ(seen, (std::vector<std::pair<std::uint32_t, std::uint32_t>>{{0x2, 16}, {0x1B, 24}, {0x26, 8}}));
  EXPECT_EQ(offsets, (std::vector<std::size_t>{28, 44, 68}));
  // The record takes the header's CPU type and subtype.
  EXPECT_EQ(record.cputype, 12);
  EXPECT_EQ(record.cpusubtype, 9);
}

TEST(MachOFile, LoadCommandWalkIgnoresMissingInputs) {
  int calls = 0;
  auto count = [&calls](std::uint32_t, std::uint32_t, const std::uint8_t*) { ++calls; };
  SUPMachOSliceEnumerateLoadCommands(nullptr, count);
  SUPMachOSliceRecord empty;
  SUPMachOSliceEnumerateLoadCommands(&empty, count);
  Image image;
  image.le(0xCAFEBABE).le(1).zeros(40);
  SUPMachOSliceRecord fat{image.bytes.data(), 5, 6, image.bytes.size()};
  SUPMachOSliceEnumerateLoadCommands(&fat, count);
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(fat.cputype, 5);  // left as it was
}

TEST(MachOFile, ArchitectureNames) {
  struct Case {
    std::int32_t cputype;
    std::uint32_t cpusubtype;
    const char* name;
  };
  const Case cases[] = {
      {0x0100000C, 0, "arm64"},          {0x0100000C, 2, "arm64e"},
      {0x0100000C, 0x80000002, "arm64e"},  // through the published table
      {0x0100000C, 1, "arm64v8"},        {0x0100000C, 77, "arm64"},  // family fallback
      {12, 9, "armv7"},                  {12, 11, "armv7s"},
      {12, 12, "armv7k"},                {7, 3, "i386"},
      {0x01000007, 3, "x86_64"},         {0x01000007, 0x80000003, "x86_64"},
      {0x01000007, 8, "x86_64h"},        {0, 0, "unknown"},
      {0x4242, 1, "unknown"},
  };
  for (const Case& c : cases) {
    SUPMachOSliceRecord record{nullptr, c.cputype, static_cast<std::int32_t>(c.cpusubtype), 0};
    EXPECT_STREQ(SUPMachOSliceArchitectureName(&record), c.name) << std::hex << c.cputype << "/" << c.cpusubtype;
  }
  EXPECT_STREQ(SUPMachOSliceArchitectureName(nullptr), "unknown");
}

TEST(MachOFile, UUIDStringAndVersions) {
  const std::uint8_t bytes[16] = {0xAB, 0x01, 0x23, 0x45, 0x67, 0x89, 0xCD, 0xEF,
                                  0x00, 0x10, 0xF0, 0x0F, 0xFF, 0x7F, 0x80, 0x08};
  EXPECT_EQ(SUPMachOUUIDString(bytes), "ab0123456789cdef0010f00fff7f8008");
  EXPECT_EQ(SUPMachOVersionDecode(0x000A0F01), (SUPMachOVersion{10, 15, 1}));
  EXPECT_EQ(SUPMachOVersionDecode(0xFFFFFFFF), (SUPMachOVersion{0xFFFF, 255, 255}));
  SUPMachOSliceRecord current = SUPMachOSliceGetCurrent();
  EXPECT_EQ(current.startAddress, nullptr);
  EXPECT_EQ(current.cputype, 0);
  EXPECT_EQ(current.cpusubtype, 0);
}

TEST(MachOFile, CloseToleratesMissingRecord) {
  SUPMachOFileClose(nullptr);
  SUPMachOFile file;
  EXPECT_FALSE(SUPMachOFileOpen(&file, nullptr));
  EXPECT_FALSE(SUPMachOFileOpen(nullptr, "/dev/null"));
  EXPECT_FALSE(SUPMachOFileOpen(&file, "/dev/null"));  // not regular, and empty
  SUPMachOFileClose(&file);
}

TEST(MachOFile, InMemorySlicesMatchTheMappedFile) {
  // One load-dylib command whose name is not terminated before the end of
  // the image: the name stops at the command's end, never past it.
  Image image;
  image.le(kMachMagic64).le(0x0100000C).le(0).le(0xA).le(1).le(20).le(0).le(0);
  image.le(0xC).le(20).le(12);
  const char name[] = "libz";
  image.bytes.insert(image.bytes.end(), name, name + 4);
  image.le(0x2e6c6962);  // "bil." : 8 more name bytes with no NUL
  auto slices = SUPMachOBinary::slicesOfImage(image.bytes.data(), image.bytes.size());
  ASSERT_EQ(slices.size(), 1u);
  EXPECT_EQ(slices[0]->linkedDylibs(), (std::vector<std::string>{"libzbil."}));
}

}  // namespace
}  // namespace symlift::macho
