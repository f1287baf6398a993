#include "buildenv/build_environment.h"
#include "macho/macho_binary.h"

namespace symlift::buildenv {

std::shared_ptr<macho::SUPMachOBinary> builtExecutable(const Environment& environment) {
  auto productsDir = environment.find("BUILT_PRODUCTS_DIR");
  auto executablePath = environment.find("EXECUTABLE_PATH");
  if (productsDir == environment.end() || executablePath == environment.end()) return nullptr;
  // Joined as path components: exactly one separator between the two.
  std::string path = productsDir->second;
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  std::string relative = executablePath->second;
  std::size_t first = relative.find_first_not_of('/');
  relative = first == std::string::npos ? std::string() : relative.substr(first);
  if (!relative.empty()) path = (path == "/" ? path : path + "/") + relative;
  return macho::SUPMachOBinary::MachOBinaryWithPath(path);
}

}  // namespace symlift::buildenv
