#include "symbols/symbolication_proxy.h"

#include <dlfcn.h>
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
    symbols::setDefaultMaxCoreSymbolicationVersion(0.0f);
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

TEST_F(SymbolicationProxyTest, ReadsTheLeadingDecimalNumberOfAVersion) {
  EXPECT_FLOAT_EQ(SUPSymbolicationProxy::leadingVersionNumber("64570.35.1"), 64570.35f);
  EXPECT_FLOAT_EQ(SUPSymbolicationProxy::leadingVersionNumber("65000.2"), 65000.2f);
  EXPECT_FLOAT_EQ(SUPSymbolicationProxy::leadingVersionNumber("  12abc"), 12.0f);
  EXPECT_FLOAT_EQ(SUPSymbolicationProxy::leadingVersionNumber(".5"), 0.5f);
  EXPECT_FLOAT_EQ(SUPSymbolicationProxy::leadingVersionNumber("-3"), -3.0f);
  EXPECT_FLOAT_EQ(SUPSymbolicationProxy::leadingVersionNumber("1e3x"), 1000.0f);
  EXPECT_FLOAT_EQ(SUPSymbolicationProxy::leadingVersionNumber("version 5"), 0.0f);
  EXPECT_FLOAT_EQ(SUPSymbolicationProxy::leadingVersionNumber("."), 0.0f);
  EXPECT_FLOAT_EQ(SUPSymbolicationProxy::leadingVersionNumber(""), 0.0f);
}

TEST_F(SymbolicationProxyTest, FindsXcodeBundlesFolderByFolder) {
  std::string userXcode = addApplication("User/Xcode.app", "1");
  std::string betaXcode = addApplication("System/Xcode-beta.app", "1");
  std::string stableXcode = addApplication("System/Xcode.app", "1");
  addApplication("System/Other.app", "1", "com.example.other");
  apps_.write("System/NotABundle.app", "a file");
  EXPECT_EQ(SUPSymbolicationProxy::applicationPathsForBundleIdentifier("com.apple.dt.Xcode"),
            (std::vector<std::string>{betaXcode, stableXcode, userXcode}));
}

TEST_F(SymbolicationProxyTest, ChoosesTheNewestFrameworkWithinTheCap) {
  std::string older = addApplication("System/Xcode-a.app", "64000.1");
  std::string newer = addApplication("System/Xcode-b.app", "65000.2");
  addApplication("System/Xcode-c.app", "");  // no version.plist: skipped
  addApplication("System/Xcode-d.app", "not a number");
  apps_.write(std::string("System/Xcode-e.app/") + symbols::kCoreSymbolicationVersionPlist, "garbage");
  apps_.write("System/Xcode-e.app/Contents/Info.plist", infoPlist("com.apple.dt.Xcode"));

  EXPECT_EQ(SUPSymbolicationProxy::xcodePathWithMaxCSVersion(0.0f), newer);
  EXPECT_EQ(SUPSymbolicationProxy::xcodePathWithMaxCSVersion(64500.0f), older);
  EXPECT_EQ(SUPSymbolicationProxy::xcodePathWithMaxCSVersion(65000.2f), newer);
  EXPECT_EQ(SUPSymbolicationProxy::xcodePathWithMaxCSVersion(60000.0f), std::nullopt);

  // A cap equal to the process-wide default means "no cap".
  symbols::setDefaultMaxCoreSymbolicationVersion(64500.0f);
  EXPECT_EQ(SUPSymbolicationProxy::xcodePathWithMaxCSVersion(64500.0f), newer);
  EXPECT_EQ(SUPSymbolicationProxy::xcodePathWithMaxCSVersion(0.0f), std::nullopt);
}

TEST_F(SymbolicationProxyTest, EqualVersionsKeepTheFirstListedAndBinaryPlistsCount) {
  apps_.write("System/Xcode-a.app/Contents/Info.plist", infoPlist("com.apple.dt.Xcode"));
  apps_.write(std::string("System/Xcode-a.app/") + symbols::kCoreSymbolicationVersionPlist,
              binaryPlist("CFBundleVersion", "64570.35.1"));
  addApplication("System/Xcode-b.app", "64570.35");
  EXPECT_EQ(SUPSymbolicationProxy::xcodePathWithMaxCSVersion(0.0f), apps_.str() + "/System/Xcode-a.app");

  SUPSymbolicationProxy::setApplicationSearchFoldersForTesting(std::vector<std::string>{apps_.str() + "/none"});
  EXPECT_EQ(SUPSymbolicationProxy::xcodePathWithMaxCSVersion(0.0f), std::nullopt);
}

TEST_F(SymbolicationProxyTest, BindingStopsAtTheFirstMissingFunction) {
  void* partial = dlopen(SYMLIFT_STUB_WITHOUT_FIFTH, RTLD_LAZY);
  ASSERT_NE(partial, nullptr) << dlerror();
  SUPSymbolicationProxy::dynamicallyLoadCoreSymbolicationFunctionsFromHandle(partial);
  std::vector<bool> expected(symbols::kCoreSymbolicationFunctionCount, false);
  std::fill(expected.begin(), expected.begin() + 4, true);
  // Functions 6 to 25 exist in that library but are left unbound too.
  EXPECT_EQ(boundFlags(), expected);
  EXPECT_EQ(SUPSymbolicationProxy::boundFunction(0), dlsym(partial, "CSSymbolicatorForeachSymbolicatorWithPath"));

  SUPSymbolicationProxy::resetForTesting();
  void* complete = dlopen(SYMLIFT_STUB_COMPLETE, RTLD_LAZY);
  ASSERT_NE(complete, nullptr) << dlerror();
  SUPSymbolicationProxy::dynamicallyLoadCoreSymbolicationFunctionsFromHandle(complete);
  EXPECT_EQ(boundFlags(), std::vector<bool>(symbols::kCoreSymbolicationFunctionCount, true));
  EXPECT_EQ(SUPSymbolicationProxy::boundFunction(24), dlsym(complete, "CSSymbolicatorGetArchitecture"));
  EXPECT_EQ(SUPSymbolicationProxy::boundFunction(25), nullptr);
}

TEST_F(SymbolicationProxyTest, LoadsBothLibrariesFromTheChosenXcode) {
  std::string xcode = addApplication("System/Xcode.app", "65000.2");
  install(SYMLIFT_STUB_COMPLETE, xcode + "/" + symbols::kCoreSymbolicationLibrary);
  install(SYMLIFT_STUB_COMPLETE, xcode + "/" + symbols::kDebugSymbolsLibrary);
  // An older Xcode whose framework lacks functions must not be the one bound.
  std::string older = addApplication("System/Xcode-old.app", "64000.1");
  install(SYMLIFT_STUB_WITHOUT_FIFTH, older + "/" + symbols::kCoreSymbolicationLibrary);

  EXPECT_EQ(loadAndCaptureLog(0.0f), "");
  EXPECT_NE(SUPSymbolicationProxy::debugSymbolsHandle(), nullptr);
  EXPECT_NE(SUPSymbolicationProxy::coreSymbolicationHandle(), nullptr);
  EXPECT_EQ(boundFlags(), std::vector<bool>(symbols::kCoreSymbolicationFunctionCount, true));
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
}

}  // namespace
}  // namespace symlift::testing
