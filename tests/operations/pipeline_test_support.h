#pragma once
// Shared pieces of the pipeline tests: a private temporary directory per
// test (the generator and the gzip step write there), containers for the
// fixture dSYMs, and gzip decoding.

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "dsym/code_mapping.h"
#include "dsym/code_mapping_info_container.h"
#include "support/scoped_environment.h"
#include "support/test_support.h"

namespace symlift::testing {

// Points TMPDIR at a fresh folder for the object's lifetime.
class ScopedTemporaryDirectory {
 public:
  const std::filesystem::path& path() const { return dir_.path(); }
  // The names of the regular files in it, sorted (helpers of the test may
  // keep folders there).
  std::vector<std::string> fileNames() const;

 private:
  TempDir dir_;
  ScopedEnvironment tmpdir_{"TMPDIR", dir_.str()};
};

// A container for the DWARF file of a bundle, as path expansion makes it.
std::shared_ptr<dsym::SUPCodeMappingInfoContainer> containerForBundle(const std::filesystem::path& bundle,
                                                                      const std::string& dwarfName,
                                                                      bool convertOnly,
                                                                      const std::string& appId = "1:7:ios:ab");

// The decoded bytes of a gzip stream; nothing when it is not a complete one.
std::optional<std::string> gunzip(const std::string& bytes);

}  // namespace symlift::testing
