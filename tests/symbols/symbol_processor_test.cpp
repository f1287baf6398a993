#include "symbols/symbol_processor.h"

#include <gtest/gtest.h>

#include <set>

#include "support/test_support.h"
#include "symbols/csym_text.h"
#include "symbols/fake_symbolication_provider.h"

namespace symlift::testing {
namespace {

using symbols::SUPSymbolProcessor;

struct FormattedSlice {
  std::uint64_t sourceType = 0;
  std::optional<std::string> uuid;
  std::string arch;
  std::string data;
  support::ErrorPtr error;
};

class SymbolProcessorTest : public ::testing::Test {
 protected:
  void SetUp() override { SUPSymbolProcessor::setSymbolicationProviderForTesting(provider_); }
  void TearDown() override { SUPSymbolProcessor::setSymbolicationProviderForTesting(nullptr); }

  void addFile(const std::string& path, std::vector<FakeSymbolicator> slices) { provider_->files[path] = slices; }

  std::vector<FormattedSlice> formatted(const std::string& path, std::uint64_t version = 1) {
    std::vector<FormattedSlice> slices;
    SUPSymbolProcessor::enumerateFormattedDataVersion(
        version, path,
        [&](std::uint64_t type, const std::optional<std::string>& uuid, const std::string& arch,
            const std::string& data, const support::ErrorPtr& error) {
          slices.push_back({type, uuid, arch, data, error});
        });
    return slices;
  }

  // The text of the only slice of a file holding these symbols.
  std::string textOf(std::vector<FakeSymbol> symbols) {
    addFile("/in/App", {slice(kArm64, std::move(symbols))});
    auto slices = formatted("/in/App");
    EXPECT_EQ(slices.size(), 1u);
    return slices.empty() ? std::string() : slices[0].data;
  }

  // The lines after "ranges\t<n>".
  static std::vector<std::string> rangeLines(const std::string& text) {
    std::vector<std::string> lines;
    std::size_t start = text.find("\nranges\t");
    if (start == std::string::npos) return lines;
    start = text.find('\n', start + 1) + 1;
    for (std::size_t end; start < text.size(); start = end + 1) {
      end = text.find('\n', start);
      lines.push_back(text.substr(start, end - start));
    }
    return lines;
  }

