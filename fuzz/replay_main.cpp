// A main() for the fuzz targets without libFuzzer: runs LLVMFuzzerTestOneInput
// on every regular file of the folders (or files) given, in name order. Any
// crash, sanitizer report or abort ends the process abnormally; an input that
// takes longer than SYMLIFT_REPLAY_TIMEOUT seconds (default 60) counts as a
// hang. Replaying nothing at all is a failure: a moved or renamed corpus
// folder must not pass quietly.

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <unistd.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::vector<std::filesystem::path> inputsOf(const std::filesystem::path& where) {
  std::vector<std::filesystem::path> inputs;
  std::error_code error;
  if (std::filesystem::is_regular_file(where, error)) {
    inputs.push_back(where);
  } else if (std::filesystem::is_directory(where, error)) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(where, error))
      if (entry.is_regular_file(error)) inputs.push_back(entry.path());
    std::sort(inputs.begin(), inputs.end());
  }
  return inputs;
}

unsigned timeoutSeconds() {
  const char* text = std::getenv("SYMLIFT_REPLAY_TIMEOUT");
  if (!text || !*text) return 60;
  long value = std::strtol(text, nullptr, 10);
  return value > 0 ? static_cast<unsigned>(value) : 60;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s <folder or file>...\n", argv[0]);
    return 2;
  }
  const unsigned timeout = timeoutSeconds();
  std::size_t replayed = 0;
  for (int i = 1; i < argc; ++i) {
    const auto inputs = inputsOf(argv[i]);
    if (inputs.empty()) {
      std::fprintf(stderr, "error: no inputs in %s\n", argv[i]);
      return 1;
    }
    for (const auto& path : inputs) {
      std::ifstream file(path, std::ios::binary);
      if (!file) {
        std::fprintf(stderr, "error: cannot read %s\n", path.c_str());
        return 1;
      }
      std::vector<char> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
      // Named before it runs, so that a crash or a hang shows which input.
      std::printf("replaying %s (%zu bytes)\n", path.c_str(), bytes.size());
      std::fflush(stdout);
      // A copy of exactly the input's size, so that a read past its end is
      // seen by AddressSanitizer.
      std::vector<std::uint8_t> input(bytes.begin(), bytes.end());
      alarm(timeout);  // SIGALRM's default action ends the process
      static std::uint8_t none = 0;  // libFuzzer never passes a null pointer
      LLVMFuzzerTestOneInput(input.empty() ? &none : input.data(), input.size());
      alarm(0);
      ++replayed;
    }
  }
  std::printf("replayed %zu inputs\n", replayed);
  return 0;
}
