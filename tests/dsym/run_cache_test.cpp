// One run's SymbolFileCache: whether the validator reads a DWARF file before
// the conversion (a build phase) or after it (a run by hand), the file is
// mapped once (the dSYM model shares that mapping) and decoded once, and the
// validator and the conversion answer as they would on their own.

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>

#include "dispatch/thread_pool.h"
#include "dsym/code_mapping.h"
#include "dsym/dsym_validator.h"
#include "support/captured_output.h"
#include "support/diagnostics.h"
#include "support/scoped_environment.h"
#include "support/test_support.h"
#include "symbols/csym_generator.h"

namespace symlift::dsym {
namespace {

namespace fs = std::filesystem;
using symlift::testing::fixturesDir;
using symlift::testing::TempDir;

TEST(RunCache, EachDWARFFileIsMappedAndDecodedOnceWhicheverStepReadsItFirst) {
  TempDir dir, tmp;
  symlift::testing::ScopedEnvironment tmpdir("TMPDIR", tmp.str());
  const fs::path folder = dir.path() / "Build";
  for (const char* name : {"FatApp", "Hello"}) {
    fs::create_directories(folder / (std::string(name) + ".dSYM/Contents/Resources/DWARF"));
    fs::copy_file(fixturesDir() / (std::string(name) + ".dSYM/Contents/Info.plist"),
                  folder / (std::string(name) + ".dSYM/Contents/Info.plist"));
    fs::copy_file(fixturesDir() / (std::string(name) + ".dSYM/Contents/Resources/DWARF") / name,
                  folder / (std::string(name) + ".dSYM/Contents/Resources/DWARF") / name);
  }
  // A stripped dSYM, which the validator warns about.
  fs::create_directories(folder / "Stripped.dSYM/Contents/Resources/DWARF");
  fs::copy_file(fixturesDir() / "edge/thin-arm64", folder / "Stripped.dSYM/Contents/Resources/DWARF/Stripped");
  const std::vector<std::string> names{"FatApp", "Hello", "Stripped"};

  using Texts = std::map<std::string, std::string>;  // cSYM path → text
  auto convert = [&](symbols::SymbolFileCache* cache, Texts& texts) {
    for (const std::string& name : names) {
      const fs::path bundle = folder / (name + ".dSYM");
      const fs::path dwarf = bundle / "Contents/Resources/DWARF" / name;
      if (cache) {
        // Path expansion's model of the bundle, then the conversion, which
        // spells the path another way.
        auto file = SUPDSYMFile::initWithDWARFURL(dwarf, bundle, *cache);
        ASSERT_TRUE(file && file->dsym()->binary());
        EXPECT_FALSE(file->dsym()->binary()->slices().empty());
      }
      const std::string spelled = (folder / "." / (name + ".dSYM/Contents//Resources/DWARF") / name).string();
      symbols::CSYMGenerator::SliceHandler keep;
      keep.written = [&](const std::string& path, const std::string& text) { texts[path] = text; };
      auto written = cache ? symbols::CSYMGenerator::generateCSYMsFromDSYMAtPath(spelled, 0.0f, keep, *cache)
                           : symbols::CSYMGenerator::generateCSYMsFromDSYMAtPath(spelled, 0.0f, keep);
      EXPECT_FALSE(written.empty()) << name;
    }
  };
  auto validate = [&](symbols::SymbolFileCache* cache) {
    return symlift::testing::consoleOutput(console::kLogLevelInfo, [&] {
      if (cache) DSYMValidator::validateDSYMs({folder.string()}, *cache);
      else DSYMValidator::validateDSYMs({folder.string()});
    });
  };
  Texts alone;
  convert(nullptr, alone);
  const std::string warnings = validate(nullptr);
  ASSERT_EQ(alone.size(), 4u);  // two slices of FatApp, one each of the others
  ASSERT_NE(warnings.find("without any symbols at path: " + (folder / "Stripped.dSYM").string()), std::string::npos);

  for (bool validatorFirst : {true, false}) {
    SCOPED_TRACE(validatorFirst ? "validator first" : "conversion first");
    dispatch::ThreadPool pool;
    support::DiscardingDiagnosticsSink sink;
    symbols::SymbolFileCache cache(pool, sink);
    Texts texts;
    std::string said;
    if (validatorFirst) said = validate(&cache);
    convert(&cache, texts);
    if (!validatorFirst) said = validate(&cache);
    EXPECT_EQ(said, warnings);
    EXPECT_TRUE(texts == alone);
    EXPECT_EQ(cache.mappingsMade(), names.size());
    EXPECT_EQ(cache.decodesMade(), names.size());
  }
}

}  // namespace
}  // namespace symlift::dsym
