// Valid but hostile DWARF: the reader's work and memory stay linear in the
// input, whatever the extents and paths say. (Times and memory of the
// full-size inputs are measured by hand: set SYMLIFT_HOSTILE_OUT to a folder
// and the inputs are also written there as dSYM bundles.)

#include "symbols/dwarf/image_symbols.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "hostile_dwarf.h"

namespace symlift::symbols::dwarf {
namespace {

using namespace testing;

ImageSymbols read(const std::vector<std::uint8_t>& bytes, DamageList* damage, const char* name) {
  if (const char* out = std::getenv("SYMLIFT_HOSTILE_OUT")) {
    const auto folder = std::filesystem::path(out) / (std::string(name) + ".dSYM/Contents/Resources/DWARF");
    std::filesystem::create_directories(folder);
    std::ofstream(folder / name, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                                         static_cast<std::streamsize>(bytes.size()));
  }
  auto images = macho::readMachOLayout(macho::Bytes(bytes)).images;
  return images.empty() ? ImageSymbols{} : readImageSymbols(images.front(), {}, damage);
}

TEST(HostileDwarfTest, OverlappingExtentsGiveEachRowToOneFunction) {
  constexpr std::size_t kFunctions = 10000;
  DamageList damage;
  const ImageSymbols symbols = read(hostileImage(kFunctions, true, "/src"), &damage, "Overlapping");
  ASSERT_EQ(symbols.symbols.size(), kFunctions);
  // Each function keeps the one row at its start: the extent ends where the
  // next function starts.
  EXPECT_EQ(symbols.sources.size(), kFunctions);
  for (const ImageSymbol& symbol : {symbols.symbols.front(), symbols.symbols.back()}) {
    EXPECT_EQ(symbol.length, 4u);
    EXPECT_EQ(symbol.sourceCount, 1u);
  }
}

TEST(HostileDwarfTest, ALongCompilationFolderForThousandsOfFilesIsLeftOut) {
  enum class Made { All, None, Some };
  struct Case {
    std::size_t compDir;
    Made paths;
    const char* damage;
  };
  const Case cases[] = {
      {100, Made::All, nullptr},
      {1 << 20, Made::None, "source paths longer than 4096 bytes"},
      // Paths of 4000 bytes for 2000 files: more than the table's budget.
      {4000, Made::Some, "source paths beyond"},
  };
  constexpr std::size_t kFiles = 2000;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.compDir);
    DamageList damage;
    const ImageSymbols symbols =
        read(hostileImage(4000, false, "/" + std::string(c.compDir - 1, 'd'), kFiles), &damage, "PathBomb");
    EXPECT_EQ(symbols.sources.size(), 4000u);
    if (c.paths == Made::All) {
      EXPECT_EQ(symbols.paths.size(), kFiles);
    } else if (c.paths == Made::None) {
      EXPECT_EQ(symbols.paths.size(), 0u);
    } else {
      EXPECT_GT(symbols.paths.size(), 0u);
      EXPECT_LT(symbols.paths.size(), kFiles);
    }
    if (c.damage) {
      ASSERT_FALSE(damage.empty());
      EXPECT_NE(damage.front().text.find(c.damage), std::string::npos) << damage.front().text;
    } else {
      EXPECT_TRUE(damage.empty());
    }
  }
}

TEST(HostileDwarfTest, ManyFunctionsOneRowEach) {
  constexpr std::size_t kFunctions = 200000;  // 1,000,000 measured by hand
  const ImageSymbols symbols = read(hostileImage(kFunctions, false, "/src"), nullptr, "ManyFunctions");
  EXPECT_EQ(symbols.symbols.size(), kFunctions);
  EXPECT_EQ(symbols.sources.size(), kFunctions);
}

}  // namespace
}  // namespace symlift::symbols::dwarf
