#include "symbols/csym_generator.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <set>

#include "support/test_support.h"
#include "symbols/fake_symbolication_provider.h"
#include "symbols/symbol_processor.h"

namespace symlift::testing {
namespace {

namespace fs = std::filesystem;
using symbols::CSYMGenerator;
using symbols::SUPCSYMGeneratorUtilities;
using symbols::SUPSymbolProcessor;

class CSYMGeneratorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SUPSymbolProcessor::setSymbolicationProviderForTesting(provider_);
    if (const char* old = getenv("TMPDIR")) savedTmp_ = old;
    setenv("TMPDIR", tmp_.str().c_str(), 1);
  }
  void TearDown() override {
    SUPSymbolProcessor::setSymbolicationProviderForTesting(nullptr);
    if (savedTmp_)
      setenv("TMPDIR", savedTmp_->c_str(), 1);
    else
      unsetenv("TMPDIR");
  }

  std::set<std::string> filesInTmp() const {
    std::set<std::string> names;
    // Folders are other tests' temporary folders, not output.
    for (const auto& entry : fs::directory_iterator(tmp_.path()))
      if (!entry.is_directory()) names.insert(entry.path().filename().string());
    return names;
  }

  // The cSYM text the processor produces for each slice, by architecture.
  std::map<std::string, std::string> textsByArchitecture(const std::string& path) {
    std::map<std::string, std::string> texts;
    SUPSymbolProcessor::enumerateFormattedDataVersion(
        1, path, [&](std::uint64_t, const std::optional<std::string>&, const std::string& arch,
                     const std::string& data, const support::ErrorPtr&) { texts[arch] = data; });
    return texts;
  }

  std::shared_ptr<FakeProvider> provider_ = std::make_shared<FakeProvider>();
  TempDir tmp_;
  std::optional<std::string> savedTmp_;
};

const std::string kUuidA = "3f5061728394a5b6c7d8e9fa0b1c2d3e";  // makeUUID(0x3f)
const std::string kUuidB = "a0b1c2d3e4f5061728394a5b6c7d8e9f";  // makeUUID(0xa0)

TEST_F(CSYMGeneratorTest, NamesFilesByArchitectureAndUUIDInTheTemporaryDirectory) {
  EXPECT_EQ(SUPCSYMGeneratorUtilities::csymPathForArchitecture("arm64", kUuidA, "/any/App.dSYM"),
            tmp_.str() + "/arm64-" + kUuidA + ".csym");
  // The dSYM path plays no part in the name.
  EXPECT_EQ(SUPCSYMGeneratorUtilities::csymPathForArchitecture("arm64", kUuidA, "/other"),
            SUPCSYMGeneratorUtilities::csymPathForArchitecture("arm64", kUuidA, "/any/App.dSYM"));

  setenv("TMPDIR", (tmp_.str() + "/").c_str(), 1);
  EXPECT_EQ(SUPCSYMGeneratorUtilities::csymPathForArchitecture("x86_64", kUuidB, ""),
            tmp_.str() + "/x86_64-" + kUuidB + ".csym");
  unsetenv("TMPDIR");
  EXPECT_EQ(SUPCSYMGeneratorUtilities::csymPathForArchitecture("x86_64", kUuidB, ""),
            "/tmp/x86_64-" + kUuidB + ".csym");
}

TEST_F(CSYMGeneratorTest, FatFileGivesOneFilePerSliceAndRerunsReplaceThem) {
  provider_->files["/in/App"] = {slice(kArm64, {cSymbol("f", 0x100000000, 4, {{"/s/a.c", 1, 0x100000000, 4}})}),
                                 slice(kX86_64, {cSymbol("g", 0x100000000, 8)}, makeUUID(0xa0))};
  const std::string armFile = "arm64-" + kUuidA + ".csym";
  const std::string intelFile = "x86_64-" + kUuidB + ".csym";
  tmp_.write(armFile, "stale contents from an earlier run that were longer than the new text");

  auto written = CSYMGenerator::generateCSYMsFromDSYMAtPath("/in/App", 0.0f);
  EXPECT_EQ(written, (std::map<std::string, std::string>{{kUuidA, "arm64"}, {kUuidB, "x86_64"}}));
  EXPECT_EQ(filesInTmp(), (std::set<std::string>{armFile, intelFile}));
  auto texts = textsByArchitecture("/in/App");
  EXPECT_EQ(readFile(tmp_.path() / armFile), texts["arm64"]);
  EXPECT_EQ(readFile(tmp_.path() / intelFile), texts["x86_64"]);

  // A second run over changed input rewrites the same two files.
  provider_->files["/in/App"][1].owners[0].symbols.push_back(cSymbol("h", 0x100000010, 8));
  EXPECT_EQ(CSYMGenerator::generateCSYMsFromDSYMAtPath("/in/App"), written);
  EXPECT_EQ(filesInTmp(), (std::set<std::string>{armFile, intelFile}));
  EXPECT_NE(readFile(tmp_.path() / intelFile).find("symbols\t2\ng\nh\n"), std::string::npos);
}

TEST_F(CSYMGeneratorTest, SliceWithoutUUIDIsLeftOutSilently) {
  provider_->files["/in/App"] = {slice(kArm64, {cSymbol("f", 0x100000000, 4)}, std::nullopt),
                                 slice(kX86_64, {}, makeUUID(0xa0))};
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  auto written = CSYMGenerator::generateCSYMsFromDSYMAtPath("/in/App", 0.0f);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(written, (std::map<std::string, std::string>{{kUuidB, "x86_64"}}));
  EXPECT_EQ(filesInTmp(), (std::set<std::string>{"x86_64-" + kUuidB + ".csym"}));
}

TEST_F(CSYMGeneratorTest, SlicesSharingAUUIDGiveTwoFilesButOneEntry) {
  provider_->files["/in/App"] = {slice(kArm64, {}), slice(kArm64e, {})};
  auto written = CSYMGenerator::generateCSYMsFromDSYMAtPath("/in/App", 0.0f);
  EXPECT_EQ(written, (std::map<std::string, std::string>{{kUuidA, "arm64e"}}));
  EXPECT_EQ(filesInTmp(), (std::set<std::string>{"arm64-" + kUuidA + ".csym", "arm64e-" + kUuidA + ".csym"}));
}

TEST_F(CSYMGeneratorTest, NothingReadableOrWritableGivesAnEmptyResult) {
  EXPECT_TRUE(CSYMGenerator::generateCSYMsFromDSYMAtPath("/in/missing", 0.0f).empty());

  TempDir inputs;
  fs::create_directories(inputs.path() / "Empty.dSYM/Contents/Resources/DWARF");
  EXPECT_TRUE(CSYMGenerator::generateCSYMsFromDSYMAtPath(inputs.str() + "/Empty.dSYM", 0.0f).empty());
  EXPECT_TRUE(filesInTmp().empty());

  // A temporary directory that does not exist: the slice is simply missing.
  provider_->files["/in/App"] = {slice(kArm64, {})};
  setenv("TMPDIR", (tmp_.str() + "/gone").c_str(), 1);
  EXPECT_TRUE(CSYMGenerator::generateCSYMsFromDSYMAtPath("/in/App", 0.0f).empty());
  EXPECT_TRUE(filesInTmp().empty());
}

}  // namespace
}  // namespace symlift::testing
