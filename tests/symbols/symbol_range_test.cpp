#include "symbols/symbol_range.h"

#include <gtest/gtest.h>

#include <limits>


namespace symlift::symbols {
namespace {

TEST(SymbolRangeTest, StartsUnknownAndDescribesItself) {
  SUPSymbolRange range;
  EXPECT_FALSE(range.path());
  EXPECT_FALSE(range.filePath());
  EXPECT_EQ(range.description(), "<Range: 0 0, symbol: -1, file: -1, line: -1>");

  std::string path = "/src/a.c";
  range.setPath(std::string_view(path));
  range.setRange({0x4000, 12});
  range.setSymbolIndex(3);
  range.setFileIndex(1);
  range.setLineNumber(42);
  EXPECT_EQ(range.filePath(), "/src/a.c");
  EXPECT_EQ(range.description(), "<Range: 16384 12, symbol: 3, file: 1, line: 42>");
}

TEST(SymbolRangeTest, AddressComparisonTreatsTheEndAsOutside) {
  SUPSymbolRange range;
  range.setRange({100, 10});
  EXPECT_EQ(range.compareToAddress(99), -1);
  EXPECT_EQ(range.compareToAddress(100), 0);
  EXPECT_EQ(range.compareToAddress(109), 0);
  EXPECT_EQ(range.compareToAddress(110), 1);
  EXPECT_TRUE(range.containsAddress(105));
  EXPECT_FALSE(range.containsAddress(110));

  // An empty range contains nothing, not even its start.
  range.setRange({100, 0});
  EXPECT_EQ(range.compareToAddress(100), 1);

  // A range that reaches the top of the address space must not wrap around.
  const std::uint64_t top = std::numeric_limits<std::uint64_t>::max();
  range.setRange({top - 4, 8});
  EXPECT_EQ(range.compareToAddress(top), 0);
  EXPECT_EQ(range.compareToAddress(top - 5), -1);
}

}  // namespace
}  // namespace symlift::symbols
