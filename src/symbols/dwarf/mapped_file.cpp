#include "symbols/dwarf/mapped_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace symlift::symbols::dwarf {

std::shared_ptr<MappedFile> MappedFile::open(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return nullptr;
  struct stat info {};
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    ::close(fd);
    return nullptr;
  }
  auto size = static_cast<std::size_t>(info.st_size);
  void* address = nullptr;
  if (size > 0) {
    address = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
    if (address == MAP_FAILED) {
      ::close(fd);
      return nullptr;
    }
  }
  ::close(fd);  // the mapping keeps the file alive
  return std::make_shared<MappedFile>(Key{}, address, size);
}

MappedFile::~MappedFile() {
  if (address_) ::munmap(address_, size_);
}

}  // namespace symlift::symbols::dwarf
