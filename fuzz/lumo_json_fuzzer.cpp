// Arbitrary bytes as a Lumo project's app-identifier file: the JSON reader
// that takes "OMVARA_APP_ID" from it, and the trimming of white space and
// line breaks applied to the value.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <unistd.h>

#include "cli/app_id.h"
#include "console/console_log.h"

namespace {

// One file per process, rewritten for every input and removed at exit.
class InputFile {
 public:
  InputFile() {
    const char* folder = std::getenv("TMPDIR");
    path_ = std::string(folder && *folder ? folder : "/tmp") + "/symlift-lumo-fuzz.XXXXXX";
    int fd = mkstemp(path_.data());
    if (fd < 0) std::abort();
    close(fd);
  }
  ~InputFile() { std::remove(path_.c_str()); }
  const std::string& write(std::string_view bytes) {
    std::FILE* file = std::fopen(path_.c_str(), "wb");
    if (!file) std::abort();
    if (!bytes.empty() && std::fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size()) std::abort();
    if (std::fclose(file) != 0) std::abort();
    return path_;
  }

 private:
  std::string path_;
};

bool isTrimmedSliceOf(const std::string& trimmed, std::string_view text) {
  return text.find(trimmed) != std::string_view::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace symlift::cli;
  using namespace symlift::console;
  static InputFile input;
  // The error lines the reader prints for bad files are not what is tested.
  SYLLogging::sharedInstance().setLogLevel(kLogLevelError + 1);

  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  auto appID = appIDFromLumoProject(input.write(bytes));
  // Trimming twice changes nothing; the result is a piece of the original.
  if (appID && trimWhitespaceAndNewlines(*appID) != *appID) std::abort();

  const std::string trimmed = trimWhitespaceAndNewlines(bytes);
  if (!isTrimmedSliceOf(trimmed, bytes)) std::abort();
  if (trimWhitespaceAndNewlines(trimmed) != trimmed) std::abort();
  return 0;
}
