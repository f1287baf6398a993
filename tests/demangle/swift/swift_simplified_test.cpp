// The simplified form (as crash reports show Swift frames) of real names
// from the shared corpus, checked by hand; and the common frame shapes of an
// app, spelled from the grammar.

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "demangle/swift/swift_demangler.h"

namespace symlift::demangle::swift {
namespace {

struct Row {
  std::string mangled;
  std::string expected;
};

TEST(SwiftSimplified, CorpusNamesPrintAsCrashReportsShowThem) {
  std::ifstream file(SYMLIFT_SWIFT_SIMPLIFIED_TABLE);
  std::vector<Row> rows;
  std::string line;
  while (std::getline(file, line)) {
    std::size_t arrow = line.find(" ---> ");
    if (line.empty() || line[0] == '#' || arrow == std::string::npos) continue;
    rows.push_back({line.substr(0, arrow), line.substr(arrow + 6)});
  }
  ASSERT_GE(rows.size(), 40u) << "table missing or short: " << SYMLIFT_SWIFT_SIMPLIFIED_TABLE;
  for (const Row& row : rows) EXPECT_EQ(demangle(row.mangled).value_or("(nothing)"), row.expected) << row.mangled;
}

TEST(SwiftSimplified, AppFrames) {
  const Row rows[] = {
      {"$s5MyApp14ViewControllerC11viewDidLoadyyF", "ViewController.viewDidLoad()"},
      {"$s5MyApp14ViewControllerC11viewDidLoadyyFTo", "@objc ViewController.viewDidLoad()"},
      {"$s5MyApp11AppDelegateC11application_29didFinishLaunchingWithOptionsSbSo13UIApplicationC_"
       "SDySo29UIApplicationLaunchOptionsKeyVypGSgtF",
       "AppDelegate.application(_:didFinishLaunchingWithOptions:)"},
      {"$s5MyApp11ContentViewV4bodyQrvgyycfU_", "closure #1 in ContentView.body.getter"},
      {"$s5MyApp13CrashingClassC5crashyyFZ", "static CrashingClass.crash()"},
      // The same through the extra underscore of a Mach-O symbol table.
      {"_$s5MyApp13CrashingClassC5crashyyFZ", "static CrashingClass.crash()"},
      // Top-level async code: its entry point has no prefix; a resumption
      // shows as the function itself.
      {"_async_MainTQ0_", "async main entry point"},
  };
  for (const Row& row : rows) EXPECT_EQ(demangle(row.mangled).value_or("(nothing)"), row.expected) << row.mangled;
}

}  // namespace
}  // namespace symlift::demangle::swift
