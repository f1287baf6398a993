#include "symbols/dwarf/mapped_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>

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

void MappedFile::release(Bytes range) const {
  const auto begin = reinterpret_cast<std::uintptr_t>(address_);
  const auto first = reinterpret_cast<std::uintptr_t>(range.data());
  if (range.empty() || first < begin || first + range.size() > begin + size_) return;
  const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  const std::uintptr_t from = (first + page - 1) / page * page;
  const std::uintptr_t to = (first + range.size()) / page * page;
  // A private, read-only file mapping: dropped pages come back from the file.
  if (to > from) ::madvise(reinterpret_cast<void*>(from), to - from, MADV_DONTNEED);
}

MappedFile::~MappedFile() {
  if (address_) ::munmap(address_, size_);
}

}  // namespace symlift::symbols::dwarf
