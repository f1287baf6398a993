#include <gtest/gtest.h>

#include "buildenv/task.h"

namespace symlift::buildenv {
namespace {

using Words = std::vector<std::string>;

Words parse(const std::string& text) { return SUPTask::parsedArgumentsFromString(text); }

TEST(TaskParsedArguments, BlanksQuotesAndEscapes) {
  EXPECT_EQ(parse(" \t\n "), Words{});
  EXPECT_EQ(parse("-F/a  -F\t/b\n-framework\r\nUIKit "), (Words{"-F/a", "-F", "/b", "-framework", "UIKit"}));
  EXPECT_EQ(parse("\"/My Frameworks\" '/Other Place' -F\"$(SRCROOT)/V L\"/x"),
            (Words{"/My Frameworks", "/Other Place", "-F$(SRCROOT)/V L/x"}));
  EXPECT_EQ(parse("a \"\" '' b"), (Words{"a", "", "", "b"}));
  EXPECT_EQ(parse("'it\"s' \"it's\""), (Words{"it\"s", "it's"}));
  EXPECT_EQ(parse("/My\\ Frameworks \\\"q\\\""), (Words{"/My Frameworks", "\"q\""}));
  EXPECT_EQ(parse("\"a\\\"b\\\\c\\d\" 'a\\ b'"), (Words{"a\"b\\c\\d", "a\\ b"}));
  EXPECT_EQ(parse("one\\\ntwo three end\\"), (Words{"onetwo", "three", "end\\"}));
  EXPECT_EQ(parse("a \"b c"), (Words{"a", "b c"}));  // an unterminated quote runs to the end
}

TEST(TaskOptionValues, JoinedAndSeparateForms) {
  Words words{"-F/a", "-F", "/b", "-framework", "UIKit", "-iframework", "/c", "-F"};
  EXPECT_EQ(SUPTask::valuesForOptionPrefixes(words, {"-F"}, true), (Words{"/a", "/b"}));
  EXPECT_EQ(SUPTask::valuesForOptionPrefixes(words, {"-F"}, false), (Words{"/a"}));
  EXPECT_EQ(SUPTask::valuesForOptionPrefixes(words, {"-F", "-iframework"}, true), (Words{"/a", "/b", "/c"}));
  // A value taken from the next word is not read as an option itself.
  EXPECT_EQ(SUPTask::valuesForOptionPrefixes({"-F", "-Fnot-an-option", "-F/x"}, {"-F"}, true),
            (Words{"-Fnot-an-option", "/x"}));
}

}  // namespace
}  // namespace symlift::buildenv
