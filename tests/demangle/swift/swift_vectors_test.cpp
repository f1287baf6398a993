// Swift's published demangler vectors through the full form: exact matches
// counted per mangling generation, mismatches listed by the construct that
// ends the name, and minimum match rates enforced.

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "demangle/swift/swift_demangler.h"

namespace symlift::demangle::swift {
namespace {

struct Vector {
  std::string mangled;
  std::string expected;
};

std::vector<Vector> readVectors() {
  std::vector<Vector> vectors;
  std::ifstream file(SYMLIFT_SWIFT_VECTORS);
  std::string line;
  while (std::getline(file, line)) {
    std::size_t arrow = line.find(" ---> ");
    if (arrow == std::string::npos) continue;
    Vector v{line.substr(0, arrow), line.substr(arrow + 6)};
    while (!v.mangled.empty() && v.mangled.back() == ' ') v.mangled.pop_back();
    // "{T:…}" and "{C}" belong to another of Swift's tools.
    if (!v.expected.empty() && v.expected[0] == '{') {
      std::size_t close = v.expected.find("} ");
      if (close != std::string::npos) v.expected.erase(0, close + 2);
    }
    vectors.push_back(v);
  }
  return vectors;
}

bool isOldGeneration(const std::string& name) {
  std::string_view n = name;
  if (n.substr(0, 2) == "__") n.remove_prefix(1);
  return n.substr(0, 2) == "_T" && n.substr(0, 3) != "_T0";
}

// A rough name for what kind of symbol a vector is: its last operator.
std::string kindOf(const std::string& name) {
  std::size_t end = name.find('.');
  std::string_view body = std::string_view(name).substr(0, end);
  return std::string(body.substr(body.size() > 3 ? body.size() - 3 : 0));
}

TEST(SwiftVectors, FullFormMatchesSwiftsOwnDemangler) {
  std::vector<Vector> vectors = readVectors();
  ASSERT_GT(vectors.size(), 400u) << "vector file missing or unreadable: " << SYMLIFT_SWIFT_VECTORS;
  unsigned total[2] = {0, 0}, matched[2] = {0, 0};
  std::map<std::string, std::vector<const Vector*>> mismatches;
  std::map<const Vector*, std::string> got;
  for (const Vector& v : vectors) {
    int generation = isOldGeneration(v.mangled) ? 1 : 0;
    ++total[generation];
    std::optional<std::string> text = demangle(v.mangled, Form::Full);
    bool ok = text ? *text == v.expected : v.expected == v.mangled;
    if (ok) {
      ++matched[generation];
    } else {
      mismatches[kindOf(v.mangled)].push_back(&v);
      got[&v] = text ? *text : "(nothing)";
    }
  }
  for (const auto& [kind, list] : mismatches) {
    std::printf("mismatches ending in %s: %zu\n", kind.c_str(), list.size());
    for (const Vector* v : list)
      std::printf("  %s\n    expected %s\n    got      %s\n", v->mangled.c_str(), v->expected.c_str(), got[v].c_str());
  }
  std::printf("modern: %u of %u (%.1f %%), old: %u of %u (%.1f %%)\n", matched[0], total[0],
              100.0 * matched[0] / total[0], matched[1], total[1], 100.0 * matched[1] / total[1]);
  EXPECT_GE(matched[0] * 100.0, 97.0 * total[0]);
  EXPECT_GE(matched[1] * 100.0, 80.0 * total[1]);
}

}  // namespace
}  // namespace symlift::demangle::swift
