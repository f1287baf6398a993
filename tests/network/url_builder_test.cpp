#include "network/url_builder.h"

#include <gtest/gtest.h>

#include "console/console_log.h"
#include "support/test_support.h"

namespace symlift::network {
namespace {

constexpr const char* kEmptyComponentLine = "URLBuilder parameter component must not be empty";

TEST(URLBuilderTest, NumbersParametersAndEscapesValues) {
  auto builder = SUPURLBuilder::URLWithBase("https://api.vantrel.example/v1/apps");
  builder.appendValueForQueryParam(42, "build");
  builder.appendValueForQueryParam(std::optional<std::string>("a b"), "label");
  builder.appendValueForQueryParam(1.5, "ratio");
  EXPECT_EQ(builder.URLString(), "https://api.vantrel.example/v1/apps?build=42&label=a%20b&ratio=1.5");
  EXPECT_EQ(builder.queryParams(), 3u);
  EXPECT_EQ(builder.URL(), builder.URLString());
}

TEST(URLBuilderTest, EscapingSet) {
  // The query-allowed marks stay, so "&", "=", "?" and "+" change the query.
  EXPECT_EQ(SUPURLBuilder::escapeString("a&b=c?d+e/f:g;h@i!$'()*,-._~"), "a&b=c?d+e/f:g;h@i!$'()*,-._~");
  EXPECT_EQ(SUPURLBuilder::escapeString("a b#c%d\"e<f>g[h]i{j}k|l\\m^n`"),
            "a%20b%23c%25d%22e%3Cf%3Eg%5Bh%5Di%7Bj%7Dk%7Cl%5Cm%5En%60");
  EXPECT_EQ(SUPURLBuilder::escapeString("caf\xC3\xA9\n"), "caf%C3%A9%0A");
}

TEST(URLBuilderTest, AbsentValueLeavesStringAndCounterAlone) {
  SUPURLBuilder builder = SUPURLBuilder::URLWithBase("https://x.example/p");
  builder.appendValueForQueryParam(std::optional<std::string>(), "skipped");
  builder.appendValueForQueryParam(static_cast<const char*>(nullptr), "skipped");
  EXPECT_EQ(builder.URLString(), "https://x.example/p");
  EXPECT_EQ(builder.queryParams(), 0u);
  builder.appendValueForQueryParam("v", "first");
  EXPECT_EQ(builder.URLString(), "https://x.example/p?first=v");
}

TEST(URLBuilderTest, BaseWithQueryStillGetsQuestionMarkFirst) {
  SUPURLBuilder builder = SUPURLBuilder::URLWithBase("https://x.example/p?fixed=1");
  builder.appendValueForQueryParam("2", "n");
  EXPECT_EQ(builder.URLString(), "https://x.example/p?fixed=1?n=2");
}

TEST(URLBuilderTest, EmptyComponentsAreRefusedWithOneErrorLineEach) {
  ::testing::internal::CaptureStdout();
  SUPURLBuilder builder = SUPURLBuilder::URLWithBase("");
  std::string output = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(builder.URLString(), "");
  EXPECT_EQ(symlift::testing::countOccurrences(output, kEmptyComponentLine), 1u);
  EXPECT_NE(output.find("error: "), std::string::npos);

  builder.setURLString("https://x.example/");
  ::testing::internal::CaptureStdout();
  builder.appendValueForQueryParam("", "empty");
  output = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(builder.URLString(), "https://x.example/?empty=");
  EXPECT_EQ(builder.queryParams(), 1u);
  EXPECT_EQ(symlift::testing::countOccurrences(output, kEmptyComponentLine), 1u);

  ::testing::internal::CaptureStdout();
  builder.appendValueForQueryParam("v", "");
  output = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(builder.URLString(), "https://x.example/?empty=&=v");
  EXPECT_EQ(symlift::testing::countOccurrences(output, kEmptyComponentLine), 1u);
}

TEST(URLBuilderTest, URLIsNothingForUnparsableText) {
  SUPURLBuilder builder;
  builder.setURLString("http://exa mple.com/");
  EXPECT_FALSE(builder.URL());
  builder.setURLString("https://x.example/p?q=a%20b");
  EXPECT_EQ(builder.URL(), "https://x.example/p?q=a%20b");
}

}  // namespace
}  // namespace symlift::network
