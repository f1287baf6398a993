#include "symbols/symbolication_proxy.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <regex>

#include "support/test_support.h"

namespace symlift::testing {
namespace {

namespace fs = std::filesystem;
using symbols::SUPSymbolicationProxy;

std::string infoPlist(const std::string& identifier) {
  return xmlPlist("<key>CFBundleIdentifier</key><string>" + identifier + "</string>");
}

class SymbolicationProxyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SUPSymbolicationProxy::resetForTesting();
    SUPSymbolicationProxy::setApplicationSearchFoldersForTesting(
        std::vector<std::string>{apps_.str() + "/System", apps_.str() + "/User"});
  }
  void TearDown() override {
    SUPSymbolicationProxy::setApplicationSearchFoldersForTesting(std::nullopt);
    SUPSymbolicationProxy::resetForTesting();
  }

  // An application bundle; with a framework version unless it is empty.
  std::string addApplication(const std::string& relative, const std::string& version,
                             const std::string& identifier = "com.apple.dt.Xcode") {
    apps_.write(relative + "/Contents/Info.plist", infoPlist(identifier));
    if (!version.empty())
      apps_.write(relative + "/" + symbols::kCoreSymbolicationVersionPlist,
                  xmlPlist("<key>CFBundleVersion</key><string>" + version + "</string>"));
    return apps_.str() + "/" + relative;
  }

  static void install(const char* library, const std::string& destination) {
    fs::create_directories(fs::path(destination).parent_path());
    fs::copy_file(library, destination, fs::copy_options::overwrite_existing);
  }

  static std::vector<bool> boundFlags() {
    std::vector<bool> flags;
    for (std::size_t i = 0; i < symbols::kCoreSymbolicationFunctionCount; ++i)
      flags.push_back(SUPSymbolicationProxy::boundFunction(i) != nullptr);
    return flags;
  }

  // What the system log wrote while loading with maxVersion.
  static std::string loadAndCaptureLog(float maxVersion) {
    ::testing::internal::CaptureStderr();
    SUPSymbolicationProxy::dynamicallyLoadLatestCoreSymbolication(maxVersion);
    return ::testing::internal::GetCapturedStderr();
  }

  TempDir apps_;
};

TEST_F(SymbolicationProxyTest, ChoosesTheXcodeWithTheNewestFrameworkWithinTheCap) {
  // Found folder by folder, by name within a folder; other bundles and plain files are not Xcode.
  std::string user = addApplication("User/Xcode.app", "64000.1");
  std::string beta = addApplication("System/Xcode-b.app", "65000.2");
  std::string older = addApplication("System/Xcode-a.app", "64000.1");
  addApplication("System/Xcode-c.app", "");  // no version.plist: skipped
  addApplication("System/Xcode-d.app", "not a number");
  addApplication("System/Other.app", "99999", "com.example.other");
  apps_.write("System/NotABundle.app", "a file");
  apps_.write(std::string("System/Xcode-e.app/") + symbols::kCoreSymbolicationVersionPlist, "garbage");
  apps_.write("System/Xcode-e.app/Contents/Info.plist", infoPlist("com.apple.dt.Xcode"));
  EXPECT_EQ(SUPSymbolicationProxy::applicationPathsForBundleIdentifier("com.apple.dt.Xcode"),
            (std::vector<std::string>{older, beta, apps_.str() + "/System/Xcode-c.app",
                                      apps_.str() + "/System/Xcode-d.app", apps_.str() + "/System/Xcode-e.app", user}));
  // Of equal versions the first listed wins.
  const std::pair<float, std::optional<std::string>> caps[] = {
      {symbols::kDefaultMaxCoreSymbolicationVersion, beta},  // the default: no cap
      {64500.0f, older},
      {65000.2f, beta},
      {60000.0f, std::nullopt}};
  for (const auto& [cap, chosen] : caps) EXPECT_EQ(SUPSymbolicationProxy::xcodePathWithMaxCSVersion(cap), chosen) << cap;
  // A binary version.plist counts as well.
  apps_.write(std::string("System/Xcode-b.app/") + symbols::kCoreSymbolicationVersionPlist,
              binaryPlist("CFBundleVersion", "63000"));
  EXPECT_EQ(SUPSymbolicationProxy::xcodePathWithMaxCSVersion(64500.0f), older);
}

TEST_F(SymbolicationProxyTest, ReportsEachLoadingFailureToTheSystemLog) {
  const std::string prefix = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \S+\[)" + std::to_string(getpid()) + R"(\] )";
  std::string xcode = addApplication("System/Xcode.app", "64000.1");

  // No Xcode within the cap.
  EXPECT_TRUE(std::regex_match(loadAndCaptureLog(60000.0f),
                               std::regex(prefix + "Path to CoreSymbolication is invalid, aborting\n")));
  EXPECT_EQ(SUPSymbolicationProxy::coreSymbolicationHandle(), nullptr);

  // Neither library present.
  EXPECT_TRUE(std::regex_match(loadAndCaptureLog(0.0f),
                               std::regex(prefix + "Unable to load DebugSymbols, continuing anyways\n" + prefix +
                                          "Unable to load CoreSymbolication, aborting\n")));
  EXPECT_EQ(boundFlags(), std::vector<bool>(symbols::kCoreSymbolicationFunctionCount, false));

  // Without DebugSymbols the framework is still loaded and bound.
  install(SYMLIFT_STUB_COMPLETE, xcode + "/" + symbols::kCoreSymbolicationLibrary);
  EXPECT_TRUE(std::regex_match(loadAndCaptureLog(0.0f),
                               std::regex(prefix + "Unable to load DebugSymbols, continuing anyways\n")));
  EXPECT_EQ(SUPSymbolicationProxy::debugSymbolsHandle(), nullptr);
  EXPECT_EQ(boundFlags(), std::vector<bool>(symbols::kCoreSymbolicationFunctionCount, true));

  // Both libraries: nothing to report.
  install(SYMLIFT_STUB_COMPLETE, xcode + "/" + symbols::kDebugSymbolsLibrary);
  EXPECT_EQ(loadAndCaptureLog(0.0f), "");
  EXPECT_NE(SUPSymbolicationProxy::debugSymbolsHandle(), nullptr);
}

}  // namespace
}  // namespace symlift::testing
