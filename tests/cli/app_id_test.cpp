#include "cli/app_id.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>

#include "console/console_log.h"
#include "support/test_support.h"

namespace symlift::cli {
namespace {

using symlift::testing::TempDir;

std::string redError(const std::string& message) { return "\x1b[31merror: " + message + "\x1b[0m\n"; }

const char* kXMLPlist =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\"><dict>\n"
    "<key>API_KEY</key><string>ignored</string>\n"
    "<key>OMVARA_APP_ID</key><string> 1:1234:ios:abcd </string>\n"
    "</dict></plist>\n";

std::string binaryPlistWithAppID(const char* appID) { return symlift::testing::binaryPlist("OMVARA_APP_ID", appID); }

class AppIDTest : public ::testing::Test {
 protected:
  void SetUp() override { console::SYLLogging::sharedInstance().setColorsEnabled(true); }

  // Runs f with standard output captured; keeps f's result in result_.
  template <typename F>
  std::string captured(F&& f) {
    ::testing::internal::CaptureStdout();
    result_ = f();
    std::fflush(stdout);
    return ::testing::internal::GetCapturedStdout();
  }

  ArgumentList args(std::vector<std::string> words) {
    words.insert(words.begin(), "symlift");
    return ArgumentList(std::move(words));
  }

  TempDir dir_;
  std::optional<std::string> result_;
};

TEST_F(AppIDTest, ServicePlistXMLAndBinaryValueUnchanged) {
  auto xml = dir_.write("xml/OmvaraService-Info.plist", kXMLPlist).string();
  EXPECT_EQ(captured([&] { return appIDFromServicePlist(xml); }), "");
  EXPECT_EQ(result_, " 1:1234:ios:abcd ");

  auto binary = dir_.write("bin/OmvaraService-Info.plist", binaryPlistWithAppID("1:99:mac:ff")).string();
  EXPECT_EQ(captured([&] { return appIDFromServicePlist(binary); }), "");
  EXPECT_EQ(result_, "1:99:mac:ff");
}

TEST_F(AppIDTest, ServicePlistFailures) {
  // Missing, unparsable, an array, and an empty dictionary all count as unreadable.
  auto missing = (dir_.path() / "missing.plist").string();
  auto garbage = dir_.write("garbage.plist", "not a plist at all {").string();
  auto array = dir_.write("array.plist", "<plist version=\"1.0\"><array><string>x</string></array></plist>").string();
  auto empty = dir_.write("empty.plist", "<plist version=\"1.0\"><dict/></plist>").string();
  for (const auto& path : {missing, garbage, array, empty, dir_.str()}) {
    EXPECT_EQ(captured([&] { return appIDFromServicePlist(path); }),
              redError("Unable to read Omvara Service plist at path " + path));
    EXPECT_EQ(result_, std::nullopt);
  }
}

TEST_F(AppIDTest, ServicePlistEmptyValuePassesSilently) {
  auto path = dir_.write("p.plist", binaryPlistWithAppID("")).string();
  EXPECT_EQ(captured([&] { return appIDFromServicePlist(path); }), "");
  EXPECT_EQ(result_, "");
}

TEST_F(AppIDTest, BuildEnvironmentPlistInBuiltProducts) {
  dir_.write("Products/App.app/OmvaraService-Info.plist", kXMLPlist);
  buildenv::Environment environment{{"BUILT_PRODUCTS_DIR", (dir_.path() / "Products").string()},
                                    {"UNLOCALIZED_RESOURCES_FOLDER_PATH", "App.app"}};
  EXPECT_EQ(captured([&] { return appIDFromBuildEnvironment(environment); }), "");
  EXPECT_EQ(result_, " 1:1234:ios:abcd ");

  // Each missing piece gives nothing, without a message of its own.
  for (const char* name : {"BUILT_PRODUCTS_DIR", "UNLOCALIZED_RESOURCES_FOLDER_PATH"}) {
    auto partial = environment;
    partial.erase(name);
    EXPECT_EQ(captured([&] { return appIDFromBuildEnvironment(partial); }), "") << name;
    EXPECT_EQ(result_, std::nullopt) << name;
  }
  auto elsewhere = environment;
  elsewhere["UNLOCALIZED_RESOURCES_FOLDER_PATH"] = "Other.app";
  EXPECT_EQ(captured([&] { return appIDFromBuildEnvironment(elsewhere); }), "");
  EXPECT_EQ(result_, std::nullopt);
}

TEST_F(AppIDTest, LumoFileValueIsTrimmed) {
  auto path = dir_.write("LumoAppIDFile.vexa", "{\"OTHER\": 1, \"OMVARA_APP_ID\": \"  1:5:ios:77\\r\\n\"}").string();
  EXPECT_EQ(captured([&] { return appIDFromLumoProject(path); }), "");
  EXPECT_EQ(result_, "1:5:ios:77");

  auto blank = dir_.write("blank.json", "{\"OMVARA_APP_ID\": \" \\t\\n \"}").string();
  EXPECT_EQ(captured([&] { return appIDFromLumoProject(blank); }), "");
  EXPECT_EQ(result_, "");
}

TEST_F(AppIDTest, LumoFileFailures) {
  for (const char* text : {"[\"OMVARA_APP_ID\"]", "{\"OMVARA_APP_ID\": ", "\"1:2:ios:3\"", ""}) {
    auto path = dir_.write("bad.json", text).string();
    EXPECT_EQ(captured([&] { return appIDFromLumoProject(path); }),
              redError("Unable to create json from file at path " + path))
        << text;
    EXPECT_EQ(result_, std::nullopt);
  }
  for (const char* text : {"{}", "{\"OMVARA_APP_ID\": 12}", "{\"omvara_app_id\": \"x\"}"}) {
    auto path = dir_.write("nokey.json", text).string();
    EXPECT_EQ(captured([&] { return appIDFromLumoProject(path); }),
              redError("Unable to read valid app ID from path " + path))
        << text;
    EXPECT_EQ(result_, std::nullopt);
  }
}

// Nesting past the cap reads as invalid JSON; a FIFO or device as unreadable.
TEST_F(AppIDTest, LumoFileTooDeepOrNotRegular) {
  const std::string deep = dir_.write("deep.json", "{\"a\":" + std::string(300, '[') + std::string(300, ']') + "}").string();
  EXPECT_EQ(captured([&] { return appIDFromLumoProject(deep); }),
            redError("Unable to create json from file at path " + deep));
  EXPECT_EQ(result_, std::nullopt);
  const std::string fifo = (dir_.path() / "fifo.json").string();
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& path : {fifo, std::string("/dev/zero")}) {
    EXPECT_EQ(captured([&] { return appIDFromLumoProject(path); }), redError("Unable to read file at path " + path));
    EXPECT_EQ(result_, std::nullopt);
  }
}

TEST_F(AppIDTest, FirstOptionGivenDecides) {
  auto plist = dir_.write("named.plist", binaryPlistWithAppID("from-named")).string();
  auto lumo = dir_.write("lumo.json", "{\"OMVARA_APP_ID\": \"from-lumo\"}").string();
  dir_.write("Products/Res/OmvaraService-Info.plist", binaryPlistWithAppID("from-products"));
  buildenv::Environment environment{{"BUILT_PRODUCTS_DIR", (dir_.path() / "Products").string()},
                                    {"UNLOCALIZED_RESOURCES_FOLDER_PATH", "Res"}};
  auto missing = (dir_.path() / "missing.plist").string();

  // -ai wins even over a plist that cannot be read, which is then not read.
  EXPECT_EQ(captured([&] { return resolveAppID(args({"-osp", missing, "--app-id", "X", "-bp"}), environment); }), "");
  EXPECT_EQ(result_, "X");
  // An explicit plist beats the one in the built products.
  EXPECT_EQ(captured([&] { return resolveAppID(args({"-bp", "-lp", lumo, "-omvara-service-plist", plist}), environment); }), "");
  EXPECT_EQ(result_, "from-named");
  EXPECT_EQ(captured([&] { return resolveAppID(args({"-lp", lumo, "--bp"}), environment); }), "");
  EXPECT_EQ(result_, "from-products");
  EXPECT_EQ(captured([&] { return resolveAppID(args({"--lumo-project", lumo}), environment); }), "");
  EXPECT_EQ(result_, "from-lumo");
}

TEST_F(AppIDTest, ChosenSourceFailingIsFinal) {
  auto lumo = dir_.write("lumo.json", "{\"OMVARA_APP_ID\": \"from-lumo\"}").string();
  buildenv::Environment noResources{{"BUILT_PRODUCTS_DIR", dir_.str()}};

  EXPECT_EQ(captured([&] { return resolveAppID(args({"-bp", "-lp", lumo}), noResources); }),
            redError("Could not get OMVARA_APP_ID in Omvara Services file from build environment"));
  EXPECT_EQ(result_, std::nullopt);
  auto missing = (dir_.path() / "missing.plist").string();
  EXPECT_EQ(captured([&] { return resolveAppID(args({"-lp", lumo, "-osp", missing}), std::nullopt); }),
            redError("Unable to read Omvara Service plist at path " + missing));
  EXPECT_EQ(result_, std::nullopt);
}

TEST(TrimTest, WhiteSpaceAndLineBreaksAtBothEndsOnly) {
  EXPECT_EQ(trimWhitespaceAndNewlines(" \t\r\n\v\fa b\n\t "), "a b");
  // No-break, ideographic and line-separator spaces count; a zero-width space does not.
  EXPECT_EQ(trimWhitespaceAndNewlines("\xC2\xA0\xE3\x80\x80id\xE2\x80\xA8\xC2\x85"), "id");
  EXPECT_EQ(trimWhitespaceAndNewlines("id\xE2\x80\x8B"), "id\xE2\x80\x8B");
  // A multi-byte letter at the end is not mistaken for a space.
  EXPECT_EQ(trimWhitespaceAndNewlines("caf\xC3\xA9 "), "caf\xC3\xA9");
  EXPECT_EQ(trimWhitespaceAndNewlines(" \n "), "");
  EXPECT_EQ(trimWhitespaceAndNewlines(""), "");
}

}  // namespace
}  // namespace symlift::cli
