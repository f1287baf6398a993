#include <gtest/gtest.h>

#include "buildenv/task.h"

namespace symlift::buildenv {
namespace {

using Words = std::vector<std::string>;

Words parse(const std::string& text) { return SUPTask::parsedArgumentsFromString(text); }

TEST(TaskParsedArguments, BlanksAndLineBreaksSeparate) {
  EXPECT_EQ(parse(""), Words{});
  EXPECT_EQ(parse(" \t\n "), Words{});
  EXPECT_EQ(parse("-F/a  -F\t/b\n-framework\r\nUIKit "), (Words{"-F/a", "-F", "/b", "-framework", "UIKit"}));
}

TEST(TaskParsedArguments, QuotesGroupAndMayBeEmpty) {
  EXPECT_EQ(parse("\"/My Frameworks\" '/Other Place'"), (Words{"/My Frameworks", "/Other Place"}));
  EXPECT_EQ(parse("-F\"$(SRCROOT)/Vendor Libs\"/x"), (Words{"-F$(SRCROOT)/Vendor Libs/x"}));
  EXPECT_EQ(parse("a \"\" '' b"), (Words{"a", "", "", "b"}));
  EXPECT_EQ(parse("'it\"s' \"it's\""), (Words{"it\"s", "it's"}));
}

TEST(TaskParsedArguments, BackslashEscapes) {
  EXPECT_EQ(parse("/My\\ Frameworks next"), (Words{"/My Frameworks", "next"}));
  EXPECT_EQ(parse("\\\"quoted\\\""), (Words{"\"quoted\""}));
  // Inside double quotes only a few characters are escapable.
  EXPECT_EQ(parse("\"a\\\"b\\\\c\\d\""), (Words{"a\"b\\c\\d"}));
  // Single quotes take everything literally.
  EXPECT_EQ(parse("'a\\ b'"), (Words{"a\\ b"}));
  // A backslash before a line break continues the word on the next line.
  EXPECT_EQ(parse("one\\\ntwo three"), (Words{"onetwo", "three"}));
  EXPECT_EQ(parse("end\\"), (Words{"end\\"}));
}

TEST(TaskParsedArguments, UnterminatedQuoteRunsToTheEnd) {
  EXPECT_EQ(parse("a \"b c"), (Words{"a", "b c"}));
  EXPECT_EQ(parse("a 'b c"), (Words{"a", "b c"}));
}

TEST(TaskOptionValues, JoinedAndSeparateForms) {
  Words words{"-F/a", "-F", "/b", "-framework", "UIKit", "-iframework", "/c", "-F"};
  EXPECT_EQ(SUPTask::valuesForOptionPrefixes(words, {"-F"}, true), (Words{"/a", "/b"}));
  EXPECT_EQ(SUPTask::valuesForOptionPrefixes(words, {"-F"}, false), (Words{"/a"}));
  EXPECT_EQ(SUPTask::valuesForOptionPrefixes(words, {"-F", "-iframework"}, true), (Words{"/a", "/b", "/c"}));
  // "-framework" starts with neither prefix and is not a value.
  EXPECT_EQ(SUPTask::valuesForOptionPrefixes(words, {"-f"}, true), (Words{"ramework"}));
  EXPECT_EQ(SUPTask::valuesForOptionPrefixes(words, {}, true), Words{});
}

TEST(TaskOptionValues, ConsumedValueIsNotReadAsAnOption) {
  Words words{"-F", "-Fnot-an-option", "-F/x"};
  EXPECT_EQ(SUPTask::valuesForOptionPrefixes(words, {"-F"}, true), (Words{"-Fnot-an-option", "/x"}));
}

}  // namespace
}  // namespace symlift::buildenv