  std::shared_ptr<FakeProvider> provider_ = std::make_shared<FakeProvider>();
};

constexpr const char* kUuid = "3f5061728394a5b6c7d8e9fa0b1c2d3e";  // makeUUID(0x3f)

TEST_F(SymbolProcessorTest, SliceWithoutCodeSymbolsHasZeroCountsAndBareSectionLines) {
  EXPECT_EQ(textOf({}), std::string("code_mapping\t1\tdsym\t") + kUuid +
                            "\tarm64\t0\t0\t0\nfiles\t0\nsymbols\t0\nranges\t0\n");
}

TEST_F(SymbolProcessorTest, OneFunctionInOneFileMatchesTheDocumentedExample) {
  std::array<std::uint8_t, 16> uuid{0x3f, 0x2a, 0x6c, 0x01, 0xb5, 0xd9, 0x4e, 0x7a,
                                    0x8c, 0x0e, 0x1f, 0x2a, 0x3b, 0x4c, 0x5d, 0x6e};
  const std::uint64_t base = 0x100000000;
  FakeSymbol mainSymbol = cSymbol("main", base + 16384, 20,
                                  {{"/build/App/Sources/AppDelegate.swift", 10, base + 16384, 12},
                                   {"/build/App/Sources/AppDelegate.swift", 11, base + 16396, 8}});
  addFile("/in/App", {slice(kArm64, {mainSymbol}, uuid)});
  auto slices = formatted("/in/App");
  ASSERT_EQ(slices.size(), 1u);
  EXPECT_EQ(slices[0].data,
            "code_mapping\t1\tdsym\t3f2a6c01b5d94e7a8c0e1f2a3b4c5d6e\tarm64\t1\t1\t2\n"
            "files\t1\n"
            "/build/App/Sources/AppDelegate.swift\n"
            "symbols\t1\n"
            "main\n"
            "ranges\t2\n"
            "16384\t12\t0\t0\t10\n"
            "16396\t8\t0\t0\t11\n");
  EXPECT_EQ(slices[0].uuid, "3f2a6c01b5d94e7a8c0e1f2a3b4c5d6e");
  EXPECT_EQ(slices[0].sourceType, symbols::SUPSourceTypeDsym);
  EXPECT_FALSE(slices[0].error);
}

TEST_F(SymbolProcessorTest, RangesComeFromSourceRecordsOrFromTheSymbolItself) {
  const std::uint64_t base = 0x100000000;
  std::string text = textOf({
      cSymbol("noSource", base + 0x1000, 32),
      cSymbol("lines", base + 0x2000, 64,
              {{"/s/a.c", 99999, base + 0x2000, 4},
               {"/s/a.c", 100000, base + 0x2004, 4},
               {"/s/a.c", 0, base + 0x2008, 4}}),
      // Below the base address: the relative start is written as a signed number.
      cSymbol("belowBase", base - 16, 16, {{"/s/b.c", 7, base - 16, 16}}),
  });
  EXPECT_EQ(rangeLines(text), (std::vector<std::string>{
                                  "4096\t32\t0\t-1\t-1",
                                  "8192\t4\t1\t0\t99999",
                                  "8196\t4\t1\t0\t-1",
                                  "8200\t4\t1\t0\t0",
                                  "-16\t16\t2\t1\t7",
                              }));
  EXPECT_NE(text.find("files\t2\n/s/a.c\n/s/b.c\nsymbols\t3\nnoSource\nlines\nbelowBase\nranges\t5\n"),
            std::string::npos)
      << text;
}

TEST_F(SymbolProcessorTest, SymbolsWithoutNamesContributeNeitherNamesNorRangesNorFiles) {
  FakeSymbol nullName{"_x", "(null)", 0x100000100, 8, {{"/s/null.c", 1, 0x100000100, 8}}};
  FakeSymbol noNames{std::nullopt, std::nullopt, 0x100000200, 8, {{"/s/none.c", 2, 0x100000200, 8}}};
  FakeSymbol mangledOnly{"_y", std::nullopt, 0x100000300, 8, {}};
  std::string text = textOf({cSymbol("first", 0x100000000, 8), nullName, noNames, mangledOnly,
                             cSymbol("last", 0x100000400, 8, {{"/s/last.c", 3, 0x100000400, 8}})});
  EXPECT_NE(text.find("\t1\t2\t2\nfiles\t1\n/s/last.c\nsymbols\t2\nfirst\nlast\nranges\t2\n"), std::string::npos)
      << text;
  EXPECT_EQ(rangeLines(text), (std::vector<std::string>{"0\t8\t0\t-1\t-1", "1024\t8\t1\t0\t3"}));
}

TEST_F(SymbolProcessorTest, SameNamedSymbolsAreListedTwice) {
  std::string text = textOf({cSymbol("helper", 0x100000000, 8), cSymbol("helper", 0x100000010, 8)});
  EXPECT_NE(text.find("symbols\t2\nhelper\nhelper\n"), std::string::npos) << text;
  EXPECT_EQ(rangeLines(text), (std::vector<std::string>{"0\t8\t0\t-1\t-1", "16\t8\t1\t-1\t-1"}));
}

TEST_F(SymbolProcessorTest, FilesAreListedOnceInOrderOfFirstUseWithoutLineFeeds) {
  std::string text = textOf({
      cSymbol("a", 0x100000000, 16, {{"/s/two.c", 1, 0x100000000, 8}, {"/s/o\nne.c\n", 2, 0x100000008, 8}}),
      cSymbol("b", 0x100000010, 16, {{"/s/one.c", 3, 0x100000010, 8}, {"/s/two.c", 4, 0x100000018, 8}}),
  });
  EXPECT_NE(text.find("files\t2\n/s/two.c\n/s/one.c\nsymbols"), std::string::npos) << text;
  EXPECT_EQ(rangeLines(text), (std::vector<std::string>{"0\t8\t0\t0\t1", "8\t8\t0\t1\t2", "16\t8\t1\t1\t3",
                                                        "24\t8\t1\t0\t4"}));

  // The raw lists agree, and each range's path is the listed (clean) path.
  SUPSymbolProcessor::enumerateSymbolicationDataFromFile(
      "/in/App", [](std::uint64_t, const std::optional<std::string>&, const std::string&,
                    const std::vector<std::string>& files, const std::vector<std::string>& symbols,
                    const std::vector<symbols::SUPSymbolRange>& ranges, const support::ErrorPtr& error) {
        EXPECT_EQ(files, (std::vector<std::string>{"/s/two.c", "/s/one.c"}));
        EXPECT_EQ(symbols, (std::vector<std::string>{"a", "b"}));
        ASSERT_EQ(ranges.size(), 4u);
        for (const auto& range : ranges) EXPECT_EQ(range.filePath(), files[range.fileIndex()]);
        EXPECT_FALSE(error);
      });
}

TEST_F(SymbolProcessorTest, TheRequestedFormatVersionIsNotWritten) {
  addFile("/in/App", {slice(kArm64, {})});
  auto slices = formatted("/in/App", 7);
  ASSERT_EQ(slices.size(), 1u);
  EXPECT_TRUE(slices[0].data.starts_with("code_mapping\t1\t")) << slices[0].data;
}

TEST_F(SymbolProcessorTest, ArchitectureNames) {
  addFile("/in/App", {slice(kArm64, {}), slice(kArm64e, {}), slice({0x0100000c, static_cast<std::int32_t>(0x80000002)}, {}),
                      slice({0x0100000c, 1}, {}), slice(kX86_64, {}), slice(kArmV7, {})});
  std::vector<std::string> names;
  for (const auto& s : formatted("/in/App")) {
    names.push_back(s.arch);
    EXPECT_NE(s.data.find("\t" + s.arch + "\t0\t0\t0\n"), std::string::npos);
  }
  EXPECT_EQ(names, (std::vector<std::string>{"arm64", "arm64e", "arm64e", "arm64", "x86_64", "armv7"}));
}

TEST_F(SymbolProcessorTest, OffLimitMangledNamesAreListedMangled) {
  const auto& offLimit = SUPSymbolProcessor::offLimitMangledSymbols();
  ASSERT_EQ(offLimit.size(), 3u);
  const std::string rank =
      "__TTWOE5imojiSS12TagMatchRankS_9RankValueS_FS1_g9rankValueqq_Ss16RawRepresentable8RawValue";
  const std::string box = "__TFO8PlayKids19RawRepresentableBoxg8rawValueqq_Ss16RawRepresentable8RawValue";
  EXPECT_TRUE(offLimit.contains(rank));
  EXPECT_TRUE(offLimit.contains(box));
  std::string text = textOf({
      FakeSymbol{rank, "protocol witness for RankValue.rankValue.getter", 0x100000000, 8, {}},
      FakeSymbol{box, std::nullopt, 0x100000010, 8, {}},
      FakeSymbol{"__Z3fooi", "foo(int)", 0x100000020, 8, {}},
  });
  EXPECT_NE(text.find("symbols\t3\n" + rank + "\n" + box + "\nfoo(int)\nranges"), std::string::npos) << text;
}

TEST_F(SymbolProcessorTest, SliceWithoutUUIDIsFormattedWithAnError) {
  addFile("/in/App", {slice(kArm64, {cSymbol("f", 0x100000000, 4)}, std::nullopt), slice(kX86_64, {})});
  auto slices = formatted("/in/App");
  ASSERT_EQ(slices.size(), 2u);
  ASSERT_TRUE(slices[0].error);
  EXPECT_EQ(slices[0].error->domain, "SUPSymbolicationErrorDomain");
  EXPECT_EQ(slices[0].error->code, 0);
  EXPECT_TRUE(slices[0].error->userInfo.empty());
  EXPECT_FALSE(slices[0].uuid);
  EXPECT_TRUE(slices[0].data.starts_with("code_mapping\t1\tdsym\t(null)\tarm64\t0\t1\t1\n")) << slices[0].data;
  EXPECT_FALSE(slices[1].error);
}

TEST_F(SymbolProcessorTest, SourceTypeIsTheFirstKindTestThatHolds) {
  auto ownerOfKind = [](bool dsym, bool dylib, bool shared, bool object) {
    FakeSymbolicator s = slice(kArm64, {});
    s.owners[0].dsym = dsym;
    s.owners[0].dylib = dylib;
    s.owners[0].sharedCache = shared;
    s.owners[0].object = object;
    return s;
  };
  addFile("/in/App", {ownerOfKind(true, true, true, true), ownerOfKind(false, true, true, true),
                      ownerOfKind(false, false, true, true), ownerOfKind(false, false, false, true),
                      ownerOfKind(false, false, false, false)});
  std::vector<std::string> types;
  for (const auto& s : formatted("/in/App")) types.push_back(s.data.substr(15, s.data.find('\t', 15) - 15));
  EXPECT_EQ(types, (std::vector<std::string>{"dsym", "dylib", "dyld-shared-cache", "static", "unknown"}));
}

TEST_F(SymbolProcessorTest, EachSliceHasItsOwnListsInSliceOrder) {
  FakeSymbolicator second = slice(kX86_64, {cSymbol("g", 0x1000, 4, {{"/s/b.c", 2, 0x1000, 4}})}, makeUUID(0x01));
  second.owners[0].base = 0x1000;
  addFile("/in/App", {slice(kArm64, {cSymbol("f", 0x100000000, 4, {{"/s/a.c", 1, 0x100000000, 4}})}), second});
  auto slices = formatted("/in/App");
  ASSERT_EQ(slices.size(), 2u);
  EXPECT_EQ(slices[1].data, "code_mapping\t1\tdsym\t0112233445566778899aabbccddeef00\tx86_64\t1\t1\t1\n"
                            "files\t1\n/s/b.c\nsymbols\t1\ng\nranges\t1\n0\t4\t0\t0\t2\n");
}

TEST_F(SymbolProcessorTest, CountingAndHiddenSymbolChecksWalkEverySlice) {
  addFile("/in/App", {slice(kArm64, {cSymbol("a", 0x100000000, 4), FakeSymbol{std::nullopt, std::nullopt, 0x100000010, 4, {}}}),
                      slice(kX86_64, {cSymbol("b", 0x100000000, 4), cSymbol("c", 0x100000010, 4)})});
  // Unnamed symbols count too: the count is of symbols, not of cSYM lines.
  EXPECT_EQ(SUPSymbolProcessor::countSymbolOwnersAtPath("/in/App"), 4);
  EXPECT_FALSE(SUPSymbolProcessor::checkForHiddenSymbolsAtPath("/in/App"));

  addFile("/in/Hidden", {slice(kArm64, {cSymbol("a", 0x100000000, 4)}),
                         slice(kX86_64, {cSymbol("b", 0x100000000, 4), FakeSymbol{"__hidden#42_", "__hidden#42_", 0x100000010, 4, {}}})});
  EXPECT_TRUE(SUPSymbolProcessor::checkForHiddenSymbolsAtPath("/in/Hidden"));

  EXPECT_EQ(SUPSymbolProcessor::countSymbolOwnersAtPath("/in/Missing"), 0);
  EXPECT_FALSE(SUPSymbolProcessor::checkForHiddenSymbolsAtPath("/in/Missing"));
}

TEST_F(SymbolProcessorTest, UnreadablePathCallsNoVisitor) {
  EXPECT_TRUE(formatted("/in/does-not-exist").empty());
  int calls = 0;
  SUPSymbolProcessor::enumerateSymbolOwnersAtPath(
      "/in/does-not-exist", [&](const symbols::SymbolOwner&, const std::optional<std::string>&, const std::string&) { ++calls; });
  EXPECT_EQ(calls, 0);
}

TEST_F(SymbolProcessorTest, DSYMBundlesResolveToTheirDWARFFile) {
  TempDir dir;
  dir.write("App.dSYM/Contents/Resources/DWARF/App", "");
  std::filesystem::create_directories(dir.path() / "Empty.dSYM/Contents/Resources/DWARF");
  const std::string bundle = dir.str() + "/App.dSYM";
  const std::string dwarfFile = bundle + "/Contents/Resources/DWARF/App";

  EXPECT_EQ(SUPSymbolProcessor::executablePathForInputPath(bundle), dwarfFile);
  EXPECT_EQ(SUPSymbolProcessor::executablePathForInputPath(dwarfFile), dwarfFile);
  // Only a name ending exactly in "dSYM" is a bundle.
  EXPECT_EQ(SUPSymbolProcessor::executablePathForInputPath(dir.str() + "/App.dsym"), dir.str() + "/App.dsym");
  EXPECT_THROW(SUPSymbolProcessor::executablePathForInputPath(dir.str() + "/Empty.dSYM"), symbols::SymbolReaderException);
  EXPECT_THROW(SUPSymbolProcessor::executablePathForInputPath(dir.str() + "/Missing.dSYM"), symbols::SymbolReaderException);
  EXPECT_THROW(SUPSymbolProcessor::countSymbolOwnersAtPath(dir.str() + "/Empty.dSYM"), symbols::SymbolReaderException);

  addFile(dwarfFile, {slice(kArm64, {cSymbol("f", 0x100000000, 4)})});
  EXPECT_EQ(formatted(bundle).size(), 1u);
  EXPECT_EQ(SUPSymbolProcessor::countSymbolOwnersAtPath(bundle), 1);
}

TEST_F(SymbolProcessorTest, SymbolNamesFromFileAreDistinctAndFiltered) {
  addFile("/in/App", {slice(kArm64, {cSymbol("main", 0x100000000, 4), cSymbol("main", 0x100000010, 4),
                                     FakeSymbol{"_e", "", 0x100000020, 4, {}},
                                     FakeSymbol{std::nullopt, std::nullopt, 0x100000030, 4, {}},
                                     cSymbol("__copy_helper_block_e8_32s", 0x100000040, 4),
                                     cSymbol("__destroy_helper_block_e8_32s", 0x100000050, 4),
                                     cSymbol("__block_global_1", 0x100000060, 4),
                                     cSymbol("my__block_global", 0x100000070, 4)}),
                      slice(kX86_64, {cSymbol("main", 0x100000000, 4), cSymbol("other", 0x100000010, 4)})});
  std::multiset<std::string> names;
  support::ErrorPtr error;
  EXPECT_TRUE(SUPSymbolProcessor::enumerateSymbolsFromFile("/in/App", &error,
                                                           [&](const std::string& name) { names.insert(name); }));
  EXPECT_EQ(names, (std::multiset<std::string>{"main", "my__block_global", "other"}));
  EXPECT_FALSE(error);
}

}  // namespace
}  // namespace symlift::testing
