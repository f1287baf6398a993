#include "network/url_builder.h"

#include <gtest/gtest.h>

#include <functional>

#include "support/test_support.h"

namespace symlift::network {
namespace {

// Values are escaped, names are not; the first parameter comes after "?",
// every later one after "&"; an empty component is refused with one error
// line each, and no value at all adds nothing.
TEST(URLBuilderTest, QueryParametersAreNumberedAndEscaped) {
  struct Case {
    const char* base;
    std::function<void(SUPURLBuilder&)> append;
    std::string expected;
    std::uint64_t count;
    std::size_t errorLines;
    bool parses;
  };
  const Case cases[] = {
      {"https://api.vantrel.example/v1/apps",
       [](SUPURLBuilder& b) {
         b.appendValueForQueryParam(42, "build");
         b.appendValueForQueryParam(std::optional<std::string>("a b"), "label");
         b.appendValueForQueryParam(1.5, "ratio");
       },
       "https://api.vantrel.example/v1/apps?build=42&label=a%20b&ratio=1.5", 3, 0, true},
      {"https://x.example/p",
       [](SUPURLBuilder& b) {
         b.appendValueForQueryParam(std::optional<std::string>(), "skipped");
         b.appendValueForQueryParam(static_cast<const char*>(nullptr), "skipped");
         b.appendValueForQueryParam("v", "first");
       },
       "https://x.example/p?first=v", 1, 0, true},
      {"https://x.example/p?fixed=1", [](SUPURLBuilder& b) { b.appendValueForQueryParam("2", "n"); },
       "https://x.example/p?fixed=1?n=2", 1, 0, true},
      {"", [](SUPURLBuilder&) {}, "", 0, 1, false},
      {"https://x.example/",
       [](SUPURLBuilder& b) {
         b.appendValueForQueryParam("", "empty");
         b.appendValueForQueryParam("v", "");
       },
       "https://x.example/?empty=&=v", 2, 2, true},
      {"http://exa mple.com/", [](SUPURLBuilder&) {}, "http://exa mple.com/", 0, 0, false},
  };
  for (const Case& c : cases) {
    ::testing::internal::CaptureStdout();
    SUPURLBuilder builder = SUPURLBuilder::URLWithBase(c.base);
    c.append(builder);
    std::string output = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(builder.URLString(), c.expected);
    EXPECT_EQ(builder.queryParams(), c.count) << c.expected;
    EXPECT_EQ(symlift::testing::countOccurrences(output, "URLBuilder parameter component must not be empty"),
              c.errorLines)
        << output;
    EXPECT_EQ(symlift::testing::countOccurrences(output, "error: "), c.errorLines) << output;
    EXPECT_EQ(builder.URL(), c.parses ? std::optional<std::string>(c.expected) : std::nullopt) << c.expected;
  }
}

}  // namespace
}  // namespace symlift::network
