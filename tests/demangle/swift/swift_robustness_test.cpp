// Names that must yield nothing: truncated, out-of-range substitutions,
// absurd lengths and nesting. None may crash (the sanitizer build runs these).

#include <gtest/gtest.h>

#include <string>

#include "demangle/swift/swift_demangler.h"

namespace symlift::demangle::swift {
namespace {

TEST(SwiftRobustness, BadNamesYieldNothing) {
  const std::string deep = "$s" + std::string(5000, 'S') + "i";
  const std::string nested = "$s" + std::string(3000, 'y') + std::string(3000, 't');
  const char* names[] = {
      "$s",          "_$s4main",   "$s4mainC",        "$s999999999999main", "$s4ma",   "$sAZ",
      "$s4mainAZC",  "$s0Z",       "$s00999999abc",   "_T",                 "__TF",    "__TFC3foo",
      "__TTSg5",     "$sSg",       "$s3fooyyFTA_",    "$sBi99999999999_",   "$s$n",    "ObjCName",
      "_main",       "$sx_Tg5",    "$s4main3fooyySiFAa10000000A",
      // Conformance lists, macro, differentiation and Swift 3 specialization
      // operators missing their operands or their end.
      "$sSiHC",      "$sSiyHCg_",  "$s1a1PHPHX",      "$sfMf_",             "$s4mainfMp_", "$s3fooyyFTJpSpS",
      "$s3fooyyFWJrSp", "__TTSf4g_",  "__TTSf1cl99_TFoo_n___TF3foo3barFT_T_", "__TTSf1cpse9v3abc___TF3foo3barFT_T_",
      "__TTSg5Si___", "$sSD5IndexVy__GD",
  };
  for (const char* name : names) {
    EXPECT_FALSE(demangle(name, Form::Full)) << name;
    EXPECT_FALSE(demangle(name, Form::Simplified)) << name;
  }
  // Types nested past the printing depth (each 'Sg' wraps an Optional).
  std::string optionals = "$sSi";
  for (int i = 0; i < 2000; ++i) optionals += "Sg";
  optionals += "D";
  EXPECT_FALSE(demangle(deep));
  EXPECT_FALSE(demangle(nested));
  EXPECT_FALSE(demangle(optionals, Form::Full));
  EXPECT_FALSE(demangle(optionals));
}

TEST(SwiftRobustness, PrefixTestAcceptsEveryGeneration) {
  for (const char* name : {"$s4main", "_$s4main", "$S4main", "_T04main", "__T04main", "_TF4main", "$e4main"})
    EXPECT_TRUE(isSwiftMangledName(name)) << name;
  for (const char* name : {"_main", "_ZN3foo3barEv", "-[NSObject init]", ""}) EXPECT_FALSE(isSwiftMangledName(name)) << name;
}

}  // namespace
}  // namespace symlift::demangle::swift
